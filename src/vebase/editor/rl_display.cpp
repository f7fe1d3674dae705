// The small displays: lists, the progress bar, the spinner, the terminal's echo.
#include "platform/ve_rl.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <termios.h>
#include <unistd.h>
#include <vector>

#include "platform/ve_colors.h"
#include "platform/ve_out.h"
#include "platform/ve_wait.h"
#include "vebase/editor/rl_columns.h"
#include "vebase/editor/rl_modes.h"
#include "vebase/editor/rl_screen.h"
#include "vebase/editor/rl_text.h"

void ve_rl_show_list(const json_t *names)
{
    const size_t count = json_array_size(names);
    if (!ve_out_is_terminal()) {
        for (size_t i = 0; i < count; ++i) {
            const json_t *name = json_array_get(names, i);
            ve_out_write(json_string_value(name), json_string_length(name));
            ve_out_write("\n", 1);
            if (ve_out_relieve() < 0)
                break;
        }
        return;
    }
    rl_set_locale();
    std::vector<std::string> shown;
    shown.reserve(count);
    for (size_t i = 0; i < count; ++i)
        if (const char *name = json_string_value(json_array_get(names, i)))
            shown.push_back(rl_visible(ve_visible(name)));
    const rl_columns columns{std::move(shown), rl_terminal_size().columns};
    std::string out;
    for (size_t row = 0; row < columns.rows(); ++row) {
        columns.append_row(row, out);
        out += '\n';
    }
    ve_out_write(out.data(), out.size());
}

size_t ve_rl_width(std::string_view text)
{
    const auto is_plain = [](char byte) { return byte >= ' ' && byte <= '~'; };
    if (std::all_of(text.begin(), text.end(), is_plain))
        return text.size();
    rl_set_locale();
    return rl_width(ve_visible(text));
}

namespace
{

constexpr int bar_min = 5;         // cells of the bar itself; without room for them there is none
constexpr int interrupt_width = 2; // the terminal shows a Ctrl-C as "^C" behind the bar

std::string bar_text(int percent, const std::string &label, int width)
{
    char number[16];
    snprintf(number, sizeof number, " %3d%%", percent);
    std::string text = rl_visible(label) + number;
    const int left = width - 1 - static_cast<int>(rl_width(text));
    const int room = left - 3 - interrupt_width;
    if (room >= bar_min) {
        const int done = room * percent / 100;
        text += " [" + std::string(static_cast<size_t>(done), '#') +
                std::string(static_cast<size_t>(room - done), ' ') + "]";
    } else if (left < 0) {
        // The percentage is what matters.
        text = std::string{number}.substr(1);
    }
    return text;
}

} // namespace

void ve_rl_draw_progressbar(int percent, const char *label)
{
    static int shown_tenth = -1;
    static std::string shown_label;
    percent = std::clamp(percent, 0, 100);
    if (ve_out_is_terminal()) {
        rl_set_locale();
        const std::string bar = bar_text(percent, label, rl_terminal_size().columns);
        ve_printf("\r%s%s", bar.c_str(), ve_colors_known() ? "\033[K" : "");
        ve_out_flush();
        return;
    }
    const int tenth = percent / 10;
    if (tenth < shown_tenth || shown_label != label)
        shown_tenth = -1;
    if (tenth == shown_tenth)
        return;
    shown_tenth = tenth;
    shown_label = label;
    ve_printf("%s %d%%\n", label, tenth * 10);
    ve_out_flush();
}

void ve_rl_draw_circle_progress(const char *text)
{
    static std::atomic<unsigned> turn{0};
    // Elsewhere a run that ends while it waits would leave its unfinished row in front of somebody else's.
    if (!ve_out_is_terminal())
        return;
    const bool begun = ve_out_unfinished_row().find(text) != std::string::npos;
    const char picture = "|/-\\"[turn++ % 4];
    if (begun) {
        const char again[] = {'\b', picture};
        ve_out_draw(again, sizeof again);
    } else {
        const std::string first = std::string{text} + picture;
        ve_out_direct(first.data(), first.size());
    }
}

namespace
{

// A terminal whose echo is off, for the signal handlers that bring it back.
volatile sig_atomic_t silent_fd = -1;
const char *silent_question = ""; // set before the handlers are
termios loud;
constexpr int ending_signals[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGTSTP};
struct sigaction before_silence[std::size(ending_signals)];

void set_silent(int fd)
{
    termios silent = loud;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    tcsetattr(fd, TCSANOW, &silent);
}

void restore_and_raise(int signal)
{
    struct sigaction standard = {};
    standard.sa_handler = SIG_DFL;
    tcsetattr(silent_fd, TCSANOW, &loud);
    struct sigaction own;
    sigaction(signal, &standard, &own);
    sigset_t only;
    sigset_t mask;
    sigemptyset(&only);
    sigaddset(&only, signal);
    pthread_sigmask(SIG_UNBLOCK, &only, &mask);
    raise(signal);
    // Only a stopped program comes back.
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    sigaction(signal, &own, nullptr);
    if (ve_wait_ended()) {
        silent_fd = -1; // it was only woken to end: the terminal is loud, and somebody else's
        return;
    }
    set_silent(silent_fd);
    // What was typed before is gone; the question stands far above.
    [[maybe_unused]] const ssize_t ignored = write(silent_fd, silent_question, strlen(silent_question));
}

} // namespace

int ve_rl_echo_off(int fd, const char *question)
{
    if (silent_fd >= 0)
        ve_rl_echo_on(silent_fd);
    rl_await_terminal(fd);
    if (tcgetattr(fd, &loud) < 0)
        return -1;
    silent_fd = fd;
    silent_question = question;
    struct sigaction action = {};
    action.sa_handler = restore_and_raise;
    action.sa_flags = SA_RESTART;
    for (size_t i = 0; i < std::size(ending_signals); ++i) {
        sigaction(ending_signals[i], nullptr, &before_silence[i]);
        // A handler that somebody set notes the signal; who asked for silence then ends it.
        if (before_silence[i].sa_handler == SIG_DFL)
            sigaction(ending_signals[i], &action, nullptr);
    }
    set_silent(fd);
    return 0;
}

int ve_rl_echo_on(int fd)
{
    if (silent_fd != fd)
        return isatty(fd) != 0 ? 0 : -1;
    const int result = tcsetattr(fd, TCSANOW, &loud);
    for (size_t i = 0; i < std::size(ending_signals); ++i)
        if (before_silence[i].sa_handler == SIG_DFL)
            sigaction(ending_signals[i], &before_silence[i], nullptr);
    silent_fd = -1;
    return result;
}
