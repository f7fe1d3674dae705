// Finding the address of a host without waiting for it: the system's own resolver, in a thread of its own.
#pragma once

#include "base/fd.h"

#include <sys/socket.h>

#include <memory>
#include <string>
#include <vector>

namespace veld
{

struct host_address {
    sockaddr_storage bytes = {};
    socklen_t length = 0;
};

/// The text of an address, without its port.
std::string address_text(const host_address &address);

/// The address that `text` spells in digits, in the family given (AF_UNSPEC: either). False when it is a name.
bool parse_address(const std::string &text, int family, host_address *address);

/// One look-up. A resolver that hangs outlives the object that asked for it, and its answer is then thrown away.
class name_lookup
{
public:
    /// Starts to look `host` up; null when no more look-ups may run at once.
    static std::unique_ptr<name_lookup> start(const std::string &host, int family);
    name_lookup(const name_lookup &) = delete;
    name_lookup &operator=(const name_lookup &) = delete;
    ~name_lookup();

    /// Readable when the look-up has ended.
    int fd() const;
    bool ended() const;
    /// What was found, in the order of preference; empty when the name is not known.
    std::vector<host_address> found() const;

private:
    struct shared;
    explicit name_lookup(std::shared_ptr<shared> state);
    static void run(std::shared_ptr<shared> of);

    std::shared_ptr<shared> state_;
};

} // namespace veld
