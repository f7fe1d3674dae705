// The bindings to the device: the global table "dm".
//
// Every function first checks its arguments, then makes a message that a Lua userdata owns, so that an error raised at
// any later point leaves nothing behind. No local of a binding has a destructor.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/ve_jrpcapi.h"
#include "platform/ve_json.h"
#include "platform/ve_out.h"
#include "platform/ve_string.h"
#include "vebase/lua/lua_impl.h"
#include "vebase/lua/lua_json.h"

namespace
{

constexpr char box_type[] = "dm.message";
constexpr char error_type[] = "dm.error";
constexpr int login_timeout_ms = 5000;

/// Owns a message on behalf of Lua.
struct message_box {
    ve_jrpcmsg *message;
};

int box_release(lua_State *L)
{
    auto *box = static_cast<message_box *>(lua_touserdata(L, 1));
    ve_jrpcmsg_free(box->message);
    box->message = nullptr;
    return 0;
}

/// Pushes an empty box.
message_box *push_box(lua_State *L)
{
    auto *box = static_cast<message_box *>(lua_newuserdata(L, sizeof(message_box)));
    box->message = nullptr;
    luaL_setmetatable(L, box_type);
    return box;
}

/// A request of `method`; takes over `params`.
message_box *push_request(lua_State *L, const char *method, json_t *(*make_params)(lua_State *))
{
    message_box *box = push_box(L);
    box->message = ve_jrpcmsg_create_new(method, make_params != nullptr ? make_params(L) : nullptr);
    return box;
}

// --- errors ---

void set_field(lua_State *L, const char *name, const char *text)
{
    lua_pushstring(L, text);
    lua_setfield(L, -2, name);
}

/// Raises the message's error; frees the message.
int raise_answer(lua_State *L, message_box *box)
{
    lua_createtable(L, 0, 4);
    lua_pushinteger(L, ve_jrpcmsg_error_code(box->message));
    lua_setfield(L, -2, "code");
    set_field(L, "title", ve_jrpcmsg_error_title(box->message));
    set_field(L, "message", ve_jrpcmsg_error_message(box->message));
    if (const json_t *data = ve_jrpcmsg_error_data(box->message)) {
        ve_lua_push_json(L, data);
        lua_setfield(L, -2, "data");
    }
    luaL_setmetatable(L, error_type);
    ve_jrpcmsg_free(box->message);
    box->message = nullptr;
    return lua_error(L);
}

/// "\nkey: value" of an entry of an error's data; the key stands right below `value`. Valid until the next call.
const char *data_line(lua_State *L, int value)
{
    static std::string line; // not a local: what is done with the text may raise
    const char *problem = nullptr;
    const json_ref json(ve_lua_to_json(L, value, &problem));
    char *compact = json ? json_dumps(json.get(), JSON_ENCODE_ANY) : nullptr;
    line.assign(1, '\n');
    line += ve_visible(lua_tostring(L, value - 1));
    line += ": ";
    line += ve_visible(compact != nullptr ? compact : "?");
    free(compact);
    return line.c_str();
}

const char *shown_field(lua_State *L, int index)
{
    const char *text = lua_tostring(L, index);
    return text != nullptr ? ve_visible(text) : "?";
}

/// "[code] title: message" and a line for every entry of the data, as the shell shows a refusal.
int error_tostring(lua_State *L)
{
    luaL_checktype(L, 1, LUA_TTABLE);
    lua_settop(L, 1);
    lua_getfield(L, 1, "code");
    lua_getfield(L, 1, "title");
    lua_getfield(L, 1, "message");
    lua_getfield(L, 1, "data");
    lua_pushfstring(L, "[%s] %s: %s", shown_field(L, 2), shown_field(L, 3), shown_field(L, 4));
    if (!lua_istable(L, 5))
        return 1;
    luaL_checkstack(L, LUA_MINSTACK, nullptr);
    lua_pushnil(L);
    while (lua_next(L, 5) != 0) {
        if (lua_type(L, 7) == LUA_TSTRING) {
            lua_pushvalue(L, 6);
            lua_pushstring(L, data_line(L, 8));
            lua_concat(L, 2);
            lua_replace(L, 6);
        }
        lua_pop(L, 1);
    }
    return 1;
}

// --- exchanges ---

int transmit(ve_lua_state *context, ve_jrpcmsg *message, int timeout_ms)
{
    const ve_lua_sigint_blocked blocked;
    const ve_lua_hooks &hooks = ve_lua_installed_hooks();
    timeout_ms = ve_lua_time_left(timeout_ms);
    if (hooks.exec != nullptr)
        return hooks.exec(message, timeout_ms);
    if (context->request_ctx == nullptr) {
        ve_jrpcmsg_set_error(message, ve_jrpc_err_lost, "no link to the daemon", nullptr);
        return -1;
    }
    ve_jrpcapi_set_timeout(context->request_ctx, timeout_ms);
    return ve_jrpcapi_exec(context->request_ctx, message);
}

/// Sends the request and waits for its answer. Raises a refusal.
void exchange(lua_State *L, message_box *box, int timeout_ms = -1)
{
    const int result = transmit(ve_lua_of(L), box->message, timeout_ms);
    ve_lua_check_interrupt(L);
    if (result < 0 || ve_jrpcmsg_error_code(box->message) != 0)
        raise_answer(L, box);
}

/// Ends a binding whose message is done with: frees it and returns `results` values from the top.
int finish(message_box *box, int results)
{
    ve_jrpcmsg_free(box->message);
    box->message = nullptr;
    return results;
}

int finish_true(lua_State *L, message_box *box)
{
    lua_pushboolean(L, 1);
    return finish(box, 1);
}

// --- arguments ---

/// Argument `index` as a text without NULs in UTF-8.
const char *check_text(lua_State *L, int index)
{
    size_t size = 0;
    const char *text = luaL_checklstring(L, index, &size);
    luaL_argcheck(L, memchr(text, 0, size) == nullptr && ve_string_is_utf8(text), index, "not a UTF-8 text");
    return text;
}

/// A path as the daemon spells it: without the leading ":" of an absolute path; ":" alone is the root.
const char *plain_path(const char *path)
{
    if (*path == ':')
        ++path;
    return *path != '\0' ? path : ".";
}

const char *check_path(lua_State *L, int index)
{
    const char *path = check_text(L, index);
    luaL_argcheck(L, *path != '\0', index, "an empty path");
    return plain_path(path);
}

/// The same with a final "."; pushes it.
const char *push_partial_path(lua_State *L, int index)
{
    const char *path = check_path(L, index);
    const size_t size = strlen(path);
    return lua_pushfstring(L, path[size - 1] == '.' ? "%s" : "%s.", path);
}

/// The value at `index` as JSON (a new reference); raises when it has none.
json_t *check_json(lua_State *L, int index)
{
    const char *problem = nullptr;
    json_t *value = ve_lua_to_json(L, index, &problem);
    if (value == nullptr)
        luaL_argerror(L, index, problem);
    return value;
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
    message_box *box = push_box(L);
    box->message = ve_jrpcmsg_cmd_get_parameter_values_new(one_name(path));
    exchange(L, box);
    const json_t *list = ve_jrpcmsg_parameter_list(box->message);
    const size_t count = json_array_size(list);
    if (count == 1) {
        const json_t *entry = json_array_get(list, 0);
        if (entry_name(entry) != nullptr && same_node(entry_name(entry), path)) {
            ve_lua_push_json(L, json_object_get(entry, "Value"));
            return finish(box, 1);
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
    return finish(box, 1);
}

int dm_names(lua_State *L)
{
    const char *path = check_path(L, 1);
    message_box *box = push_box(L);
    box->message = ve_jrpcmsg_cmd_get_parameter_names(path, 1);
    exchange(L, box);
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
    return finish(box, 1);
}

int dm_attrs(lua_State *L)
{
    const char *path = check_path(L, 1);
    message_box *box = push_box(L);
    box->message = ve_jrpcmsg_cmd_get_parameter_attributes_new(one_name(path));
    json_object_set_new(ve_jrpcmsg_params(box->message), "Depth", json_integer(0));
    exchange(L, box);
    const json_t *entry = json_array_get(ve_jrpcmsg_parameter_list(box->message), 0);
    const json_t *attributes = json_object_get(entry, "Attributes");
    if (attributes != nullptr)
        ve_lua_push_json(L, attributes);
    else
        lua_newtable(L); // the root
    return finish(box, 1);
}

// --- writing ---

/// One entry of what is to be set; the box's message already owns `list`. The name is at `index`, its value above it.
/// `argument` is the number of the binding's argument that holds the value.
void add_setting(lua_State *L, json_t *list, int index, int argument)
{
    luaL_argcheck(L, lua_type(L, index) == LUA_TSTRING, 1, "a path is expected");
    size_t size = 0;
    const char *path = lua_tolstring(L, index, &size);
    luaL_argcheck(L, size > 0 && memchr(path, 0, size) == nullptr && ve_string_is_utf8(path), 1,
                  "a path is a UTF-8 text");
    const char *problem = nullptr;
    json_t *value = ve_lua_to_json(L, index + 1, &problem);
    if (value == nullptr)
        luaL_argerror(L, argument, problem);
    json_array_append_new(list, name_value(plain_path(path), value));
}

int dm_set(lua_State *L)
{
    if (!lua_istable(L, 1)) {
        check_path(L, 1);
        luaL_checkany(L, 2);
    }
    lua_settop(L, 2);
    message_box *box = push_box(L);
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
    exchange(L, box);
    return finish_true(L, box);
}

int dm_add(lua_State *L)
{
    const uint32_t order = lua_isnoneornil(L, 2) ? UINT32_MAX : check_number(L, 2, 1);
    const char *path = push_partial_path(L, 1);
    message_box *box = push_box(L);
    box->message = ve_jrpcmsg_cmd_add_object(path, order);
    exchange(L, box);
    lua_pushinteger(L, json_integer_value(json_object_get(ve_jrpcmsg_result(box->message), "InstanceNumber")));
    return finish(box, 1);
}

int dm_del(lua_State *L)
{
    const char *path = check_path(L, 1);
    message_box *box = push_box(L);
    box->message = ve_jrpcmsg_cmd_delete_object(path);
    exchange(L, box);
    return finish_true(L, box);
}

int dm_order(lua_State *L)
{
    const uint32_t order = check_number(L, 2, 1);
    const char *path = check_path(L, 1);
    message_box *box = push_box(L);
    box->message = ve_jrpcmsg_cmd_change_order(path, order);
    exchange(L, box);
    return finish_true(L, box);
}

int dm_save(lua_State *L)
{
    message_box *box = push_request(L, "SaveConfig", nullptr);
    exchange(L, box);
    return finish_true(L, box);
}

// --- methods ---

/// Appends the values below `group` to `list`, their names joined by dots. Never raises.
void flatten(json_t *list, const json_t *group, const std::string &prefix)
{
    const char *key;
    json_t *value;
    json_object_foreach(const_cast<json_t *>(group), key, value)
    {
        const std::string name = prefix.empty() ? key : prefix + "." + key;
        if (json_is_object(value))
            flatten(list, value, name);
        else
            json_array_append_new(list, name_value(name.c_str(), json_incref(value)));
    }
}

json_t *flattened(json_t *arguments)
{
    const json_ref owned(arguments);
    json_t *list = json_array();
    flatten(list, owned.get(), "");
    return list;
}

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

int dm_call(lua_State *L)
{
    const char *path = check_path(L, 1);
    lua_settop(L, 2);
    message_box *box = push_box(L);
    json_t *arguments = nullptr;
    if (!lua_isnil(L, 2)) {
        luaL_checktype(L, 2, LUA_TTABLE);
        arguments = check_json(L, 2);
        if (!json_is_object(arguments)) {
            json_decref(arguments);
            return luaL_argerror(L, 2, "arguments have names");
        }
    }
    box->message = ve_jrpcmsg_cmd_execute(path, flattened(arguments));
    exchange(L, box);
    const json_t *list = ve_jrpcmsg_parameter_list(box->message);
    lua_newtable(L);
    for (size_t i = 0; i < json_array_size(list); ++i) {
        const json_t *entry = json_array_get(list, i);
        if (entry_name(entry) != nullptr)
            store_output(L, entry_name(entry), json_object_get(entry, "Value"));
    }
    return finish(box, 1);
}

int dm_request(lua_State *L)
{
    const char *method = check_text(L, 1);
    lua_settop(L, 2);
    message_box *box = push_box(L);
    json_t *params = nullptr;
    if (!lua_isnil(L, 2)) {
        luaL_checktype(L, 2, LUA_TTABLE);
        params = check_json(L, 2);
        if (!json_is_object(params)) {
            json_decref(params);
            return luaL_argerror(L, 2, "parameters have names");
        }
    }
    box->message = ve_jrpcmsg_create_new(method, params);
    exchange(L, box);
    ve_lua_push_json(L, ve_jrpcmsg_result(box->message));
    return finish(box, 1);
}

int send_event(ve_lua_state *context, ve_jrpcmsg *message)
{
    const ve_lua_sigint_blocked blocked;
    const ve_lua_hooks &hooks = ve_lua_installed_hooks();
    if (hooks.send != nullptr)
        return hooks.send(message);
    return context->request_ctx != nullptr ? ve_jrpcapi_send(context->request_ctx, message) : -1;
}

int dm_event(lua_State *L)
{
    const lua_Integer id = luaL_checkinteger(L, 1);
    luaL_argcheck(L, id >= 0 && id <= UINT32_MAX, 1, "out of range");
    lua_settop(L, 2);
    message_box *box = push_box(L);
    json_t *value = lua_isnoneornil(L, 2) ? nullptr : check_json(L, 2);
    box->message = ve_jrpcmsg_create_event_new(static_cast<uint32_t>(id), value);
    const int result = send_event(ve_lua_of(L), box->message);
    ve_lua_check_interrupt(L);
    if (result < 0) {
        ve_jrpcmsg_set_error(box->message, ve_jrpc_err_lost, "the daemon closed the link", nullptr);
        return raise_answer(L, box);
    }
    return finish_true(L, box);
}

// --- login ---

void change_login(const char *user, const char *password)
{
    const ve_lua_sigint_blocked blocked;
    if (ve_lua_installed_hooks().login_changed != nullptr)
        ve_lua_installed_hooks().login_changed(user, password);
}

json_t *login_params(lua_State *L)
{
    json_t *params = json_object();
    json_object_set_new(params, "User", json_string(lua_tostring(L, 1)));
    if (lua_isstring(L, 2) && *lua_tostring(L, 2) != '\0')
        json_object_set_new(params, "Password", json_string(lua_tostring(L, 2)));
    return params;
}

/// A refused login leaves nobody logged in, as the command does.
int dm_login(lua_State *L)
{
    const char *user = check_text(L, 1);
    const char *password = lua_isnoneornil(L, 2) ? nullptr : check_text(L, 2);
    lua_settop(L, 2);
    message_box *box = push_request(L, "Login", login_params);
    const int result = transmit(ve_lua_of(L), box->message, login_timeout_ms);
    ve_lua_check_interrupt(L);
    if (result < 0 || ve_jrpcmsg_error_code(box->message) != 0) {
        const message_box *logout = push_request(L, "Logout", nullptr);
        transmit(ve_lua_of(L), logout->message, login_timeout_ms);
        change_login(nullptr, nullptr);
        return raise_answer(L, box);
    }
    change_login(user, password);
    ve_lua_check_interrupt(L);
    return finish_true(L, box);
}

int dm_logout(lua_State *L)
{
    message_box *box = push_request(L, "Logout", nullptr);
    exchange(L, box, login_timeout_ms);
    change_login(nullptr, nullptr);
    ve_lua_check_interrupt(L);
    return finish_true(L, box);
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
    set_field(L, "__name", "null");
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
    luaL_newmetatable(L, box_type);
    lua_pushcfunction(L, box_release);
    lua_setfield(L, -2, "__gc");
    luaL_newmetatable(L, error_type);
    lua_pushcfunction(L, error_tostring);
    lua_setfield(L, -2, "__tostring");
    lua_pop(L, 2);
    luaL_newlib(L, functions);
    push_null(L);
    lua_setfield(L, -2, "null");
    lua_setglobal(L, "dm");
}
