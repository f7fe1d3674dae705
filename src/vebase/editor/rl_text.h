// The characters of UTF-8 text as the screen shows them. Needs rl_set_locale().
#pragma once

#include <string>
#include <string_view>

#include "base/utf8.h"

/// Makes sure that the character functions know UTF-8: the user's LC_CTYPE, else C.UTF-8. Done once.
void rl_set_locale();

/// How one character is shown, or one byte that is none.
struct rl_shown {
    std::string bytes;
    int width = 0;        ///< cells
    bool spelled = false; ///< an escape such as ^X or \u009b: every byte is a cell of its own
};
/// Tabs and line feeds are the caller's.
rl_shown rl_show(const utf8_step &character);
/// Its code point as an escape.
rl_shown rl_spell(const utf8_step &character);

/// `text` with everything that is no plain character in its shown form, line feeds and tabs too.
std::string rl_visible(std::string_view text);
/// Cells that a text without line feeds and tabs takes.
size_t rl_width(std::string_view text);
