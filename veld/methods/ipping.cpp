// IPPing: echo requests over an unprivileged ICMP socket.
#include "base/clock.h"
#include "base/name_lookup.h"
#include "veld/methods/job.h"

#include <linux/errqueue.h>
#include <netinet/icmp6.h>
#include <netinet/in.h>
#include <netinet/ip_icmp.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

namespace veld
{

namespace
{

constexpr int64_t spacing_us = 100000; // between two requests at the least

// Both families' echo messages begin alike; the kernel fills in the checksum and the identifier.
struct echo_header {
    uint8_t type;
    uint8_t code;
    uint16_t checksum;
    uint16_t identifier;
    uint16_t sequence;
};
static_assert(sizeof(echo_header) == 8);

class ipping : public method_job
{
public:
    std::string host;
    std::string interface;
    int family = AF_UNSPEC;
    int64_t repetitions = 4;
    int64_t timeout_ms = 1000;
    size_t block_size = 64;
    int dscp = 0;

private:
    enum class phase { start, lookup, echo };

    void proceed() override;
    void find_host();
    void open_socket();
    void send_request();
    void receive();
    void take_reply(const char *bytes, size_t size);
    void take_errors();
    void count_failure();
    void next();
    void finish(const char *status);

    phase phase_ = phase::start;
    std::unique_ptr<name_lookup> lookup_;
    host_address target_;
    fd_owner socket_;
    std::vector<char> packet_;
    int64_t sent_at_ = 0;
    bool waiting_ = false; // for the answer to the request sent last
    bool no_route_ = false;
    int64_t sent_ = 0;
    int64_t failures_ = 0;
    std::vector<int64_t> times_us_;
};

void ipping::proceed()
{
    switch (phase_) {
    case phase::start:
        find_host();
        return;
    case phase::lookup:
        if (lookup_->ended()) {
            std::vector<host_address> found = lookup_->found();
            unwatch(lookup_->fd());
            if (found.empty())
                return finish("Error_CannotResolveHostName");
            target_ = found[0];
            open_socket();
        } else if (monotonic_us() - sent_at_ >= name_lookup_limit_ms * 1000) {
            finish("Error_CannotResolveHostName");
        }
        return;
    case phase::echo:
        receive();
        next();
    }
}

void ipping::find_host()
{
    if (address_parse(host, family, &target_))
        return open_socket();
    lookup_ = name_lookup::start(host, family, account());
    if (!lookup_)
        return fail(code::resources, "too many name look-ups are under way");
    phase_ = phase::lookup;
    sent_at_ = monotonic_us();
    if (!watch(lookup_->fd(), EPOLLIN))
        return fail(code::resources, std::string("cannot wait for the look-up: ") + strerror(errno));
    wake_in(name_lookup_limit_ms);
}

void ipping::open_socket()
{
    bool v6 = target_.bytes.ss_family == AF_INET6;
    socket_.reset(socket(target_.bytes.ss_family, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC,
                         v6 ? int{IPPROTO_ICMPV6} : int{IPPROTO_ICMP}));
    if (!socket_) {
        if (errno == EACCES || errno == EPERM)
            return fail(code::denied,
                        "the kernel does not let this daemon send ICMP echo requests (see net.ipv4.ping_group_range)");
        if (errno == EAFNOSUPPORT || errno == EPROTONOSUPPORT)
            return finish("Error_NoRouteToHost");
        return fail(code::internal, std::string("cannot open an ICMP socket: ") + strerror(errno));
    }
    if (!interface.empty() &&
        setsockopt(socket_.get(), SOL_SOCKET, SO_BINDTODEVICE, interface.c_str(), socklen_t(interface.size() + 1)) != 0)
        return fail(code::internal, "cannot use the interface " + interface + ": " + strerror(errno));
    int traffic_class = dscp << 2;
    int on = 1;
    if (v6) {
        setsockopt(socket_.get(), IPPROTO_IPV6, IPV6_TCLASS, &traffic_class, sizeof traffic_class);
        setsockopt(socket_.get(), IPPROTO_IPV6, IPV6_RECVERR, &on, sizeof on);
    } else {
        setsockopt(socket_.get(), IPPROTO_IP, IP_TOS, &traffic_class, sizeof traffic_class);
        setsockopt(socket_.get(), IPPROTO_IP, IP_RECVERR, &on, sizeof on);
    }
    packet_.resize(sizeof(echo_header) + block_size);
    for (size_t i = 0; i < block_size; i++)
        packet_[sizeof(echo_header) + i] = char(i);
    if (!watch(socket_.get(), EPOLLIN))
        return fail(code::internal, std::string("cannot wait for answers: ") + strerror(errno));
    phase_ = phase::echo;
    next();
}

// Sends the next request as soon as it may go, or ends the call after the last one.
void ipping::next()
{
    int64_t now = monotonic_us();
    if (waiting_ && now - sent_at_ < timeout_ms * 1000)
        return wake_in((timeout_ms * 1000 - (now - sent_at_) + 999) / 1000);
    if (waiting_)
        count_failure();
    if (sent_ == repetitions)
        return finish(times_us_.empty() && no_route_ ? "Error_NoRouteToHost" : "Complete");
    if (sent_ > 0 && now - sent_at_ < spacing_us)
        return wake_in((spacing_us - (now - sent_at_) + 999) / 1000);
    send_request();
}

void ipping::send_request()
{
    sent_++;
    echo_header header = {};
    header.type = target_.bytes.ss_family == AF_INET6 ? uint8_t{ICMP6_ECHO_REQUEST} : uint8_t{ICMP_ECHO};
    header.sequence = htons(uint16_t(sent_));
    memcpy(packet_.data(), &header, sizeof header);
    waiting_ = true;
    sent_at_ = monotonic_us();
    // A report on an earlier request makes the next send fail, once; that is no verdict on this one.
    for (int attempt = 0; attempt < 2; attempt++) {
        ssize_t sent = sendto(socket_.get(), packet_.data(), packet_.size(), MSG_NOSIGNAL,
                              reinterpret_cast<const sockaddr *>(&target_.bytes), target_.length);
        if (sent >= 0)
            return wake_in(timeout_ms);
    }
    no_route_ = no_route_ || errno == ENETUNREACH || errno == EHOSTUNREACH;
    count_failure();
    wake_in(spacing_us / 1000);
}

void ipping::receive()
{
    take_errors();
    std::vector<char> buffer(packet_.size() + 1);
    for (int i = 0; i < 64; i++) { // what is still there then wakes the loop again
        ssize_t got = recv(socket_.get(), buffer.data(), buffer.size(), 0);
        if (got >= 0)
            take_reply(buffer.data(), size_t(got));
        else if (errno != EINTR)
            break;
    }
}

void ipping::take_reply(const char *bytes, size_t size)
{
    echo_header header;
    if (size != packet_.size() || !waiting_)
        return;
    memcpy(&header, bytes, sizeof header);
    uint8_t reply = target_.bytes.ss_family == AF_INET6 ? uint8_t{ICMP6_ECHO_REPLY} : uint8_t{ICMP_ECHOREPLY};
    if (header.type != reply || header.sequence != htons(uint16_t(sent_)) ||
        memcmp(bytes + sizeof header, packet_.data() + sizeof header, block_size) != 0)
        return; // a late answer, or somebody else's
    waiting_ = false;
    times_us_.push_back(monotonic_us() - sent_at_);
}

// Routers and the own kernel report what cannot be delivered; the message that it happened to comes with it.
void ipping::take_errors()
{
    for (int i = 0; i < 64; i++) {
        char bytes[512];
        char control[512];
        iovec data = {bytes, sizeof bytes};
        msghdr message = {};
        message.msg_iov = &data;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        ssize_t got = recvmsg(socket_.get(), &message, MSG_ERRQUEUE);
        if (got < 0)
            return;
        echo_header header = {};
        memcpy(&header, bytes, std::min(size_t(got), sizeof header));
        for (cmsghdr *part = CMSG_FIRSTHDR(&message); part != nullptr; part = CMSG_NXTHDR(&message, part)) {
            bool is_error = (part->cmsg_level == IPPROTO_IP && part->cmsg_type == IP_RECVERR) ||
                            (part->cmsg_level == IPPROTO_IPV6 && part->cmsg_type == IPV6_RECVERR);
            if (!is_error || !waiting_ || header.sequence != htons(uint16_t(sent_)))
                continue;
            sock_extended_err error;
            memcpy(&error, CMSG_DATA(part), sizeof error);
            no_route_ = no_route_ || error.ee_errno == ENETUNREACH || error.ee_errno == EHOSTUNREACH;
            count_failure();
        }
    }
}

void ipping::count_failure()
{
    waiting_ = false;
    failures_++;
}

void ipping::finish(const char *status)
{
    int64_t sum = 0;
    for (int64_t time : times_us_)
        sum += time;
    int64_t average = times_us_.empty() ? 0 : sum / int64_t(times_us_.size());
    int64_t least = times_us_.empty() ? 0 : *std::min_element(times_us_.begin(), times_us_.end());
    int64_t most = times_us_.empty() ? 0 : *std::max_element(times_us_.begin(), times_us_.end());
    json_ref list(json_array());
    auto number = [&](const char *name, int64_t value) {
        add_output(list.get(), name, json_integer(std::min<int64_t>(value, UINT32_MAX)));
    };
    add_output(list.get(), "Status", json_string(status));
    add_output(list.get(), "IPAddressUsed", json_string(address_text(target_).c_str()));
    number("SuccessCount", int64_t(times_us_.size()));
    number("FailureCount", failures_);
    number("AverageResponseTime", (average + 500) / 1000);
    number("MinimumResponseTime", (least + 500) / 1000);
    number("MaximumResponseTime", (most + 500) / 1000);
    number("AverageResponseTimeDetailed", average);
    number("MinimumResponseTimeDetailed", least);
    number("MaximumResponseTimeDetailed", most);
    succeed(std::move(list));
}

} // namespace

std::unique_ptr<method_job> make_ipping(const method_call &call)
{
    auto job = std::make_unique<ipping>();
    job->host = call.text("Host");
    if (job->host.empty())
        return call.refuse("Host", "no host given");
    if (job->host.find('\0') != std::string::npos)
        return call.refuse("Host", "not the name or address of a host");
    if (!call.interface(&job->interface))
        return nullptr;
    std::string version = call.text("ProtocolVersion");
    job->family = version == "IPv4" ? AF_INET : version == "IPv6" ? AF_INET6 : AF_UNSPEC;
    job->repetitions = call.number("NumberOfRepetitions", 1, 100);
    job->timeout_ms = call.number("Timeout", 1, 10000);
    job->block_size = size_t(call.number("DataBlockSize", 1, 65000));
    job->dscp = int(call.number("DSCP", 0, 63));
    return job;
}

} // namespace veld
