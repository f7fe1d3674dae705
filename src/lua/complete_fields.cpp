// The fields of the object that the typed word names.
#include <cstring>
#include <string>

#include <lua.hpp>

#include "lua/complete.h"

namespace
{

/// The typed word: the text of an object and the part of a field's name that is being completed.
struct typed_word {
    const char *text;
    char separator = '\0'; // in front of the part: ".", ":", "[" or none
    size_t part_start = 0;
    const char *part() const { return text + part_start; }
};

bool has_fields(lua_State *L, int index)
{
    const int type = lua_type(L, index);
    return type == LUA_TTABLE || type == LUA_TUSERDATA;
}

typed_word split_word(const char *text)
{
    typed_word word{text};
    for (const char *at = text; *at != '\0'; ++at) {
        if (at != text && strchr(".:[", *at) != nullptr)
            word = {text, *at, static_cast<size_t>(at - text) + 1};
    }
    return word;
}

/// Pushes the object whose fields are wanted.
bool push_object(lua_State *L, const typed_word &word)
{
    if (word.part_start == 0) {
        lua_rawgeti(L, LUA_REGISTRYINDEX, LUA_RIDX_GLOBALS);
        return true;
    }
    lua_pushliteral(L, "return ");
    lua_pushlstring(L, word.text, word.part_start - 1);
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

/// Pushes the next key and value behind the iterator, its state and the control key; the key also becomes that one.
bool push_next(lua_State *L, int iterator)
{
    lua_settop(L, iterator + 2);
    for (int i = 0; i < 3; ++i)
        lua_pushvalue(L, iterator + i);
    if (lua_pcall(L, 2, 2, 0) != LUA_OK || lua_isnil(L, -2))
        return false;
    lua_pushvalue(L, -2);
    lua_replace(L, iterator + 2);
    return true;
}

/// Pushes the text of the key at `key` as a candidate for the part; false when it is none.
bool push_candidate(lua_State *L, int key, const typed_word &word)
{
    const bool is_text = lua_type(L, key) == LUA_TSTRING;
    if (word.separator != '[') {
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
    const char quote = *word.part() == '\'' ? '\'' : '"';
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

/// Appends the candidate on top when it goes on from the part. Holds no owner while Lua code can raise.
void add_candidate(lua_State *L, const typed_word &word, int value, json_t *candidates)
{
    size_t size = 0;
    const char *candidate = lua_tolstring(L, -1, &size);
    const size_t part_size = strlen(word.part());
    if (size < part_size || memcmp(candidate, word.part(), part_size) != 0)
        return;
    const char more = size == part_size ? continuation(L, value) : '\0';
    std::string result(word.text, word.part_start);
    result.append(candidate, size).push_back(more);
    json_array_append_new(candidates, json_string(result.c_str()));
}

} // namespace

void lua_complete_fields(lua_State *L, const char *text, lua_field_source source, json_t *candidates)
{
    luaL_checkstack(L, LUA_MINSTACK, nullptr);
    const typed_word word = split_word(text);
    const int top = lua_gettop(L);
    if (push_object(L, word) && begin_iteration(L, source)) {
        const int iterator = lua_gettop(L) - 2;
        const int key = iterator + 3;
        const int value = iterator + 4;
        while (push_next(L, iterator)) {
            if ((word.separator != ':' || lua_isfunction(L, value)) && push_candidate(L, key, word))
                add_candidate(L, word, value, candidates);
        }
    }
    lua_settop(L, top);
}
