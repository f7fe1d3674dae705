#include "veld/behaviour/values.h"

#include "base/number.h"

#include <lua.hpp>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string_view>

namespace veld
{

namespace
{

constexpr int deepest_value = 16;

json_t *take(lua_State *from, int at, int depth, const char **problem);

// The number of an instance, "1"; nothing for a name that only looks like a number, "01" or "0x1".
std::optional<lua_Integer> instance_number(std::string_view name)
{
    const auto number = number_of<uint32_t>(name);
    return number && (name == "0" || !name.starts_with('0')) ? std::optional<lua_Integer>(*number) : std::nullopt;
}

bool is_array(lua_State *from, int at)
{
    const size_t length = lua_rawlen(from, at);
    size_t count = 0;
    for (lua_pushnil(from); lua_next(from, at) != 0; lua_pop(from, 1)) {
        count++;
        if (lua_isinteger(from, -2) == 0) {
            lua_pop(from, 2);
            return false;
        }
    }
    return length > 0 && count == length;
}

json_t *take_array(lua_State *from, int at, int depth, const char **problem)
{
    json_t *list = json_array();
    const auto length = static_cast<lua_Integer>(lua_rawlen(from, at));
    for (lua_Integer i = 1; i <= length; ++i) {
        lua_rawgeti(from, at, i);
        json_t *value = take(from, lua_gettop(from), depth + 1, problem);
        lua_pop(from, 1);
        if (value == nullptr) {
            json_decref(list);
            return nullptr;
        }
        json_array_append_new(list, value);
    }
    return list;
}

json_t *take_object(lua_State *from, int at, int depth, const char **problem)
{
    json_t *object = json_object();
    for (lua_pushnil(from); lua_next(from, at) != 0; lua_pop(from, 1)) {
        char number[32];
        const char *key = nullptr;
        if (lua_type(from, -2) == LUA_TSTRING) {
            key = lua_tostring(from, -2);
        } else if (lua_isinteger(from, -2) != 0) {
            snprintf(number, sizeof number, "%lld", static_cast<long long>(lua_tointeger(from, -2)));
            key = number;
        }
        json_t *value = key != nullptr ? take(from, lua_gettop(from), depth + 1, problem) : nullptr;
        if (key == nullptr)
            *problem = "a table with a key that is neither a text nor an integer";
        if (value == nullptr || json_object_set_new(object, key, value) != 0) {
            if (*problem == nullptr)
                *problem = "a text that is not UTF-8";
            lua_pop(from, 2);
            json_decref(object);
            return nullptr;
        }
    }
    return object;
}

json_t *take(lua_State *from, int at, int depth, const char **problem)
{
    size_t length = 0;
    json_t *value = nullptr;
    switch (lua_type(from, at)) {
    case LUA_TBOOLEAN:
        return json_boolean(lua_toboolean(from, at));
    case LUA_TNUMBER:
        if (lua_isinteger(from, at) != 0)
            return json_integer(lua_tointeger(from, at));
        value = json_real(lua_tonumber(from, at));
        if (value == nullptr)
            *problem = "a number that is none";
        return value;
    case LUA_TSTRING: {
        const char *text = lua_tolstring(from, at, &length);
        value = json_stringn(text, length);
        if (value == nullptr)
            *problem = "a text that is not UTF-8";
        return value;
    }
    case LUA_TTABLE:
        if (depth >= deepest_value || lua_checkstack(from, 4) == 0) {
            *problem = "a table that is nested too deep";
            return nullptr;
        }
        return is_array(from, at) ? take_array(from, at, depth, problem) : take_object(from, at, depth, problem);
    default:
        *problem = "a value that is no text, number, boolean or table";
        return nullptr;
    }
}

} // namespace

json_t *values_take(lua_State *from, int at, const char **problem)
{
    *problem = nullptr;
    return lua_isnil(from, at) ? nullptr : take(from, lua_absindex(from, at), 0, problem);
}

void values_push(lua_State *to, const json_t *value)
{
    luaL_checkstack(to, 4, "a value that is nested too deep");
    switch (json_typeof(value)) {
    case JSON_OBJECT: {
        const char *key = nullptr;
        json_t *member = nullptr;
        lua_createtable(to, 0, static_cast<int>(json_object_size(value)));
        json_object_foreach(const_cast<json_t *>(value), key, member)
        {
            // Names that are numbers, "1", are instances: numbers here.
            if (const auto number = instance_number(key))
                lua_pushinteger(to, *number);
            else
                lua_pushstring(to, key);
            values_push(to, member);
            lua_rawset(to, -3);
        }
        break;
    }
    case JSON_STRING:
        lua_pushlstring(to, json_string_value(value), json_string_length(value));
        break;
    case JSON_INTEGER:
        lua_pushinteger(to, json_integer_value(value));
        break;
    case JSON_REAL:
        lua_pushnumber(to, json_real_value(value));
        break;
    default:
        lua_pushboolean(to, json_is_true(value) ? 1 : 0);
    }
}

} // namespace veld
