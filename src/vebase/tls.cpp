#include "vebase/tls.h"

std::unique_ptr<ve_tls> ve_tls::make(const std::string &, std::string *error)
{
    *error = "not available";
    return nullptr;
}
