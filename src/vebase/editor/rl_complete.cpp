#include "vebase/editor/rl_complete.h"

#include <algorithm>
#include <cstring>

#include "base/utf8.h"
#include "platform/ve_words.h"

std::string_view rl_last_word(std::string_view line)
{
    while (!line.empty() && ve_words_is_blank(line.back()))
        line.remove_suffix(1);
    const ve_words words = ve_words_read(line);
    // Behind an apostrophe and in a comment blanks end words, whatever the quotes say.
    const bool grouped = words.quote == 0 && !words.comment && !words.current().empty();
    size_t start = grouped ? words.place(0) : line.size();
    while (start > 0 && !ve_words_is_blank(line[start - 1]))
        --start;
    return line.substr(start);
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
    return common.substr(0, utf8_cut(candidates.front(), common.size()));
}

rl_replacement rl_merge(std::string_view line, size_t start, size_t cursor,
                        const std::vector<std::string_view> &candidates, bool verbatim)
{
    rl_replacement result;
    if (candidates.empty() || start > cursor || cursor > line.size())
        return result;
    const std::string_view typed = line.substr(start, cursor - start);
    const std::string_view text = candidates.size() == 1 ? candidates.front() : rl_common_beginning(candidates);
    // A recording, or a file of lines, would have more lines of it than were typed.
    if (text.find('\n') != std::string_view::npos)
        return result;
    const ve_words words = ve_words_read(line.substr(0, cursor));
    const std::string_view plain = verbatim ? typed : words.current_from(start);
    if (candidates.size() > 1 && (text.size() <= plain.size() || !text.starts_with(plain)))
        return result;
    if (verbatim) {
        result.text = text;
    } else {
        // Quotes that were opened within what is replaced are opened again, and what may go on keeps its quote open.
        const char before = ve_words_read(line.substr(0, start)).quote;
        if (before == 0 && words.quote != 0)
            result.text += words.quote;
        const bool whole = candidates.size() == 1 && strchr("./=", text.back()) == nullptr;
        result.text += ve_words_quote(text, before != 0 ? before : words.quote, whole);
    }
    result.changes = result.text != typed;
    return result;
}
