// Texts from elsewhere in a form that is safe to show: what would steer a terminal, hide, or turn the text around is
// written as an escape.
#pragma once

#include <string>
#include <string_view>

/// Whether a character stands for itself when it is shown. Controls (C0, DEL, C1), joiners, directional marks,
/// overrides and isolates, variation selectors, fillers and whatever else has no shape of its own do not.
bool is_visible(char32_t code);

/// The escape of a character: \x1b below U+0080, \u009b, \U000e0001.
std::string escape_of(char32_t code);
/// The escape of a byte that is not UTF-8: \xff.
std::string escape_of_byte(unsigned char byte);

/// `text` with escapes for all that is not visible, but for the ASCII characters in `kept` ("\t\n" for a text of
/// several lines).
std::string visible(std::string_view text, std::string_view kept = {});
