#include "vebase/lua/lua_json.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "platform/ve_json.h"
#include "vebase/lua/lua_impl.h"

namespace
{

const char array_mark = 0; // its address is the registry key of the arrays' metatable

struct conversion {
    lua_State *state;
    const char *problem = nullptr;
    std::vector<const void *> enclosing; ///< the tables being converted
};

json_t *convert(conversion *run, int index);

json_t *refuse(conversion *run, const char *problem)
{
    run->problem = problem;
    return nullptr;
}

bool is_marked(lua_State *L, int index)
{
    if (lua_getmetatable(L, index) == 0)
        return false;
    lua_rawgetp(L, LUA_REGISTRYINDEX, &array_mark);
    const bool same = lua_rawequal(L, -1, -2) != 0;
    lua_pop(L, 2);
    return same;
}

enum class shape { array, object, mixed };

/// `*count` receives the number of entries.
shape shape_of(lua_State *L, int table, lua_Integer *count)
{
    lua_Integer integers = 0;
    lua_Integer largest = 0;
    lua_Integer texts = 0;
    *count = 0;
    lua_pushnil(L);
    while (lua_next(L, table) != 0) {
        lua_pop(L, 1);
        ++*count;
        if (lua_type(L, -1) == LUA_TSTRING) {
            ++texts;
        } else if (lua_isinteger(L, -1) && lua_tointeger(L, -1) > 0) {
            ++integers;
            largest = std::max(largest, lua_tointeger(L, -1));
        }
    }
    const bool marked = is_marked(L, table);
    if (texts == *count && !(marked && texts == 0))
        return marked ? shape::mixed : shape::object;
    return integers == *count && largest == *count ? shape::array : shape::mixed;
}

json_t *convert_array(conversion *run, int table, lua_Integer count)
{
    json_ref array(json_array());
    for (lua_Integer i = 1; i <= count; ++i) {
        lua_rawgeti(run->state, table, i);
        json_t *element = convert(run, lua_gettop(run->state));
        lua_pop(run->state, 1);
        if (element == nullptr)
            return nullptr;
        json_array_append_new(array.get(), element);
    }
    return array.release();
}

json_t *convert_object(conversion *run, int table)
{
    lua_State *L = run->state;
    json_ref object(json_object());
    lua_pushnil(L);
    while (lua_next(L, table) != 0) {
        size_t size = 0;
        const char *key = lua_tolstring(L, -2, &size);
        if (memchr(key, 0, size) != nullptr) {
            lua_pop(L, 2);
            return refuse(run, "a key that holds a NUL has no JSON form");
        }
        json_t *value = convert(run, lua_gettop(L));
        lua_pop(L, 1);
        if (value == nullptr || json_object_set_new(object.get(), key, value) != 0) {
            lua_pop(L, 1);
            return value == nullptr ? nullptr : refuse(run, "a key that is not UTF-8 has no JSON form");
        }
    }
    return object.release();
}

json_t *convert_table(conversion *run, int table)
{
    const void *identity = lua_topointer(run->state, table);
    if (std::find(run->enclosing.begin(), run->enclosing.end(), identity) != run->enclosing.end())
        return refuse(run, "a table that contains itself has no JSON form");
    if (run->enclosing.size() >= ve_lua_json_depth_max)
        return refuse(run, "tables are nested too deep (more than 2040 levels)");
    if (lua_checkstack(run->state, 6) == 0)
        return refuse(run, "not enough memory");
    lua_Integer count = 0;
    const shape kind = shape_of(run->state, table, &count);
    if (kind == shape::mixed)
        return refuse(run, "a table whose keys are neither all texts nor 1 to n has no JSON form");
    run->enclosing.push_back(identity);
    json_t *value = kind == shape::array ? convert_array(run, table, count) : convert_object(run, table);
    run->enclosing.pop_back();
    return value;
}

json_t *convert_number(conversion *run, int index)
{
    if (lua_isinteger(run->state, index))
        return json_integer(lua_tointeger(run->state, index));
    const lua_Number number = lua_tonumber(run->state, index);
    return std::isfinite(number) ? json_real(number) : refuse(run, "a number that is not finite has no JSON form");
}

json_t *convert_text(conversion *run, int index)
{
    size_t size = 0;
    const char *bytes = lua_tolstring(run->state, index, &size);
    json_t *value = json_stringn(bytes, size);
    return value != nullptr ? value : refuse(run, "a text that is not UTF-8 has no JSON form");
}

json_t *convert(conversion *run, int index)
{
    lua_State *L = run->state;
    switch (lua_type(L, index)) {
    case LUA_TBOOLEAN:
        return json_boolean(lua_toboolean(L, index));
    case LUA_TNUMBER:
        return convert_number(run, index);
    case LUA_TSTRING:
        return convert_text(run, index);
    case LUA_TTABLE:
        return convert_table(run, index);
    case LUA_TNIL:
    case LUA_TNONE:
        return refuse(run, "nil has no JSON form (use dm.null)");
    case LUA_TFUNCTION:
        return refuse(run, "a function has no JSON form");
    case LUA_TTHREAD:
        return refuse(run, "a coroutine has no JSON form");
    default:
        if (lua_touserdata(L, index) == ve_lua_of(L)->null_value)
            return json_null();
        return refuse(run, "a userdata has no JSON form");
    }
}

void push_array(lua_State *L, const json_t *array)
{
    const size_t count = json_array_size(array);
    lua_createtable(L, static_cast<int>(count), 0);
    for (size_t i = 0; i < count; ++i) {
        ve_lua_push_json(L, json_array_get(array, i));
        lua_rawseti(L, -2, static_cast<lua_Integer>(i) + 1);
    }
    ve_lua_mark_array(L);
}

void push_object(lua_State *L, const json_t *object)
{
    const char *key;
    json_t *value;
    lua_createtable(L, 0, static_cast<int>(json_object_size(object)));
    json_object_foreach(const_cast<json_t *>(object), key, value)
    {
        lua_pushstring(L, key);
        ve_lua_push_json(L, value);
        lua_rawset(L, -3);
    }
}

} // namespace

void ve_lua_push_json(lua_State *L, const json_t *value)
{
    luaL_checkstack(L, 6, "the answer is nested too deep");
    switch (value != nullptr ? json_typeof(value) : JSON_NULL) {
    case JSON_OBJECT:
        push_object(L, value);
        break;
    case JSON_ARRAY:
        push_array(L, value);
        break;
    case JSON_STRING:
        lua_pushlstring(L, json_string_value(value), json_string_length(value));
        break;
    case JSON_INTEGER:
        lua_pushinteger(L, json_integer_value(value));
        break;
    case JSON_REAL:
        lua_pushnumber(L, json_real_value(value));
        break;
    case JSON_TRUE:
    case JSON_FALSE:
        lua_pushboolean(L, json_is_true(value));
        break;
    case JSON_NULL:
        lua_rawgetp(L, LUA_REGISTRYINDEX, ve_lua_of(L)->null_value);
        break;
    }
}

json_t *ve_lua_to_json(lua_State *L, int index, const char **problem)
{
    conversion run{.state = L, .problem = nullptr, .enclosing = {}};
    json_t *value = convert(&run, lua_absindex(L, index));
    *problem = run.problem;
    return value;
}

void ve_lua_mark_array(lua_State *L)
{
    lua_rawgetp(L, LUA_REGISTRYINDEX, &array_mark);
    lua_setmetatable(L, -2);
}

void ve_lua_open_json(lua_State *L)
{
    lua_newtable(L);
    lua_rawsetp(L, LUA_REGISTRYINDEX, &array_mark);
}
