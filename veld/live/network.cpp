// The network: interfaces with their addresses and counters, neighbours, name servers, routes, sockets.
#include "base/clock.h"
#include "base/fd.h"
#include "base/json_ref.h"
#include "base/number.h"
#include "veld/live/providers.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netpacket/packet.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstring>
#include <map>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace veld
{

namespace
{

// The counters of an interface in the order of /proc/net/dev; a null name is a column that no model shows.
constexpr std::array<const char *, 16> counter_names = {
    "rx_bytes", "rx_packets", "rx_errors", "rx_dropped", nullptr, nullptr, nullptr, "multicast",
    "tx_bytes", "tx_packets", "tx_errors", "tx_dropped", nullptr, nullptr, nullptr, nullptr};
using counters = std::array<int64_t, counter_names.size()>;

struct address {
    std::string text;
    std::string mask; // IPv4
    int64_t prefix;   // IPv6
};

struct interface {
    std::string name;
    unsigned flags = 0;
    unsigned short hardware = ARPHRD_VOID;
    std::string mac;
    std::vector<address> ipv4;
    std::vector<address> ipv6;
};

struct seen_state {
    std::string status;
    int64_t since;
};
// By interface: what last_change_of() saw. read_interfaces() forgets those that are gone.
std::unordered_map<std::string, seen_state> seen_states;

std::string address_text(int family, const void *bytes)
{
    char text[INET6_ADDRSTRLEN] = "";
    return inet_ntop(family, bytes, text, sizeof text) != nullptr ? text : "";
}

std::string mac_text(const sockaddr_ll &link)
{
    if (link.sll_halen != 6)
        return "";
    char text[18];
    const unsigned char *b = link.sll_addr;
    snprintf(text, sizeof text, "%02X:%02X:%02X:%02X:%02X:%02X", b[0], b[1], b[2], b[3], b[4], b[5]);
    return text;
}

int64_t prefix_length(const in6_addr &mask)
{
    int64_t bits = 0;
    for (unsigned char byte : mask.s6_addr)
        bits += std::popcount(byte);
    return bits;
}

/// The address as what its family makes of it. Nothing says that it lies where such a structure could.
template <typename T> T address_as(const sockaddr *address)
{
    T as;
    memcpy(&as, address, sizeof as);
    return as;
}

void add_address(interface *to, const ifaddrs &from)
{
    switch (from.ifa_addr->sa_family) {
    case AF_PACKET: {
        const auto link = address_as<sockaddr_ll>(from.ifa_addr);
        to->hardware = link.sll_hatype;
        to->mac = mac_text(link);
        break;
    }
    case AF_INET: {
        const auto own = address_as<sockaddr_in>(from.ifa_addr).sin_addr;
        std::string mask = "255.255.255.255";
        if (from.ifa_netmask != nullptr) {
            const auto bits = address_as<sockaddr_in>(from.ifa_netmask).sin_addr;
            mask = address_text(AF_INET, &bits);
        }
        to->ipv4.push_back({address_text(AF_INET, &own), mask, 32});
        break;
    }
    case AF_INET6: {
        const auto own = address_as<sockaddr_in6>(from.ifa_addr).sin6_addr;
        int64_t prefix = 128;
        if (from.ifa_netmask != nullptr)
            prefix = prefix_length(address_as<sockaddr_in6>(from.ifa_netmask).sin6_addr);
        to->ipv6.push_back({address_text(AF_INET6, &own), "", prefix});
        break;
    }
    }
}

// All interfaces of the machine, in the kernel's order.
std::vector<interface> read_interfaces()
{
    std::vector<interface> found;
    std::unordered_map<std::string_view, size_t> places; // in `found`, by the list's names
    ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0) {
        sysfile_failed(errno);
        return found;
    }
    for (const ifaddrs *entry = list; entry != nullptr; entry = entry->ifa_next) {
        std::string_view name = entry->ifa_name;
        name = name.substr(0, name.find(':')); // an old-style alias is a further address of its interface
        const auto [place, fresh] = places.emplace(name, found.size());
        if (fresh) {
            found.emplace_back();
            found.back().name = name;
            found.back().flags = entry->ifa_flags;
        }
        if (entry->ifa_addr != nullptr)
            add_address(&found[place->second], *entry);
    }
    std::erase_if(seen_states, [&](const auto &one) { return places.count(one.first) == 0; });
    freeifaddrs(list);
    return found;
}

std::map<std::string, counters, std::less<>> read_counters()
{
    std::map<std::string, counters, std::less<>> found;
    std::string text = read_sysfile("/proc/self/net/dev");
    std::string_view rest = text;
    for (std::string_view line; next_line(&rest, &line);) {
        size_t colon = line.find(':');
        if (colon == std::string_view::npos)
            continue;
        std::string_view name = line.substr(0, colon);
        std::string_view numbers = line.substr(colon + 1);
        counters &of = found[std::string(next_word(&name))];
        for (int64_t &number : of)
            number = number_or_zero(next_word(&numbers));
    }
    return found;
}

std::string sys_attribute(const interface &of, const char *name)
{
    std::string text = read_sysfile(("/sys/class/net/" + of.name + "/" + name).c_str());
    return text.substr(0, text.find('\n'));
}

const char *status_of(const interface &of)
{
    if ((of.flags & IFF_UP) == 0)
        return "Down";
    std::string state = sys_attribute(of, "operstate");
    if (state == "dormant")
        return "Dormant";
    if (state == "notpresent")
        return "NotPresent";
    if (state == "lowerlayerdown")
        return "LowerLayerDown";
    if (state == "down")
        return "Down";
    return (of.flags & IFF_RUNNING) != 0 ? "Up" : "Down"; // "unknown" is what drivers without a carrier say
}

// Seconds since the interface was first seen in the state that it is in.
int64_t last_change_of(const interface &of, std::string_view status)
{
    const int64_t now = uptime_s();
    seen_state &last = seen_states[of.name];
    if (last.status != status)
        last = {std::string(status), now};
    return now - last.since;
}

int64_t mtu_of(const interface &of)
{
    ifreq request = {};
    int mtu = 0;
    const fd_owner fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd) {
        sysfile_failed(errno);
        return mtu;
    }
    of.name.copy(request.ifr_name, sizeof request.ifr_name - 1);
    if (ioctl(fd.get(), SIOCGIFMTU, &request) == 0)
        mtu = request.ifr_mtu;
    return mtu;
}

void set_common(live_row *row, const interface &of, const std::map<std::string, counters, std::less<>> &numbers)
{
    const char *status = status_of(of);
    row->set("name", of.name).set("enable", (of.flags & IFF_UP) != 0).set("status", status);
    row->set("last_change", last_change_of(of, status)).set("mtu", mtu_of(of));
    auto found = numbers.find(of.name);
    for (size_t i = 0; i < counter_names.size(); i++)
        if (counter_names[i] != nullptr)
            row->set(counter_names[i], found != numbers.end() ? found->second[i] : int64_t{0});
}

const char *type_of(const interface &of)
{
    if ((of.flags & IFF_LOOPBACK) != 0)
        return "Loopback";
    switch (of.hardware) {
    case ARPHRD_TUNNEL:
    case ARPHRD_TUNNEL6:
    case ARPHRD_SIT:
    case ARPHRD_IPGRE:
    case 823: // ARPHRD_IP6GRE, which the C library has no name for
        return "Tunnel";
    default:
        return (of.flags & IFF_POINTOPOINT) != 0 ? "Tunnel" : "Normal";
    }
}

json_t *ipv4_rows(const interface &of)
{
    json_t *rows = json_array();
    for (const address &a : of.ipv4)
        live_row(a.text).set("address", a.text).set("mask", a.mask).add_to(rows);
    return rows;
}

json_t *ipv6_rows(const interface &of)
{
    json_t *rows = json_array();
    for (const address &a : of.ipv6)
        live_row(a.text)
            .set("address", a.text)
            .set("prefix", a.prefix)
            .set("origin", a.text == "::1"               ? "WellKnown"
                           : a.text.starts_with("fe80:") ? "AutoConfigured"
                                                         : "Static")
            .add_to(rows);
    return rows;
}

// The names of the interfaces by which everything leaves that has no better way, over IPv4 or IPv6.
std::unordered_set<std::string> default_route_interfaces()
{
    std::unordered_set<std::string> found;
    const json_ref routes(live_routes());
    for (size_t i = 0; i < json_array_size(routes.get()); i++) {
        const json_t *route = json_array_get(routes.get(), i);
        if (std::string_view("0.0.0.0") == json_string_value(json_object_get(route, "mask")))
            found.emplace(json_string_value(json_object_get(route, "interface")));
    }
    constexpr unsigned up = 1;
    const std::string text = read_sysfile("/proc/self/net/ipv6_route");
    std::string_view rest = text;
    for (std::string_view line; next_line(&rest, &line);) {
        std::string_view
            words[10]; // destination, prefix, source, prefix, next hop, metric, references, use, flags, device
        for (std::string_view &word : words)
            word = next_word(&line);
        if (words[1] == "00" && (number_of<unsigned>(words[8], 16).value_or(0) & up) != 0)
            found.emplace(words[9]);
    }
    return found;
}

// An IPv4 address as /proc/net writes it: the word in the machine's order, in hexadecimal digits.
std::string hex_ipv4(std::string_view digits)
{
    std::optional<int64_t> word = digits.size() == 8 ? number_of<int64_t>(digits, 16) : std::nullopt;
    if (!word)
        return "";
    auto bytes = uint32_t(*word);
    return address_text(AF_INET, &bytes);
}

std::string hex_ipv6(std::string_view digits)
{
    uint32_t words[4];
    for (int i = 0; i < 4; i++) {
        std::optional<int64_t> word = number_of<int64_t>(digits.substr(size_t(i) * 8, 8), 16);
        if (!word)
            return "";
        words[i] = uint32_t(*word);
    }
    return address_text(AF_INET6, words);
}

// "ADDRESS:PORT" of a socket table.
bool split_endpoint(std::string_view word, std::string *text, int64_t *port)
{
    size_t colon = word.find(':');
    if (colon == std::string_view::npos)
        return false;
    *text = colon == 32 ? hex_ipv6(word.substr(0, colon)) : hex_ipv4(word.substr(0, colon));
    std::optional<int64_t> number = number_of<int64_t>(word.substr(colon + 1), 16);
    *port = number.value_or(0);
    return number && !text->empty();
}

} // namespace

json_t *live_ethernet()
{
    json_t *rows = json_array();
    auto numbers = read_counters();
    const auto upstream = default_route_interfaces();
    for (const interface &each : read_interfaces()) {
        if (each.hardware != ARPHRD_ETHER || access(("/sys/class/net/" + each.name + "/wireless").c_str(), F_OK) == 0)
            continue;
        std::string duplex = sys_attribute(each, "duplex");
        live_row row(each.name);
        set_common(&row, each, numbers);
        row.set("mac", each.mac).set("upstream", upstream.count(each.name) != 0);
        row.set("bit_rate", std::clamp<int64_t>(number_or_zero(sys_attribute(each, "speed")), 0, INT32_MAX));
        row.set("duplex", duplex == "full" ? "Full" : duplex == "half" ? "Half" : "Auto");
        row.add_to(rows);
    }
    return rows;
}

json_t *live_interfaces()
{
    json_t *rows = json_array();
    auto numbers = read_counters();
    for (const interface &each : read_interfaces()) {
        bool no_ipv6 = read_sysfile(("/proc/sys/net/ipv6/conf/" + each.name + "/disable_ipv6").c_str()) != "0\n";
        live_row row(each.name);
        set_common(&row, each, numbers);
        row.set("type", type_of(each)).set("loopback", (each.flags & IFF_LOOPBACK) != 0);
        row.set("ipv4_enable", !each.ipv4.empty()).set("ipv6_enable", !no_ipv6);
        row.nested("IPv4Address", ipv4_rows(each)).nested("IPv6Address", ipv6_rows(each));
        row.add_to(rows);
    }
    return rows;
}

json_t *rows_of_arp(std::string_view text)
{
    json_t *rows = json_array();
    std::string_view line;
    next_line(&text, &line); // the heading
    while (next_line(&text, &line)) {
        std::string_view ip = next_word(&line);
        next_word(&line); // kind of hardware
        std::string_view flags = next_word(&line);
        std::string_view mac = next_word(&line);
        next_word(&line); // mask
        std::string_view device = next_word(&line);
        if (device.empty() || !flags.starts_with("0x"))
            continue;
        int64_t bits = number_of<int64_t>(flags.substr(2), 16).value_or(0);
        bool complete = (bits & ATF_COM) != 0;
        live_row(std::string(ip) + "%" + std::string(device))
            .set("address", ip)
            .set("mac", complete ? mac : "")
            .set("interface", device)
            .set("state", (bits & ATF_PERM) != 0 ? "Permanent"
                          : complete             ? "Reachable"
                                                 : "Incomplete")
            .add_to(rows);
    }
    return rows;
}

json_t *live_neighbors()
{
    return rows_of_arp(read_sysfile("/proc/self/net/arp"));
}

json_t *rows_of_resolv_conf(std::string_view text)
{
    json_t *rows = json_array();
    for (std::string_view line; next_line(&text, &line);) {
        if (next_word(&line) != "nameserver")
            continue;
        std::string server(next_word(&line));
        std::string bare = server.substr(0, server.find('%')); // a link-local address names its interface
        in6_addr parsed;
        if (inet_pton(AF_INET, bare.c_str(), &parsed) == 1 || inet_pton(AF_INET6, bare.c_str(), &parsed) == 1)
            live_row(server).set("address", server).add_to(rows);
    }
    return rows;
}

json_t *live_resolvers()
{
    return rows_of_resolv_conf(read_sysfile("/etc/resolv.conf"));
}

json_t *rows_of_route(std::string_view text)
{
    json_t *rows = json_array();
    std::string_view line;
    next_line(&text, &line); // the heading
    while (next_line(&text, &line)) {
        std::string_view device = next_word(&line);
        std::string destination = hex_ipv4(next_word(&line));
        std::string gateway = hex_ipv4(next_word(&line));
        bool up = (number_of<int64_t>(next_word(&line), 16).value_or(0) & 1) != 0;
        next_word(&line); // references
        next_word(&line); // use
        std::string_view metric = next_word(&line);
        std::string mask = hex_ipv4(next_word(&line));
        if (!up || destination.empty() || mask.empty())
            continue;
        std::string key = destination;
        key.append("/").append(mask).append(" ").append(gateway).append("%").append(device).append(" ").append(metric);
        live_row(key)
            .set("destination", destination)
            .set("mask", mask)
            .set("gateway", gateway)
            .set("interface", device)
            .set("metric", number_or_zero(metric))
            .add_to(rows);
    }
    return rows;
}

json_t *live_routes()
{
    return rows_of_route(read_sysfile("/proc/self/net/route"));
}

void rows_of_tcp(std::string_view text, json_t *rows)
{
    std::string_view line;
    next_line(&text, &line); // the heading
    while (next_line(&text, &line)) {
        std::string_view words[10];
        for (std::string_view &word : words)
            word = next_word(&line);
        bool listens = words[3] == "0A";
        std::string local;
        std::string remote;
        int64_t local_port = 0;
        int64_t remote_port = 0;
        if ((!listens && words[3] != "01") || !split_endpoint(words[1], &local, &local_port) ||
            !split_endpoint(words[2], &remote, &remote_port))
            continue;
        live_row(std::string(words[1]) + "-" + std::string(words[2]) + " " + std::string(words[9]))
            .set("local_address", local)
            .set("local_port", local_port)
            .set("remote_address", listens ? "" : remote)
            .set("remote_port", remote_port)
            .set("state", listens ? "LISTEN" : "ESTABLISHED")
            .add_to(rows);
    }
}

json_t *live_active_ports()
{
    json_t *rows = json_array();
    rows_of_tcp(read_sysfile("/proc/self/net/tcp"), rows);
    rows_of_tcp(read_sysfile("/proc/self/net/tcp6"), rows);
    return rows;
}

} // namespace veld
