// The values that the machine shows, checked against what it says by other means, and the parsers on odd input.
#include "veld/live/live.h"

#include "leaping_clock.h"
#include "platform/ve_json.h"
#include "veld/live/providers.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <net/route.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <set>
#include <string>

using namespace veld;

// In the place of the C library's.
extern "C" int getloadavg(double *loads, int count) noexcept
{
    for (int i = 0; i < count; ++i)
        loads[i] = 0.5 + i;
    return count;
}

namespace
{

std::string text_of(const json_t *row, const char *field)
{
    const char *text = json_string_value(json_object_get(row, field));
    return text != nullptr ? text : "(no text)";
}

json_int_t number_of(const json_t *row, const char *field)
{
    const json_t *number = json_object_get(row, field);
    return json_is_integer(number) ? json_integer_value(number) : -12345;
}

const json_t *row_with(const json_t *rows, const char *field, const std::string &text)
{
    size_t i = 0;
    json_t *row = nullptr;
    json_array_foreach(rows, i, row) if (text_of(row, field) == text) return row;
    return nullptr;
}

std::string dump(const json_t *value)
{
    char *text = json_dumps(value, JSON_COMPACT | JSON_ENCODE_ANY);
    std::string copy = text != nullptr ? text : "(null)";
    free(text);
    return copy;
}

void expect_keys(const json_t *rows)
{
    std::set<std::string> keys;
    size_t i = 0;
    json_t *row = nullptr;
    json_array_foreach(rows, i, row)
    {
        EXPECT_FALSE(text_of(row, "#key").empty());
        EXPECT_TRUE(keys.insert(text_of(row, "#key")).second) << dump(row);
        const char *field = nullptr;
        json_t *nested = nullptr;
        json_object_foreach(row, field, nested) if (std::string_view(field).starts_with("#rows:")) expect_keys(nested);
    }
}

} // namespace

TEST(Live, UptimeIsTheSystems)
{
    struct sysinfo info;
    ASSERT_EQ(sysinfo(&info), 0);
    json_ref uptime(live_value("uptime"));
    ASSERT_TRUE(json_is_integer(uptime.get()));
    EXPECT_NEAR(double(json_integer_value(uptime.get())), double(info.uptime), 3);
}

TEST(Live, MemoryIsTheSystems)
{
    FILE *file = popen("awk '$1 == \"MemTotal:\" { print $2 }' /proc/meminfo", "r");
    ASSERT_NE(file, nullptr);
    long long kib = 0;
    EXPECT_EQ(fscanf(file, "%lld", &kib), 1);
    EXPECT_EQ(pclose(file), 0);
    json_ref total(live_value("memory.total"));
    json_ref available(live_value("memory.available"));
    EXPECT_EQ(json_integer_value(total.get()), kib);
    EXPECT_GT(json_integer_value(available.get()), 0);
    EXPECT_LE(json_integer_value(available.get()), json_integer_value(total.get()));
}

TEST(Live, HostNameIsTheSystems)
{
    char name[256];
    ASSERT_EQ(gethostname(name, sizeof name), 0);
    json_ref value(live_value("hostname"));
    EXPECT_STREQ(json_string_value(value.get()), name);
}

TEST(Live, LoadAndUsageAreWithinTheirRanges)
{
    for (const char *name : {"load.1", "load.5", "load.15"}) {
        json_ref load(live_value(name));
        ASSERT_TRUE(json_is_real(load.get())) << name;
        EXPECT_GE(json_real_value(load.get()), 0);
    }
    json_ref usage(live_value("cpu.usage"));
    ASSERT_TRUE(json_is_integer(usage.get()));
    EXPECT_GE(json_integer_value(usage.get()), 0);
    EXPECT_LE(json_integer_value(usage.get()), 100);
}

TEST(Live, UsageIsThatBetweenTwoLooks)
{
    cpu_meter meter;
    EXPECT_EQ(meter.look("cpu  30 0 10 50 10 0 0 0 0 0\ncpu0 1 1 1 1\n"), 40);
    EXPECT_EQ(meter.look("cpu  100 0 40 50 10 0 0 0 0 0\n"), 100);
    EXPECT_EQ(meter.look("cpu  100 0 40 50 10 0 0 0 0 0\n"), 100) << "no tick since";
    EXPECT_EQ(meter.look("cpu  40 0 10 50 10 0 0 0 0 0\n"), 100) << "back";
    EXPECT_EQ(meter.look("cpu  50 0 10 75 15 0 0 0 0 0\n"), 25) << "and on from there";
    EXPECT_EQ(meter.look("cpu0 1 2 3\n"), std::nullopt);
    EXPECT_EQ(meter.look(""), std::nullopt);
}

TEST(Live, CurrentTimeIsNowWithItsOffset)
{
    json_ref value(live_value("time.current"));
    std::string text = json_string_value(value.get());
    tm parsed = {};
    const char *rest = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &parsed);
    ASSERT_NE(rest, nullptr) << text;
    long offset = 0;
    if (std::string_view(rest) != "Z") {
        int hours = 0;
        int minutes = 0;
        ASSERT_EQ(sscanf(rest + 1, "%2d:%2d", &hours, &minutes), 2) << text;
        offset = (rest[0] == '-' ? -1 : 1) * (hours * 3600L + minutes * 60L);
    }
    EXPECT_NEAR(double(timegm(&parsed) - offset), double(time(nullptr)), 3);
}

TEST(Live, ReadingTwiceAtOnceGivesOneSnapshot)
{
    const auto is_one = [] {
        json_ref first(live_rows("interfaces"));
        json_ref second(live_rows("interfaces"));
        return first.get() == second.get();
    };
    // The machine may do something else for a moment, but not every time.
    EXPECT_TRUE(is_one() || is_one() || is_one());
}

TEST(Live, UnknownProvidersAreNone)
{
    EXPECT_EQ(live_value("no.such"), nullptr);
    EXPECT_EQ(live_rows("no.such"), nullptr);
    EXPECT_EQ(live_value("interfaces"), nullptr);
    EXPECT_FALSE(live_value_known("interfaces"));
    EXPECT_TRUE(live_rows_known("interfaces"));
    EXPECT_FALSE(live_rows_known("uptime"));
    EXPECT_TRUE(live_value_known("uptime"));
}

TEST(Live, LoadsAreThoseOfOneFiveAndFifteenMinutes)
{
    double expected = 0.5;
    for (const char *name : {"load.1", "load.5", "load.15"}) {
        const json_ref load(live_value(name));
        EXPECT_EQ(json_real_value(load.get()), expected++) << name;
    }
}

// Runs `body` in a process of its own with an interface "kest0" that is an Ethernet until told otherwise, and nothing
// but what `body` writes there says how it is. The process's failures are the test's.
void with_an_interface(const std::function<void(int tap, const ifreq &named)> &body)
{
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const bool apart = unshare(CLONE_NEWNET | CLONE_NEWNS) == 0 &&
                           mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                           mount("none", "/sys/class/net", "tmpfs", 0, nullptr) == 0 &&
                           mkdir("/sys/class/net/kest0", 0700) == 0;
        const int tap = open("/dev/net/tun", O_RDWR);
        ifreq request = {};
        strcpy(request.ifr_name, "kest0");
        request.ifr_flags = IFF_TAP | IFF_NO_PI;
        if (!apart || tap < 0 || ioctl(tap, TUNSETIFF, &request) != 0)
            _exit(77);
        body(tap, request);
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == 77)
        GTEST_SKIP() << "this machine gives no network of its own, or no TAP device";
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(Live, AnEthernetIsARow)
{
    with_an_interface([](int, const ifreq &) {
        const json_ref rows(live_ethernet());
        EXPECT_EQ(json_array_size(rows.get()), 1U);
        EXPECT_EQ(text_of(json_array_get(rows.get(), 0), "name"), "kest0");
        EXPECT_EQ(text_of(json_array_get(rows.get(), 0), "mac").size(), 17U);
    });
}

TEST(Live, AnInterfaceIsAsTheKernelSays)
{
    with_an_interface([](int, const ifreq &named) {
        const auto status = [] {
            const json_ref rows(live_interfaces());
            return text_of(row_with(rows.get(), "name", "kest0"), "status");
        };
        EXPECT_EQ(status(), "Down");
        ifreq request = named;
        request.ifr_flags = IFF_UP;
        const int any = socket(AF_INET, SOCK_DGRAM, 0);
        ASSERT_EQ(ioctl(any, SIOCSIFFLAGS, &request), 0);
        for (const auto &[state, expected] : {std::pair{"up", "Up"},
                                              {"dormant", "Dormant"},
                                              {"notpresent", "NotPresent"},
                                              {"lowerlayerdown", "LowerLayerDown"},
                                              {"down", "Down"},
                                              {"unknown", "Up"}}) {
            std::ofstream("/sys/class/net/kest0/operstate") << state << "\n";
            EXPECT_EQ(status(), expected) << state;
        }
        close(any);
    });
}

TEST(Live, ATunnelIsNoEthernet)
{
    with_an_interface([](int tap, const ifreq &) {
        for (const int hardware : {ARPHRD_TUNNEL, ARPHRD_SIT, ARPHRD_IPGRE, ARPHRD_ETHER}) {
            if (ioctl(tap, TUNSETLINK, hardware) != 0)
                _exit(77);
            const bool tunnel = hardware != ARPHRD_ETHER;
            const json_ref rows(live_interfaces());
            EXPECT_EQ(text_of(row_with(rows.get(), "name", "kest0"), "type"), tunnel ? "Tunnel" : "Normal") << hardware;
            const json_ref wired(live_ethernet());
            EXPECT_EQ(json_array_size(wired.get()), tunnel ? 0U : 1U) << hardware;
        }
    });
}

TEST(Live, AnInterfaceThatComesBackHasChangedJustNow)
{
    with_an_interface([](int tap, const ifreq &named) {
        const leaping_clock clock(5);
        const auto last_change = [] {
            const json_ref rows(live_interfaces());
            return number_of(row_with(rows.get(), "name", "kest0"), "last_change");
        };
        EXPECT_EQ(last_change(), 0);
        EXPECT_GE(last_change(), 5);
        close(tap);
        const json_ref without(live_interfaces());
        EXPECT_EQ(row_with(without.get(), "name", "kest0"), nullptr);
        ifreq request = named;
        request.ifr_flags = IFF_TAP | IFF_NO_PI;
        const int again = open("/dev/net/tun", O_RDWR);
        ASSERT_EQ(ioctl(again, TUNSETIFF, &request), 0);
        EXPECT_EQ(last_change(), 0);
    });
}

// Adds a route to a network of so many bits behind an interface.
void add_route(const std::string &interface, in_addr_t network, int bits)
{
    const int any = socket(AF_INET, SOCK_DGRAM, 0);
    const auto of = [](in_addr_t address) {
        sockaddr_in as = {};
        as.sin_family = AF_INET;
        as.sin_addr.s_addr = htonl(address);
        sockaddr bytes;
        memcpy(&bytes, &as, sizeof bytes);
        return bytes;
    };
    std::string device = interface;
    rtentry route = {};
    route.rt_dst = of(network);
    route.rt_genmask = of(bits == 0 ? 0 : ~in_addr_t{0} << (32 - bits));
    route.rt_flags = RTF_UP;
    route.rt_dev = device.data();
    EXPECT_EQ(ioctl(any, SIOCADDRT, &route), 0) << strerror(errno);
    close(any);
}

void add_default_route_ipv6(const std::string &interface)
{
    const int any = socket(AF_INET6, SOCK_DGRAM, 0);
    in6_rtmsg route = {};
    route.rtmsg_flags = RTF_UP;
    route.rtmsg_metric = 1;
    route.rtmsg_ifindex = static_cast<int>(if_nametoindex(interface.c_str()));
    if (any < 0 || ioctl(any, SIOCADDRT, &route) != 0)
        _exit(77);
    close(any);
}

void bring_up(const ifreq &named)
{
    ifreq request = named;
    request.ifr_flags = IFF_UP;
    const int any = socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_EQ(ioctl(any, SIOCSIFFLAGS, &request), 0);
    close(any);
}

bool is_upstream(const std::string &name)
{
    const json_ref rows(live_ethernet());
    return json_is_true(json_object_get(row_with(rows.get(), "name", name), "upstream"));
}

TEST(Live, WhatIsBehindTheDefaultRouteIsUpstream)
{
    with_an_interface([](int, const ifreq &named) {
        bring_up(named);
        add_route("kest0", 0x0a000000, 8);
        EXPECT_FALSE(is_upstream("kest0"));
        add_route("kest0", 0, 0);
        EXPECT_TRUE(is_upstream("kest0"));
    });
}

TEST(Live, ADefaultRouteOverIpv6IsOneToo)
{
    with_an_interface([](int, const ifreq &named) {
        bring_up(named);
        EXPECT_FALSE(is_upstream("kest0"));
        add_default_route_ipv6("kest0");
        EXPECT_TRUE(is_upstream("kest0"));
    });
}

// What a call costs this process, in seconds of a processor.
template <typename Call> double cost_of(const Call &call)
{
    const clock_t before = clock();
    call();
    return static_cast<double>(clock() - before) / CLOCKS_PER_SEC;
}

TEST(Live, ManyRoutesAndInterfacesCostTheirSum)
{
    with_an_interface([](int, const ifreq &named) {
        bring_up(named);
        for (in_addr_t i = 0; i < 2000; i++)
            add_route("kest0", 0x0a000000 + (i << 8), 24);
        for (int i = 1; i < 20; i++) {
            ifreq request = {};
            snprintf(request.ifr_name, sizeof request.ifr_name, "kest%d", i);
            request.ifr_flags = IFF_TAP | IFF_NO_PI;
            ASSERT_EQ(ioctl(open("/dev/net/tun", O_RDWR), TUNSETIFF, &request), 0);
        }
        const double routes = cost_of([] { json_decref(live_routes()); });
        EXPECT_LT(cost_of([] { json_decref(live_ethernet()); }), 10 * routes); // of 20 if each read them
    });
}

TEST(Live, RowsHaveKeysOfTheirOwn)
{
    for (const char *name :
         {"processes", "processors", "ethernet", "interfaces", "neighbors", "resolvers", "routes", "active_ports"}) {
        SCOPED_TRACE(name);
        json_ref rows(live_rows(name));
        ASSERT_TRUE(json_is_array(rows.get()));
        expect_keys(rows.get());
    }
}

TEST(Live, ProcessesHoldOneThatIsAtWork)
{
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t child = fork();
    if (child == 0) {
        // A name that is no UTF-8 and looks like the end of the name.
        prctl(PR_SET_NAME, "a) R \xff(b");
        const volatile ssize_t written = write(ready[1], "", 1);
        for (;;)
            (void)written;
    }
    ASSERT_GT(child, 0);
    char byte;
    EXPECT_EQ(read(ready[0], &byte, 1), 1);
    json_ref rows(live_processes());
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    close(ready[0]);
    close(ready[1]);

    size_t i = 0;
    json_t *row = nullptr;
    const json_t *found = nullptr;
    json_array_foreach(rows.get(), i, row) if (number_of(row, "pid") == child) found = row;
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(text_of(found, "command"), "a) R ?(b");
    EXPECT_EQ(text_of(found, "state"), "Running");
    EXPECT_GT(number_of(found, "size"), 100);
}

std::string internet_text(const sockaddr *address)
{
    sockaddr_in copy;
    memcpy(&copy, address, sizeof copy);
    char text[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, &copy.sin_addr, text, sizeof text);
}

TEST(Live, InterfacesShowTheSystemsAddresses)
{
    json_ref rows(live_rows("interfaces"));
    ifaddrs *list = nullptr;
    ASSERT_EQ(getifaddrs(&list), 0);
    int seen = 0;
    for (const ifaddrs *entry = list; entry != nullptr; entry = entry->ifa_next) {
        const json_t *row = row_with(rows.get(), "name", entry->ifa_name);
        ASSERT_NE(row, nullptr) << entry->ifa_name;
        EXPECT_EQ(json_is_true(json_object_get(row, "loopback")), (entry->ifa_flags & IFF_LOOPBACK) != 0);
        if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET)
            continue;
        const std::string text = internet_text(entry->ifa_addr);
        const json_t *address = row_with(json_object_get(row, "#rows:IPv4Address"), "address", text);
        ASSERT_NE(address, nullptr) << text;
        EXPECT_EQ(text_of(address, "mask"), internet_text(entry->ifa_netmask));
        seen++;
    }
    freeifaddrs(list);
    EXPECT_GT(seen, 0) << "no interface with an IPv4 address to compare with";
}

TEST(Live, CountersRiseWithTraffic)
{
    int receiver = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in here = {};
    here.sin_family = AF_INET;
    here.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof here;
    ASSERT_EQ(bind(receiver, reinterpret_cast<sockaddr *>(&here), length), 0);
    ASSERT_EQ(getsockname(receiver, reinterpret_cast<sockaddr *>(&here), &length), 0);

    json_ref before(live_interfaces());
    std::string bytes(1000, 'x');
    for (int i = 0; i < 10; i++)
        ASSERT_EQ(sendto(receiver, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr *>(&here), length), 1000);
    json_ref after(live_interfaces());
    close(receiver);
    EXPECT_GE(number_of(row_with(after.get(), "name", "lo"), "tx_bytes"),
              number_of(row_with(before.get(), "name", "lo"), "tx_bytes") + 10000);
}

TEST(Live, ActivePortsShowAListeningSocket)
{
    for (int family : {AF_INET, AF_INET6}) {
        int listener = socket(family, SOCK_STREAM, 0);
        sockaddr_storage here = {};
        here.ss_family = sa_family_t(family);
        if (family == AF_INET6)
            reinterpret_cast<sockaddr_in6 *>(&here)->sin6_addr = in6addr_loopback;
        else
            reinterpret_cast<sockaddr_in *>(&here)->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
        if (listener < 0 || bind(listener, reinterpret_cast<sockaddr *>(&here), length) != 0) {
            ASSERT_EQ(family, AF_INET6) << "no IPv4 on this machine";
            close(listener);
            continue;
        }
        ASSERT_EQ(listen(listener, 1), 0);
        ASSERT_EQ(getsockname(listener, reinterpret_cast<sockaddr *>(&here), &length), 0);
        json_int_t port = ntohs(reinterpret_cast<sockaddr_in *>(&here)->sin_port);

        json_ref rows(live_active_ports());
        close(listener);
        size_t i = 0;
        json_t *row = nullptr;
        int found = 0;
        json_array_foreach(rows.get(), i,
                           row) if (number_of(row, "local_port") == port && text_of(row, "state") == "LISTEN")
        {
            EXPECT_EQ(text_of(row, "local_address"), family == AF_INET6 ? "::1" : "127.0.0.1");
            found++;
        }
        EXPECT_EQ(found, 1) << "port " << port;
    }
}

TEST(Live, WhatIsNamedTwiceIsTwoRows)
{
    with_an_interface([](int, const ifreq &) {
        const std::string file = "/sys/class/net/resolv.conf";
        std::ofstream(file) << "nameserver 192.0.2.1\nnameserver 192.0.2.2\nnameserver 192.0.2.1\n";
        if (mount(file.c_str(), "/etc/resolv.conf", nullptr, MS_BIND, nullptr) != 0)
            _exit(77);
        json_ref rows;
        for (int tries = 0; json_array_size(rows.get()) != 3 && tries < 1000; tries++) { // it may have been read before
            usleep(1000);
            rows = json_ref(live_rows("resolvers"));
        }
        ASSERT_EQ(json_array_size(rows.get()), 3U);
        expect_keys(rows.get());
    });
}

TEST(Live, WhatIsNamedOftenIsToldApartAtOnce)
{
    with_an_interface([](int, const ifreq &) {
        const std::string file = "/sys/class/net/resolv.conf";
        std::ofstream to(file);
        for (int i = 0; i < 20000; i++)
            to << "nameserver 192.0.2.1\n";
        to.close();
        if (mount(file.c_str(), "/etc/resolv.conf", nullptr, MS_BIND, nullptr) != 0)
            _exit(77);
        const leaping_clock clock(1); // what was read before is not what is there now
        EXPECT_LT(cost_of([] {
                      const json_ref rows(live_rows("resolvers"));
                      EXPECT_EQ(json_array_size(rows.get()), 20000U);
                      expect_keys(rows.get());
                  }),
                  5.0); // of half a minute for comparing each with each
    });
}

// In a body of with_an_interface(): the file has this content.
void see_as(const char *path, const std::string &content)
{
    const std::string own = "/sys/class/net/seen";
    std::ofstream(own) << content;
    if (mount(own.c_str(), path, nullptr, MS_BIND, nullptr) != 0)
        _exit(77);
}

TEST(Live, MoreMemoryThanItsTypeCanTellIsAsMuchAsItCan)
{
    with_an_interface([](int, const ifreq &) {
        see_as("/proc/meminfo", "MemTotal:       6442450944 kB\nMemFree:        4294967295 kB\n");
        const json_ref total(live_memory_total());
        EXPECT_EQ(json_integer_value(total.get()), 4294967295);
        const json_ref free(live_memory_free());
        EXPECT_EQ(json_integer_value(free.get()), 4294967295);
    });
}

TEST(Live, AnEmptyZoneIsNotTheMachines)
{
    with_an_interface([](int, const ifreq &) {
        see_as("/etc/localtime", "TZif2" + std::string(39, '\0') + "\nABC-1\n");
        unsetenv("TZ");
        const json_ref machines(live_time_zone());
        EXPECT_STREQ(json_string_value(machines.get()), "ABC-1");
        setenv("TZ", "", 1);
        const json_ref empty(live_time_zone());
        EXPECT_STREQ(json_string_value(empty.get()), "UTC0");
    });
}

TEST(Live, SocketsAtOnePortAreRowsOfTheirOwn)
{
    sockaddr_in here = {};
    here.sin_family = AF_INET;
    here.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof here;
    int listeners[3];
    const int on = 1;
    for (int &one : listeners) {
        one = socket(AF_INET, SOCK_STREAM, 0);
        ASSERT_EQ(setsockopt(one, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on), 0);
        ASSERT_EQ(bind(one, reinterpret_cast<sockaddr *>(&here), length), 0);
        ASSERT_EQ(listen(one, 1), 0);
        ASSERT_EQ(getsockname(one, reinterpret_cast<sockaddr *>(&here), &length), 0);
    }
    int found = 0;
    for (int tries = 0; found == 0 && tries < 1000; tries++) { // they may have been read just now
        const json_ref rows(live_rows("active_ports"));
        expect_keys(rows.get());
        size_t i = 0;
        json_t *row = nullptr;
        json_array_foreach(rows.get(), i, row) found += number_of(row, "local_port") == ntohs(here.sin_port) ? 1 : 0;
        usleep(1000);
    }
    EXPECT_EQ(found, 3);
    for (const int one : listeners)
        close(one);
}

TEST(Live, TheZoneIsTheProcesss)
{
    const char *const before = getenv("TZ");
    const std::string kept = before != nullptr ? before : "";
    const auto in_zone = [](const std::string &zone, const auto &provider) {
        setenv("TZ", zone.c_str(), 1);
        const json_ref value(provider());
        return std::string(json_string_value(value.get()));
    };
    EXPECT_EQ(in_zone("XYZ-3:30", live_time_zone), "XYZ-3:30");
    EXPECT_TRUE(in_zone("XYZ-3:30", live_time_current).ends_with("+03:30"));
    EXPECT_TRUE(in_zone("XYZ+2", live_time_current).ends_with("-02:00"));
    EXPECT_TRUE(in_zone("UTC0", live_time_current).ends_with("Z"));
    const std::string file = testing::TempDir() + "veld-zone-" + std::to_string(getpid());
    std::ofstream(file) << "TZif2" << std::string(39, '\0') << "\nABC-1\n";
    EXPECT_EQ(in_zone(":" + file, live_time_zone), "ABC-1");
    EXPECT_EQ(in_zone(file, live_time_zone), "ABC-1");
    unlink(file.c_str());
    EXPECT_EQ(in_zone(":" + file, live_time_zone), file);
    if (before != nullptr)
        setenv("TZ", kept.c_str(), 1);
    else
        unsetenv("TZ");
    tzset();
}

// --- the kernel's files ---

TEST(LiveParsers, NeighborsAreReadFromTheArpTable)
{
    json_ref rows(rows_of_arp("IP address       HW type     Flags       HW address            Mask     Device\n"
                              "192.0.2.1        0x1         0x2         02:fc:00:00:00:05     *        eth0\n"
                              "192.0.2.7        0x1         0x0         00:00:00:00:00:00     *        eth0\n"
                              "192.0.2.8        0x1         0x6         02:fc:00:00:00:08     *        br-lan\n"
                              "half a line\n"));
    EXPECT_EQ(
        dump(rows.get()),
        R"([{"#key":"192.0.2.1%eth0","address":"192.0.2.1","mac":"02:fc:00:00:00:05","interface":"eth0","state":"Reachable"},)"
        R"({"#key":"192.0.2.7%eth0","address":"192.0.2.7","mac":"","interface":"eth0","state":"Incomplete"},)"
        R"({"#key":"192.0.2.8%br-lan","address":"192.0.2.8","mac":"02:fc:00:00:00:08","interface":"br-lan","state":"Permanent"}])");
}

TEST(LiveParsers, ResolversAreReadFromResolvConf)
{
    json_ref rows(
        rows_of_resolv_conf("# a comment\nnameserver 192.0.2.53\n  nameserver\t2001:db8::53 # ours\nnameserver\n"
                            "nameserver fe80::1%eth0\nsearch lan\nnameserver not-an-address\nnameserver 192.0.2.54"));
    EXPECT_EQ(dump(rows.get()),
              R"([{"#key":"192.0.2.53","address":"192.0.2.53"},{"#key":"2001:db8::53","address":"2001:db8::53"},)"
              R"({"#key":"fe80::1%eth0","address":"fe80::1%eth0"},{"#key":"192.0.2.54","address":"192.0.2.54"}])");
}

TEST(LiveParsers, RoutesThatAreUpAreRead)
{
    char gateway[9]; // as the kernel writes addresses: a word in the order of the machine
    snprintf(gateway, sizeof gateway, "%08X", inet_addr("192.0.2.1"));
    json_ref rows(rows_of_route("Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n"
                                "eth0\t00000000\t" +
                                std::string(gateway) +
                                "\t0003\t0\t0\t100\t00000000\t0\t0\t0\n"
                                "eth1\t0000A8C0\t00000000\t0000\t0\t0\t0\t0000FFFF\t0\t0\t0\n"
                                "eth0\tzz\n"));
    EXPECT_EQ(dump(rows.get()),
              R"([{"#key":"0.0.0.0/0.0.0.0 192.0.2.1%eth0 100","destination":"0.0.0.0","mask":"0.0.0.0",)"
              R"("gateway":"192.0.2.1","interface":"eth0","metric":100}])");
}

TEST(LiveParsers, SocketsWithoutAnAddressAreLeftOut)
{
    // A word is in the machine's order.
    const auto word = [](uint32_t network) {
        char digits[9];
        snprintf(digits, sizeof digits, "%08X", htonl(network));
        return std::string(digits);
    };
    const std::string local = word(INADDR_LOOPBACK), local6 = std::string(24, '0') + word(1);
    const std::string to = " 00000000:0000 0A x\n", to6 = " " + std::string(32, '0') + ":0000 0A x\n";
    const json_ref rows(json_array());
    rows_of_tcp("  sl  local_address rem_address   st\n   0: " + local + ":0035" + to + "   1: " + local.substr(1) +
                    "G:0035" + to + "   2: " + local6 + ":0036" + to6 + "   3: " + local6.substr(1) + "x:0037" + to6 +
                    "   4: " + local + to,
                rows.get());
    ASSERT_EQ(json_array_size(rows.get()), 2U) << dump(rows.get());
    EXPECT_EQ(text_of(json_array_get(rows.get(), 0), "local_address"), "127.0.0.1");
    EXPECT_EQ(text_of(json_array_get(rows.get(), 1), "local_address"), "::1");
}

TEST(LiveParsers, AProcessThatEndedIsLeftOut)
{
    json_ref rows(json_array());
    for (const char *text :
         {"", "12", "12 (sh", "12 (sh) S", ") (", "x (sh) S 1 1 1 1 1 1 1 1 1 1 1 1 1 1 20 0 1 0 1 1 1"})
        row_of_process(text, rows.get());
    EXPECT_EQ(json_array_size(rows.get()), 0U);
}

TEST(LiveParsers, ProcessorsComeWithTheirModel)
{
    json_ref rows(rows_of_cpuinfo(
        "processor\t: 0\nmodel name\t: Some CPU\ncpu MHz\t\t: 2400.017\n\nprocessor\t: 1\nbogus\n:\n", "x86_64"));
    EXPECT_EQ(dump(rows.get()), R"([{"#key":"0","architecture":"x86_64","model":"Some CPU","frequency":2400},)"
                                R"({"#key":"1","architecture":"x86_64","model":"","frequency":0}])");
}

TEST(LiveParsers, TheZoneIsTheLastLineOfAZoneFile)
{
    using namespace std::string_view_literals;
    EXPECT_EQ(zone_of_tzfile("TZif2\0\0junk\nCET-1CEST,M3.5.0,M10.5.0/3\n"sv), "CET-1CEST,M3.5.0,M10.5.0/3");
    EXPECT_EQ(zone_of_tzfile("TZif\0old\nUTC0\n"sv), "");
    EXPECT_EQ(zone_of_tzfile("TZif2 cut off"sv), "");
    EXPECT_EQ(zone_of_tzfile(""sv), "");
}

TEST(LiveParsers, MemoryFieldsAreFoundByTheirWholeName)
{
    EXPECT_EQ(meminfo_field("MemTotal:       4026036 kB\nMemFree: 12 kB\n", "MemFree"), 12);
    EXPECT_EQ(meminfo_field("MemTotal:       4026036 kB\n", "Mem"), std::nullopt);
    EXPECT_EQ(meminfo_field("MemTotal: many kB\n", "MemTotal"), std::nullopt);
}

TEST(LiveParsers, TextThatIsNoUtf8IsCleaned)
{
    json_ref text(json_clean_text("caf\xc3\xa9 \xc3( \xed\xa0\x80 \xf0\x9f\x98\x80"));
    EXPECT_STREQ(json_string_value(text.get()), "caf\xc3\xa9 ?( ??? \xf0\x9f\x98\x80");
    json_ref cut(json_clean_text("\xc3\xa9\xc3\xa9", 3));
    EXPECT_STREQ(json_string_value(cut.get()), "\xc3\xa9");
}
