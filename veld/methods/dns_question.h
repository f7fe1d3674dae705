// One question to one name server: over UDP, and over TCP where the answer was cut off. c-ares carries it.
#pragma once

#include "base/endpoint.h"
#include "veld/methods/dns_message.h"

#include <ares.h>
#include <functional>
#include <memory>
#include <optional>
#include <poll.h>
#include <string>
#include <vector>

namespace veld
{

/// Never waits and reads no file; whoever owns it says when to go on, when to ask once more and when to give up.
class dns_question
{
public:
    /// Which of epoll's events to wait for on a descriptor from now on; 0: it is about to be closed. False where that
    /// is not possible.
    using watcher = std::function<bool(int fd, uint32_t events)>;

    /// `interface`: the one that the question has to leave by; empty for any.
    dns_question(std::string name, dns_type type, const host_address &server, std::string interface, watcher watch);
    dns_question(const dns_question &) = delete;
    dns_question &operator=(const dns_question &) = delete;
    ~dns_question();

    dns_type type() const { return type_; }
    /// Sends the question; what was asked before may still be answered.
    void ask();
    /// Takes what has come.
    void proceed();
    const std::optional<dns_answer> &answer() const { return answer_; }
    /// The server cannot be asked, or said that nobody listens there.
    bool unreachable() const { return unreachable_; }
    /// The interface cannot be used.
    bool no_interface() const { return no_interface_; }

private:
    struct functions; // the sockets, as c-ares asks for them

    static void answered(void *me, int status, int timeouts, unsigned char *bytes, int size);
    static void socket_state(void *me, int fd, int readable, int writable);
    bool carries_answer(const void *bytes, size_t size) const;
    bool is_stream(int fd) const;
    void serve_ready();

    std::string name_;
    dns_type type_;
    host_address server_;
    std::string interface_;
    watcher watch_;
    std::optional<dns_answer> answer_;
    bool unreachable_ = false;
    bool no_interface_ = false;
    int datagrams_left_ = 0; // that may be looked at before the others have their turn
    std::vector<int> streams_;
    std::vector<pollfd> watched_;
    ares_channel channel_ = nullptr;
};

} // namespace veld
