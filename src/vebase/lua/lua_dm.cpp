// The bindings to the device: the global table "dm".
//
// Every function first checks its arguments, then makes a message that a Lua userdata owns (lua_exchange.h). No local
// of a binding has a destructor.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "base/utf8.h"
#include "platform/ve_json.h"
#include "platform/ve_string.h"
#include "vebase/lua/lua_exchange.h"
#include "vebase/lua/lua_impl.h"
#include "vebase/lua/lua_json.h"

namespace
{

constexpr int login_timeout_ms = 5000;

// --- arguments ---

/// Argument `index` as a text without NULs in UTF-8.
const char *check_text(lua_State *L, int index)
{
    size_t size = 0;
    const char *text = luaL_checklstring(L, index, &size);
    luaL_argcheck(L, memchr(text, 0, size) == nullptr && utf8_valid({text, size}), index, "not a UTF-8 text");
    return text;
}

/// A path as the daemon spells it: without the leading ":" of an absolute path; ":" alone is the root.
const char *plain_path(const char *path)
{
    if (*path == ':')
        ++path;
    return *path != '\0' ? path : ".";
}

/// The text at `index` as a path; what is wrong with it is said of the binding's argument `argument`.
const char *path_at(lua_State *L, int index, int argument)
{
    size_t size = 0;
    const char *path = lua_tolstring(L, index, &size);
    luaL_argcheck(L, size > 0, argument, "an empty path");
    luaL_argcheck(L, memchr(path, 0, size) == nullptr && utf8_valid({path, size}), argument, "not a UTF-8 text");
    return plain_path(path);
}

const char *check_path(lua_State *L, int index)
{
    luaL_checkstring(L, index);
    return path_at(L, index, index);
}

/// The same with a final "."; pushes it.
const char *push_partial_path(lua_State *L, int index)
{
    const char *path = check_path(L, index);
    const size_t size = strlen(path);
    return lua_pushfstring(L, path[size - 1] == '.' ? "%s" : "%s.", path);
}

/// The value at `index` as JSON (a new reference); raises when it has none, as an error of argument `argument`, where
/// `place` leads to it.
json_t *json_at(lua_State *L, int index, int argument, const char *place = "")
{
    const char *problem = nullptr;
    json_t *value = ve_lua_to_json(L, index, &problem, place);
    if (value == nullptr) {
        ve_lua_check_interrupt(L);
        luaL_argerror(L, argument, problem);
    }
    return value;
}

/// The table of parameters that argument 2 may be, as a JSON object (a new reference); null when there is none.
json_t *check_parameters(lua_State *L)
{
    if (lua_isnil(L, 2))
        return nullptr;
    luaL_checktype(L, 2, LUA_TTABLE);
    json_t *values = json_at(L, 2, 2);
    if (!json_is_object(values)) {
        json_decref(values);
        luaL_argerror(L, 2, "parameters have names");
    }
    return values;
}

uint32_t check_number(lua_State *L, int index, lua_Integer least)
{
    const lua_Integer number = luaL_checkinteger(L, index);
    luaL_argcheck(L, number >= least && number < INT64_C(0xffffffff), index, "out of range");
    return static_cast<uint32_t>(number);
}

json_t *one_name(const char *path)
{
    json_t *names = json_array();
    json_array_append_new(names, json_string(path));
    return names;
}

json_t *name_value(const char *name, json_t *value)
{
    json_t *entry = json_object();
    json_object_set_new(entry, "Name", json_string(name));
    json_object_set_new(entry, "Value", value);
    return entry;
}

// --- names in answers ---

/// `name` without the path of the object `path` in front.
const char *relative_name(const char *name, const char *path)
{
    if (strcmp(path, ".") == 0)
        return name;
    const size_t size = strlen(path);
    if (strncmp(name, path, size) != 0)
        return name;
    if (path[size - 1] == '.')
        return name + size;
    return name[size] == '.' ? name + size + 1 : name;
}

/// Whether both name the same node, with or without a final ".".
bool same_node(const char *name, const char *path)
{
    size_t name_size = strlen(name);
    size_t path_size = strlen(path);
    name_size -= name_size > 1 && name[name_size - 1] == '.';
    path_size -= path_size > 1 && path[path_size - 1] == '.';
    return name_size == path_size && memcmp(name, path, path_size) == 0;
}

const char *entry_name(const json_t *entry)
{
    return json_string_value(json_object_get(entry, "Name"));
}

// --- reading ---

int dm_get(lua_State *L)
{
    const char *path = check_path(L, 1);
    ve_lua_box *box = ve_lua_push_box(L);
    box->message = ve_jrpcmsg_cmd_get_parameter_values_new(one_name(path));
    ve_lua_exchange(L, box);
    const json_t *list = ve_jrpcmsg_parameter_list(box->message);
    const size_t count = json_array_size(list);
    if (count == 1) {
        const json_t *entry = json_array_get(list, 0);
        if (entry_name(entry) != nullptr && same_node(entry_name(entry), path)) {
            ve_lua_push_json(L, json_object_get(entry, "Value"));
            return ve_lua_finish(box, 1);
        }
    }
    lua_createtable(L, 0, static_cast<int>(count));
    for (size_t i = 0; i < count; ++i) {
        const json_t *entry = json_array_get(list, i);
        const char *name = entry_name(entry);
        if (name == nullptr)
            continue;
        lua_pushstring(L, relative_name(name, path));
        ve_lua_push_json(L, json_object_get(entry, "Value"));
        lua_rawset(L, -3);
    }
    return ve_lua_finish(box, 1);
}

int dm_names(lua_State *L)
{
    const char *path = check_path(L, 1);
    ve_lua_box *box = ve_lua_push_box(L);
    box->message = ve_jrpcmsg_cmd_get_parameter_names(path, 1);
    ve_lua_exchange(L, box);
    const json_t *list = ve_jrpcmsg_parameter_list(box->message);
    const size_t count = json_array_size(list);
    lua_createtable(L, static_cast<int>(count), 0);
    lua_Integer position = 0;
    for (size_t i = 0; i < count; ++i) {
        const char *name = entry_name(json_array_get(list, i));
        if (name == nullptr)
            continue;
        lua_pushstring(L, relative_name(name, path));
        lua_rawseti(L, -2, ++position);
    }
    ve_lua_mark_array(L);
    return ve_lua_finish(box, 1);
}

int dm_attrs(lua_State *L)
{
    const char *path = check_path(L, 1);
    ve_lua_box *box = ve_lua_push_box(L);
    box->message = ve_jrpcmsg_cmd_get_parameter_attributes_new(one_name(path));
    json_object_set_new(ve_jrpcmsg_params(box->message), "Depth", json_integer(0));
    ve_lua_exchange(L, box);
    const json_t *entry = json_array_get(ve_jrpcmsg_parameter_list(box->message), 0);
    const json_t *attributes = json_object_get(entry, "Attributes");
    if (json_is_object(attributes))
        ve_lua_push_json(L, attributes);
    else
        lua_newtable(L); // the root
    return ve_lua_finish(box, 1);
}

// --- writing ---

/// One entry of what is to be set; the box's message already owns `list`. The name is at `index`, its value above it.
/// `argument` is the number of the binding's argument that holds the value.
void add_setting(lua_State *L, json_t *list, int index, int argument)
{
    luaL_argcheck(L, lua_type(L, index) == LUA_TSTRING, 1, "a path is expected");
    const char *path = path_at(L, index, 1);
    json_array_append_new(list, name_value(path, json_at(L, index + 1, argument, argument == 1 ? path : "")));
}

int dm_set(lua_State *L)
{
    if (!lua_istable(L, 1)) {
        check_path(L, 1);
        luaL_checkany(L, 2);
    }
    lua_settop(L, 2);
    ve_lua_box *box = ve_lua_push_box(L);
    json_t *list = json_array();
    box->message = ve_jrpcmsg_cmd_set_parameter_values_new(list);
    if (lua_istable(L, 1)) {
        lua_pushnil(L);
        while (lua_next(L, 1) != 0) {
            add_setting(L, list, lua_gettop(L) - 1, 1);
            lua_pop(L, 1);
        }
    } else {
        add_setting(L, list, 1, 2);
    }
    ve_lua_exchange(L, box);
    return ve_lua_finish_true(L, box);
}

int dm_add(lua_State *L)
{
    const uint32_t order = lua_isnoneornil(L, 2) ? UINT32_MAX : check_number(L, 2, 1);
    const char *path = push_partial_path(L, 1);
    ve_lua_box *box = ve_lua_push_box(L);
    box->message = ve_jrpcmsg_cmd_add_object(path, order);
    ve_lua_exchange(L, box);
    lua_pushinteger(L, json_integer_value(json_object_get(ve_jrpcmsg_result(box->message), "InstanceNumber")));
    return ve_lua_finish(box, 1);
}

int dm_del(lua_State *L)
{
    const char *path = check_path(L, 1);
    ve_lua_box *box = ve_lua_push_box(L);
    box->message = ve_jrpcmsg_cmd_delete_object(path);
    ve_lua_exchange(L, box);
    return ve_lua_finish_true(L, box);
}

int dm_order(lua_State *L)
{
    const uint32_t order = check_number(L, 2, 1);
    const char *path = push_partial_path(L, 1);
    ve_lua_box *box = ve_lua_push_box(L);
    box->message = ve_jrpcmsg_cmd_change_order(path, order);
    ve_lua_exchange(L, box);
    return ve_lua_finish_true(L, box);
}

int dm_save(lua_State *L)
{
    ve_lua_box *box = ve_lua_push_request(L, "SaveConfig");
    ve_lua_exchange(L, box);
    return ve_lua_finish_true(L, box);
}

// --- methods ---

/// Pushes a component of a name: an instance number as an integer.
void push_component(lua_State *L, const char *component, size_t size)
{
    bool digits = size > 0 && size <= 10 && component[0] != '0';
    for (size_t i = 0; i < size; ++i)
        digits = digits && component[i] >= '0' && component[i] <= '9';
    if (digits)
        lua_pushinteger(L, strtoll(component, nullptr, 10));
    else
        lua_pushlstring(L, component, size);
}

/// Stores the output `value` under its dotted `name` into the table on top. A name that runs through a plain value
/// stays whole from there on.
void store_output(lua_State *L, const char *name, const json_t *value)
{
    lua_pushvalue(L, -1);
    const char *rest = name;
    for (const char *dot = strchr(rest, '.'); dot != nullptr && dot[1] != '\0'; dot = strchr(rest, '.')) {
        push_component(L, rest, static_cast<size_t>(dot - rest));
        lua_pushvalue(L, -1);
        if (lua_rawget(L, -3) == LUA_TNIL) {
            lua_pop(L, 1);
            lua_newtable(L);
            lua_pushvalue(L, -2);
            lua_pushvalue(L, -2);
            lua_rawset(L, -5);
        } else if (!lua_istable(L, -1)) {
            lua_pop(L, 2);
            break;
        }
        lua_replace(L, -3);
        lua_pop(L, 1);
        rest = dot + 1;
    }
    push_component(L, rest, strlen(rest));
    ve_lua_push_json(L, value);
    lua_rawset(L, -3);
    lua_pop(L, 1);
}

/// What argument 2 says of a method's arguments (a new reference).
json_t *check_arguments(lua_State *L)
{
    if (lua_isnil(L, 2))
        return json_array();
    luaL_checktype(L, 2, LUA_TTABLE);
    const char *problem = nullptr;
    json_t *list = ve_lua_to_arguments(L, 2, &problem);
    if (list == nullptr) {
        ve_lua_check_interrupt(L);
        luaL_argerror(L, 2, problem);
    }
    return list;
}

int dm_call(lua_State *L)
{
    const char *path = check_path(L, 1);
    lua_settop(L, 2);
    ve_lua_box *box = ve_lua_push_box(L);
    box->message = ve_jrpcmsg_cmd_execute(path, check_arguments(L));
    ve_lua_exchange(L, box);
    const json_t *list = ve_jrpcmsg_parameter_list(box->message);
    lua_newtable(L);
    for (size_t i = 0; i < json_array_size(list); ++i) {
        const json_t *entry = json_array_get(list, i);
        if (entry_name(entry) != nullptr)
            store_output(L, entry_name(entry), json_object_get(entry, "Value"));
    }
    return ve_lua_finish(box, 1);
}

int dm_request(lua_State *L)
{
    const char *method = check_text(L, 1);
    lua_settop(L, 2);
    ve_lua_box *box = ve_lua_push_box(L);
    box->message = ve_jrpcmsg_create_new(method, check_parameters(L));
    ve_lua_exchange(L, box);
    ve_lua_push_json(L, ve_jrpcmsg_result(box->message));
    return ve_lua_finish(box, 1);
}

int dm_event(lua_State *L)
{
    const lua_Integer id = luaL_checkinteger(L, 1);
    luaL_argcheck(L, id >= 0 && id <= UINT32_MAX, 1, "out of range");
    lua_settop(L, 2);
    ve_lua_box *box = ve_lua_push_box(L);
    json_t *value = lua_isnil(L, 2) ? nullptr : json_at(L, 2, 2);
    box->message = ve_jrpcmsg_create_event_new(static_cast<uint32_t>(id), value);
    ve_lua_send(L, box);
    return ve_lua_finish_true(L, box);
}

// --- login ---

void change_login(const char *user, const char *password)
{
    const ve_lua_sigint_blocked blocked;
    if (ve_lua_installed_hooks().login_changed != nullptr)
        ve_lua_installed_hooks().login_changed(user, password);
}

json_t *login_params(const char *user, const char *password)
{
    json_t *params = json_object();
    json_object_set_new(params, "User", json_string(user));
    if (password != nullptr && *password != '\0')
        json_object_set_new(params, "Password", json_string(password));
    return params;
}

/// A refused login leaves nobody logged in, as the command does.
int dm_login(lua_State *L)
{
    const char *user = check_text(L, 1);
    const char *password = lua_isnoneornil(L, 2) ? nullptr : check_text(L, 2);
    lua_settop(L, 2);
    ve_lua_box *box = ve_lua_push_box(L);
    box->message = ve_jrpcmsg_create_new("Login", login_params(user, password));
    if (ve_lua_transmit(L, box, login_timeout_ms) < 0) {
        ve_lua_transmit(L, ve_lua_push_request(L, "Logout"), login_timeout_ms);
        change_login(nullptr, nullptr);
        return ve_lua_raise(L, box);
    }
    change_login(user, password);
    ve_lua_check_interrupt(L);
    return ve_lua_finish_true(L, box);
}

int dm_logout(lua_State *L)
{
    ve_lua_box *box = ve_lua_push_request(L, "Logout");
    ve_lua_exchange(L, box, login_timeout_ms);
    change_login(nullptr, nullptr);
    ve_lua_check_interrupt(L);
    return ve_lua_finish_true(L, box);
}

// --- the table ---

int dm_array(lua_State *L)
{
    if (lua_isnoneornil(L, 1)) {
        lua_newtable(L);
    } else {
        luaL_checktype(L, 1, LUA_TTABLE);
        lua_settop(L, 1);
    }
    ve_lua_mark_array(L);
    return 1;
}

int null_tostring(lua_State *L)
{
    lua_pushliteral(L, "null");
    return 1;
}

/// Pushes dm.null and remembers its identity.
void push_null(lua_State *L)
{
    void *null = lua_newuserdata(L, 1);
    lua_createtable(L, 0, 2);
    lua_pushcfunction(L, null_tostring);
    lua_setfield(L, -2, "__tostring");
    lua_pushliteral(L, "null");
    lua_setfield(L, -2, "__name");
    lua_setmetatable(L, -2);
    lua_pushvalue(L, -1);
    lua_rawsetp(L, LUA_REGISTRYINDEX, null);
    ve_lua_of(L)->null_value = null;
}

const luaL_Reg functions[] = {
    {"get", dm_get},     {"set", dm_set},       {"names", dm_names}, {"attrs", dm_attrs},     {"add", dm_add},
    {"del", dm_del},     {"order", dm_order},   {"call", dm_call},   {"request", dm_request}, {"event", dm_event},
    {"login", dm_login}, {"logout", dm_logout}, {"save", dm_save},   {"array", dm_array},     {nullptr, nullptr},
};

} // namespace

void ve_lua_open_dm(lua_State *L)
{
    ve_lua_open_json(L);
    ve_lua_open_exchange(L);
    luaL_newlib(L, functions);
    push_null(L);
    lua_setfield(L, -2, "null");
    ve_lua_open_tools(L);
    // Where Lua looks for the names of functions that errors speak of.
    luaL_getsubtable(L, LUA_REGISTRYINDEX, LUA_LOADED_TABLE);
    lua_pushvalue(L, -2);
    lua_setfield(L, -2, "dm");
    lua_pop(L, 1);
    lua_setglobal(L, "dm");
}
