#include "utils/colorscheme.h"

#include "platform/ve_rl.h"

namespace
{

colorscheme_colors colorscheme = {
    .prompt = {220, 78, 100},
    .autocomplete = {50, 100, 55},
    .hint = {120, 100, 55},
};

} // namespace

const colorscheme_colors &kest_colorscheme_get()
{
    return colorscheme;
}

void kest_colorscheme_set(const colorscheme_colors &scheme)
{
    colorscheme = scheme;
    ve_rl_set_colors(scheme.prompt, scheme.hint, scheme.autocomplete);
}
