#include "platform/ve_words.h"

#include <algorithm>
#include <utility>

#include "base/utf8.h"

namespace
{

bool is_escapable(char c)
{
    return c == '\'' || c == '"' || c == '\\' || c == '#';
}

/// One pass over a line.
class word_reader
{
public:
    explicit word_reader(bool comments) : comments_(comments) {}

    void take(char c)
    {
        const size_t at = line_.size++;
        if (line_.comment) {
            take_comment(c);
            return;
        }
        if (std::exchange(line_.escaped, false)) {
            keep(is_escapable(c) ? c : '\\', at - 1);
            if (is_escapable(c))
                return;
        }
        if (c == '\\') {
            line_.escaped = true;
        } else if (line_.quote != 0 ? c == line_.quote : c == '\'' || c == '"') {
            line_.quote = line_.quote != 0 ? '\0' : c;
        } else if (line_.quote == 0 && (ve_words_is_blank(c) || (c == '#' && comments_))) {
            end_word();
            line_.comment = c == '#';
        } else {
            keep(c, at);
        }
    }

    ve_words finish()
    {
        if (line_.escaped) // in a comment, too
            keep('\\', line_.size - 1);
        line_.index = line_.words.size();
        if (!word_.empty())
            line_.words.push_back(std::move(word_));
        return std::move(line_);
    }

private:
    /// A backslash anywhere in a comment carries it over the next line feed.
    void take_comment(char c)
    {
        if (c == '\\')
            line_.escaped = true;
        else if (c == '\n')
            line_.comment = std::exchange(line_.escaped, false);
    }

    void keep(char c, size_t at)
    {
        word_ += c;
        line_.places.push_back(at);
    }

    void end_word()
    {
        if (!word_.empty())
            line_.words.push_back(std::exchange(word_, {}));
        line_.places.clear();
    }

    const bool comments_;
    ve_words line_;
    std::string word_; // the current one
};

ve_words read(std::string_view line, bool comments)
{
    word_reader reader(comments);
    for (const char c : line)
        reader.take(c);
    return reader.finish();
}

} // namespace

std::string_view ve_words::current_from(size_t place) const
{
    return current().substr(std::lower_bound(places.begin(), places.end(), place) - places.begin());
}

bool ve_words_are_utf8(std::span<const std::string> words)
{
    return std::all_of(words.begin(), words.end(), utf8_valid);
}

ve_words ve_words_read(std::string_view line)
{
    return read(line, true);
}

bool ve_words_complete(std::string_view line)
{
    const ve_words words = read(line, false);
    return words.quote == 0 && !words.escaped;
}

std::string ve_words_quote(std::string_view text, char quote, bool whole)
{
    std::string out;
    const bool opens = quote == 0 && std::any_of(text.begin(), text.end(), ve_words_is_blank);
    if (opens)
        out += quote = '"';
    for (const char c : text) {
        if (c == '\\' || (quote != 0 ? c == quote : is_escapable(c)))
            out += '\\';
        out += c;
    }
    if (opens && whole)
        out += quote;
    return out;
}
