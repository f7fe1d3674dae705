// The methods as the daemon runs them: started, stepped whenever their descriptor is readable, ended by themselves.
#include "base/clock.h"
#include "veld/methods/methods.h"

#include "veld/methods/dns_message.h"
#include "veld/methods/dns_question.h"
#include "veld/methods/job.h"

#include <arpa/inet.h>
#include <cstddef>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

using namespace veld;

namespace
{

std::string no_text(std::string_view)
{
    return "";
}

json_ref parse(const char *text)
{
    return json_ref(json_loads(text, 0, nullptr));
}

const char *const ping_defaults =
    R"({"Interface":"","ProtocolVersion":"Any","Host":"127.0.0.1","NumberOfRepetitions":3,"Timeout":2000,)"
    R"("DataBlockSize":64,"DSCP":0})";
const char *const lookup_defaults =
    R"({"Interface":"","HostName":"host.example","DNSServer":"","Timeout":2000,"NumberOfRepetitions":1})";

// The same but for what `changes` says.
json_ref changed(json_ref input, const char *changes)
{
    EXPECT_EQ(json_object_update_new(input.get(), parse(changes).release()), 0) << changes;
    return input;
}

json_ref ping_input(const char *changes)
{
    return changed(parse(ping_defaults), changes);
}

// Lets the job run to its end, calling `meanwhile` every 5 ms. How long it may take is bounded, and so is how often it
// is woken.
job_outcome run(
    const char *name, const json_ref &input, const std::function<void()> &meanwhile = [] {},
    const std::function<std::string(std::string_view)> &text_of = no_text)
{
    loop events;
    job_outcome outcome;
    std::unique_ptr<method_job> job = method_start(name, input.get(), text_of, &outcome);
    if (!job)
        return outcome;
    bool over = false;
    int ticks = 0;
    const std::function<void()> tick = [&] {
        meanwhile();
        ++ticks;
        events.after(5, tick);
    };
    events.after(0, tick);
    events.after(60000, [&] {
        ADD_FAILURE() << "the job does not end";
        events.stop();
    });
    job->begin(events, [&](job_outcome &ended) {
        outcome = std::move(ended);
        over = true;
        events.stop();
    });
    if (!over)
        events.run();
    EXPECT_LT(events.round(), static_cast<uint64_t>(ticks) + 500) << "it is woken although there is nothing to do";
    return outcome;
}

const json_t *output(const job_outcome &of, const std::string &name)
{
    size_t i = 0;
    json_t *entry = nullptr;
    json_array_foreach(
        of.output.get(), i,
        entry) if (name == json_string_value(json_object_get(entry, "Name"))) return json_object_get(entry, "Value");
    return nullptr;
}

std::string text(const job_outcome &of, const std::string &name)
{
    const char *value = json_string_value(output(of, name));
    return value != nullptr ? value : "(none)";
}

json_int_t number(const job_outcome &of, const std::string &name)
{
    const json_t *value = output(of, name);
    return json_is_integer(value) ? json_integer_value(value) : -1;
}

bool raise_loopback()
{
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    ifreq request = {};
    strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP;
    bool up = ioctl(fd, SIOCSIFFLAGS, &request) == 0;
    close(fd);
    return up;
}

bool write_file(const char *path, const std::string &text)
{
    FILE *file = fopen(path, "w");
    return file != nullptr && fputs(text.c_str(), file) >= 0 && fclose(file) == 0;
}

// Of a process of its own: lets it alone see `text` as that file, where the kernel lets it.
bool see_as(const char *path, const std::string &text)
{
    char own[] = "/tmp/veld-seen-XXXXXX";
    const int fd = mkstemp(own);
    const bool seen = fd >= 0 && write_file(own, text) && unshare(CLONE_NEWNS) == 0 &&
                      mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                      mount(own, path, nullptr, MS_BIND, nullptr) == 0;
    close(fd);
    unlink(own);
    return seen;
}

// Runs `body` in a process of its own, in a network of its own whose loopback is up, as the kernel lets us; ICMP
// sockets are allowed there to everybody or to nobody. The process's failures are the test's.
void in_own_network(bool allow_icmp, const std::function<void()> &body)
{
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        bool apart = unshare(CLONE_NEWNET) == 0 || unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0;
        if (!apart || !write_file("/proc/sys/net/ipv4/ping_group_range", allow_icmp ? "0 65534" : "1 0"))
            _exit(77);
        if (!raise_loopback())
            _exit(77);
        body();
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status)) << "signal " << WTERMSIG(status);
    if (WEXITSTATUS(status) == 77)
        GTEST_SKIP() << "this machine gives no network of its own";
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

bool obey(const sock_fprog &program)
{
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

// From here on that call of this process fails, where the kernel lets it.
bool let_fail(unsigned call, unsigned problem)
{
    sock_filter code[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | problem),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    return obey({static_cast<unsigned short>(std::size(code)), code});
}

// From here on this process is on a kernel that was built without IPv6, where the kernel lets it.
bool forget_ipv6()
{
    constexpr uint32_t low_half = __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__ && sizeof(long) == 8 ? 4 : 0;
    sock_filter code[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_socket, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args) + low_half),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AF_INET6, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EAFNOSUPPORT),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    if (!obey({static_cast<unsigned short>(std::size(code)), code}))
        return false;
    return socket(AF_INET6, SOCK_DGRAM, 0) < 0 && errno == EAFNOSUPPORT;
}

sockaddr_in loopback(uint16_t port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

uint16_t checksum(const std::string &bytes)
{
    uint32_t sum = 0;
    for (size_t i = 0; i < bytes.size(); i += 2)
        sum += static_cast<uint32_t>(static_cast<unsigned char>(bytes[i]) << 8) +
               (i + 1 < bytes.size() ? static_cast<unsigned char>(bytes[i + 1]) : 0U);
    while (sum > 0xffff)
        sum = (sum & 0xffff) + (sum >> 16);
    return static_cast<uint16_t>(~sum);
}

// Stands for all hosts of a network of its own: it answers echo requests with what `reply` makes of them, messages of
// ICMP whose checksums need not be right. A request comes behind the header of its datagram.
class echo_host
{
public:
    using packets = std::vector<std::string>;

    explicit echo_host(std::function<packets(const std::string &datagram, const std::string &request)> reply)
        : reply_(std::move(reply)), fd_(socket(AF_INET, SOCK_RAW | SOCK_NONBLOCK, IPPROTO_ICMP))
    {
        if (fd_ < 0 || !write_file("/proc/sys/net/ipv4/icmp_echo_ignore_all", "1"))
            _exit(77);
    }
    ~echo_host() { close(fd_); }
    echo_host(const echo_host &) = delete;
    echo_host &operator=(const echo_host &) = delete;

    void serve()
    {
        char bytes[4096];
        const sockaddr_in to = loopback(0);
        for (ssize_t got; (got = recv(fd_, bytes, sizeof bytes, 0)) > 0;) {
            const std::string datagram(bytes, static_cast<size_t>(got));
            const std::string request = datagram.substr(static_cast<size_t>(bytes[0] & 15) * 4);
            if (request[0] != 8)
                continue;
            for (std::string packet : reply_(datagram, request)) {
                packet[2] = packet[3] = 0;
                const uint16_t sum = checksum(packet);
                packet[2] = static_cast<char>(sum >> 8);
                packet[3] = static_cast<char>(sum);
                EXPECT_GT(
                    sendto(fd_, packet.data(), packet.size(), 0, reinterpret_cast<const sockaddr *>(&to), sizeof to),
                    0);
            }
        }
    }
    static std::string answer_to(std::string request)
    {
        request[0] = 0;
        return request;
    }

private:
    std::function<packets(const std::string &, const std::string &)> reply_;
    int fd_;
};

// What was sent may take its time, on the loopback too.
void await_input(int fd)
{
    pollfd one{fd, POLLIN, 0};
    EXPECT_EQ(poll(&one, 1, 10000), 1);
}

// A name server on the loopback that answers each question with what `reply` makes of it; nothing when that is empty.
class name_server
{
public:
    // At that address, on the port where name servers are.
    name_server(const char *address, std::function<std::string(const std::string &)> reply) : reply_(std::move(reply))
    {
        sockaddr_in here = loopback(53);
        inet_pton(AF_INET, address, &here.sin_addr);
        udp_ = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
        EXPECT_EQ(bind(udp_, reinterpret_cast<sockaddr *>(&here), sizeof here), 0);
    }
    explicit name_server(std::function<std::string(const std::string &)> reply) : reply_(std::move(reply))
    {
        // A port that is free for datagrams may be taken for streams.
        for (int tries = 0; tries < 1000 && !listen_on_one_port(); tries++) {
            close(udp_);
            close(tcp_);
        }
    }
    ~name_server()
    {
        close(udp_);
        close(tcp_);
        for (int stream : streams_)
            close(stream);
    }
    name_server(const name_server &) = delete;
    name_server &operator=(const name_server &) = delete;

    std::string address() const { return "127.0.0.1:" + std::to_string(port_); }
    uint16_t port() const { return port_; }
    // To who asks, before what he is answered.
    void send_also(const std::string &bytes)
    {
        sendto(udp_, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr *>(&from_), sizeof from_);
    }
    std::function<std::string(const std::string &)> over_tcp;
    int asked = 0;

    // From now on nobody listens for streams, and nobody else can take the port.
    void deaf_to_streams()
    {
        close(tcp_);
        tcp_ = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
        const int on = 1;
        EXPECT_EQ(setsockopt(tcp_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on), 0);
        const sockaddr_in here = loopback(port_);
        EXPECT_EQ(bind(tcp_, reinterpret_cast<const sockaddr *>(&here), sizeof here), 0);
    }

    void await() const { await_input(udp_); }
    void serve()
    {
        char bytes[4096];
        sockaddr_in from;
        socklen_t length = sizeof from;
        for (ssize_t got;
             (got = recvfrom(udp_, bytes, sizeof bytes, 0, reinterpret_cast<sockaddr *>(&from), &length)) > 0;) {
            asked++;
            from_ = from;
            std::string answer = reply_(std::string(bytes, size_t(got)));
            if (!answer.empty())
                sendto(udp_, answer.data(), answer.size(), 0, reinterpret_cast<sockaddr *>(&from), length);
        }
        for (int stream; (stream = accept4(tcp_, nullptr, nullptr, SOCK_NONBLOCK)) >= 0;)
            streams_.push_back(stream);
        for (int stream : streams_)
            if (ssize_t got = recv(stream, bytes, sizeof bytes, 0); got > 2 && over_tcp) {
                std::string answer = over_tcp(std::string(bytes + 2, size_t(got) - 2));
                std::string framed = {char(answer.size() >> 8), char(answer.size())};
                framed += answer;
                // In two pieces, as a stream may bring it.
                EXPECT_EQ(send(stream, framed.data(), 1, 0), 1);
                EXPECT_EQ(send(stream, framed.data() + 1, framed.size() - 1, 0), ssize_t(framed.size() - 1));
            }
    }

private:
    bool listen_on_one_port()
    {
        udp_ = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
        tcp_ = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
        sockaddr_in here = loopback(0);
        socklen_t length = sizeof here;
        EXPECT_EQ(bind(udp_, reinterpret_cast<sockaddr *>(&here), length), 0);
        EXPECT_EQ(getsockname(udp_, reinterpret_cast<sockaddr *>(&here), &length), 0);
        port_ = ntohs(here.sin_port);
        return bind(tcp_, reinterpret_cast<sockaddr *>(&here), length) == 0 && listen(tcp_, 4) == 0;
    }

    std::function<std::string(const std::string &)> reply_;
    int udp_ = -1;
    int tcp_ = -1;
    uint16_t port_ = 0;
    sockaddr_in from_ = {};
    std::vector<int> streams_;
};

// --- answers, made from the question that they belong to ---

unsigned type_of(const std::string &question)
{
    size_t at = 12;
    while (question[at] != 0)
        at += static_cast<unsigned char>(question[at]) + 1U;
    return static_cast<unsigned char>(question[at + 2]);
}

std::string without_extras(const std::string &question)
{
    size_t at = 12;
    while (question[at] != 0)
        at += static_cast<unsigned char>(question[at]) + 1U;
    return question.substr(0, at + 5);
}

struct record {
    int type;
    std::string name; // compressed
    std::string data;
};

std::string answer_to(const std::string &question, const std::vector<record> &records, int code = 0, int flags = 0x84)
{
    std::string out = without_extras(question);
    out[2] = char(flags);
    out[3] = char(0x80 | code);
    out[7] = char(records.size());
    out[11] = 0; // no further records
    for (const record &each : records) {
        out += each.name;
        out += std::string({0, char(each.type), 0, 1, 0, 0, 0, 60, 0, char(each.data.size())});
        out += each.data;
    }
    return out;
}

const std::string asked_name = "\xc0\x0c";

json_ref lookup_input(const name_server &server, const char *name = "host.example")
{
    json_ref input = parse(lookup_defaults);
    json_object_set_new(input.get(), "HostName", json_string(name));
    json_object_set_new(input.get(), "DNSServer", json_string(server.address().c_str()));
    return input;
}

// What a look-up at that server comes to, with the defaults but for what `changes` says.
job_outcome looked_up(name_server &server, const char *changes = "{}")
{
    return run("NSLookup", changed(lookup_input(server), changes), [&] { server.serve(); });
}

} // namespace

TEST(Methods, AnUnknownOneIsNotSupported)
{
    job_outcome outcome = run("NoSuch", parse("{}"));
    EXPECT_EQ(outcome.problem.code, code::not_supported);
    EXPECT_FALSE(method_known("NoSuch"));
    EXPECT_TRUE(method_known("IPPing"));
    EXPECT_TRUE(method_known("NSLookup"));
}

// --- IPPing ---

TEST(IPPing, TheLoopbackAnswers)
{
    in_own_network(true, [] {
        job_outcome outcome = run("IPPing", parse(ping_defaults));
        EXPECT_FALSE(outcome.problem) << outcome.problem.message;
        EXPECT_EQ(text(outcome, "Status"), "Complete");
        EXPECT_EQ(text(outcome, "IPAddressUsed"), "127.0.0.1");
        EXPECT_EQ(number(outcome, "SuccessCount"), 3);
        EXPECT_EQ(number(outcome, "FailureCount"), 0);
        EXPECT_GT(number(outcome, "MinimumResponseTimeDetailed"), 0);
        EXPECT_LE(number(outcome, "MinimumResponseTimeDetailed"), number(outcome, "AverageResponseTimeDetailed"));
        EXPECT_LE(number(outcome, "AverageResponseTimeDetailed"), number(outcome, "MaximumResponseTimeDetailed"));
    });
}

TEST(IPPing, LargeBlocksNamesAndInterfacesWork)
{
    in_own_network(true, [] {
        const json_ref input = ping_input(R"({"Host":"localhost","ProtocolVersion":"IPv4","DataBlockSize":65000,
                                              "Interface":"Device.IP.Interface.1","DSCP":63})");
        std::string asked;
        job_outcome outcome = run(
            "IPPing", input, [] {},
            [&](std::string_view path) {
                asked = path;
                return std::string("lo");
            });
        EXPECT_FALSE(outcome.problem) << outcome.problem.message;
        EXPECT_EQ(number(outcome, "SuccessCount"), 3);
        EXPECT_EQ(asked, "Device.IP.Interface.1.Name");
    });
}

TEST(IPPing, TheLoopbackAnswersOverIpv6)
{
    in_own_network(true, [] {
        if (access("/proc/net/if_inet6", R_OK) != 0)
            _exit(77);
        const json_ref input = ping_input(R"({"Host":"::1"})");
        job_outcome outcome = run("IPPing", input);
        EXPECT_FALSE(outcome.problem) << outcome.problem.message;
        EXPECT_EQ(text(outcome, "Status"), "Complete");
        EXPECT_EQ(text(outcome, "IPAddressUsed"), "::1");
        EXPECT_EQ(number(outcome, "SuccessCount"), 3);
    });
}

TEST(IPPing, OnlyTheAnswerToTheLastRequestCounts)
{
    in_own_network(true, [] {
        echo_host host([](const std::string &, const std::string &request) {
            const std::string right = echo_host::answer_to(request);
            std::string other = right, late = right;
            other.back() = 'x';
            late[7] = static_cast<char>(late[7] - 1);
            return echo_host::packets{right.substr(0, right.size() - 1), other, late, right, right};
        });
        job_outcome outcome = run("IPPing", parse(ping_defaults), [&] { host.serve(); });
        EXPECT_EQ(text(outcome, "Status"), "Complete");
        EXPECT_EQ(number(outcome, "SuccessCount"), 3);
        EXPECT_EQ(number(outcome, "FailureCount"), 0);
    });
}

TEST(IPPing, WhatIsNotAnsweredInTimeHasFailed)
{
    in_own_network(true, [] {
        int requests = 0;
        echo_host host([&](const std::string &, const std::string &request) {
            return ++requests == 2 ? echo_host::packets{echo_host::answer_to(request)} : echo_host::packets{};
        });
        const json_ref input = ping_input(R"({"Timeout":200})");
        job_outcome outcome = run("IPPing", input, [&] { host.serve(); });
        EXPECT_EQ(text(outcome, "Status"), "Complete");
        EXPECT_EQ(number(outcome, "SuccessCount"), 1);
        EXPECT_EQ(number(outcome, "FailureCount"), 2);
    });
}

TEST(IPPing, WhatARouterReportsHasFailed)
{
    in_own_network(true, [] {
        const auto unreachable = [](const std::string &datagram) {
            return std::string("\3\1\0\0\0\0\0\0", 8) + datagram.substr(0, 64);
        };
        std::string first;
        echo_host host([&](const std::string &datagram, const std::string &request) {
            if (first.empty()) {
                first = datagram;
                return echo_host::packets{echo_host::answer_to(request)};
            }
            // One that is about another request changes nothing.
            return echo_host::packets{unreachable(first), unreachable(datagram)};
        });
        const json_ref input = ping_input(R"({"Timeout":10000})");
        job_outcome outcome = run("IPPing", input, [&] { host.serve(); });
        EXPECT_EQ(text(outcome, "Status"), "Complete");
        EXPECT_EQ(number(outcome, "SuccessCount"), 1);
        EXPECT_EQ(number(outcome, "FailureCount"), 2);
        outcome = run("IPPing", input, [&] { host.serve(); });
        EXPECT_EQ(text(outcome, "Status"), "Error_NoRouteToHost");
        EXPECT_EQ(number(outcome, "FailureCount"), 3);
    });
}

TEST(IPPing, AnInterfaceThatIsGoneIsSaidSo)
{
    in_own_network(true, [] {
        const json_ref input = ping_input(R"({"Interface":"Device.IP.Interface.1."})");
        job_outcome outcome = run(
            "IPPing", input, [] {}, [](std::string_view) { return std::string("gone0"); });
        EXPECT_EQ(outcome.problem.code, code::internal);
        EXPECT_EQ(outcome.problem.message, std::string("cannot use the interface gone0: ") + strerror(ENODEV));
    });
}

TEST(IPPing, WhereNoRouteLeadsNothingIsReached)
{
    in_own_network(true, [] {
        const json_ref input = ping_input(R"({"Host":"192.0.2.1"})");
        job_outcome outcome = run("IPPing", input);
        EXPECT_FALSE(outcome.problem) << outcome.problem.message;
        EXPECT_EQ(text(outcome, "Status"), "Error_NoRouteToHost");
        EXPECT_EQ(number(outcome, "SuccessCount"), 0);
        EXPECT_EQ(number(outcome, "FailureCount"), 3);
    });
}

TEST(IPPing, WhereTheKernelHasNoIpv6NoRouteLeadsThere)
{
    in_own_network(true, [] {
        if (!forget_ipv6())
            _exit(77);
        const json_ref input = ping_input(R"({"Host":"::1"})");
        job_outcome outcome = run("IPPing", input);
        EXPECT_FALSE(outcome.problem) << outcome.problem.message;
        EXPECT_EQ(text(outcome, "Status"), "Error_NoRouteToHost");
    });
}

TEST(IPPing, AKernelThatForbidsItIsAClearFault)
{
    in_own_network(false, [] {
        job_outcome outcome = run("IPPing", parse(ping_defaults));
        EXPECT_EQ(outcome.problem.code, code::denied);
        EXPECT_EQ(outcome.problem.message,
                  "the kernel does not let this daemon send ICMP echo requests (see net.ipv4.ping_group_range)");
    });
}

TEST(IPPing, AHostThatCannotBeResolvedIsSaidSo)
{
    const json_ref input = ping_input(R"({"Host":"no host at all"})");
    job_outcome outcome = run("IPPing", input);
    EXPECT_FALSE(outcome.problem) << outcome.problem.message;
    EXPECT_EQ(text(outcome, "Status"), "Error_CannotResolveHostName");
    EXPECT_EQ(text(outcome, "IPAddressUsed"), "");
    EXPECT_EQ(number(outcome, "SuccessCount"), 0);
}

TEST(IPPing, ALookUpThatIsNotWaitedForHurtsNobody)
{
    in_own_network(true, [] {
        if (!see_as("/etc/resolv.conf", "nameserver 127.0.0.1\n")) // where nobody is
            _exit(77);
        const json_ref input = ping_input(R"({"Host":"nobody.invalid"})");
        loop events;
        // Whether one more look-up could begin; it is given up at once.
        const auto begins = [&] {
            job_outcome outcome;
            std::unique_ptr<method_job> job = method_start("IPPing", input.get(), no_text, &outcome);
            if (job)
                job->begin(events, [&](job_outcome &ended) { outcome = std::move(ended); });
            if (outcome.problem) {
                EXPECT_EQ(outcome.problem.code, code::resources) << outcome.problem.message;
            }
            return !outcome.problem;
        };
        for (int i = 0; i < 40; i++)
            begins(); // perhaps all of them are still under way
        // When they are done there is room again.
        for (int i = 0; i < 1500; i++) {
            if (begins())
                return;
            usleep(20000);
        }
        ADD_FAILURE() << "the look-ups never end";
    });
}

TEST(IPPing, LookUpsThatHangAreTheirAskersOwn)
{
    in_own_network(true, [] {
        // A name server that never answers.
        const int silent = socket(AF_INET, SOCK_DGRAM, 0);
        const sockaddr_in here = loopback(53);
        if (!see_as("/etc/resolv.conf", "nameserver 127.0.0.1\n") ||
            bind(silent, reinterpret_cast<const sockaddr *>(&here), sizeof here) != 0)
            _exit(77);
        json_ref input = parse(ping_defaults);
        json_object_set_new(input.get(), "Host", json_string("host.example"));
        loop events;
        // Whether one more look-up could begin for them; it is given up at once.
        const auto begins = [&](const char *account) {
            job_outcome outcome;
            std::unique_ptr<method_job> job = method_start("IPPing", input.get(), no_text, &outcome);
            job->begin(
                events, [&](job_outcome &ended) { outcome = std::move(ended); }, account);
            EXPECT_TRUE(!outcome.problem || outcome.problem.code == code::resources) << outcome.problem.message;
            return !outcome.problem;
        };
        for (int i = 0; i < 16; i++)
            EXPECT_TRUE(begins("user one")) << i;
        EXPECT_FALSE(begins("user one"));
        EXPECT_TRUE(begins("user two"));
    });
}

TEST(IPPing, NoHostAndAnUnknownInterfaceAreRefused)
{
    json_ref input = ping_input(R"({"Host":""})");
    job_outcome outcome = run("IPPing", input);
    EXPECT_EQ(outcome.problem.code, code::bad_arguments);
    EXPECT_EQ(outcome.problem.message, "Host: no host given");
    EXPECT_STREQ(json_string_value(json_object_get(parse(outcome.problem.data.c_str()).get(), "Host")),
                 "no host given");
    json_object_set_new(input.get(), "Host", json_stringn("127.0.0.1\0", 10));
    EXPECT_EQ(run("IPPing", input).problem.message, "Host: not the name or address of a host");

    outcome = run("IPPing", ping_input(R"({"Interface":"Device.IP.Interface.99."})"));
    EXPECT_EQ(outcome.problem.code, code::bad_arguments);
    EXPECT_EQ(outcome.problem.message, "Interface: no such interface");
}

// --- NSLookup ---

TEST(NSLookup, FindsTheAddressesOfBothFamiliesBehindAnAlias)
{
    name_server server([](const std::string &question) {
        std::string alias("\x04host\x05other\x07"
                          "example\0",
                          20);
        std::string at_alias(1, '\xc0');
        at_alias += char(without_extras(question).size() + 12); // the data of the first record
        bool v6 = type_of(question) == 28;
        return answer_to(question, {{5, asked_name, alias},
                                    {v6 ? 28 : 1, at_alias,
                                     v6 ? std::string("\x20\x01\x0d\xb8\0\0\0\0\0\0\0\0\0\0\0\7", 16)
                                        : std::string("\xc0\0\2\7", 4)}});
    });
    job_outcome outcome = looked_up(server);
    EXPECT_FALSE(outcome.problem) << outcome.problem.message;
    EXPECT_EQ(text(outcome, "Status"), "Complete");
    EXPECT_EQ(number(outcome, "SuccessCount"), 1);
    EXPECT_EQ(text(outcome, "Result.1.Status"), "Success");
    EXPECT_EQ(text(outcome, "Result.1.AnswerType"), "Authoritative");
    EXPECT_EQ(text(outcome, "Result.1.HostNameReturned"), "host.other.example");
    EXPECT_EQ(text(outcome, "Result.1.IPAddresses"), "192.0.2.7,2001:db8::7");
    EXPECT_EQ(text(outcome, "Result.1.DNSServerIP"), "127.0.0.1");
    EXPECT_GE(number(outcome, "Result.1.ResponseTime"), 0);
}

TEST(NSLookup, RepeatsAsOftenAsItIsTold)
{
    name_server server([](const std::string &question) {
        return answer_to(question,
                         type_of(question) == 1 ? std::vector<record>{{1, asked_name, std::string("\xc0\0\2\7", 4)}}
                                                : std::vector<record>{},
                         0, 0x80);
    });
    job_outcome outcome = looked_up(server, R"({"NumberOfRepetitions":3})");
    EXPECT_EQ(number(outcome, "SuccessCount"), 3);
    EXPECT_EQ(text(outcome, "Result.3.IPAddresses"), "192.0.2.7");
    EXPECT_EQ(text(outcome, "Result.3.AnswerType"), "NonAuthoritative");
    EXPECT_EQ(output(outcome, "Result.4.Status"), nullptr);
    EXPECT_EQ(server.asked, 6);
}

TEST(NSLookup, FindsTheNameOfAnAddress)
{
    name_server server([](const std::string &question) {
        EXPECT_EQ(type_of(question), 12U);
        return answer_to(question, {{12, asked_name,
                                     std::string("\x04host\x07"
                                                 "example\0",
                                                 14)}});
    });
    job_outcome outcome = run("NSLookup", lookup_input(server, "192.0.2.7"), [&] { server.serve(); });
    EXPECT_EQ(text(outcome, "Result.1.HostNameReturned"), "host.example");
    EXPECT_EQ(text(outcome, "Result.1.IPAddresses"), "192.0.2.7");
}

TEST(NSLookup, AnUnknownNameIsSaidSo)
{
    name_server server([](const std::string &question) { return answer_to(question, {}, 3); });
    job_outcome outcome = looked_up(server);
    EXPECT_FALSE(outcome.problem);
    EXPECT_EQ(text(outcome, "Status"), "Complete");
    EXPECT_EQ(number(outcome, "SuccessCount"), 0);
    EXPECT_EQ(text(outcome, "Result.1.Status"), "Error_HostNameNotResolved");
    EXPECT_EQ(text(outcome, "Result.1.IPAddresses"), "");
}

TEST(NSLookup, ALostQuestionIsAskedAgainAndSilenceIsATimeOut)
{
    int lost = 2;
    name_server server([&](const std::string &question) {
        return lost-- > 0 ? "" : answer_to(question, {{1, asked_name, std::string("\xc0\0\2\7", 4)}});
    });
    json_ref input = lookup_input(server);
    json_object_set_new(input.get(), "Timeout", json_integer(2000));
    job_outcome outcome = run("NSLookup", input, [&] { server.serve(); });
    EXPECT_EQ(text(outcome, "Result.1.Status"), "Success");

    lost = 1000;
    json_object_set_new(input.get(), "Timeout", json_integer(400));
    outcome = run("NSLookup", input, [&] { server.serve(); });
    EXPECT_EQ(text(outcome, "Status"), "Complete");
    EXPECT_EQ(text(outcome, "Result.1.Status"), "Error_Timeout");
}

TEST(NSLookup, ForgedAndBrokenAnswersAreNotBelieved)
{
    name_server server([](const std::string &question) {
        std::string good = answer_to(question, {{1, asked_name, std::string("\xc0\0\2\7", 4)}});
        switch (rand() % 4) {
        case 0:
            good[0] = char(good[0] ^ 0x55); // another question's number
            return good;
        case 1:
            good[14] = char(good[14] ^ 1); // another name
            return good;
        case 2:
            return std::string(500, '\xc0');
        default:
            return question;
        }
    });
    job_outcome outcome = looked_up(server, R"({"Timeout":300,"NumberOfRepetitions":4})");
    EXPECT_EQ(number(outcome, "SuccessCount"), 0);
    EXPECT_EQ(text(outcome, "Result.4.Status"), "Error_Timeout");
}

TEST(NSLookup, WhatIsCutOffIsFetchedOverTcp)
{
    name_server server([](const std::string &question) { return answer_to(question, {}, 0, 0x86); });
    server.over_tcp = [](const std::string &question) {
        std::vector<record> records;
        for (int i = 1; i <= 100; i++)
            records.push_back({1, asked_name, std::string({char(10), 0, 0, char(i)})});
        return answer_to(question, type_of(question) == 1 ? records : std::vector<record>{});
    };
    job_outcome outcome = looked_up(server);
    EXPECT_EQ(text(outcome, "Result.1.Status"), "Success");
    std::string addresses = text(outcome, "Result.1.IPAddresses");
    EXPECT_TRUE(addresses.starts_with("10.0.0.1,10.0.0.2,")) << addresses;
    EXPECT_TRUE(addresses.ends_with(",10.0.0.100")) << addresses;
}

TEST(NSLookup, WhatIsNoAnswerOverTcpIsNotBelieved)
{
    // Nothing, less than a head, an echo of the question, another question's answer: nobody waits longer for them.
    for (int kind = 0; kind < 4; kind++) {
        name_server server([](const std::string &question) { return answer_to(question, {}, 0, 0x86); });
        server.over_tcp = [kind](const std::string &question) {
            std::string good = answer_to(question, {{1, asked_name, std::string("\xc0\0\2\7", 4)}});
            if (kind == 3)
                good[0] = char(good[0] ^ 0x55);
            return kind == 0 ? "" : kind == 1 ? good.substr(0, 5) : kind == 2 ? question : good;
        };
        job_outcome outcome = looked_up(server, R"({"Timeout":300})");
        EXPECT_EQ(text(outcome, "Result.1.Status"), "Error_Timeout") << kind;
    }
}

TEST(NSLookup, WhereNobodyAnswersOverTcpTheTimeRunsOut)
{
    name_server server([](const std::string &question) { return answer_to(question, {}, 0, 0x86); });
    server.deaf_to_streams();
    job_outcome outcome = looked_up(server, R"({"Timeout":300})");
    EXPECT_EQ(text(outcome, "Result.1.Status"), "Error_Timeout");
}

TEST(NSLookup, AServerThatKnowsNoExtensionsIsAskedWithoutThem)
{
    name_server server([](const std::string &question) {
        if (question[11] != 0)
            return answer_to(question, {}, 1);
        return answer_to(question, type_of(question) == 1
                                       ? std::vector<record>{{1, asked_name, std::string("\xc0\0\2\7", 4)}}
                                       : std::vector<record>{});
    });
    job_outcome outcome = looked_up(server);
    EXPECT_EQ(text(outcome, "Result.1.Status"), "Success");
    EXPECT_EQ(text(outcome, "Result.1.IPAddresses"), "192.0.2.7");
}

TEST(NSLookup, AServerThatFailsOrRefusesIsSaidSo)
{
    for (const int code : {2, 4, 5}) {
        name_server server([code](const std::string &question) { return answer_to(question, {}, code); });
        job_outcome outcome = looked_up(server);
        EXPECT_EQ(text(outcome, "Result.1.Status"), "Error_Other") << code;
        EXPECT_EQ(text(outcome, "Result.1.AnswerType"), "Authoritative") << code;
        EXPECT_EQ(server.asked, 2) << code;
    }
}

TEST(NSLookup, AFloodOfDatagramsIsReadInTurns)
{
    constexpr int forged = 150;
    name_server server([&server](const std::string &question) {
        std::string wrong = answer_to(question, {}, 3);
        wrong[0] ^= 1;
        for (int i = 0; i < forged; i++)
            server.send_also(wrong);
        return answer_to(question, {{1, asked_name, std::string("\xc0\0\2\7", 4)}});
    });
    host_address address;
    const sockaddr_in here = loopback(server.port());
    memcpy(&address.bytes, &here, sizeof here);
    address.length = sizeof here;
    int watched = -1;
    dns_question question("host.example", dns_type::a, address, "", [&](int fd, uint32_t) {
        watched = fd;
        return true;
    });
    question.ask();
    server.await();
    server.serve();
    int turns = 0;
    for (; !question.answer() && turns < forged; ++turns) {
        await_input(watched);
        question.proceed();
    }
    EXPECT_TRUE(question.answer());
    EXPECT_GT(turns, 1);
    EXPECT_LT(turns, forged / 10);
}

TEST(NSLookup, AnswersLargerThanAskedForAreTaken)
{
    name_server server([](const std::string &question) {
        std::vector<record> records;
        for (int i = 1; i <= 120; i++)
            records.push_back({1, asked_name, std::string({char(10), 0, 0, char(i)})});
        return answer_to(question, type_of(question) == 1 ? records : std::vector<record>{});
    });
    job_outcome outcome = looked_up(server);
    std::string addresses = text(outcome, "Result.1.IPAddresses");
    EXPECT_TRUE(addresses.ends_with(",10.0.0.120")) << addresses;
}

TEST(NSLookup, AServerThatIsNotThereIsSaidSo)
{
    // A socket that hears one peer alone keeps its port from others and refuses everybody else.
    const int keeper = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in here = loopback(0);
    socklen_t length = sizeof here;
    const sockaddr_in peer = loopback(9);
    ASSERT_EQ(bind(keeper, reinterpret_cast<sockaddr *>(&here), length), 0);
    ASSERT_EQ(getsockname(keeper, reinterpret_cast<sockaddr *>(&here), &length), 0);
    ASSERT_EQ(connect(keeper, reinterpret_cast<const sockaddr *>(&peer), sizeof peer), 0);
    const std::string nobody = "127.0.0.1:" + std::to_string(ntohs(here.sin_port));
    json_ref input = parse(lookup_defaults);
    json_object_set_new(input.get(), "DNSServer", json_string(nobody.c_str()));
    job_outcome outcome = run("NSLookup", input);
    EXPECT_EQ(text(outcome, "Result.1.Status"), "Error_DNSServerNotAvailable");

    json_object_set_new(input.get(), "DNSServer", json_string("not a server"));
    outcome = run("NSLookup", input);
    // Look-ups that an earlier test left may still be under way.
    for (int i = 0; i < 1500 && outcome.problem.code == code::resources; i++) {
        usleep(20000);
        outcome = run("NSLookup", input);
    }
    EXPECT_EQ(text(outcome, "Status"), "Error_DNSServerNotResolved") << outcome.problem.message;
    EXPECT_EQ(output(outcome, "Result.1.Status"), nullptr);
    close(keeper);
}

std::string addresses_of_one(const std::string &question)
{
    return answer_to(question, {{1, asked_name, std::string("\xc0\0\2\7", 4)}});
}

TEST(NSLookup, AServerMayBeNamed)
{
    name_server server(addresses_of_one);
    json_ref input = lookup_input(server);
    json_object_set_new(input.get(), "DNSServer", json_string(("localhost:" + std::to_string(server.port())).c_str()));
    job_outcome outcome;
    // Look-ups that an earlier test left may still be under way.
    do
        outcome = run("NSLookup", input, [&] { server.serve(); });
    while (outcome.problem.code == code::resources);
    EXPECT_FALSE(outcome.problem) << outcome.problem.message;
    EXPECT_EQ(text(outcome, "Result.1.Status"), "Success");
    EXPECT_EQ(text(outcome, "Result.1.IPAddresses"), "192.0.2.7");
}

TEST(NSLookup, ThreeOfANamesAddressesAreAsked)
{
    in_own_network(true, [] {
        if (!see_as("/etc/hosts", "127.0.0.1 many\n127.0.0.2 many\n127.0.0.3 many\n127.0.0.4 many\n"))
            _exit(77);
        name_server fourth("127.0.0.4", addresses_of_one);
        json_ref input = parse(lookup_defaults);
        json_object_set_new(input.get(), "DNSServer", json_string("many"));
        job_outcome outcome = run("NSLookup", input, [&] { fourth.serve(); });
        EXPECT_EQ(text(outcome, "Result.1.Status"), "Error_DNSServerNotAvailable");
        EXPECT_EQ(fourth.asked, 0);
        json_object_set_new(input.get(), "DNSServer", json_string("127.0.0.4"));
        outcome = run("NSLookup", input, [&] { fourth.serve(); });
        EXPECT_EQ(text(outcome, "Result.1.Status"), "Success");
    });
}

TEST(NSLookup, TheMachinesOwnServersAreAskedOneAfterTheOther)
{
    in_own_network(true, [] {
        if (!see_as("/etc/resolv.conf", "nameserver 127.0.0.1\nnameserver 127.0.0.2\n"))
            _exit(77);
        name_server first("127.0.0.1", [](const std::string &question) { return answer_to(question, {}, 2); });
        name_server second("127.0.0.2", addresses_of_one);
        job_outcome outcome = run("NSLookup", parse(lookup_defaults), [&] {
            first.serve();
            second.serve();
        });
        EXPECT_EQ(text(outcome, "Result.1.Status"), "Success") << outcome.problem.message;
        EXPECT_EQ(text(outcome, "Result.1.DNSServerIP"), "127.0.0.2");
        EXPECT_GT(first.asked, 0);
    });
}

TEST(NSLookup, WhereTheMachineHasNoServersNobodyIsAsked)
{
    in_own_network(true, [] {
        if (!see_as("/etc/resolv.conf", "search example\n"))
            _exit(77);
        job_outcome outcome = run("NSLookup", parse(lookup_defaults));
        EXPECT_FALSE(outcome.problem) << outcome.problem.message;
        EXPECT_EQ(text(outcome, "Status"), "Error_DNSServerNotResolved");
    });
}

TEST(NSLookup, WhereTheKernelHasNoIpv6AServerThereIsNotAvailable)
{
    in_own_network(true, [] {
        if (!forget_ipv6())
            _exit(77);
        json_ref input = parse(lookup_defaults);
        json_object_set_new(input.get(), "DNSServer", json_string("::1"));
        job_outcome outcome = run("NSLookup", input);
        EXPECT_EQ(text(outcome, "Result.1.Status"), "Error_DNSServerNotAvailable");
    });
}

TEST(NSLookup, AServerThatCannotBeAskedAgainIsNotAvailable)
{
    in_own_network(true, [] {
        name_server silent([](const std::string &) { return ""; });
        json_ref input = lookup_input(silent);
        json_object_set_new(input.get(), "Timeout", json_integer(1000));
        job_outcome outcome = run("NSLookup", input, [&] {
            silent.serve();
            if (silent.asked == 2 && !let_fail(SYS_sendmsg, ENETUNREACH))
                _exit(77);
        });
        EXPECT_EQ(text(outcome, "Result.1.Status"), "Error_DNSServerNotAvailable");
        EXPECT_EQ(silent.asked, 2);
    });
}

TEST(NSLookup, AQuestionForWhichThereIsNoRoomIsAsOneThatIsLost)
{
    in_own_network(true, [] {
        name_server server(addresses_of_one);
        if (!let_fail(SYS_sendmsg, EAGAIN))
            _exit(77);
        job_outcome outcome = looked_up(server, R"({"Timeout":200})");
        EXPECT_EQ(text(outcome, "Result.1.Status"), "Error_Timeout");
        EXPECT_EQ(server.asked, 0);
    });
}

TEST(NSLookup, ServersAreNamedWithAndWithoutTheirPort)
{
    for (const char *server : {"::1", "[::1]", "[::1]:1", "127.0.0.1:1"}) {
        json_ref input = parse(lookup_defaults);
        json_object_set_new(input.get(), "DNSServer", json_string(server));
        json_object_set_new(input.get(), "Timeout", json_integer(200));
        job_outcome outcome = run("NSLookup", input);
        EXPECT_EQ(text(outcome, "Result.1.DNSServerIP"), server[0] == '1' ? "127.0.0.1" : "::1") << server;
    }
}

TEST(NSLookup, WhatIsNoHostNameIsRefused)
{
    std::string long_label(64, 'a');
    std::string long_name;
    for (int i = 0; i < 60; i++)
        long_name += "abcd.";
    for (const std::string &name : {std::string(""), std::string("a b"), std::string(".."), std::string("a..b"),
                                    long_label, long_name, std::string("a\x7f"), std::string("caf\xc3\xa9")}) {
        json_ref input = parse(lookup_defaults);
        json_object_set_new(input.get(), "HostName", json_string(name.c_str()));
        EXPECT_EQ(run("NSLookup", input).problem.code, code::bad_arguments) << name;
    }
    for (const char *server : {"127.0.0.1:70000", "127.0.0.1:0", "127.0.0.1:x", "127.0.0.1:", ":53", "[::1", "[::1]53",
                               "[::1]:", "[]:53", "[]"}) {
        json_ref input = parse(lookup_defaults);
        json_object_set_new(input.get(), "DNSServer", json_string(server));
        EXPECT_EQ(run("NSLookup", input).problem.code, code::bad_arguments) << server;
    }
    json_ref input = parse(lookup_defaults);
    json_object_set_new(input.get(), "DNSServer", json_stringn("127.0.0.1\0", 10));
    EXPECT_EQ(run("NSLookup", input).problem.message, "DNSServer: not the name or address of a server");
}

// --- messages ---

TEST(DnsMessage, ReverseNames)
{
    EXPECT_EQ(dns_reverse_name("192.0.2.7"), "7.2.0.192.in-addr.arpa");
    EXPECT_EQ(dns_reverse_name("2001:db8::7"),
              "7.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.8.b.d.0.1.0.0.2.ip6.arpa");
    EXPECT_EQ(dns_reverse_name("host.example"), "");
}

TEST(DnsMessage, ANameThatLeadsNowhereIsNone)
{
    std::vector<unsigned char> query = dns_query(1, "7.2.0.192.in-addr.arpa", dns_type::ptr);
    const std::string bytes =
        answer_to(std::string(query.begin(), query.end()),
                  {{12, asked_name, "\xff\xff"}, {12, asked_name, std::string("\4host\7example\0", 14)}});
    const auto answer = dns_parse(reinterpret_cast<const unsigned char *>(bytes.data()), bytes.size(),
                                  "7.2.0.192.in-addr.arpa", dns_type::ptr);
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->records, std::vector<std::string>{"host.example"});
}

TEST(DnsMessage, ParsingSurvivesEveryMutilation)
{
    std::vector<unsigned char> query = dns_query(0x1234, "host.example", dns_type::a);
    std::string question(query.begin(), query.end());
    std::string good =
        answer_to(question, {{1, asked_name, std::string("\xc0\0\2\7", 4)}, {5, asked_name, "\xc0\x0c"}});
    auto read = [](const std::string &bytes) {
        return dns_parse(reinterpret_cast<const unsigned char *>(bytes.data()), bytes.size(), "HOST.example.",
                         dns_type::a);
    };
    ASSERT_TRUE(read(good).has_value());
    EXPECT_EQ(read(good)->records, std::vector<std::string>{"192.0.2.7"});
    for (size_t length = 0; length < good.size(); length++)
        read(good.substr(0, length));
    for (size_t at = 0; at < good.size(); at++)
        for (int value : {0, 1, 0x3f, 0x80, 0xc0, 0xff}) {
            std::string bad = good;
            bad[at] = char(value);
            read(bad);
        }
}
