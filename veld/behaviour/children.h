// Children of a trusted behaviour.
#pragma once

#include <lua.hpp>

namespace veld
{

/// Puts os.execute and io.popen in the place of Lua's own: their children begin with the signals as any program does,
/// not with those that the daemon ignores. May raise.
void children_open(lua_State *in);

} // namespace veld
