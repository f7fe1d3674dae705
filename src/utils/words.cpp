#include "utils/words.h"

#include <cstring>
#include <string>

#include "platform/ve_json.h"

namespace
{

/// The white space of the C locale, whatever the locale in force.
bool is_space(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

/// The scan of one text.
class splitter
{
public:
    splitter() : words_(json_array()) {}

    /// Handles one character; true when it ended a word or began a comment.
    bool take(char c)
    {
        if (comment_) {
            take_comment(c);
            return false;
        }
        if (escaped_) {
            escaped_ = false;
            if (c == '\'' || c == '"' || c == '\\' || c == '#') {
                word_ += c;
                return false;
            }
            word_ += '\\';
        }
        if (quote_ != 0)
            return take_quoted(c);
        switch (c) {
        case '#':
            flush();
            comment_ = true;
            return true;
        case '\'':
        case '"':
            quote_ = c;
            return false;
        case '\\':
            escaped_ = true;
            return false;
        default:
            break;
        }
        if (is_space(c))
            return flush();
        word_ += c;
        return false;
    }

    /// The words, or null when one of them is no text.
    json_t *finish()
    {
        if (escaped_)
            word_ += '\\';
        flush();
        return failed_ ? nullptr : words_.release();
    }

private:
    void take_comment(char c)
    {
        if (c == '\\') {
            escaped_ = true;
        } else if (c == '\n') {
            comment_ = escaped_;
            escaped_ = false;
        }
    }

    bool take_quoted(char c)
    {
        if (c == quote_)
            quote_ = 0;
        else if (c == '\\')
            escaped_ = true;
        else
            word_ += c;
        return false;
    }

    /// True when there was a word to flush.
    bool flush()
    {
        if (word_.empty())
            return false;
        if (json_array_append_new(words_.get(), json_stringn(word_.data(), word_.size())) != 0)
            failed_ = true;
        word_.clear();
        return true;
    }

    json_ref words_;
    std::string word_;
    char quote_ = 0; // the open quote character
    bool escaped_ = false;
    bool comment_ = false;
    bool failed_ = false;
};

} // namespace

json_t *str_split(const char *text, long position, size_t *word_index)
{
    if (text == nullptr)
        return nullptr;
    const bool counting = position >= 0 && word_index != nullptr;
    if (counting)
        *word_index = 0;
    const char *end = text + (counting ? position : 0);
    splitter words;
    for (const char *at = text; *at != '\0'; ++at)
        if (words.take(*at) && counting && at < end)
            ++*word_index;
    return words.finish();
}

int line_completed(const char *text)
{
    if (text == nullptr || *text == '\0')
        return 1;
    char quote = 0;
    bool escaped = false; // an odd run of backslashes stands right before
    for (const char *at = text; *at != '\0'; ++at) {
        if ((*at == '\'' || *at == '"') && !escaped) {
            if (quote == 0)
                quote = *at;
            else if (quote == *at)
                quote = 0;
        }
        escaped = *at == '\\' && !escaped;
    }
    return quote == 0 && !escaped ? 1 : 0;
}
