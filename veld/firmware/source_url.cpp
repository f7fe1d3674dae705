#include "veld/firmware/source_url.h"

#include <arpa/inet.h>
#include <string_view>

#include "base/endpoint.h"

namespace veld
{

namespace
{

constexpr uint16_t http_port = 80;

// What could end a line or a word of an HTTP request, or a C text.
bool clean(std::string_view text)
{
    for (const char c : text) {
        if (static_cast<unsigned char>(c) <= ' ' || c == '\x7f')
            return false;
    }
    return true;
}

bool take_place(const std::optional<host_port> &place, source_url *into)
{
    if (!place || place->port == 0)
        return false;
    into->host = place->host;
    into->port = place->port;
    return true;
}

bool parse_file(std::string_view rest, source_url *into, std::string *error)
{
    if (rest.empty() || rest[0] != '/' || rest.find('\0') != std::string_view::npos) {
        *error = "a file URL needs an absolute path";
        return false;
    }
    into->path = rest;
    return true;
}

bool parse_netcat(std::string_view rest, source_url *into, std::string *error)
{
    in_addr address{};
    if (!take_place(host_port_parse(rest), into) || inet_pton(AF_INET, into->host.c_str(), &address) != 1) {
        *error = "a netcat URL has the form netcat://IPv4:PORT";
        return false;
    }
    return true;
}

bool parse_http(std::string_view rest, source_url *into, std::string *error)
{
    const size_t slash = rest.find_first_of("/?#");
    const std::string_view authority = rest.substr(0, slash);
    into->path = slash == std::string_view::npos ? "/" : std::string(rest.substr(slash, rest.find('#') - slash));
    if (into->path.empty() || into->path[0] != '/')
        into->path.insert(0, 1, '/');
    if (!clean(rest) || authority.find('@') != std::string_view::npos ||
        !take_place(host_port_parse(authority, http_port), into)) {
        *error = "not a good http URL";
        return false;
    }
    return true;
}

} // namespace

bool source_url_parse(const std::string &text, source_url *into, std::string *error)
{
    const std::string_view whole = text;
    const size_t mark = whole.find("://");
    const std::string_view scheme = whole.substr(0, mark);
    const std::string_view rest = mark == std::string_view::npos ? "" : whole.substr(mark + 3);
    if (scheme == "file") {
        into->scheme = source_scheme::file;
        return parse_file(rest, into, error);
    }
    if (scheme == "netcat") {
        into->scheme = source_scheme::netcat;
        return parse_netcat(rest, into, error);
    }
    if (scheme == "http") {
        into->scheme = source_scheme::http;
        return parse_http(rest, into, error);
    }
    *error = text.empty() ? "a URL is needed" : "only file, netcat and http URLs can be fetched";
    return false;
}

std::string source_url_file(const source_url &url)
{
    if (url.scheme == source_scheme::netcat)
        return {};
    std::string_view path = url.path;
    if (url.scheme == source_scheme::http) // a file's name may hold a question mark
        path = path.substr(0, path.find('?'));
    const size_t slash = path.rfind('/');
    return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

} // namespace veld
