#include "platform/ve_lua.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>
#include <pthread.h>

#include "base/clock.h"
#include "platform/ve_lua_frames.h"
#include "platform/ve_wait.h"
#include "vebase/lua/lua_events.h"
#include "vebase/lua/lua_exchange.h"
#include "vebase/lua/lua_impl.h"

namespace
{

/// Instructions between two looks at the interrupt flag: usually, and among calls that take long.
constexpr int hook_interval = 100;
constexpr int slow_hook_interval = 1;
/// Time between two looks from which on calls take long, and the looks without any after which they do not any more.
constexpr int64_t slow_ns = 2000000;
constexpr int quick_looks = 1000;

struct {
    ve_lua_hooks hooks;
    int64_t time_limit = -1; // a point in time, as ve_wait_deadline gives it
    lua_CFunction xpcall = nullptr;
    int64_t last_look = 0; // ns
    int quick = 0;         // looks since calls took long
} interpreter;

int return_argument(lua_State *)
{
    return 1;
}

/// An error raised inside a hook runs the message handler of xpcall with hooks off, and a handler that never ends could
/// not be stopped any more. So the handlers of the xpcalls under way are replaced, in the stack slot where they wait.
void drop_message_handlers(lua_State *L)
{
    if (lua_checkstack(L, 4) == 0)
        return;
    ve_lua_frames frames(L);
    lua_Debug frame;
    while (frames.next(&frame)) {
        lua_getinfo(L, "f", &frame);
        const bool is_xpcall = lua_tocfunction(L, -1) == interpreter.xpcall;
        lua_pop(L, 1);
        if (!is_xpcall)
            continue;
        lua_pushcfunction(L, return_argument);
        lua_setlocal(L, &frame, 2);
    }
}

/// A hundred instructions are nothing, unless each calls something that takes long.
void hook(lua_State *L, lua_Debug *)
{
    if (ve_lua_stop_is_due())
        ve_lua_check_interrupt(L);
    const int64_t now = monotonic_ns();
    const bool slow = now - interpreter.last_look > slow_ns;
    interpreter.last_look = now;
    interpreter.quick = slow ? 0 : std::min(interpreter.quick + 1, quick_looks);
    const int interval = interpreter.quick >= quick_looks ? hook_interval : slow_hook_interval;
    if (lua_gethookcount(L) != interval)
        lua_sethook(L, hook, LUA_MASKCOUNT, interval);
}

int panic(lua_State *L)
{
    const char *message = lua_tostring(L, -1);
    fprintf(stderr, "Lua: unprotected error: %s\n", message != nullptr ? message : "(no message)");
    return 0; // Lua then aborts
}

int open_state(lua_State *L)
{
    luaL_openlibs(L);
    ve_lua_open_interrupts(L);
    ve_lua_open_io(L);
    ve_lua_open_long(L);
    ve_lua_open_hook(L);
    ve_lua_open_dm(L);
    return 0;
}

struct chunk {
    const char *text;
    size_t length;
    const char *path;
    std::span<const std::string> arguments;
};

int run_chunk(lua_State *L)
{
    const auto *request = static_cast<const chunk *>(lua_touserdata(L, 1));
    const char *name = request->path != nullptr ? lua_pushfstring(L, "@%s", request->path) : "stdin";
    if (luaL_loadbufferx(L, request->text, request->length, name, "t") != LUA_OK)
        return lua_error(L);
    const auto count = static_cast<int>(request->arguments.size());
    if (request->path != nullptr) {
        luaL_checkstack(L, count + 4, "too many arguments");
        lua_createtable(L, count, 1);
        lua_pushstring(L, request->path);
        lua_rawseti(L, -2, 0);
        for (int i = 0; i < count; ++i) {
            lua_pushstring(L, request->arguments[i].c_str());
            lua_rawseti(L, -2, i + 1);
        }
        lua_setglobal(L, "arg");
        for (const std::string &argument : request->arguments)
            lua_pushstring(L, argument.c_str());
    }
    lua_call(L, count, 0);
    return 0;
}

/// Message handler: the error value as a text.
int error_text(lua_State *L)
{
    if (lua_isstring(L, 1) || ve_lua_push_error_text(L, 1))
        return 1;
    if (luaL_callmeta(L, 1, "__tostring") && lua_isstring(L, -1))
        return 1;
    lua_pushfstring(L, "(error object is a %s value)", luaL_typename(L, 1));
    return 1;
}

void restart_hook(lua_State *L)
{
    interpreter.quick = 0;
    if (lua_gethook(L) == hook)
        lua_sethook(L, hook, LUA_MASKCOUNT, slow_hook_interval);
}

} // namespace

ve_lua_state *ve_lua_of(lua_State *L)
{
    return *static_cast<ve_lua_state **>(lua_getextraspace(L));
}

ve_lua_sigint_blocked::ve_lua_sigint_blocked()
{
    sigset_t only;
    sigemptyset(&only);
    sigaddset(&only, SIGINT);
    pthread_sigmask(SIG_BLOCK, &only, &before_);
}

ve_lua_sigint_blocked::~ve_lua_sigint_blocked()
{
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

void ve_lua_set_hooks(const ve_lua_hooks &filled)
{
    interpreter.hooks = filled;
}

const ve_lua_hooks &ve_lua_installed_hooks()
{
    return interpreter.hooks;
}

bool ve_lua_stop_is_due()
{
    return ve_wait_interrupted() || (interpreter.time_limit >= 0 && ve_wait_deadline(0) >= interpreter.time_limit);
}

void ve_lua_check_interrupt(lua_State *L)
{
    if (!ve_lua_stop_is_due())
        return;
    // At every instruction from here on, so that code which catches the error does not get far. A coroutine inherits
    // the hook of the thread that creates it.
    lua_sethook(L, hook, LUA_MASKCOUNT, 1);
    drop_message_handlers(L);
    lua_pushliteral(L, "interrupted");
    lua_error(L);
}

void ve_lua_watch(lua_State *L)
{
    interpreter.quick = 0;
    lua_sethook(L, hook, LUA_MASKCOUNT, slow_hook_interval);
}

void ve_lua_limit_time(lua_State *L, int milliseconds)
{
    interpreter.time_limit = ve_wait_deadline(milliseconds);
    if (milliseconds < 0)
        restart_hook(L);
}

int ve_lua_time_left(int timeout_ms)
{
    if (interpreter.time_limit < 0)
        return timeout_ms;
    const int64_t left = std::max<int64_t>(interpreter.time_limit - ve_wait_deadline(0), 0);
    return timeout_ms < 0 ? static_cast<int>(left) : static_cast<int>(std::min<int64_t>(left, timeout_ms));
}

void ve_lua_open_interrupts(lua_State *L)
{
    lua_getglobal(L, "xpcall");
    interpreter.xpcall = lua_tocfunction(L, -1);
    lua_pop(L, 1);
    lua_sethook(L, hook, LUA_MASKCOUNT, slow_hook_interval);
}

ve_lua_context *ve_lua_init(int)
{
    auto *context = new (std::nothrow) ve_lua_state;
    if (context == nullptr)
        return nullptr;
    context->state = luaL_newstate();
    if (context->state != nullptr) {
        lua_atpanic(context->state, panic);
        *static_cast<ve_lua_state **>(lua_getextraspace(context->state)) = context;
        lua_pushcfunction(context->state, open_state);
        if (ve_lua_open_streams(context) && lua_pcall(context->state, 0, 0, 0) == LUA_OK)
            return context;
    }
    ve_lua_free(context);
    return nullptr;
}

int ve_lua_exec(ve_lua_context *base, const char *text, size_t length, const char *chunk_name,
                std::span<const std::string> arguments)
{
    auto *context = static_cast<ve_lua_state *>(base);
    lua_State *L = context->state;
    context->output.clear();
    context->error.clear();
    context->collecting = true;
    context->finishes_children = true;
    restart_hook(L);
    chunk request = {text, length, chunk_name, arguments};
    lua_pushcfunction(L, error_text);
    lua_pushcfunction(L, run_chunk);
    lua_pushlightuserdata(L, &request);
    const int status = lua_pcall(L, 1, 0, -3);
    if (status != LUA_OK) {
        size_t size = 0;
        const char *message = lua_tolstring(L, -1, &size);
        context->error.assign(message != nullptr ? message : "(no error message)",
                              message != nullptr ? size : strlen("(no error message)"));
    }
    lua_settop(L, 0);
    ve_lua_flush_streams(context);
    context->collecting = false;
    return status;
}

void ve_lua_free(ve_lua_context *base)
{
    auto *context = static_cast<ve_lua_state *>(base);
    if (context == nullptr)
        return;
    if (context->state != nullptr)
        lua_close(context->state);
    delete context->events;
    ve_lua_close_streams(context);
    delete context;
}
