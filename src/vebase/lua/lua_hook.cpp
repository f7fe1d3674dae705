// debug.sethook and debug.gethook: a hook of the script's own is called as it would be without us, and Ctrl-C is looked
// for all the same.
#include <algorithm>

#include "vebase/lua/lua_impl.h"

namespace
{

/// Instructions between two looks, at most.
constexpr int looks_interval = 1000;

/// The hook that code has set; Lua's library keeps the function, by thread.
struct {
    lua_Hook call = nullptr; // the library's
    int count = 0;           // instructions between two count events, 0 for none
    int seen = 0;            // since the last one
    int interval = looks_interval;
} script;

void script_hook(lua_State *L, lua_Debug *event)
{
    if (event->event == LUA_HOOKCOUNT) {
        if (ve_lua_stop_is_due())
            ve_lua_check_interrupt(L);
        script.seen += script.interval;
        if (script.count == 0 || script.seen < script.count)
            return;
        script.seen = 0;
    }
    script.call(L, event);
}

lua_State *thread_of(lua_State *L)
{
    return lua_isthread(L, 1) ? lua_tothread(L, 1) : L;
}

int set_hook(lua_State *L)
{
    lua_State *thread = thread_of(L);
    ve_lua_call_original(L);
    const int mask = lua_gethookmask(thread);
    if (lua_gethook(thread) == nullptr || mask == 0) {
        ve_lua_watch(thread);
        return 0;
    }
    script.call = lua_gethook(thread);
    script.count = (mask & LUA_MASKCOUNT) != 0 ? lua_gethookcount(thread) : 0;
    script.seen = 0;
    script.interval = script.count == 0 ? looks_interval : std::min(script.count, looks_interval);
    lua_sethook(thread, script_hook, mask | LUA_MASKCOUNT, script.interval);
    return 0;
}

/// Lua's library knows its own hook alone, and says nothing of none.
int get_hook(lua_State *L)
{
    lua_State *thread = thread_of(L);
    const lua_Hook set = lua_gethook(thread);
    const int mask = lua_gethookmask(thread);
    const int count = lua_gethookcount(thread);
    if (set == script_hook)
        lua_sethook(thread, script.call, script.count == 0 ? mask & ~LUA_MASKCOUNT : mask, script.count);
    else
        lua_sethook(thread, nullptr, 0, 0);
    const int results = ve_lua_call_original(L);
    lua_sethook(thread, set, mask, count);
    return results;
}

} // namespace

void ve_lua_open_hook(lua_State *L)
{
    lua_getglobal(L, "debug");
    ve_lua_replace(L, "sethook", set_hook);
    ve_lua_replace(L, "gethook", get_hook);
    lua_pop(L, 1);
}
