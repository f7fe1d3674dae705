#include "veld/behaviour/sandbox.h"

#include "veld/behaviour/children.h"

#include <lua.hpp>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>

namespace veld
{

namespace
{

constexpr int hook_interval = 100;         // instructions
constexpr size_t bytes_of_a_step = 64;     // of memory that is asked for
constexpr uint64_t unlimited = UINT64_MAX; // between calls

int64_t cpu_us()
{
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}

// --- library functions that could take long, behind a look at their arguments ---

// A pattern may try each of its repetitions at each place of the text.
int guarded_match(lua_State *in)
{
    size_t length = 0;
    size_t pattern_length = 0;
    luaL_checklstring(in, 1, &length);
    const char *pattern = luaL_checklstring(in, 2, &pattern_length);
    double cost = double(length) / 64 + 1;
    int repetitions = 0;
    for (size_t i = 0; i < pattern_length; ++i)
        repetitions += strchr("*+-?", pattern[i]) != nullptr ||
                               (pattern[i] == '%' && i + 1 < pattern_length && pattern[i + 1] == 'b')
                           ? 1
                           : 0;
    if (repetitions > 0)
        cost = std::pow(double(length) + 1, repetitions + (pattern[0] == '^' ? 0 : 1)) / 16;
    sandbox::charge(in, cost);
    lua_pushvalue(in, lua_upvalueindex(1));
    lua_insert(in, 1);
    lua_call(in, lua_gettop(in) - 1, LUA_MULTRET);
    return lua_gettop(in);
}

int guarded_rep(lua_State *in)
{
    size_t length = 0;
    size_t between = 0;
    luaL_checklstring(in, 1, &length);
    luaL_optlstring(in, 3, "", &between);
    if (length + between == 0) {
        lua_pushliteral(in, "");
        return 1;
    }
    lua_pushvalue(in, lua_upvalueindex(1));
    lua_insert(in, 1);
    lua_call(in, lua_gettop(in) - 1, 1);
    return 1;
}

// A metatable could make a table look endless.
int guarded_table(lua_State *in)
{
    luaL_checktype(in, 1, LUA_TTABLE);
    if (lua_getmetatable(in, 1) != 0)
        return luaL_error(in, "the table must not have a metatable");
    sandbox::charge(in, double(lua_rawlen(in, 1)) / 16 + 1);
    lua_pushvalue(in, lua_upvalueindex(1));
    lua_insert(in, 1);
    lua_call(in, lua_gettop(in) - 1, LUA_MULTRET);
    return lua_gettop(in);
}

// Finalizers run where nothing limits them.
int guarded_setmetatable(lua_State *in)
{
    luaL_checktype(in, 1, LUA_TTABLE);
    if (lua_istable(in, 2)) {
        lua_pushliteral(in, "__gc");
        if (lua_rawget(in, 2) != LUA_TNIL)
            return luaL_error(in, "__gc is not allowed");
        lua_pop(in, 1);
    }
    lua_pushvalue(in, lua_upvalueindex(1));
    lua_insert(in, 1);
    lua_call(in, lua_gettop(in) - 1, 1);
    return 1;
}

struct guard {
    const char *library;
    const char *name;
    lua_CFunction function; // null: taken away
};

constexpr guard guards[] = {
    {"_G", "dofile", nullptr},
    {"_G", "loadfile", nullptr},
    {"_G", "load", nullptr},
    {"_G", "collectgarbage", nullptr},
    {"_G", "xpcall", nullptr}, // its handler would run where nothing limits it
    {"_G", "setmetatable", guarded_setmetatable},
    {"string", "dump", nullptr},
    {"string", "find", guarded_match},
    {"string", "match", guarded_match},
    {"string", "gmatch", guarded_match},
    {"string", "gsub", guarded_match},
    {"string", "rep", guarded_rep},
    {"table", "move", nullptr},
    {"table", "insert", guarded_table},
    {"table", "remove", guarded_table},
    {"table", "sort", guarded_table},
    {"table", "concat", guarded_table},
    {"os", "execute", nullptr},
    {"os", "exit", nullptr},
    {"os", "getenv", nullptr},
    {"os", "remove", nullptr},
    {"os", "rename", nullptr},
    {"os", "setlocale", nullptr},
    {"os", "tmpname", nullptr},
};

constexpr luaL_Reg libraries[] = {{"_G", luaopen_base},
                                  {LUA_STRLIBNAME, luaopen_string},
                                  {LUA_TABLIBNAME, luaopen_table},
                                  {LUA_MATHLIBNAME, luaopen_math},
                                  {LUA_UTF8LIBNAME, luaopen_utf8},
                                  {LUA_OSLIBNAME, luaopen_os}};

} // namespace

sandbox::sandbox(void *owner, bool trusted, const sandbox_limits &limits)
    : owner_(owner), trusted_(trusted), limits_(limits), steps_(unlimited)
{
    state_ = lua_newstate(allocate, this);
    if (state_ == nullptr)
        abort();
    *static_cast<sandbox **>(lua_getextraspace(state_)) = this;
    lua_pushcfunction(state_, open);
    if (lua_pcall(state_, 0, 0, 0) != LUA_OK)
        abort(); // the libraries alone are beyond no limit
}

sandbox::~sandbox()
{
    lua_close(state_);
}

int sandbox::open(lua_State *in)
{
    // The first reference that is given back takes memory; later ones do not.
    lua_pushboolean(in, 1);
    luaL_unref(in, LUA_REGISTRYINDEX, luaL_ref(in, LUA_REGISTRYINDEX));
    if (of(in)->trusted_) {
        luaL_openlibs(in);
        children_open(in);
        return 0;
    }
    for (const luaL_Reg &one : libraries) {
        luaL_requiref(in, one.name, one.func, 1);
        lua_pop(in, 1);
    }
    for (const guard &one : guards) {
        lua_getglobal(in, one.library);
        if (one.function != nullptr) {
            lua_getfield(in, -1, one.name);
            lua_pushcclosure(in, one.function, 1);
        } else {
            lua_pushnil(in);
        }
        lua_setfield(in, -2, one.name);
        lua_pop(in, 1);
    }
    return 0;
}

sandbox *sandbox::of(lua_State *in)
{
    return *static_cast<sandbox **>(lua_getextraspace(in));
}

void *sandbox::owner(lua_State *of_state)
{
    return of(of_state)->owner_;
}

// Large blocks take their time; where they come too often, there is no memory any more.
void *sandbox::allocate(void *self, void *block, size_t before, size_t after)
{
    auto *box = static_cast<sandbox *>(self);
    const size_t had = block != nullptr ? before : 0;
    if (after == 0) {
        box->memory_ -= had;
        free(block);
        return nullptr;
    }
    if (after > had) {
        const uint64_t cost = (after - had) / bytes_of_a_step;
        if (box->memory_ + (after - had) > box->limits_.memory)
            return nullptr;
        if (box->steps_ != unlimited && cost > 0) {
            if (box->steps_ > box->limits_.steps + box->limits_.steps / 4)
                return nullptr;
            box->steps_ += cost;
        }
    }
    void *given = realloc(block, after);
    if (given != nullptr)
        box->memory_ += after - had;
    return given;
}

bool sandbox::spent() const
{
    return steps_ > limits_.steps || cpu_us() - begun_us_ > limits_.cpu_us;
}

void sandbox::hook(lua_State *in, lua_Debug *where)
{
    sandbox *box = of(in);
    box->steps_ += hook_interval;
    if (!box->spent())
        return;
    // From here on each instruction raises anew, so that nothing catches it for good.
    box->steps_ = box->limits_.steps + 1;
    lua_sethook(in, hook, LUA_MASKCOUNT, 1);
    lua_getinfo(in, "Sl", where);
    lua_pushfstring(in, "%s:%d: takes too long", where->short_src, where->currentline);
    lua_error(in);
}

void sandbox::charge(lua_State *in, double steps)
{
    sandbox *box = of(in);
    if (steps > double(box->limits_.steps))
        luaL_error(in, "takes too long");
    box->steps_ += static_cast<uint64_t>(steps);
}

void sandbox::enter(lua_State *in)
{
    if (depth_++ == 0) {
        steps_ = 0;
        begun_us_ = cpu_us();
    }
    lua_sethook(in, hook, LUA_MASKCOUNT, hook_interval);
}

void sandbox::leave(lua_State *in)
{
    lua_sethook(in, hook, LUA_MASKCOUNT, hook_interval);
    if (--depth_ == 0)
        steps_ = unlimited;
}

} // namespace veld
