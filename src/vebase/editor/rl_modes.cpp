#include "vebase/editor/rl_modes.h"

#include <csignal>
#include <cstdlib>
#include <unistd.h>

#include "platform/ve_out.h"

namespace
{

constexpr char paste_marked[] = "\033[?2004h"; // a paste comes with marks around it
constexpr char paste_bare[] = "\033[?2004l";

// For those who end the program in the middle of a read.
volatile sig_atomic_t in_read = 0;
termios before_read;
bool known = false; // before_read was asked of the terminal
struct sigaction before_abort;

void restore_modes()
{
    if (known)
        tcsetattr(STDIN_FILENO, TCSANOW, &before_read);
}

void restore()
{
    if (in_read == 0)
        return;
    in_read = 0;
    restore_modes();
    // Perhaps nobody is there to see it.
    [[maybe_unused]] ssize_t ignored = write(STDOUT_FILENO, paste_bare, sizeof paste_bare - 1);
    ignored = write(STDOUT_FILENO, "\n", 1);
}

} // namespace

void rl_await_terminal(int fd)
{
    const pid_t front = tcgetpgrp(fd);
    // The system stops whoever asks for that. It fails where nobody could bring the program to the front.
    if (front >= 0 && front != getpgrp())
        tcdrain(fd);
}

void rl_modes::begin()
{
    static const int registered = atexit(restore);
    (void)registered;
    rl_await_terminal(STDIN_FILENO);
    known = tcgetattr(STDIN_FILENO, &before_read) == 0 || known; // what was known stays when it is not told again
    original_ = before_read;
    struct sigaction abandon = {};
    abandon.sa_handler = [](int) { restore(); }; // a failed assertion in a callback
    abandon.sa_flags = static_cast<int>(SA_RESETHAND);
    sigaction(SIGABRT, &abandon, &before_abort);
    in_read = 1;
    set(0);
    ve_out_draw(paste_marked, sizeof paste_marked - 1);
}

void rl_modes::end()
{
    if (in_read == 0)
        return;
    in_read = 0;
    restore_modes();
    ve_out_draw(paste_bare, sizeof paste_bare - 1);
    sigaction(SIGABRT, &before_abort, nullptr);
}

void rl_modes::make_ctrl_c(ctrl_c meaning)
{
    // With the terminal's input its output is emptied too, so not while something is being drawn.
    set(meaning == ctrl_c::key ? 0 : meaning == ctrl_c::signal ? ISIG | NOFLSH : ISIG);
}

/// `local`: of the flags that make keys mean something to the terminal itself, those to be on.
void rl_modes::set(tcflag_t local)
{
    if (!known)
        return;
    termios modes = original_;
    // Ctrl-S and Ctrl-Q are keys; what stays for the next reader has its line feeds.
    modes.c_iflag &= ~static_cast<tcflag_t>(INLCR | IGNCR | IXON | IXOFF);
    modes.c_oflag |= OPOST | ONLCR;
    modes.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO | ECHONL | ISIG | IEXTEN | NOFLSH);
    modes.c_lflag |= local;
    modes.c_cc[VMIN] = 1;
    modes.c_cc[VTIME] = 0;
    modes.c_cc[VQUIT] = _POSIX_VDISABLE;
    modes.c_cc[VSUSP] = _POSIX_VDISABLE;
    tcsetattr(STDIN_FILENO, TCSANOW, &modes);
}

bool rl_modes::is_control_key(unsigned char byte, unsigned index) const
{
    return byte == original_.c_cc[index] && original_.c_cc[index] != _POSIX_VDISABLE;
}
