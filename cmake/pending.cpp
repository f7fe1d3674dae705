// Plain stand-ins until the line editor and the history are linked; weak, so that the real ones win.
#include <cstdio>
#include <cstdlib>

#include "platform/ve_history.h"
#include "platform/ve_out.h"
#include "platform/ve_rl.h"

#define PENDING __attribute__((weak))
static bool ended;
PENDING void ve_history_add(const char *) {}
PENDING void ve_history_clear() {}
PENDING int ve_history_dump(const char *, int)
{
    return 0;
}
PENDING const char *ve_history_get(size_t)
{
    return nullptr;
}
PENDING int ve_history_load(const char *)
{
    return 0;
}
PENDING void ve_history_mark() {}
PENDING size_t ve_history_size()
{
    return 0;
}
PENDING char *ve_rl(const char *, int)
{
    ve_out_flush();
    char *line = nullptr;
    size_t size = 0;
    ssize_t n = getline(&line, &size, stdin);
    ended = n < 0;
    if (n > 0 && line[n - 1] == '\n')
        line[n - 1] = 0;
    if (ended) {
        free(line);
        line = nullptr;
    }
    return line;
}
PENDING bool ve_rl_ctrld_is_pressed()
{
    return ended;
}
PENDING void ve_rl_draw_circle_progress(const char *) {}
PENDING void ve_rl_draw_progressbar(int, const char *) {}
PENDING int ve_rl_echo_off(int)
{
    return 0;
}
PENDING int ve_rl_echo_on(int)
{
    return 0;
}
PENDING void ve_rl_set_autocomplete_cb(ve_rl_autocomplete_cb) {}
PENDING void ve_rl_set_hint_cb(ve_rl_hint_cb) {}
PENDING void ve_rl_set_colors(const hsv_color &, const hsv_color &, const hsv_color &) {}
PENDING void ve_rl_set_completion_start(size_t) {}
PENDING void ve_rl_set_control_fd(int) {}
PENDING void ve_rl_show_list(const json_t *names)
{
    size_t i;
    json_t *v;
    json_array_foreach(names, i, v) ve_puts(json_string_value(v));
}
PENDING void ve_rl_write_control_char(int, unsigned) {}
