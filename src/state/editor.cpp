#include "state/editor.h"

#include "utils/colorscheme.h"

namespace
{

constexpr char history_file[] = "/tmp/.kest.hist";

struct {
    line_callbacks shell; // filled by start-up
    line_callbacks now;   // of the lines that are read now, whether the options let them work or not
    bool autocomplete = true;
    bool hint = true;
    ve_history history;
} editor;

void install()
{
    ve_rl_set_autocomplete_cb(editor.autocomplete ? editor.now.autocomplete : nullptr);
    ve_rl_set_hint_cb(editor.hint ? editor.now.hint : nullptr);
}

} // namespace

void kest_readline_set_callbacks(const line_callbacks &shell)
{
    editor.shell = shell;
}

void kest_readline_use(const line_callbacks &callbacks, const ve_history *history)
{
    editor.now = callbacks;
    install();
    ve_rl_set_history(history);
}

void kest_set_autocomplete(int on)
{
    editor.autocomplete = on != 0;
    install();
}

void kest_set_hint(int on)
{
    editor.hint = on != 0;
    install();
}

void kest_readline_prepare()
{
    kest_colorscheme_set(kest_colorscheme_get());
    kest_readline_use(editor.shell, &editor.history);
    editor.history.load(history_file);
}

void kest_readline_cleanup()
{
    kest_readline_use({}, nullptr);
    editor.history.save(); // nothing where Lua mode was entered without a shell
}

ve_history &shell_history()
{
    return editor.history;
}
