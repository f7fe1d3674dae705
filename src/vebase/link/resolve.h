// Looking up a host name without being stuck in it: the look-up runs in a thread of its own, which the caller awaits
// at a wait point and may leave behind.
#pragma once

#include <netdb.h>

#include <cstdint>
#include <string>

class ve_resolve
{
public:
    /// Begins to look `host` and `port` up. A plain address is done at once.
    ve_resolve(const std::string &host, const std::string &port);
    ve_resolve(const ve_resolve &) = delete;
    ve_resolve &operator=(const ve_resolve &) = delete;
    /// A look-up still under way goes on by itself and is dropped.
    ~ve_resolve();

    /// Waits until the look-up is done, at most to `deadline` (ve_wait_deadline). Returns 1 when it is, 0 when time is
    /// up, -1 when interrupted. A wait point.
    int wait(int64_t deadline);
    /// What was found, in order of preference, owned here; null when nothing was (error() says why).
    const addrinfo *addresses() const;
    const char *error() const;

private:
    struct job;
    static void run(job *shared);
    static void drop(job *shared);
    job *job_;
};
