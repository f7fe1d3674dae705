// Wait points: the only places where SIGINT is delivered. Everywhere else the main thread keeps it blocked, and every
// other thread blocks it from its creation. Its handler notes the key (ve_wait_note_interrupt) and so ends the wait;
// code leaves by returning.
#pragma once

#include <poll.h>

#include <cstdint>

/// Blocks SIGINT in the calling thread and so in all threads it creates. Called once, first thing in main().
void ve_wait_init();

/// A point in time for the waits below, in milliseconds of CLOCK_MONOTONIC; never nearer than `timeout_ms`, less than a
/// millisecond farther. 0 is now; negative means never.
int64_t ve_wait_deadline(int timeout_ms);

/// Waits until a descriptor of `fds` is ready (its `revents` say how) or `deadline` (of ve_wait_deadline, -1 never) has
/// passed. Returns the number of ready descriptors, 0 at the deadline, -1 when the wait was interrupted: Ctrl-C was
/// noted (ve_wait_note_interrupt) or the companion abandoned it. Other signals do not end the wait. On the main thread
/// SIGINT is delivered here, and only here; a thread that is not the main thread waits with its own mask.
int ve_wait_poll(pollfd *fds, unsigned count, int64_t deadline);

/// Sleeps, no shorter than that. Returns 0, or -1 when interrupted as above. A wait point like ve_wait_poll.
int ve_wait_sleep_ms(int milliseconds);

/// Delivers a pending SIGINT now (without waiting): what computes for long calls it now and then.
void ve_wait_checkpoint();

/// Notes Ctrl-C (async-signal-safe, for its handler): the wait under way and every later one return -1 until
/// ve_wait_clear_interrupt().
void ve_wait_note_interrupt();
bool ve_wait_interrupted();
void ve_wait_clear_interrupt();
/// Notes that the program is to end (async-signal-safe): an interrupt that is never cleared.
void ve_wait_note_end();
bool ve_wait_ended();

/// For the loops of what computes for long: says in every round whether Ctrl-C was noted, and looks for it in some.
class ve_wait_loop
{
public:
    bool interrupted()
    {
        if (++rounds_ % rounds_per_look == 0)
            ve_wait_checkpoint();
        return ve_wait_interrupted();
    }

private:
    static constexpr unsigned rounds_per_look = 4096;
    unsigned rounds_ = 0;
};

/// Removes a SIGINT that is still pending for this thread (one that came too late for its command).
void ve_wait_discard_sigint();

/// Somebody who wants to be served while the main thread waits for something else: the line editor, whose callbacks may
/// ask the daemon. Its descriptors are polled along with every wait of the main thread.
class ve_wait_companion
{
public:
    /// Stores at most 4 descriptors to poll into `fds` and returns how many.
    virtual unsigned watch(pollfd *fds) = 0;
    /// Some of them became ready. True abandons the wait (the wait returns -1).
    virtual bool serve(const pollfd *fds, unsigned count) = 0;

protected:
    ~ve_wait_companion() = default;
};
/// Sets the companion (borrowed; null for none). Main thread only.
void ve_wait_set_companion(ve_wait_companion *companion);
