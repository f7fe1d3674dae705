// What a behaviour runs and takes its time: a coroutine, which sleeps between its steps.
#pragma once

#include "veld/behaviour/behaviour.h"

namespace veld
{

class behaviour_call : public method_job
{
public:
    /// Calls the function with `input` and `name`, which is the path of a method, or what the log calls it.
    behaviour_call(behaviour *of, int function, std::string name, json_ref input, progress_handler progress = nullptr);
    ~behaviour_call() override;

protected:
    void proceed() override;

private:
    static int make(lua_State *in);
    static int start(lua_State *in);
    static int finish(lua_State *in, int status, intptr_t self);
    void end(int status);

    behaviour *behaviour_;
    std::string name_;
    json_ref input_;
    progress_handler progress_; // none: nobody wants to hear of it
    behaviour::invocation one_{};
    lua_State *thread_ = nullptr; // null before it begins, and when there is no memory for it
    int thread_reference_ = 0;
    bool begun_ = false;
    int64_t wake_at_ = 0;
};

} // namespace veld
