#include <algorithm>
#include <cstring>

#include "dispatch/table.h"
#include "platform/ve_colors.h"
#include "platform/ve_out.h"
#include "utils/colorscheme.h"

int process_help(const char *, command_args)
{
    const auto has_help = [](const cmd_entry &entry) { return entry.usage != nullptr && entry.description != nullptr; };
    size_t width = 0;
    for (const cmd_entry &entry : cmd_rows())
        if (has_help(entry))
            width = std::max(width, strlen(entry.usage));
    if (width == 0) {
        ve_puts("No available help. Please refer to #15692");
        return 0;
    }
    for (const cmd_entry &entry : cmd_rows()) {
        if (!has_help(entry))
            continue;
        ve_colors_set_hsv2(kest_colorscheme_get().autocomplete);
        ve_printf("%-*s", static_cast<int>(width), entry.usage);
        ve_colors_reset();
        ve_printf(" - %s\n", entry.description);
    }
    return 0;
}
