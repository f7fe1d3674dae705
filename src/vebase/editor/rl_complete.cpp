#include "vebase/editor/rl_complete.h"

#include <algorithm>
#include <cstring>

namespace
{

bool is_blank(char c)
{
    return c != '\0' && strchr(" \t\n\v\f\r", c) != nullptr;
}

bool is_escapable(char c)
{
    return c == '\'' || c == '"' || c == '\\' || c == '#';
}

/// Reads text as the word splitter does.
class word_scanner
{
public:
    explicit word_scanner(char quote) : quote_(quote) {}

    /// Takes a character; appends what it stands for to `plain` if that is given.
    void take(char c, std::string *plain)
    {
        const auto keep = [&](char kept) {
            if (plain != nullptr)
                plain->push_back(kept);
        };
        if (escape_) {
            escape_ = false;
            if (is_escapable(c)) {
                keep(c);
                return;
            }
            keep('\\');
        }
        if (c == '\\') {
            escape_ = true;
        } else if (quote_ != 0 && c == quote_) {
            quote_ = 0;
        } else if (quote_ == 0 && (c == '\'' || c == '"')) {
            quote_ = c;
        } else {
            keep(c);
        }
    }
    char quote() const { return quote_; }

private:
    char quote_;
    bool escape_ = false;
};

void append_quoted(std::string &out, std::string_view text, char quote)
{
    for (const char c : text) {
        if (c == quote || c == '\\')
            out.push_back('\\');
        out.push_back(c);
    }
}

/// `text` for a place with no open quote.
std::string quote_bare(std::string_view text, bool complete)
{
    std::string out;
    if (std::any_of(text.begin(), text.end(), is_blank)) {
        out.push_back('"');
        append_quoted(out, text, '"');
        // What may go on keeps its quote open.
        if (complete && strchr("./=", text.back()) == nullptr)
            out.push_back('"');
        return out;
    }
    for (const char c : text) {
        if (is_escapable(c))
            out.push_back('\\');
        out.push_back(c);
    }
    return out;
}

} // namespace

char rl_open_quote(std::string_view line, size_t offset)
{
    word_scanner scanner{0};
    for (size_t i = 0; i < std::min(offset, line.size()); ++i)
        scanner.take(line[i], nullptr);
    return scanner.quote();
}

std::string_view rl_common_beginning(const std::vector<std::string_view> &candidates)
{
    if (candidates.empty())
        return {};
    std::string_view common = candidates.front();
    for (const std::string_view other : candidates) {
        const size_t limit = std::min(common.size(), other.size());
        size_t same = 0;
        while (same < limit && common[same] == other[same])
            ++same;
        common = common.substr(0, same);
    }
    // Never half a character.
    const std::string_view first = candidates.front();
    size_t size = common.size();
    while (size > 0 && size < first.size() && (static_cast<unsigned char>(first[size]) & 0xc0) == 0x80)
        --size;
    return first.substr(0, size);
}

rl_replacement rl_merge(std::string_view line, size_t start, size_t cursor,
                        const std::vector<std::string_view> &candidates, bool verbatim)
{
    rl_replacement result;
    if (candidates.empty() || start > cursor || cursor > line.size())
        return result;
    const std::string_view typed = line.substr(start, cursor - start);
    const char quote_before = verbatim ? '\0' : rl_open_quote(line, start);
    word_scanner scanner{quote_before};
    std::string plain;
    for (const char c : typed)
        scanner.take(c, &plain);
    if (verbatim)
        plain = typed;

    const std::string_view text = candidates.size() == 1 ? candidates.front() : rl_common_beginning(candidates);
    if (candidates.size() > 1 && (text.size() <= plain.size() || !text.starts_with(plain)))
        return result;
    if (verbatim) {
        result.text = text;
    } else if (scanner.quote() != 0) {
        // Inside quotes; if they were opened within what is replaced, they are opened again.
        if (quote_before == 0)
            result.text.push_back(scanner.quote());
        append_quoted(result.text, text, scanner.quote());
    } else if (quote_before != 0) {
        append_quoted(result.text, text, quote_before);
    } else {
        result.text = quote_bare(text, candidates.size() == 1);
    }
    result.changes = result.text != typed;
    return result;
}
