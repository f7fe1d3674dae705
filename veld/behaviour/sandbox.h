// A Lua state in which nothing reaches the machine, and nothing takes long or grows large.
#pragma once

#include <cstddef>
#include <cstdint>

struct lua_State;
struct lua_Debug;

namespace veld
{

/// What one call from outside may cost. Between calls nothing runs.
struct sandbox_limits {
    size_t memory = size_t{8} << 20; ///< bytes of everything in the state
    uint64_t steps = 5000000;        ///< instructions, and what library functions do beside them
    int64_t cpu_us = 250000;         ///< of the thread
};

class sandbox
{
public:
    /// `owner` is what sandbox::owner() then gives. `trusted`: with all the libraries there are.
    sandbox(void *owner, bool trusted, const sandbox_limits &limits);
    sandbox(const sandbox &) = delete;
    sandbox &operator=(const sandbox &) = delete;
    ~sandbox();

    lua_State *state() { return state_; }
    static void *owner(lua_State *of);

    /// A call from outside begins and ends; calls within it share its limits. Between them any code may run; outside
    /// of a protected call it must not raise.
    void enter(lua_State *in);
    void leave(lua_State *in);

    /// Takes the cost of what a library function is about to do within a call; raises when that is too much.
    static void charge(lua_State *in, double steps);

private:
    static void *allocate(void *self, void *block, size_t before, size_t after);
    static void hook(lua_State *in, lua_Debug *);
    static sandbox *of(lua_State *in);
    static int open(lua_State *in);
    bool spent() const;

    void *owner_;
    bool trusted_;
    sandbox_limits limits_;
    lua_State *state_ = nullptr;
    size_t memory_ = 0;
    uint64_t steps_ = 0;
    int64_t begun_us_ = 0;
    int depth_ = 0;
};

} // namespace veld
