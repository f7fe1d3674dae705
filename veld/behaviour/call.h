// A method that a behaviour runs: a coroutine, which sleeps between its steps.
#pragma once

#include "veld/behaviour/behaviour.h"

namespace veld
{

class behaviour_call : public method_job
{
public:
    behaviour_call(behaviour *of, int function, std::string path, const json_t *input);
    ~behaviour_call() override;

protected:
    void proceed() override;

private:
    static int make(lua_State *in);
    static int start(lua_State *in);
    static int finish(lua_State *in, int status, intptr_t self);
    void end(int status);

    behaviour *behaviour_;
    std::string path_;
    json_ref input_;
    behaviour::invocation one_{};
    lua_State *thread_ = nullptr; // null before it begins, and when there is no memory for it
    int thread_reference_ = 0;
    bool begun_ = false;
    int64_t wake_at_ = 0;
};

} // namespace veld
