// TLS in a client that was built without it: there is never a session.
#include "vebase/link/tls.h"

std::string ve_tls::problem()
{
    return "kest was built without TLS";
}

std::unique_ptr<ve_tls> ve_tls::make(const std::string &, std::string *error)
{
    *error = problem();
    return nullptr;
}
