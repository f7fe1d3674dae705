// The end of a session from outside. Main thread only.
#pragma once

/// While it lives, SIGHUP and SIGTERM end what runs as Ctrl-C does, but for good, and the run with it (is_running()):
/// the session is left by its ordinary ways and saves what it has to save. Then, with the guard, the program ends by
/// the signal. What cannot be left within some seconds ends at once. A signal that is ignored stays ignored, and a
/// guard inside another does nothing.
class session_guard
{
public:
    session_guard();
    ~session_guard();
    session_guard(const session_guard &) = delete;
    session_guard &operator=(const session_guard &) = delete;

private:
    const bool guards_;
};
