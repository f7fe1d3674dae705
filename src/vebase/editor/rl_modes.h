// The terminal's modes around a read. Main thread only.
#pragma once

#include <termios.h>

class rl_modes
{
public:
    /// Notes the modes as they are and makes every byte a key, Ctrl-C too. They come back with end(), and also when the
    /// program exits or aborts meanwhile.
    void begin();
    void end();
    /// While a callback runs and when a line has ended, Ctrl-C is a signal, and what is typed waits in the terminal.
    void let_interrupt(bool on);
    /// Whether `byte` is the terminal's control character `index` (VINTR, ...).
    bool is_control_key(unsigned char byte, unsigned index) const;

private:
    void set(tcflag_t local);

    termios original_{};
};
