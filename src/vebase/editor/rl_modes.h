// The terminal's modes around a read. Main thread only.
#pragma once

#include <termios.h>

/// In the background, stops until the program is brought to the front: until then the terminal has the modes of
/// somebody else, which are none to come back to.
void rl_await_terminal(int fd);

class rl_modes
{
public:
    /// Notes the modes as they are and makes every byte a key, Ctrl-C too. They come back with end(), and also when the
    /// program exits or aborts meanwhile.
    void begin();
    /// Nothing where that has happened.
    void end();
    /// What Ctrl-C is: a key; a signal; while a callback runs, a signal that also empties the terminal of what was
    /// typed before it.
    enum class ctrl_c { key, signal, flushing_signal };
    void make_ctrl_c(ctrl_c meaning);
    /// Whether `byte` is the terminal's control character `index` (VINTR, ...).
    bool is_control_key(unsigned char byte, unsigned index) const;

private:
    void set(tcflag_t local);

    termios original_{};
};
