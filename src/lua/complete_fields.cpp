// The field generator: the fields of the object that the typed word names, one candidate at a time.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <lua.hpp>

#include "lua/complete.h"
#include "platform/ve_log.h"

namespace
{

// A run's state between the calls; the iterator, its state and the control key stay on the Lua stack.
int stack_top = 0;
char separator = '\0'; // in front of the part being completed: ".", ":", "[" or none
size_t part_start = 0; // of that part in the text

bool has_fields(lua_State *L, int index)
{
    const int type = lua_type(L, index);
    return type == LUA_TTABLE || type == LUA_TUSERDATA;
}

/// Pushes the object whose fields are wanted.
bool push_object(lua_State *L, const char *text)
{
    const char *last = nullptr;
    for (const char *at = text; *at != '\0'; ++at) {
        if (strchr(".:[", *at) != nullptr)
            last = at;
    }
    if (last == nullptr || last == text) {
        separator = '\0';
        part_start = 0;
        lua_rawgeti(L, LUA_REGISTRYINDEX, LUA_RIDX_GLOBALS);
        return true;
    }
    separator = *last;
    part_start = static_cast<size_t>(last - text) + 1;
    lua_pushliteral(L, "return ");
    lua_pushlstring(L, text, part_start - 1);
    lua_concat(L, 2);
    return luaL_loadstring(L, lua_tostring(L, -1)) == LUA_OK && lua_pcall(L, 0, 1, 0) == LUA_OK && has_fields(L, -1);
}

/// Replaces the object on top by iterator, state and control key.
bool begin_iteration(lua_State *L, lua_field_source source)
{
    const int object = lua_gettop(L);
    if (source == lua_field_source::object) {
        lua_getglobal(L, "pairs");
        lua_pushvalue(L, object);
        return lua_pcall(L, 1, 3, 0) == LUA_OK;
    }
    if (luaL_getmetafield(L, object, "__index") == LUA_TNIL || !has_fields(L, -1))
        return false;
    lua_getglobal(L, "next");
    lua_insert(L, -2);
    lua_pushnil(L);
    return true;
}

bool begin_run(lua_State *L, const char *text, lua_field_source source)
{
    stack_top = lua_gettop(L);
    if (!push_object(L, text) || !begin_iteration(L, source))
        return false;
    while (lua_gettop(L) > stack_top + 3) // only the three are kept
        lua_remove(L, stack_top + 1);
    return true;
}

/// Pushes the next key and value; the key also becomes the control key.
bool push_next(lua_State *L)
{
    for (int i = 1; i <= 3; ++i)
        lua_pushvalue(L, stack_top + i);
    if (lua_pcall(L, 2, 2, 0) != LUA_OK || lua_isnil(L, -2))
        return false;
    lua_pushvalue(L, -2);
    lua_replace(L, stack_top + 3);
    return true;
}

/// Pushes the text of the key at `key` as a candidate for the part; false when it is none.
bool push_candidate(lua_State *L, int key, const char *part)
{
    const bool is_text = lua_type(L, key) == LUA_TSTRING;
    if (separator != '[') {
        if (is_text)
            lua_pushvalue(L, key);
        return is_text;
    }
    int is_integer = 0; // of value: a __pairs may hand out floats
    const lua_Integer number = lua_type(L, key) == LUA_TNUMBER ? lua_tointegerx(L, key, &is_integer) : 0;
    if (is_integer != 0) {
        lua_pushfstring(L, "%I]", static_cast<LUAI_UACINT>(number));
        return true;
    }
    const char quote = *part == '\'' ? '\'' : '"';
    if (is_text)
        lua_pushfstring(L, "%c%s%c]", quote, lua_tostring(L, key), quote);
    return is_text;
}

/// The character by which one goes on from a field with the value at `index`, or 0.
char continuation(lua_State *L, int index)
{
    if (lua_isfunction(L, index))
        return '(';
    if (!lua_istable(L, index))
        return '\0';
    lua_pushnil(L);
    if (lua_next(L, index) == 0)
        return '\0';
    const char sign = lua_type(L, -2) == LUA_TSTRING ? '.' : '[';
    lua_pop(L, 2);
    return sign;
}

/// The text up to the part, the candidate and one more character unless it is 0.
char *make_result(const char *text, const char *candidate, size_t size, char more)
{
    const size_t count = part_start + size + 2;
    auto *result = static_cast<char *>(ve_xmalloc(count, "lua_complete_fields", __LINE__, "lua"));
    memcpy(result, text, part_start);
    memcpy(result + part_start, candidate, size);
    result[part_start + size] = more;
    result[part_start + size + 1] = '\0';
    return result;
}

} // namespace

char *lua_complete_fields(lua_State *L, const char *text, int state, lua_field_source source)
{
    luaL_checkstack(L, LUA_MINSTACK, nullptr);
    if (state == 0 && !begin_run(L, text, source)) {
        lua_settop(L, stack_top);
        return nullptr;
    }
    const char *part = text + part_start;
    const size_t part_size = strlen(part);
    for (;;) {
        lua_settop(L, stack_top + 3);
        if (!push_next(L))
            break;
        const int key = stack_top + 4;
        const int value = stack_top + 5;
        lua_settop(L, value);
        if (separator == ':' && !lua_isfunction(L, value))
            continue;
        if (!push_candidate(L, key, part))
            continue;
        size_t size = 0;
        const char *candidate = lua_tolstring(L, -1, &size);
        if (size < part_size || memcmp(candidate, part, part_size) != 0)
            continue;
        char *result = make_result(text, candidate, size, size == part_size ? continuation(L, value) : '\0');
        lua_settop(L, stack_top + 3);
        return result;
    }
    lua_settop(L, stack_top);
    return nullptr;
}
