#include "shell/word_place.h"

namespace
{

/// White space of the C locale, as the splitter knows it.
bool is_space(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

bool is_escapable(char c)
{
    return c == '\'' || c == '"' || c == '\\' || c == '#';
}

} // namespace

word_place find_last_word(std::string_view text)
{
    word_place place = {{}, text.size(), false};
    char quote = 0;
    bool escaped = false;
    for (size_t i = 0; i < text.size(); i++) {
        const char c = text[i];
        if (place.comment) {
            if (c == '\n') {
                place.comment = escaped;
                escaped = false;
            } else if (c == '\\') {
                escaped = true;
            }
            continue;
        }
        if (escaped) {
            escaped = false;
            place.bytes.push_back(i - 1); // the escaped character, or the backslash that escapes nothing
            if (is_escapable(c))
                continue;
        }
        if (c == '\\') {
            escaped = true;
        } else if (quote != 0 ? c == quote : c == '\'' || c == '"') {
            quote = quote != 0 ? 0 : c;
        } else if (quote == 0 && c == '#') {
            place.bytes.clear();
            place.comment = true;
        } else if (quote == 0 && is_space(c)) {
            place.bytes.clear();
        } else {
            place.bytes.push_back(i);
        }
    }
    if (escaped && !place.comment)
        place.bytes.push_back(text.size() - 1);
    return place;
}
