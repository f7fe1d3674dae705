// Finding the addresses of a host without waiting for it: the system's own resolver, in a thread of its own.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "base/endpoint.h"

/// How long whoever needs an address waits for it, in milliseconds.
constexpr int64_t name_lookup_limit_ms = 10000;

/// One look-up. A resolver that hangs outlives the object that asked for it, and its answer is then thrown away.
class name_lookup
{
public:
    /// Starts to look `host` up; null when no more look-ups may run at once, or no more for whoever `asker` names:
    /// those that nobody waits for any more count as long as they hang.
    static std::unique_ptr<name_lookup> start(const std::string &host, int family, const std::string &asker = {});
    name_lookup(const name_lookup &) = delete;
    name_lookup &operator=(const name_lookup &) = delete;
    ~name_lookup();

    /// Readable when the look-up has ended.
    int fd() const;
    bool ended() const;
    /// What was found, in the order of preference; empty when the name is not known.
    std::vector<host_address> found() const;
    /// Of a look-up that has ended: why nothing was found.
    const char *error() const;

private:
    struct shared;
    explicit name_lookup(std::shared_ptr<shared> state);
    static void run(std::shared_ptr<shared> of);

    std::shared_ptr<shared> state_;
};
