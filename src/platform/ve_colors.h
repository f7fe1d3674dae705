// Terminal colours. Everything here writes into the main thread's output (ve_out.h), and nothing when that is no
// terminal. Main thread only.
#pragma once

#include <cstdint>
#include <string>

/// A colour: hue in degrees, saturation and value in percent. Any number is accepted: the hue is taken modulo 360, the
/// others are clamped to 100.
struct hsv_color {
    uint16_t hue;
    uint8_t saturation;
    uint8_t value;
    bool operator==(const hsv_color &) const = default;
};

/// Colour 1 errors, 2 success, 3 instance numbers.
void ve_colors_set(int index);
void ve_colors_set_hsv2(const hsv_color &color);
void ve_colors_reset();

/// Whether the terminal knows escape sequences: TERM names one, and no "dumb" one. Does not look at the output.
bool ve_colors_known();
/// The escape sequence that selects `color` on this terminal: 24-bit where the terminal says so (COLORTERM), else the
/// nearest of 256 or 16 (TERM); empty on a terminal without colours. Does not look at the output.
std::string ve_colors_sequence(const hsv_color &color);
