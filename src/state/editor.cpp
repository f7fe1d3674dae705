#include "state/editor.h"

#include "platform/ve_history.h"
#include "utils/colorscheme.h"

namespace
{

constexpr char history_file[] = "/tmp/.kest.hist";

ve_rl_autocomplete_cb autocomplete_callback = nullptr;
ve_rl_hint_cb hint_callback = nullptr;
bool prepared = false; // between kest_readline_prepare and kest_readline_cleanup: the history was loaded

} // namespace

void kest_readline_set_callbacks(ve_rl_autocomplete_cb autocomplete, ve_rl_hint_cb hint)
{
    autocomplete_callback = autocomplete;
    hint_callback = hint;
}

void kest_set_autocomplete(int on)
{
    ve_rl_set_autocomplete_cb(on != 0 ? autocomplete_callback : nullptr);
}

void kest_set_hint(int on)
{
    ve_rl_set_hint_cb(on != 0 ? hint_callback : nullptr);
}

void kest_readline_prepare()
{
    kest_colorscheme_set(kest_colorscheme_get());
    kest_set_autocomplete(1);
    kest_set_hint(1);
    ve_history_load(history_file);
    prepared = true;
}

void kest_readline_cleanup()
{
    kest_set_autocomplete(0);
    kest_set_hint(0);
    // Lua mode is entered without a shell too; a history that was never loaded must not replace the user's.
    if (prepared)
        ve_history_dump(history_file, -1);
    prepared = false;
}
