#include "lua/traceback.h"

#include <cstdio>
#include <cstring>
#include <string>
#include <unistd.h>

#include <lua.hpp>

#include "base/visible.h"
#include "lua/printer.h"
#include "platform/ve_colors.h"
#include "platform/ve_lua_frames.h"
#include "platform/ve_wait.h"

namespace
{

/// Frames between two looks at Ctrl-C.
constexpr int frames_per_look = 256;

// Not a local: the text becomes a Lua string at the end, which may raise.
std::string trace;

const char *bold()
{
    return luap_error_colours() ? "\033[1m" : "";
}

const char *unbold()
{
    return luap_error_colours() ? "\033[22m" : "";
}

/// Leaves exactly the message on the stack.
void make_message(lua_State *L)
{
    lua_settop(L, 1);
    if (!lua_isstring(L, 1)) {
        if (lua_isnil(L, 1) || luaL_callmeta(L, 1, "__tostring") == 0 || lua_isstring(L, -1) == 0)
            lua_pushliteral(L, "(no error message)");
        lua_replace(L, 1);
        lua_settop(L, 1);
    }
    if (isatty(STDERR_FILENO) != 1)
        return;
    size_t size = 0;
    const char *message = lua_tolstring(L, 1, &size);
    trace = luap_error_visible({message, size});
    lua_pushlstring(L, trace.data(), trace.size());
    lua_replace(L, 1);
}

void add_name(const char *name, const char *on, const char *off)
{
    trace += name != nullptr ? "'" : "";
    trace += on;
    trace += name != nullptr ? luap_error_visible(name) : "?";
    trace += off;
    trace += name != nullptr ? "'\n" : "\n";
}

void add_frame(const lua_Debug &frame, int level, const char *on, const char *off)
{
    char place[64 + 10 * LUA_IDSIZE]; // an escape takes up to ten bytes
    const std::string source = luap_error_visible(frame.short_src);
    if (frame.istailcall)
        trace += "\t... tail calls\n";
    if (*frame.what == 'C') {
        snprintf(place, sizeof place, "\t#%d %s[C]:%s in function ", level, on, off);
        trace += place;
        add_name(frame.name, on, off);
    } else if (*frame.what == 'm') {
        snprintf(place, sizeof place, "\t#%d %s%s:%d:%s in the main chunk\n", level, on, source.c_str(),
                 frame.currentline, off);
        trace += place;
    } else if (*frame.what == 'L') {
        snprintf(place, sizeof place, "\t#%d %s%s:%d:%s in function ", level, on, source.c_str(), frame.currentline,
                 off);
        trace += place;
        add_name(frame.name, on, off);
    }
}

} // namespace

bool luap_error_colours()
{
    return luap_colours && isatty(STDERR_FILENO) == 1 && ve_colors_known();
}

std::string luap_error_visible(std::string_view text)
{
    return isatty(STDERR_FILENO) == 1 ? visible(text, "\t\n") : std::string(text);
}

int luap_traceback(lua_State *L)
{
    make_message(L);
    const char *on = bold();
    const char *off = unbold();
    trace = "\n\nStack trace:\n";
    ve_lua_frames frames(L);
    lua_Debug frame;
    int level = 0;
    for (; frames.next(&frame); ++level) {
        if (level % frames_per_look == 0 && ve_wait_interrupted())
            break;
        lua_getinfo(L, "Snlt", &frame);
        add_frame(frame, level, on, off);
    }
    if (level == 0)
        trace += "No activation records.\n";
    lua_pushlstring(L, trace.data(), trace.size());
    if (trace.capacity() > size_t{1} << 20)
        std::string().swap(trace);
    lua_concat(L, 2);
    return 1;
}
