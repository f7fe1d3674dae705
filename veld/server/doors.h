// All the sockets of the daemon, which open and close together as the device comes and goes.
#pragma once

#include "veld/server/listener.h"

#include <memory>
#include <vector>

namespace veld
{

class doors
{
public:
    doors(loop &events, socket_rights rights, listener::accept_handler call)
        : loop_(events), rights_(rights), call_(std::move(call))
    {
    }

    void add(const std::string &address)
    {
        listeners_.push_back(std::make_unique<listener>(loop_, address, rights_, call_));
    }
    /// A listening socket that somebody else has opened.
    void add(fd_owner opened) { listeners_.push_back(std::make_unique<listener>(loop_, std::move(opened), call_)); }
    /// The daemon has given up its rights: what is open now could not be opened again.
    void keep()
    {
        for (const auto &one : listeners_)
            one->keep();
    }
    /// Opens all of them; false at the first that cannot be opened.
    bool open(std::string *error);
    /// Opens those that are closed, as long as it takes: somebody may hold the address for a moment.
    void reopen();
    void close();
    const std::vector<std::unique_ptr<listener>> &listeners() const { return listeners_; }

private:
    loop &loop_;
    socket_rights rights_;
    listener::accept_handler call_;
    std::vector<std::unique_ptr<listener>> listeners_;
    loop::timer_id retry_ = 0;
};

} // namespace veld
