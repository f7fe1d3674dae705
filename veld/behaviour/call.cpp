#include "veld/behaviour/call.h"

#include "base/clock.h"
#include "veld/base/log.h"
#include "veld/behaviour/values.h"

#include <lua.hpp>

namespace veld
{

namespace
{

// {"A": 1, "B": {"1": {"C": 2}}} as A and B.1.C; arrays count from 1.
void flatten(json_t *list, const std::string &name, json_t *value)
{
    const std::string below = name.empty() ? "" : name + ".";
    const char *key = nullptr;
    json_t *member = nullptr;
    size_t i = 0;
    if (json_is_object(value)) {
        json_object_foreach(value, key, member) flatten(list, below + key, member);
    } else if (json_is_array(value)) {
        json_array_foreach(value, i, member) flatten(list, below + std::to_string(i + 1), member);
    } else {
        add_output(list, name, json_incref(value));
    }
}

} // namespace

behaviour_call::behaviour_call(behaviour *of, int function, std::string name, json_ref input, progress_handler progress)
    : behaviour_(of), name_(std::move(name)), input_(std::move(input)), progress_(std::move(progress))
{
    one_ = {function, &name_, input_.get(), nullptr, nullptr};
}

behaviour_call::~behaviour_call()
{
    json_decref(one_.result);
    if (thread_ != nullptr)
        luaL_unref(behaviour_->box_.state(), LUA_REGISTRYINDEX, thread_reference_);
}

int behaviour_call::make(lua_State *in)
{
    auto *self = static_cast<behaviour_call *>(lua_touserdata(in, 1));
    lua_State *thread = lua_newthread(in);
    self->thread_reference_ = luaL_ref(in, LUA_REGISTRYINDEX);
    self->thread_ = thread;
    return 0;
}

int behaviour_call::finish(lua_State *in, int, intptr_t self)
{
    auto *call = reinterpret_cast<behaviour_call *>(self);
    call->one_.result = values_take(in, -1, &call->one_.problem);
    return 0;
}

int behaviour_call::start(lua_State *in)
{
    auto *self = static_cast<behaviour_call *>(lua_touserdata(in, 1));
    lua_settop(in, 0);
    lua_rawgeti(in, LUA_REGISTRYINDEX, self->one_.function);
    values_push(in, self->one_.value);
    lua_pushlstring(in, self->name_.data(), self->name_.size());
    lua_callk(in, 2, 1, reinterpret_cast<intptr_t>(self), finish);
    return finish(in, LUA_OK, reinterpret_cast<intptr_t>(self));
}

void behaviour_call::end(int status)
{
    if (status != LUA_OK) {
        const std::string error = behaviour_->error_of(thread_);
        if (behaviour_->refusal_ && lua_islightuserdata(thread_, -1))
            return fail(behaviour_->refusal_.code, error);
        LOG_WARNING("%s: %s", name_.c_str(), error.c_str());
        return fail(code::internal, "the behaviour failed: " + error);
    }
    if (one_.problem != nullptr)
        return fail(code::internal, std::string("the behaviour failed: it gave back ") + one_.problem);
    json_ref list{json_array()};
    if (json_is_object(one_.result))
        flatten(list.get(), "", one_.result);
    succeed(std::move(list));
}

void behaviour_call::proceed()
{
    if (begun_ && monotonic_ms() < wake_at_)
        return wake_in(wake_at_ - monotonic_ms());
    std::string error;
    if (!begun_) {
        lua_pushcfunction(behaviour_->current_, make);
        lua_pushlightuserdata(behaviour_->current_, this);
        if (!behaviour_->protect(1, &error))
            return fail(code::resources, "the behaviour has no memory left");
        lua_pushcfunction(thread_, start);
        lua_pushlightuserdata(thread_, this);
    } else {
        behaviour_->host_.begin();
    }
    lua_State *before = behaviour_->current_;
    behaviour_->current_ = thread_;
    behaviour_->refusal_ = {};
    behaviour_->sleep_ms_ = 0;
    behaviour_->progress_ = progress_ ? &progress_ : nullptr;
    behaviour_->nested_++;
    behaviour_->box_.enter(thread_);
    const int status = lua_resume(thread_, nullptr, begun_ ? 0 : 1);
    behaviour_->box_.leave(thread_);
    behaviour_->nested_--;
    behaviour_->current_ = before;
    behaviour_->progress_ = nullptr;
    begun_ = true;
    if (status != LUA_YIELD)
        return end(status);
    wake_at_ = monotonic_ms_after(behaviour_->sleep_ms_);
    wake_in(behaviour_->sleep_ms_);
}

} // namespace veld
