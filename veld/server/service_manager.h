// What a service manager and a daemon tell each other through the environment: readiness, a watchdog, sockets that were
// opened for the daemon. Without such an environment nothing happens.
#pragma once

#include "veld/base/loop.h"

#include <string>
#include <vector>

namespace veld
{

/// Reads the environment once, at the start, and takes it out of it, so that no child hears of it.
class service_manager
{
public:
    explicit service_manager(loop &events);
    service_manager(const service_manager &) = delete;
    service_manager &operator=(const service_manager &) = delete;

    /// Clients can connect; from here on the watchdog hears that the loop goes round.
    void ready();
    void reloading();
    void stopping();
    /// The listening sockets that were handed over; they are the caller's then.
    std::vector<fd_owner> take_sockets() { return std::move(sockets_); }

private:
    void tell(const std::string &state) const;
    void feed();

    loop &loop_;
    std::string place_; // of the manager's socket; empty: there is none
    int64_t watchdog_ms_ = 0;
    bool fed_ = false;
    std::vector<fd_owner> sockets_;
};

} // namespace veld
