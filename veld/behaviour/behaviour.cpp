#include "veld/behaviour/behaviour.h"

#include "base/fd.h"
#include "base/file.h"
#include "veld/base/log.h"
#include "veld/behaviour/call.h"
#include "veld/behaviour/values.h"
#include "veld/model/scheme.h"

#include <lua.hpp>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fcntl.h>

namespace veld
{

namespace
{

constexpr size_t longest_file = size_t{4} << 20;
constexpr size_t most_timers = 1000;
constexpr int64_t shortest_ms = 10;
constexpr int deepest = 8; // a value that is asked for while another one is
constexpr const char *registering[] = {"on_get", "on_rows", "on_set", "on_call"}; // in the order of backend_use
const char refused = 0;                                                           // its address is what is raised

// "Device.T.12.P" → "Device.T.{i}.P".
std::string pattern_of(std::string_view path)
{
    std::string out;
    while (!path.empty()) {
        const std::string_view part = path.substr(0, path.find('.'));
        path.remove_prefix(std::min(part.size() + 1, path.size()));
        const bool number = !part.empty() && part.find_first_not_of("0123456789") == std::string_view::npos;
        out += (out.empty() ? "" : ".") + std::string(number ? "{i}" : part);
    }
    return out;
}

bool is_integer(value_type type)
{
    return type == value_type::int32 || type == value_type::uint32 || type == value_type::int64 ||
           type == value_type::uint64;
}

// Lua calculates with reals where a result may be none of its integers.
bool is_whole(const json_t *value)
{
    const double number = json_real_value(value);
    return json_is_real(value) && number == std::floor(number) && std::fabs(number) < 9.2e18;
}

} // namespace

behaviour::behaviour(std::string name, bool trusted)
    : name_(std::move(name)), box_(this, trusted, {}), current_(box_.state())
{
}

behaviour::~behaviour()
{
    for (const auto &[id, one] : timers_)
        if (one.waiting != 0)
            host_.cancel(one.waiting);
    timers_.clear();
    connected_ = false; // to finalizers the device is no longer there
}

behaviour *behaviour::self(lua_State *in)
{
    auto *here = static_cast<behaviour *>(sandbox::owner(in));
    here->current_ = in;
    return here;
}

// --- what a file may call ---

int behaviour::lua_handler(lua_State *in)
{
    behaviour *here = self(in);
    const auto use = static_cast<size_t>(lua_tointeger(in, lua_upvalueindex(1)));
    const char *path = luaL_checkstring(in, 1);
    luaL_checktype(in, 2, LUA_TFUNCTION);
    if (here->connected_)
        return luaL_error(in, "%s() is for the beginning", registering[use]);
    lua_settop(in, 2);
    const int function = luaL_ref(in, LUA_REGISTRYINDEX);
    here->path_ = pattern_of(path);
    if (!here->handlers_[use].try_emplace(here->path_, handler{function}).second)
        return luaL_error(in, "a second %s() for %s", registering[use], path);
    return 0;
}

int behaviour::lua_timer(lua_State *in)
{
    behaviour *here = self(in);
    const bool again = lua_toboolean(in, lua_upvalueindex(1)) != 0;
    const lua_Number seconds = luaL_checknumber(in, 1);
    luaL_checktype(in, 2, LUA_TFUNCTION);
    luaL_argcheck(in, seconds >= 0 && seconds <= 86400 * 365, 1, "no number of seconds");
    if (here->timers_.size() >= most_timers)
        return luaL_error(in, "too many timers");
    lua_settop(in, 2);
    const int function = luaL_ref(in, LUA_REGISTRYINDEX);
    const int64_t id = here->next_timer_++;
    const auto milliseconds = std::max(static_cast<int64_t>(seconds * 1000), shortest_ms);
    here->timers_[id] = {function, again ? milliseconds : -milliseconds, 0};
    if (here->connected_)
        here->start_timer(id);
    lua_pushinteger(in, id);
    return 1;
}

int behaviour::lua_cancel(lua_State *in)
{
    behaviour *here = self(in);
    const auto found = here->timers_.find(luaL_checkinteger(in, 1));
    if (found == here->timers_.end())
        return 0;
    if (found->second.waiting != 0)
        here->host_.cancel(found->second.waiting);
    const int function = found->second.function;
    here->timers_.erase(found);
    luaL_unref(in, LUA_REGISTRYINDEX, function);
    return 0;
}

int behaviour::lua_get(lua_State *in)
{
    behaviour *here = self(in);
    size_t length = 0;
    const char *path = luaL_checklstring(in, 1, &length);
    if (!here->connected_)
        return luaL_error(in, "get() is not for the beginning");
    if (here->nested_ >= deepest)
        return luaL_error(in, "values that ask for each other");
    here->scratch_ = here->host_.get(std::string(path, length));
    here->current_ = in;
    if (!here->scratch_)
        return luaL_error(in, "no such parameter: %s", path);
    values_push(in, here->scratch_.get());
    return 1;
}

int behaviour::lua_set(lua_State *in)
{
    behaviour *here = self(in);
    size_t length = 0;
    const char *path = luaL_checklstring(in, 1, &length);
    luaL_checkany(in, 2);
    if (!here->connected_)
        return luaL_error(in, "set() is not for the beginning");
    const char *problem = nullptr;
    here->scratch_.reset(values_take(in, 2, &problem));
    if (!here->scratch_)
        return luaL_error(in, "%s: cannot be %s", path, problem != nullptr ? problem : "nil");
    here->text_ = here->host_.set(std::string(path, length), here->scratch_.get());
    if (!here->text_.empty())
        return luaL_error(in, "%s: %s", path, here->text_.c_str());
    return 0;
}

int behaviour::lua_event(lua_State *in)
{
    behaviour *here = self(in);
    const lua_Integer group = luaL_checkinteger(in, 1);
    const char *problem = nullptr;
    here->scratch_.reset(lua_isnone(in, 2) ? nullptr : values_take(in, 2, &problem));
    if (problem != nullptr)
        return luaL_error(in, "an event cannot carry %s", problem);
    if (!here->connected_)
        return luaL_error(in, "event() is not for the beginning");
    here->host_.event(group, here->scratch_.get());
    return 0;
}

int behaviour::lua_log(lua_State *in)
{
    const behaviour *here = self(in);
    LOG_INFO("%s: %s", here->name_.c_str(), luaL_checkstring(in, 1));
    return 0;
}

int behaviour::lua_refuse(lua_State *in)
{
    behaviour *here = self(in);
    size_t length = 0;
    const char *text = luaL_checklstring(in, 1, &length);
    const lua_Integer number = luaL_optinteger(in, 2, wire_number(code::denied));
    // Clients end with the low byte, which must not look like a success.
    const code why = (number & 0xff) != 0 ? code_of_device(number) : code::none;
    luaL_argcheck(in, why != code::none, 2, "no code of a refusal");
    here->refusal_.code = why;
    here->refusal_.message.assign(text, length);
    lua_pushlightuserdata(in, const_cast<char *>(&refused));
    return lua_error(in);
}

int behaviour::lua_sleep(lua_State *in)
{
    behaviour *here = self(in);
    const lua_Number seconds = luaL_checknumber(in, 1);
    luaL_argcheck(in, seconds >= 0 && seconds <= 86400, 1, "no number of seconds");
    if (lua_isyieldable(in) == 0)
        return luaL_error(in, "only a call can sleep()");
    here->sleep_ms_ = static_cast<int64_t>(std::ceil(seconds * 1000));
    return lua_yield(in, 0);
}

int behaviour::lua_progress(lua_State *in)
{
    const behaviour *here = self(in);
    const lua_Number percent = luaL_checknumber(in, 1);
    luaL_argcheck(in, percent >= 0 && percent <= 100, 1, "no number of percent");
    if (here->progress_ == nullptr)
        return luaL_error(in, "only on_flash() can report progress()");
    (*here->progress_)(static_cast<int>(percent));
    return 0;
}

int behaviour::open(lua_State *in)
{
    for (int i = 0; i < 4; ++i) {
        lua_pushinteger(in, i);
        lua_pushcclosure(in, lua_handler, 1);
        lua_setglobal(in, registering[i]);
    }
    for (const bool again : {false, true}) {
        lua_pushboolean(in, again ? 1 : 0);
        lua_pushcclosure(in, lua_timer, 1);
        lua_setglobal(in, again ? "every" : "after");
    }
    static constexpr luaL_Reg functions[] = {
        {"cancel", lua_cancel}, {"get", lua_get},     {"set", lua_set},
        {"event", lua_event},   {"log", lua_log},     {"print", lua_log},
        {"refuse", lua_refuse}, {"sleep", lua_sleep}, {"progress", lua_progress},
    };
    for (const luaL_Reg &one : functions) {
        lua_pushcfunction(in, one.func);
        lua_setglobal(in, one.name);
    }
    auto *text = static_cast<std::string *>(lua_touserdata(in, 1));
    auto *here = self(in);
    lua_pushfstring(in, "@%s", here->name_.c_str());
    if (luaL_loadbufferx(in, text->data(), text->size(), lua_tostring(in, -1), "t") != LUA_OK)
        return lua_error(in);
    lua_call(in, 0, 0);
    const std::pair<const char *, int *> hooks[] = {{"on_reboot", &here->on_reboot_},
                                                    {"on_restart", &here->on_restart_},
                                                    {"on_image", &here->on_image_},
                                                    {"on_flash", &here->on_flash_}};
    for (const auto &[name, reference] : hooks) {
        lua_getglobal(in, name);
        if (lua_isfunction(in, -1))
            *reference = luaL_ref(in, LUA_REGISTRYINDEX);
    }
    return 0;
}

// --- from the daemon's side ---

std::unique_ptr<behaviour> behaviour::load(const std::string &path, bool trusted, std::string *error)
{
    std::unique_ptr<behaviour> made(new behaviour(path.substr(path.rfind('/') + 1), trusted));
    if (!made->run_file(path, error))
        return nullptr;
    return made;
}

bool behaviour::run_file(const std::string &path, std::string *error)
{
    const fd_owner file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    std::string text;
    if (!file || !read_all(file.get(), longest_file, &text)) {
        *error = path + ": " + strerror(errno);
        return false;
    }
    lua_pushcfunction(current_, open);
    lua_pushlightuserdata(current_, &text);
    return protect(1, error);
}

std::string behaviour::error_of(lua_State *in)
{
    if (lua_touserdata(in, -1) == &refused)
        return refusal_.message.empty() ? name_ + ": refused without a text" : refusal_.message;
    size_t length = 0;
    const char *text = lua_type(in, -1) == LUA_TSTRING ? lua_tolstring(in, -1, &length) : nullptr;
    return text != nullptr ? std::string(text, length) : name_ + ": raised what is no text";
}

// Calls the function below its arguments on the stack of the state that runs.
bool behaviour::protect(int arguments, std::string *error)
{
    lua_State *in = current_;
    refusal_ = {};
    nested_++;
    box_.enter(in);
    const int status = lua_pcall(in, arguments, 0, 0);
    box_.leave(in);
    nested_--;
    current_ = in;
    if (status == LUA_OK)
        return true;
    *error = error_of(in);
    if (lua_touserdata(in, -1) != &refused)
        refusal_ = {code::internal, "the behaviour failed: " + *error};
    lua_pop(in, 1);
    return false;
}

int behaviour::invoked(lua_State *in)
{
    auto *one = static_cast<invocation *>(lua_touserdata(in, 1));
    lua_settop(in, 0);
    lua_rawgeti(in, LUA_REGISTRYINDEX, one->function);
    if (one->path != nullptr)
        lua_pushlstring(in, one->path->data(), one->path->size());
    if (one->value != nullptr)
        values_push(in, one->value);
    lua_call(in, lua_gettop(in) - 1, 1);
    one->result = values_take(in, -1, &one->problem);
    return 0;
}

bool behaviour::invoke(int function, const std::string *path, const json_t *value, json_ref *result, std::string *error)
{
    if (lua_checkstack(current_, 4) == 0) {
        *error = "not enough memory";
        refusal_ = {code::internal, "the behaviour failed: " + *error};
        return false;
    }
    invocation one{function, path, value, nullptr, nullptr};
    lua_pushcfunction(current_, invoked);
    lua_pushlightuserdata(current_, &one);
    if (!protect(1, error))
        return false;
    result->reset(one.result);
    if (one.problem == nullptr)
        return true;
    *error = name_ + ": gave back " + one.problem;
    refusal_ = {code::internal, "the behaviour failed: " + *error};
    return false;
}

void behaviour::complain(handler *of, const std::string &path, const std::string &error)
{
    if (!of->failing)
        LOG_WARNING("%s: %s", path.c_str(), error.c_str());
    of->failing = true;
}

bool behaviour::fits(std::string *error) const
{
    for (size_t use = 0; use < std::size(handlers_); ++use)
        for (const auto &[path, one] : handlers_[use])
            if (!one.used) {
                static constexpr const char *kinds[] = {"parameter", "table", "writable parameter", "method"};
                *error = name_ + ": " + registering[use] + ": the model has no " + kinds[use] + " " + path;
                return false;
            }
    return true;
}

void behaviour::connect(behaviour_host host)
{
    host_ = std::move(host);
    connected_ = true;
    for (auto &[id, one] : timers_)
        start_timer(id);
}

void behaviour::start_timer(int64_t id)
{
    timer &one = timers_[id];
    one.waiting = host_.after(std::abs(one.every_ms), [this, id] { ring(id); });
}

void behaviour::ring(int64_t id)
{
    const auto found = timers_.find(id);
    if (found == timers_.end())
        return;
    found->second.waiting = 0;
    const int function = found->second.function;
    const bool again = found->second.every_ms > 0;
    if (!again)
        timers_.erase(found);
    host_.begin();
    json_ref nothing;
    std::string error;
    const bool done = invoke(function, nullptr, nullptr, &nothing, &error);
    if (!done)
        LOG_WARNING("%s: a timer: %s%s", name_.c_str(), error.c_str(), again ? "; it is ended" : "");
    const auto still = timers_.find(id);
    if (again && still == timers_.end())
        return; // it has cancelled itself
    if (again && done)
        return start_timer(id);
    if (again)
        timers_.erase(still);
    luaL_unref(box_.state(), LUA_REGISTRYINDEX, function);
}

bool behaviour::knows(backend_use, std::string_view) const
{
    return false; // it goes by paths
}

backend_part behaviour::serves(backend_use use, const scheme &, const std::string &path)
{
    auto &handlers = handlers_[static_cast<size_t>(use)];
    // A table may be named with its final ".".
    const auto found = handlers.find(path.ends_with('.') ? path.substr(0, path.size() - 1) : path);
    if (found == handlers.end())
        return backend_part::none;
    found->second.used = true;
    return backend_part::always;
}

// Lua has one kind of number for what is whole and not; the model has two.
json_ref behaviour::of_type(const scheme &what, json_ref value) const
{
    if (is_integer(what.type) && is_whole(value.get()))
        return json_ref{json_integer(static_cast<json_int_t>(json_real_value(value.get())))};
    return value;
}

json_ref behaviour::read(const scheme &what, const std::string &path)
{
    handler &one = handlers_[static_cast<size_t>(backend_use::read)].at(pattern_of(path));
    json_ref value;
    std::string error;
    if (nested_ >= deepest || !invoke(one.function, &path, nullptr, &value, &error)) {
        complain(&one, path, error.empty() ? "values that ask for each other" : error);
        return {};
    }
    one.failing = false;
    return of_type(what, std::move(value));
}

json_ref behaviour::rows(const scheme &, const std::string &path)
{
    handler &one = handlers_[static_cast<size_t>(backend_use::list)].at(pattern_of(path));
    json_ref list;
    std::string error;
    if (nested_ >= deepest || !invoke(one.function, &path, nullptr, &list, &error)) {
        complain(&one, path, error.empty() ? "tables that ask for each other" : error);
        return {};
    }
    one.failing = false;
    for (size_t i = 0; i < json_array_size(list.get()); ++i) {
        json_t *row = json_array_get(list.get(), i);
        const json_t *key = json_object_get(row, "key");
        std::string text = json_is_string(key)    ? json_string_value(key)
                           : json_is_integer(key) ? std::to_string(json_integer_value(key))
                                                  : std::to_string(i + 1);
        if (!json_is_object(row))
            continue;
        json_object_set_new(row, "#key", json_string(text.c_str()));
        const char *name = nullptr;
        json_t *value = nullptr;
        json_object_foreach(row, name, value) if (is_whole(value)) // a decimal takes it all the same
            json_object_set_new(row, name, json_integer(static_cast<json_int_t>(json_real_value(value))));
    }
    return list;
}

// One after the other; when one refuses, those before get their values back.
fault behaviour::apply(const std::vector<backend_change> &changes, size_t *which)
{
    auto &handlers = handlers_[static_cast<size_t>(backend_use::set)];
    for (size_t i = 0; i < changes.size(); ++i) {
        json_ref nothing;
        std::string error;
        handler &one = handlers.at(pattern_of(*changes[i].path));
        if (invoke(one.function, changes[i].path, changes[i].value, &nothing, &error))
            continue;
        fault refusal = refusal_;
        *which = i;
        if (refusal.code == code::internal)
            LOG_WARNING("%s: %s", changes[i].path->c_str(), error.c_str());
        while (i-- > 0) {
            handler &before = handlers.at(pattern_of(*changes[i].path));
            if (!invoke(before.function, changes[i].path, changes[i].before, &nothing, &error))
                LOG_WARNING("%s: cannot be set back: %s", changes[i].path->c_str(), error.c_str());
        }
        return refusal;
    }
    return {};
}

std::unique_ptr<job> behaviour::run(const scheme &, const std::string &path, const json_t *input,
                                    const std::function<std::string(std::string_view)> &, job_outcome *)
{
    const handler &one = handlers_[static_cast<size_t>(backend_use::run)].at(pattern_of(path));
    return std::make_unique<behaviour_call>(this, one.function, path, json_ref::share(const_cast<json_t *>(input)));
}

bool behaviour::does(backend_deed deed) const
{
    switch (deed) {
    case backend_deed::examine:
        return on_image_ != 0;
    case backend_deed::flash:
        return on_flash_ != 0;
    case backend_deed::reboot:
        break;
    }
    return on_restart_ != 0;
}

fault behaviour::examine(firmware_image *image)
{
    json_ref version;
    std::string error;
    if (!invoke(on_image_, &image->beginning, nullptr, &version, &error)) {
        if (refusal_.code == code::internal)
            LOG_WARNING("on_image: %s", error.c_str());
        return refusal_;
    }
    if (!json_is_string(version.get()))
        return {code::internal, "the behaviour failed: " + name_ + ": on_image gave back no version"};
    image->version = json_string_value(version.get());
    return {};
}

std::unique_ptr<job> behaviour::flash(const firmware_image &image, const progress_handler &progress)
{
    json_ref what{json_object()};
    json_object_set_new(what.get(), "version", json_string(image.version.c_str()));
    json_object_set_new(what.get(), "path", json_string(image.path.c_str()));
    return std::make_unique<behaviour_call>(this, on_flash_, "on_flash", std::move(what), progress);
}

std::unique_ptr<job> behaviour::reboot(const std::string &action)
{
    return std::make_unique<behaviour_call>(this, on_restart_, "on_restart", json_ref{json_string(action.c_str())});
}

void behaviour::announced(const std::string &action)
{
    if (on_reboot_ == 0)
        return;
    json_ref nothing;
    std::string error;
    if (!invoke(on_reboot_, &action, nullptr, &nothing, &error))
        LOG_WARNING("%s: %s", name_.c_str(), error.c_str());
}

} // namespace veld
