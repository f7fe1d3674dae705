// Where programs meet: HOST:PORT, socket paths and addresses.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// What a TCP endpoint begins with, where a socket path could stand as well.
inline constexpr std::string_view tcp_scheme = "tcp://";

/// A host and a port: "name:80", "127.0.0.1:80", "[::1]:80".
struct host_port {
    std::string host; ///< a name or an address, without brackets; never empty
    uint16_t port = 0;
};

/// What `text` says. Where a `usual` port is given, the port may be left out, and an IPv6 address then stands alone.
std::optional<host_port> host_port_parse(std::string_view text, std::optional<uint16_t> usual = std::nullopt);
std::string host_port_text(const host_port &place);

/// The address of the socket at `path`. False where the path is empty or too long for one.
bool unix_address(const std::string &path, sockaddr_un *address);
inline constexpr size_t unix_path_max = sizeof(sockaddr_un::sun_path) - 1;

/// An address of the network, IPv4 or IPv6.
struct host_address {
    sockaddr_storage bytes = {};
    socklen_t length = 0;

    const sockaddr *get() const { return reinterpret_cast<const sockaddr *>(&bytes); }
    uint16_t port() const;
    void set_port(uint16_t port);
};

/// The text of an address, without its port; empty where it is of another kind.
std::string address_text(const host_address &address);

/// Appends the addresses of a host, in order of preference, to `*found`; `flags` as getaddrinfo takes them. May take
/// long where the host is a name. Returns 0, or the number of an error that gai_strerror spells.
int addresses_of(const std::string &host, int family, std::vector<host_address> *found, int flags = 0);

/// The address that `text` spells in digits, in the family given (AF_UNSPEC: either). False when it is a name.
bool address_parse(const std::string &text, int family, host_address *address);
