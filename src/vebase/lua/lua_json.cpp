#include "vebase/lua/lua_json.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "base/framing.h"
#include "base/utf8.h"
#include "platform/ve_json.h"
#include "platform/ve_out.h"
#include "vebase/lua/lua_impl.h"

namespace
{

/// A place is said up to this many bytes of its keys.
constexpr size_t shown_place_max = 200;

const char array_mark = 0; // its address is the registry key of the arrays' metatable

/// A value as JSON; without `json` when it has no such form.
struct piece {
    json_ref json;
    size_t size = 0;     ///< bytes that it takes in a message, at the least
    unsigned height = 0; ///< levels of tables
};

struct conversion {
    lua_State *state;
    const char *problem = nullptr;
    std::string place = {};  // keys that lead to the problem, joined by dots
    bool everywhere = false; // the problem is the whole value's
    unsigned depth = 0;      ///< tables that enclose the one being converted
    /// The tables that were met, one without JSON while it is being converted. One that stands in many places is
    /// converted once, so that a small number of tables does not become a huge number of values.
    std::unordered_map<const void *, piece> tables = {};
};

piece convert(conversion *run, int index);

piece refuse(conversion *run, const char *problem)
{
    run->problem = problem;
    return {};
}

constexpr char too_deep[] = "tables are nested too deep (more than 2040 levels)";
constexpr char too_long[] = "longer than a message may be";
constexpr char stopped[] = "interrupted";

piece refuse_whole(conversion *run, const char *problem)
{
    run->everywhere = true;
    return refuse(run, problem);
}

piece refuse_depth(conversion *run)
{
    return refuse_whole(run, too_deep);
}

piece refuse_size(conversion *run)
{
    return refuse_whole(run, too_long);
}

/// Says that what failed stands under `key`.
piece fail_at(conversion *run, std::string_view key)
{
    run->place.insert(0, run->place.empty() ? key : std::string(key) + ".");
    return {};
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

/// Counts a member, which takes `extra` bytes besides its value, into its table. False when that grows too long.
bool count_member(piece *table, const piece &member, size_t extra)
{
    table->size += member.size + extra;
    table->height = std::max(table->height, member.height + 1);
    return table->size <= wire_line_max;
}

piece convert_array(conversion *run, int table, lua_Integer count)
{
    piece array = {.json = json_ref(json_array()), .size = 2, .height = 1};
    for (lua_Integer i = 1; i <= count; ++i) {
        lua_rawgeti(run->state, table, i);
        piece element = convert(run, lua_gettop(run->state));
        lua_pop(run->state, 1);
        if (!element.json)
            return fail_at(run, std::to_string(i));
        if (!count_member(&array, element, i > 1 ? 1 : 0))
            return refuse_size(run);
        json_array_append_new(array.json.get(), element.json.release());
    }
    return array;
}

/// The entry whose key is at `key`, its value above it.
piece convert_member(conversion *run, int key, piece *object)
{
    size_t size = 0;
    const char *name = lua_tolstring(run->state, key, &size);
    if (memchr(name, 0, size) != nullptr)
        return refuse(run, "a key that holds a NUL has no JSON form");
    piece value = convert(run, key + 1);
    if (!value.json)
        return fail_at(run, {name, size});
    if (!count_member(object, value, size + (object->size > 2 ? 4 : 3)))
        return refuse_size(run);
    if (json_object_set(object->json.get(), name, value.json.get()) != 0)
        return refuse(run, "a key that is not UTF-8 has no JSON form");
    return value;
}

piece convert_object(conversion *run, int table)
{
    lua_State *L = run->state;
    piece object = {.json = json_ref(json_object()), .size = 2, .height = 1};
    lua_pushnil(L);
    while (lua_next(L, table) != 0) {
        const piece member = convert_member(run, lua_absindex(L, -2), &object);
        lua_pop(L, 1);
        if (!member.json) {
            lua_pop(L, 1);
            return {};
        }
    }
    return object;
}

piece convert_new_table(conversion *run, int table)
{
    if (run->depth >= ve_lua_json_depth_max)
        return refuse_depth(run);
    if (lua_checkstack(run->state, 6) == 0)
        return refuse(run, "not enough memory");
    lua_Integer count = 0;
    const shape kind = shape_of(run->state, table, &count);
    if (kind == shape::mixed)
        return refuse(run, "a table whose keys are neither all texts nor 1 to n has no JSON form");
    ++run->depth;
    piece value = kind == shape::array ? convert_array(run, table, count) : convert_object(run, table);
    --run->depth;
    return value;
}

piece convert_table(conversion *run, int table)
{
    const auto [place, is_new] = run->tables.try_emplace(lua_topointer(run->state, table));
    piece &known = place->second; // stays where it is while others come
    if (is_new)
        known = convert_new_table(run, table);
    else if (!known.json)
        return refuse(run, "a table that contains itself has no JSON form");
    else if (run->depth + known.height > ve_lua_json_depth_max)
        return refuse_depth(run);
    return {.json = json_ref::share(known.json.get()), .size = known.size, .height = known.height};
}

piece convert_number(conversion *run, int index)
{
    if (lua_isinteger(run->state, index))
        return {.json = json_ref(json_integer(lua_tointeger(run->state, index))), .size = 1};
    const lua_Number number = lua_tonumber(run->state, index);
    if (!std::isfinite(number))
        return refuse(run, "a number that is not finite has no JSON form");
    return {.json = json_ref(json_real(number)), .size = 3};
}

piece convert_text(conversion *run, int index)
{
    size_t size = 0;
    const char *bytes = lua_tolstring(run->state, index, &size);
    if (size > wire_line_max)
        return refuse_size(run);
    piece text = {.json = json_ref(json_stringn(bytes, size)), .size = size + 2};
    return text.json ? std::move(text) : refuse(run, "a text that is not UTF-8 has no JSON form");
}

piece convert(conversion *run, int index)
{
    lua_State *L = run->state;
    if (ve_lua_stop_is_due())
        return refuse_whole(run, stopped);
    switch (lua_type(L, index)) {
    case LUA_TBOOLEAN:
        return {.json = json_ref(json_boolean(lua_toboolean(L, index))), .size = 4};
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
            return {.json = json_ref(json_null()), .size = 4};
        return refuse(run, "a userdata has no JSON form");
    }
}

/// The problem and where it is, or null when there is none. Valid until the next conversion.
const char *said(const conversion &run)
{
    static std::string text; // not a local of the caller, who raises it
    if (run.problem == nullptr)
        return nullptr;
    text = run.problem;
    if (!run.place.empty() && !run.everywhere) {
        const bool fits = run.place.size() <= shown_place_max;
        const std::string_view shown = std::string_view(run.place).substr(0, utf8_cut(run.place, shown_place_max));
        text.insert(0, ve_visible(shown) + (fits ? ": " : "...: "));
    }
    return text.c_str();
}

/// The arguments of a method: what stands below a table, its keys joined by dots to names. The tables that are open
/// stand on the Lua stack, each below its current key.
class argument_list
{
public:
    argument_list(lua_State *L, int table) : run_{.state = L}, base_(lua_gettop(L))
    {
        if (is_marked(L, table))
            fail("arguments have names");
        else
            open(lua_absindex(L, table));
    }

    /// The list as a new reference, or null with `*problem` set.
    json_t *made(const char **problem)
    {
        while (run_.problem == nullptr && !open_.empty())
            step();
        lua_settop(run_.state, base_);
        *problem = said(run_);
        return run_.problem == nullptr ? list_.release() : nullptr;
    }

private:
    struct level {
        const void *table;
        size_t name_size; ///< of its name in `name_`
    };

    void fail(const char *problem)
    {
        run_.problem = problem;
        fail_at(&run_, name_);
    }
    void fail_whole(const char *problem) { refuse_whole(&run_, problem); }

    void open(int table)
    {
        const void *identity = lua_topointer(run_.state, table);
        const auto same = [identity](const level &other) { return other.table == identity; };
        if (std::any_of(open_.begin(), open_.end(), same))
            return fail("a table that contains itself has no JSON form");
        if (open_.size() >= ve_lua_json_depth_max || lua_checkstack(run_.state, 8) == 0)
            return fail_whole(too_deep);
        // The name counts for a table too, so that what has no end is not walked for ever.
        size_ += name_.size();
        if (size_ > wire_line_max)
            return fail_whole(too_long);
        open_.push_back({identity, name_.size()});
        lua_pushvalue(run_.state, table);
        lua_pushnil(run_.state);
    }

    void step()
    {
        lua_State *L = run_.state;
        name_.resize(open_.back().name_size);
        if (ve_lua_stop_is_due())
            return fail_whole(stopped);
        if (lua_next(L, -2) == 0) {
            lua_pop(L, 1);
            open_.pop_back();
            return;
        }
        if (!add_key())
            return;
        if (lua_istable(L, -1) && !is_marked(L, -1)) {
            open(lua_gettop(L));
            if (run_.problem == nullptr)
                lua_remove(L, -3); // the table stands below its key now
        } else {
            add_value();
            lua_pop(L, 1);
        }
    }

    /// The key below the top becomes the end of the name.
    bool add_key()
    {
        lua_State *L = run_.state;
        std::string key;
        if (lua_type(L, -2) == LUA_TSTRING) {
            size_t size = 0;
            const char *bytes = lua_tolstring(L, -2, &size);
            key.assign(bytes, size);
        } else if (lua_isinteger(L, -2) && lua_tointeger(L, -2) > 0 && open_.size() > 1) {
            key = std::to_string(lua_tointeger(L, -2));
        }
        if (key.empty() || key.find('\0') != std::string::npos || !utf8_valid(key)) {
            fail(open_.size() > 1 ? "keys are names or instance numbers" : "arguments have names");
            return false;
        }
        if (!name_.empty())
            name_ += '.';
        name_ += key;
        return true;
    }

    void add_value()
    {
        const piece value = convert(&run_, lua_gettop(run_.state));
        if (!value.json) {
            fail_at(&run_, name_);
            return;
        }
        size_ += name_.size() + value.size;
        if (size_ > wire_line_max)
            return fail_whole(too_long);
        json_t *entry = json_object();
        json_object_set_new(entry, "Name", json_string(name_.c_str()));
        json_object_set(entry, "Value", value.json.get());
        json_array_append_new(list_.get(), entry);
    }

    conversion run_;
    int base_;
    std::vector<level> open_;
    std::string name_;
    size_t size_ = 0; // of the names and values so far, in bytes
    json_ref list_{json_array()};
};

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
    ve_lua_check_interrupt(L);
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

json_t *ve_lua_to_json(lua_State *L, int index, const char **problem, std::string_view place)
{
    conversion run{.state = L};
    piece value = convert(&run, lua_absindex(L, index));
    if (!value.json && !place.empty())
        fail_at(&run, place);
    *problem = said(run);
    return value.json.release();
}

json_t *ve_lua_to_arguments(lua_State *L, int index, const char **problem)
{
    return argument_list(L, index).made(problem);
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
