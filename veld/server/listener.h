// The sockets on which clients arrive.
#pragma once

#include "base/endpoint.h"
#include "base/fd.h"
#include "veld/server/connection.h"

#include <functional>
#include <optional>
#include <string>

namespace veld
{

/// What a newly accepted client brings.
struct arrival {
    fd_owner fd;
    std::string peer;
    std::optional<peer_identity> identity;
};

/// A listening socket, on a path or on an address ("tcp://HOST:PORT"). Opened and closed as the device comes and goes.
class listener
{
public:
    using accept_handler = std::function<void(arrival)>;

    listener(loop &events, std::string address, accept_handler call);
    listener(const listener &) = delete;
    listener &operator=(const listener &) = delete;
    ~listener();

    /// Returns false when it cannot listen there; `*error` then says why.
    bool open(std::string *error);
    void close();
    /// The address with the port that the system chose, where one was asked for.
    const std::string &address() const { return address_; }
    bool is_open() const { return static_cast<bool>(fd_); }
    bool is_tcp() const { return address_.starts_with(tcp_scheme); }

private:
    bool take_place(std::string *error);
    bool open_unix(std::string *error);
    bool open_tcp(std::string *error);
    void arrived();

    loop &loop_;
    std::string address_;
    accept_handler call_;
    fd_owner fd_;
    fd_owner place_;   // the lock on the socket's place, held for as long as this listener lives
    fd_owner reserve_; // given up for a moment when descriptors run out, so that clients can be turned away
    bool bound_ = false;
    uint64_t device_ = 0; // of the socket file that is ours
    uint64_t inode_ = 0;
};

} // namespace veld
