// Devices in a file, in a daemon that was built without Lua: there is never one.
#include "veld/behaviour/behaviour.h"

namespace veld
{

std::unique_ptr<behaviour> behaviour::load(const std::string &, bool, std::string *error)
{
    *error = "--behaviour: veld was built without Lua";
    return nullptr;
}

bool behaviour::fits(std::string *) const
{
    return true;
}

void behaviour::connect(behaviour_host) {}

} // namespace veld
