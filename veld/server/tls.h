// TLS on the daemon's side of a link.
#pragma once

#include "veld/server/transport.h"

#include <memory>
#include <string>

struct ssl_ctx_st;

namespace veld
{

/// The daemon's certificate and key, shared by all links.
class tls_identity
{
public:
    /// Reads a certificate chain and its private key, both PEM. Null on failure, `*error` then says why.
    static std::unique_ptr<tls_identity> load(const std::string &certificate, const std::string &key,
                                              std::string *error);
    tls_identity(const tls_identity &) = delete;
    tls_identity &operator=(const tls_identity &) = delete;
    ~tls_identity();

    /// A link that begins with the handshake.
    std::unique_ptr<transport> accept(fd_owner fd) const;

private:
    explicit tls_identity(ssl_ctx_st *context) : context_(context) {}

    ssl_ctx_st *context_;
};

} // namespace veld
