#include "lua/session.h"

#include <cstdio>
#include <cstring>
#include <string>

#include <lua.hpp>

#include "lua/complete.h"
#include "lua/printer.h"
#include "lua/traceback.h"
#include "platform/ve_colors.h"
#include "platform/ve_lua.h"
#include "platform/ve_out.h"
#include "platform/ve_wait.h"

namespace
{

constexpr char chunk_name[] = "stdin";
constexpr char results_name[] = "_";
constexpr char unfinished_end[] = "<eof>";
constexpr char error_color[] = "\033[0;31m";
constexpr char label_color[] = "\033[1;32m";
constexpr char value_color[] = "\033[0;32m";
constexpr char reset_color[] = "\033[0m";

struct {
    int results = -1;             // reference of the results table, -1: none yet
    unsigned results_count = 0;   // shown so far
    bool owns_underscore = false; // "_" is ours
    bool failed = false;          // the last piece raised an error
    std::string expression;       // not a local: Lua code can raise
    std::string shown;            // of a message; neither
} session;

/// Writes the error message on top and takes it off; the handler has seen to those that it made. Nothing after Ctrl-C:
/// its error was made to stop the code.
void report_error(lua_State *L, bool from_handler = false)
{
    size_t size = 0;
    const char *message = lua_tolstring(L, -1, &size);
    if (message != nullptr && !from_handler) {
        session.shown = luap_error_visible({message, size});
        message = session.shown.data();
        size = session.shown.size();
    }
    if (!ve_wait_interrupted()) {
        const bool colours = luap_error_colours();
        if (colours)
            ve_lua_write_error(error_color, strlen(error_color));
        if (message != nullptr)
            ve_lua_write_error(message, size);
        ve_lua_write_error(reset_color, colours ? strlen(reset_color) : 0);
        ve_lua_write_error("\n", 1);
    }
    lua_pop(L, 1);
}

/// Calls the function below `nargs` arguments with the message handler; an error is reported.
int call_protected(lua_State *L, int nargs, int nresults)
{
    const int base = lua_gettop(L) - nargs;
    lua_pushcclosure(L, luap_traceback, 0);
    lua_insert(L, base);
    const int status = lua_pcallk(L, nargs, nresults, base, 0, nullptr);
    if (status != LUA_OK)
        report_error(L, status == LUA_ERRRUN);
    lua_remove(L, base);
    return status;
}

int get_results(lua_State *L)
{
    lua_getglobal(L, results_name);
    return 1;
}

int set_results(lua_State *L)
{
    lua_setglobal(L, results_name);
    return 0;
}

/// Pushes the table of globals, for who goes on without its metamethods after the error on top, which he takes off.
void push_bare_globals(lua_State *L)
{
    lua_pushglobaltable(L);
    if (!lua_istable(L, -1)) { // code that knows the registry can take it away
        lua_pop(L, 1);
        lua_error(L);
    }
    lua_remove(L, -2);
}

/// Pushes what "_" stands for. Metamethods of the globals have a say in that, but those that refuse it are not heard.
void push_underscore(lua_State *L)
{
    lua_pushcfunction(L, get_results);
    if (lua_pcall(L, 0, 1, 0) == LUA_OK)
        return;
    push_bare_globals(L);
    lua_pushstring(L, results_name);
    lua_rawget(L, -2);
    lua_remove(L, -2);
}

/// Makes "_" stand for the value on top, which is taken off.
void pop_underscore(lua_State *L)
{
    lua_pushcfunction(L, set_results);
    lua_pushvalue(L, -2);
    if (lua_pcall(L, 1, 0, 0) != LUA_OK) {
        push_bare_globals(L);
        lua_pushstring(L, results_name);
        lua_pushvalue(L, -3);
        lua_rawset(L, -3);
        lua_pop(L, 1);
    }
    lua_pop(L, 1);
}

int prepare(lua_State *L)
{
    if (session.results == -1) {
        lua_newtable(L);
        session.results = luaL_ref(L, LUA_REGISTRYINDEX);
    }
    push_underscore(L);
    if (lua_isnil(L, -1)) {
        lua_rawgeti(L, LUA_REGISTRYINDEX, session.results);
        pop_underscore(L);
        session.owns_underscore = true;
    }
    return 0;
}

int cleanup(lua_State *L)
{
    lua_pushnil(L);
    pop_underscore(L);
    return 0;
}

/// Lua function of the results table and a value: shows the value and stores it.
int show_result(lua_State *L)
{
    luaL_checktype(L, 1, LUA_TTABLE); // code that knows the registry can take it away
    const char *description = luap_describe(L, 2);
    const size_t size = luap_description_length();
    lua_pushvalue(L, 2);
    lua_rawseti(L, 1, static_cast<lua_Integer>(session.results_count) + 1);
    ++session.results_count;

    const bool colours = luap_colours && ve_out_is_terminal() && ve_colors_known();
    char label[64];
    const int label_size = snprintf(label, sizeof label, "%s%s[%u]%s = ", colours ? label_color : "", results_name,
                                    session.results_count, colours ? value_color : "");
    ve_lua_write(label, static_cast<size_t>(label_size));
    ve_lua_write(description, size);
    ve_lua_write(reset_color, colours ? strlen(reset_color) : 0);
    ve_lua_write("\n", 1);
    return 0;
}

bool ends_unfinished(const char *message, size_t size)
{
    const size_t end = strlen(unfinished_end);
    return size > end && memcmp(message + size - end, unfinished_end, end) == 0;
}

} // namespace

void kest_lua_init(lua_State *L)
{
    lua_complete_set_state(L);
    session = {};
}

void kest_lua_prepare(lua_State *L)
{
    ve_lua_limit_time(L, -1);
    lua_pushcfunction(L, prepare);
    call_protected(L, 0, 0);
}

void kest_lua_cleanup(lua_State *L)
{
    if (!session.owns_underscore)
        return;
    lua_pushcfunction(L, cleanup);
    call_protected(L, 0, 0);
}

int luap_call(lua_State *L, int nargs)
{
    return call_protected(L, nargs, LUA_MULTRET);
}

bool kest_lua_failed()
{
    return session.failed;
}

unsigned kest_lua_shown()
{
    return session.results_count;
}

void kest_lua_run_chunk(lua_State *L)
{
    const int chunk = lua_gettop(L);
    session.failed = luap_call(L, 0) != LUA_OK;
    if (!session.failed) {
        const int last = lua_gettop(L);
        // A description that fails is reported in its place; the others follow.
        for (int i = chunk; i <= last && !ve_wait_interrupted(); ++i) {
            if (lua_checkstack(L, 3 * LUA_MINSTACK) == 0) { // to call what shows it, and what that calls
                lua_settop(L, chunk);
                lua_pushliteral(L, "too many results to show");
                report_error(L);
                break;
            }
            const bool colours = luap_colours;
            lua_pushcfunction(L, show_result);
            lua_rawgeti(L, LUA_REGISTRYINDEX, session.results);
            lua_pushvalue(L, i);
            call_protected(L, 2, 0);
            luap_colours = colours;
        }
    }
    lua_settop(L, chunk - 1);
}

int kest_lua_execute(lua_State *L, const char *text, size_t length)
{
    std::string &expression = session.expression;
    expression.assign("return ").append(text, length);
    int status = luaL_loadbufferx(L, expression.data(), expression.size(), chunk_name, nullptr);
    if (status != LUA_OK) {
        lua_pop(L, 1);
        status = luaL_loadbufferx(L, text, length, chunk_name, nullptr);
    }
    if (status == LUA_ERRSYNTAX) {
        size_t size = 0;
        const char *message = lua_tolstring(L, -1, &size);
        if (ends_unfinished(message, size)) {
            lua_pop(L, 1);
            return 1;
        }
    }
    if (status == LUA_ERRSYNTAX || status == LUA_ERRMEM) {
        report_error(L);
        return -1;
    }
    kest_lua_run_chunk(L);
    return 0;
}
