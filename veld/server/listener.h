// The sockets on which clients arrive.
#pragma once

#include "base/endpoint.h"
#include "base/fd.h"
#include "veld/server/connection.h"

#include <functional>
#include <optional>
#include <string>
#include <sys/types.h>

namespace veld
{

/// What a newly accepted client brings.
struct arrival {
    fd_owner fd;
    std::string peer;
    std::optional<peer_identity> identity;
};

/// Who may connect to a socket file.
struct socket_rights {
    mode_t mode = 0666;
    std::optional<gid_t> group = {}; ///< without: the daemon's own
};

/// A listening socket, on a path or on an address ("tcp://HOST:PORT"). Opened and closed as the device comes and goes.
class listener
{
public:
    using accept_handler = std::function<void(arrival)>;

    /// A socket that is opened at `address`; `rights` are those of its file, where it has one.
    listener(loop &events, std::string address, socket_rights rights, accept_handler call);
    /// A socket that somebody else has opened, listening.
    listener(loop &events, fd_owner opened, accept_handler call);
    listener(const listener &) = delete;
    listener &operator=(const listener &) = delete;
    ~listener();

    /// Returns false when it cannot listen there; `*error` then says why.
    bool open(std::string *error);
    void close();
    /// From now on closing leaves the socket where it is, and turns clients away: it could not be opened again.
    void keep() { kept_ = true; }
    /// The address with the port that the system chose, where one was asked for.
    const std::string &address() const { return address_; }
    bool is_open() const { return fd_ && !turning_away_; }
    int fd() const { return fd_.get(); }
    bool is_tcp() const { return address_.starts_with(tcp_scheme); }

private:
    bool watch(std::string *error);
    void remove();
    bool take_place(std::string *error);
    bool open_unix(std::string *error);
    bool open_tcp(std::string *error);
    void arrived();

    loop &loop_;
    std::string address_;
    socket_rights rights_;
    std::optional<host_address> own_; // of a TCP socket: looked up once
    accept_handler call_;
    fd_owner fd_;
    loop::watch_id watch_ = 0;
    fd_owner place_;   // the lock on the socket's place, held for as long as this listener lives
    fd_owner reserve_; // given up for a moment when descriptors run out, so that clients can be turned away
    bool bound_ = false;
    bool kept_ = false;
    bool turning_away_ = false;
    uint64_t device_ = 0; // of the socket file that is ours
    uint64_t inode_ = 0;
};

} // namespace veld
