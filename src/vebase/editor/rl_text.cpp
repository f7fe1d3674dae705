#include "vebase/editor/rl_text.h"

#include <clocale>
#include <cstring>
#include <cwchar>
#include <langinfo.h>

#include "base/visible.h"

namespace
{

rl_shown spelled(std::string escape)
{
    const auto width = static_cast<int>(escape.size());
    return {std::move(escape), width, true};
}

} // namespace

void rl_set_locale()
{
    static bool done = false;
    if (done)
        return;
    done = true;
    if (setlocale(LC_CTYPE, "") == nullptr || strcmp(nl_langinfo(CODESET), "UTF-8") != 0)
        setlocale(LC_CTYPE, "C.UTF-8");
}

rl_shown rl_spell(const utf8_step &character)
{
    return spelled(escape_of(character.code));
}

rl_shown rl_show(const utf8_step &character)
{
    const char32_t code = character.code;
    if (!character.well_formed)
        return spelled(escape_of_byte(static_cast<unsigned char>(code)));
    if (code < 0x20 || code == 0x7f)
        return spelled({'^', static_cast<char>(code ^ 0x40)});
    const int width = code < 0x7f ? 1 : is_visible(code) ? wcwidth(static_cast<wchar_t>(code)) : -1;
    if (width < 0)
        return rl_spell(character);
    rl_shown shown{{}, width, false};
    utf8_append(&shown.bytes, code);
    return shown;
}

std::string rl_visible(std::string_view text)
{
    std::string out;
    for (; !text.empty(); text.remove_prefix(utf8_first(text).size))
        out += rl_show(utf8_first(text)).bytes;
    return out;
}

size_t rl_width(std::string_view text)
{
    size_t width = 0;
    for (; !text.empty(); text.remove_prefix(utf8_first(text).size))
        width += static_cast<size_t>(rl_show(utf8_first(text)).width);
    return width;
}
