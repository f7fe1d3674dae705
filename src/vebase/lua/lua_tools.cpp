// The bindings that ask the daemon nothing: waiting, sleeping, JSON as text, showing values. No local of a binding has
// a destructor where Lua may raise.
#include <algorithm>
#include <climits>
#include <new>
#include <string>
#include <vector>

#include "base/json_write.h"
#include "platform/ve_json.h"
#include "platform/ve_out.h"
#include "platform/ve_wait.h"
#include "vebase/lua/lua_events.h"
#include "vebase/lua/lua_exchange.h"
#include "vebase/lua/lua_impl.h"
#include "vebase/lua/lua_json.h"

namespace
{

constexpr char value_type[] = "dm.value";
constexpr size_t large_text = size_t{1} << 20;

/// Seconds at `index` as milliseconds; -1, no limit, for nil where that may stand.
int check_seconds(lua_State *L, int index, bool may_be_nil)
{
    if (may_be_nil && lua_isnoneornil(L, index))
        return -1;
    const lua_Number seconds = luaL_checknumber(L, index);
    luaL_argcheck(L, seconds >= 0, index, "not a time in seconds"); // NaN neither
    if (seconds >= INT_MAX / 1000)
        return INT_MAX;
    const auto whole = static_cast<int>(seconds * 1000);
    return whole < seconds * 1000 ? whole + 1 : whole; // a call of ceil would have libm loaded at every start
}

// --- waiting ---

uint32_t check_group(lua_State *L, int index)
{
    int is_integer = 0;
    const lua_Integer group = lua_tointegerx(L, index, &is_integer);
    luaL_argcheck(L, is_integer != 0 && group > 0 && group <= UINT32_MAX, 1, "not a group or an array of groups");
    return static_cast<uint32_t>(group);
}

/// The groups of argument 1 into an array that a userdata at the top owns. Returns their number.
size_t check_groups(lua_State *L, uint32_t **groups)
{
    const bool is_table = lua_istable(L, 1);
    const size_t count = is_table ? lua_rawlen(L, 1) : 1;
    luaL_argcheck(L, count > 0, 1, "not a group or an array of groups");
    *groups = static_cast<uint32_t *>(lua_newuserdata(L, count * sizeof(uint32_t)));
    if (!is_table) {
        (*groups)[0] = check_group(L, 1);
        return 1;
    }
    for (size_t i = 0; i < count; ++i) {
        lua_rawgeti(L, 1, static_cast<lua_Integer>(i) + 1);
        (*groups)[i] = check_group(L, -1);
        lua_pop(L, 1);
    }
    return count;
}

ve_lua_events::outcome wait_for_event(ve_lua_state *context, std::span<const uint32_t> groups, int timeout_ms,
                                      ve_jrpcmsg **message)
{
    const ve_lua_sigint_blocked blocked;
    if (context->events == nullptr)
        context->events = new ve_lua_events(context->request_ctx);
    const int64_t deadline = ve_wait_deadline(ve_lua_time_left(timeout_ms));
    return context->events->wait(groups, deadline, ve_lua_installed_hooks().running, message);
}

int dm_wait(lua_State *L)
{
    const int timeout_ms = check_seconds(L, 2, true);
    uint32_t *groups = nullptr;
    const size_t count = check_groups(L, &groups);
    ve_lua_box *box = ve_lua_push_box(L);
    ve_lua_state *context = ve_lua_of(L);
    ve_lua_show_output(context);
    if (context->request_ctx == nullptr)
        return luaL_error(L, "no link to the daemon");
    const ve_lua_events::outcome ended = wait_for_event(context, {groups, count}, timeout_ms, &box->message);
    ve_lua_check_interrupt(L);
    switch (ended) {
    case ve_lua_events::outcome::event:
        lua_pushinteger(L, static_cast<lua_Integer>(ve_jrpcmsg_event_id(box->message)));
        if (const json_t *value = ve_jrpcmsg_event_value(box->message))
            ve_lua_push_json(L, value);
        else
            lua_pushnil(L);
        return ve_lua_finish(box, 2);
    case ve_lua_events::outcome::failed:
        return ve_lua_raise(L, box);
    default:
        lua_pushnil(L);
        return 1;
    }
}

void sleep_ms(int milliseconds)
{
    const ve_lua_sigint_blocked blocked;
    ve_wait_sleep_ms(ve_lua_time_left(milliseconds));
}

int dm_sleep(lua_State *L)
{
    const int milliseconds = check_seconds(L, 1, false);
    ve_lua_show_output(ve_lua_of(L));
    sleep_ms(milliseconds);
    ve_lua_check_interrupt(L);
    return 0;
}

// --- JSON ---

/// A value that Lua owns while it is turned into something else.
json_t **push_owner(lua_State *L)
{
    auto **owner = static_cast<json_t **>(lua_newuserdata(L, sizeof(json_t *)));
    *owner = nullptr;
    luaL_setmetatable(L, value_type);
    return owner;
}

int release_value(lua_State *L)
{
    auto **owner = static_cast<json_t **>(lua_touserdata(L, 1));
    json_decref(*owner);
    *owner = nullptr;
    return 0;
}

int dm_json(lua_State *L)
{
    static std::string text; // not a local: the push may raise
    luaL_checkany(L, 1);
    json_t **value = push_owner(L);
    const char *problem = nullptr;
    *value = ve_lua_to_json(L, 1, &problem);
    ve_lua_check_interrupt(L);
    if (*value == nullptr)
        return luaL_argerror(L, 1, problem);
    text = json_written(*value, JSON_COMPACT | JSON_ENCODE_ANY | JSON_SORT_KEYS);
    lua_pushlstring(L, text.data(), text.size());
    if (text.capacity() > large_text)
        std::string().swap(text);
    return 1;
}

int dm_parse(lua_State *L)
{
    size_t size = 0;
    const char *text = luaL_checklstring(L, 1, &size);
    json_t **value = push_owner(L);
    json_error_t error;
    *value = json_loadb(text, size, JSON_DECODE_ANY | JSON_ALLOW_NUL, &error);
    ve_lua_check_interrupt(L);
    if (*value == nullptr) {
        lua_pushfstring(L, "no JSON: line %d, column %d: %s", error.line, error.column, error.text);
        return luaL_argerror(L, 1, lua_tostring(L, -1));
    }
    ve_lua_push_json(L, *value);
    json_decref(*value);
    *value = nullptr;
    return 1;
}

// --- showing ---

int dm_show(lua_State *L)
{
    const int count = lua_gettop(L);
    for (int i = 1; i <= count; ++i) {
        if (ve_lua_installed_hooks().describe != nullptr)
            ve_lua_installed_hooks().describe(L, i);
        else
            luaL_tolstring(L, i, nullptr);
        lua_pushliteral(L, "\n");
        lua_concat(L, 2);
        size_t size = 0;
        const char *text = lua_tolstring(L, -1, &size);
        ve_lua_emit(ve_lua_of(L), text, size);
        lua_pop(L, 1);
        ve_lua_check_interrupt(L);
    }
    return 0;
}

const luaL_Reg tools[] = {
    {"wait", dm_wait},   {"sleep", dm_sleep}, {"json", dm_json},
    {"parse", dm_parse}, {"show", dm_show},   {nullptr, nullptr},
};

} // namespace

void ve_lua_open_tools(lua_State *L)
{
    luaL_newmetatable(L, value_type);
    lua_pushcfunction(L, release_value);
    lua_setfield(L, -2, "__gc");
    lua_pop(L, 1);
    luaL_setfuncs(L, tools, 0);
}
