#include "vebase/lua/lua_exchange.h"

#include <algorithm>
#include <cstdlib>
#include <string>
#include <string_view>

#include "base/json_write.h"
#include "base/utf8.h"
#include "platform/ve_jrpcapi.h"
#include "platform/ve_json.h"
#include "platform/ve_out.h"
#include "vebase/lua/lua_impl.h"
#include "vebase/lua/lua_json.h"

namespace
{

constexpr char box_type[] = "dm.message";
constexpr char error_type[] = "dm.error";
/// Calls of C functions in each other that stand between a binding and the Lua code behind them, at most.
constexpr int frames_looked_at = 100;
/// Bytes of an error's text, by and large.
constexpr size_t shown_max = size_t{64} << 10;
constexpr char lines_name[] = "dm.error.lines"; // registry: the data of an error → its lines in the error's text

void release(ve_lua_box *box)
{
    ve_jrpcmsg_free(box->message);
    box->message = nullptr;
}

int box_release(lua_State *L)
{
    release(static_cast<ve_lua_box *>(lua_touserdata(L, 1)));
    return 0;
}

void set_field(lua_State *L, const char *name, const char *text)
{
    lua_pushstring(L, text);
    lua_setfield(L, -2, name);
}

/// Appends the text as it is shown; only the beginning of what nobody reads to its end.
void append_shown(std::string *out, std::string_view text)
{
    const size_t room = shown_max - std::min(out->size(), shown_max);
    out->append(ve_visible(text.substr(0, utf8_cut(text, room))));
    if (text.size() > room)
        out->append("...");
}

/// Pushes "\nkey: value" of every entry, in the daemon's order, which a Lua table does not keep.
void push_lines(lua_State *L, json_t *data)
{
    static std::string lines; // not a local: the push may raise
    const char *key;
    json_t *value;
    lines.clear();
    json_object_foreach(data, key, value)
    {
        lines.append("\n");
        append_shown(&lines, key);
        lines.append(": ");
        append_shown(&lines, json_written(value, 0));
        if (lines.size() > shown_max)
            break;
    }
    lua_pushlstring(L, lines.data(), lines.size());
}

/// Puts a field's text as it is shown in its place, "?" for none.
const char *shown_field(lua_State *L, int index)
{
    static std::string shown; // not a local: the push may raise
    const char *text = lua_tostring(L, index);
    shown.clear();
    append_shown(&shown, text != nullptr ? text : "?");
    lua_pushlstring(L, shown.data(), shown.size());
    lua_replace(L, index);
    return lua_tostring(L, index);
}

/// "[code] title: message" and a line for every entry of the data, as the shell shows a refusal.
int error_tostring(lua_State *L)
{
    luaL_checktype(L, 1, LUA_TTABLE);
    lua_settop(L, 1);
    lua_getfield(L, 1, "code");
    lua_getfield(L, 1, "title");
    lua_getfield(L, 1, "message");
    lua_pushfstring(L, "[%s] %s: %s", shown_field(L, 2), shown_field(L, 3), shown_field(L, 4));
    lua_getfield(L, LUA_REGISTRYINDEX, lines_name);
    lua_getfield(L, 1, "data");
    if (lua_istable(L, 6) && lua_istable(L, 7) && lua_rawget(L, 6) == LUA_TSTRING) {
        lua_remove(L, 6);
        lua_concat(L, 2);
    } else {
        lua_settop(L, 5);
    }
    return 1;
}

int error_concat(lua_State *L)
{
    lua_settop(L, 2);
    luaL_tolstring(L, 1, nullptr);
    luaL_tolstring(L, 2, nullptr);
    lua_concat(L, 2);
    return 1;
}

/// Sets the error's field "where" to the innermost line of Lua that led here, if there is any.
void set_where(lua_State *L)
{
    lua_Debug frame;
    for (int level = 0; level < frames_looked_at && lua_getstack(L, level, &frame) != 0; ++level) {
        lua_getinfo(L, "Sl", &frame);
        if (frame.currentline <= 0)
            continue;
        lua_pushfstring(L, "%s:%d", frame.short_src, frame.currentline);
        lua_setfield(L, -2, "where");
        return;
    }
}

/// Sets the error's field "data" and remembers how it reads.
void set_data(lua_State *L, json_t *data)
{
    ve_lua_push_json(L, data);
    lua_getfield(L, LUA_REGISTRYINDEX, lines_name);
    lua_pushvalue(L, -2);
    push_lines(L, data);
    lua_rawset(L, -3);
    lua_pop(L, 1);
    lua_setfield(L, -2, "data");
}

int exchange(const ve_lua_state *context, ve_jrpcmsg *message, int timeout_ms)
{
    const ve_lua_sigint_blocked blocked;
    const ve_lua_hooks &hooks = ve_lua_installed_hooks();
    timeout_ms = ve_lua_time_left(timeout_ms);
    ve_jrpcmsg_want_values(message);
    if (hooks.exec != nullptr)
        return hooks.exec(message, timeout_ms);
    if (context->request_ctx == nullptr) {
        ve_jrpcmsg_set_error(message, ve_jrpc_err_lost, "no link to the daemon", nullptr);
        return -1;
    }
    ve_jrpcapi_set_timeout(context->request_ctx, timeout_ms);
    return ve_jrpcapi_exec(context->request_ctx, message);
}

int send(const ve_lua_state *context, ve_jrpcmsg *message)
{
    const ve_lua_sigint_blocked blocked;
    const ve_lua_hooks &hooks = ve_lua_installed_hooks();
    if (hooks.send != nullptr)
        return hooks.send(message);
    return context->request_ctx != nullptr ? ve_jrpcapi_send(context->request_ctx, message) : -1;
}

} // namespace

ve_lua_box *ve_lua_push_box(lua_State *L)
{
    auto *box = static_cast<ve_lua_box *>(lua_newuserdata(L, sizeof(ve_lua_box)));
    box->message = nullptr;
    luaL_setmetatable(L, box_type);
    return box;
}

ve_lua_box *ve_lua_push_request(lua_State *L, const char *method)
{
    ve_lua_box *box = ve_lua_push_box(L);
    box->message = ve_jrpcmsg_create_new(method, nullptr);
    return box;
}

int ve_lua_raise(lua_State *L, ve_lua_box *box)
{
    lua_createtable(L, 0, 4);
    lua_pushinteger(L, ve_jrpcmsg_error_code(box->message));
    lua_setfield(L, -2, "code");
    set_field(L, "title", ve_jrpcmsg_error_title(box->message));
    set_field(L, "message", ve_jrpcmsg_error_message(box->message));
    if (json_t *data = ve_jrpcmsg_error_data(box->message))
        set_data(L, data);
    set_where(L);
    luaL_setmetatable(L, error_type);
    release(box);
    return lua_error(L);
}

bool ve_lua_push_error_text(lua_State *L, int index)
{
    if (!lua_istable(L, index) || lua_getmetatable(L, index) == 0)
        return false;
    luaL_getmetatable(L, error_type);
    const bool is_error = lua_rawequal(L, -1, -2) != 0;
    lua_pop(L, 2);
    if (!is_error)
        return false;
    luaL_tolstring(L, index, nullptr);
    lua_pushliteral(L, "where");
    if (lua_rawget(L, index) == LUA_TSTRING) {
        lua_pushliteral(L, ": ");
        lua_rotate(L, -3, 2);
        lua_concat(L, 3);
    } else {
        lua_pop(L, 1);
    }
    return true;
}

int ve_lua_transmit(lua_State *L, const ve_lua_box *box, int timeout_ms)
{
    const int result = exchange(ve_lua_of(L), box->message, timeout_ms);
    ve_lua_check_interrupt(L);
    return result < 0 || ve_jrpcmsg_error_code(box->message) != 0 ? -1 : 0;
}

void ve_lua_exchange(lua_State *L, ve_lua_box *box, int timeout_ms)
{
    if (ve_lua_transmit(L, box, timeout_ms) < 0)
        ve_lua_raise(L, box);
}

void ve_lua_send(lua_State *L, ve_lua_box *box)
{
    const int result = send(ve_lua_of(L), box->message);
    ve_lua_check_interrupt(L);
    if (result >= 0)
        return;
    if (ve_jrpcmsg_error_code(box->message) == 0)
        ve_jrpcmsg_set_error(box->message, ve_jrpc_err_lost, "the daemon closed the link", nullptr);
    ve_lua_raise(L, box);
}

int ve_lua_finish(ve_lua_box *box, int results)
{
    release(box);
    return results;
}

int ve_lua_finish_true(lua_State *L, ve_lua_box *box)
{
    lua_pushboolean(L, 1);
    return ve_lua_finish(box, 1);
}

void ve_lua_open_exchange(lua_State *L)
{
    luaL_newmetatable(L, box_type);
    lua_pushcfunction(L, box_release);
    lua_setfield(L, -2, "__gc");
    luaL_newmetatable(L, error_type);
    lua_pushcfunction(L, error_tostring);
    lua_setfield(L, -2, "__tostring");
    lua_pushcfunction(L, error_concat);
    lua_setfield(L, -2, "__concat");
    lua_newtable(L); // forgets the data that nobody holds any more
    lua_createtable(L, 0, 1);
    set_field(L, "__mode", "k");
    lua_setmetatable(L, -2);
    lua_setfield(L, LUA_REGISTRYINDEX, lines_name);
    lua_pop(L, 2);
}
