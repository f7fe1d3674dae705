// Where a file is to be fetched from.
#pragma once

#include <cstdint>
#include <string>

namespace veld
{

enum class source_scheme { file, netcat, http };

struct source_url {
    source_scheme scheme = source_scheme::file;
    std::string host; ///< of an IPv6 address without its brackets
    uint16_t port = 0;
    std::string path; ///< a file's path, or what an HTTP server is asked for
};

/// Takes "file:///abs/path", "netcat://IPv4:PORT" and "http://HOST[:PORT]/...". False when the text is none of these,
/// `*error` then says why.
bool source_url_parse(const std::string &text, source_url *into, std::string *error);

/// The last component of a URL's path, which names the file when nothing else does; empty when there is none.
std::string source_url_file(const source_url &url);

} // namespace veld
