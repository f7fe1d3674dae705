// The colours of prompt, completion and hint. Written by kest_colorscheme_set alone.
#pragma once

#include "platform/ve_colors.h"

struct colorscheme_colors {
    hsv_color prompt;
    hsv_color autocomplete;
    hsv_color hint;
};

const colorscheme_colors &kest_colorscheme_get();
/// Also hands the colours to the line editor.
void kest_colorscheme_set(const colorscheme_colors &scheme);
