#include "base/endpoint.h"

#include <cstring>
#include <netdb.h>
#include <netinet/in.h>

#include "base/number.h"

namespace
{

in_port_t *port_of(sockaddr_storage *bytes)
{
    return bytes->ss_family == AF_INET6 ? &reinterpret_cast<sockaddr_in6 *>(bytes)->sin6_port
                                        : &reinterpret_cast<sockaddr_in *>(bytes)->sin_port;
}

} // namespace

std::optional<host_port> host_port_parse(std::string_view text, std::optional<uint16_t> usual)
{
    std::string_view host;
    std::string_view rest;
    if (text.starts_with('[')) {
        const size_t close = text.find(']');
        if (close == std::string_view::npos)
            return std::nullopt;
        host = text.substr(1, close - 1);
        rest = text.substr(close + 1);
    } else {
        const size_t colon = text.find(':');
        const bool lone_address = usual && colon != text.rfind(':');
        host = text.substr(0, lone_address ? std::string_view::npos : colon);
        rest = text.substr(host.size());
    }
    const std::optional<uint16_t> port = rest.empty()            ? usual
                                         : rest.starts_with(':') ? number_of<uint16_t>(rest.substr(1))
                                                                 : std::nullopt;
    if (!port || host.empty() || host.find_first_of("[]") != std::string_view::npos)
        return std::nullopt;
    return host_port{.host = std::string(host), .port = *port};
}

std::string host_port_text(const host_port &place)
{
    const bool bracketed = place.host.find(':') != std::string::npos;
    return (bracketed ? "[" + place.host + "]" : place.host) + ":" + std::to_string(place.port);
}

bool unix_address(const std::string &path, sockaddr_un *address)
{
    *address = {};
    address->sun_family = AF_UNIX;
    if (path.empty() || path.size() > unix_path_max)
        return false;
    path.copy(address->sun_path, path.size());
    return true;
}

uint16_t host_address::port() const
{
    sockaddr_storage copy = bytes;
    return ntohs(*port_of(&copy));
}

void host_address::set_port(uint16_t port)
{
    *port_of(&bytes) = htons(port);
}

std::string address_text(const host_address &address)
{
    char text[NI_MAXHOST];
    return getnameinfo(address.get(), address.length, text, sizeof text, nullptr, 0, NI_NUMERICHOST) == 0 ? text : "";
}

int addresses_of(const std::string &host, int family, std::vector<host_address> *found, int flags)
{
    addrinfo wanted{};
    wanted.ai_family = family;
    wanted.ai_socktype = SOCK_STREAM; // each address once
    wanted.ai_flags = flags;
    addrinfo *list = nullptr;
    const int outcome = getaddrinfo(host.c_str(), nullptr, &wanted, &list);
    for (const addrinfo *each = list; each != nullptr; each = each->ai_next) {
        host_address &address = found->emplace_back();
        memcpy(&address.bytes, each->ai_addr, each->ai_addrlen);
        address.length = each->ai_addrlen;
    }
    if (list != nullptr)
        freeaddrinfo(list);
    return outcome;
}

bool address_parse(const std::string &text, int family, host_address *address)
{
    std::vector<host_address> found;
    addresses_of(text, family, &found, AI_NUMERICHOST);
    if (found.empty())
        return false;
    *address = found.front();
    return true;
}
