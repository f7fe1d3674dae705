// Ctrl-C while a command runs. Its handler notes the key (ve_wait_note_interrupt), no more: from then until the command
// has ended every wait returns at once, nothing is sent, and what is printed is dropped. Main thread only.
#pragma once

/// Gives Ctrl-C to the command that is about to run. False when it belongs to a command already, or when SIGINT is not
/// at its default and so somebody else's: the command must not run then.
bool interrupt_arm();
bool interrupt_is_armed();
/// When Ctrl-C was pressed since: brings output and terminal back, on a row of its own, and forgets the key. Returns
/// whether it was.
bool interrupt_land();
/// The command has ended: lands, takes Ctrl-C away from it and lets one that came too late go.
void interrupt_disarm();
/// Takes Ctrl-C away until the object ends, as Lua mode does, which gives it to its statements itself.
class interrupt_suspension
{
public:
    interrupt_suspension();
    ~interrupt_suspension();
    interrupt_suspension(const interrupt_suspension &) = delete;
    interrupt_suspension &operator=(const interrupt_suspension &) = delete;

private:
    void (*disposition_)(int);
};
