// TLS in a daemon that was built without it: there is never an identity.
#include "veld/server/tls.h"

namespace veld
{

std::unique_ptr<tls_identity> tls_identity::load(const std::string &, const std::string &, std::string *error)
{
    *error = "veld was built without TLS";
    return nullptr;
}

tls_identity::~tls_identity() = default;

std::unique_ptr<transport> tls_identity::accept(fd_owner) const
{
    return nullptr;
}

} // namespace veld
