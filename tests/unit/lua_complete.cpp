#include "lua/complete.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <lua.hpp>
#include <string>
#include <unistd.h>

#include "platform/ve_json.h"
#include "platform/ve_lua.h"
#include "platform/ve_out.h"
#include "platform/ve_rl.h"

namespace
{

/// A session's state to complete in, with a module directory of its own as the only search path.
class Completion : public testing::Test
{
protected:
    Completion() : context_(ve_lua_init(0)), L(context_->state)
    {
        char name[] = "/tmp/kest-complete-XXXXXX";
        directory_ = mkdtemp(name);
        lua_complete_set_state(L);
        run("package.path = '" + directory_ + "/?.lua;" + directory_ + "/?/init.lua' package.cpath = ''");
    }
    ~Completion() override
    {
        lua_complete_set_state(nullptr);
        ve_lua_free(context_);
        std::filesystem::remove_all(directory_);
    }

    void run(const std::string &code)
    {
        ASSERT_EQ(luaL_dostring(L, code.c_str()), LUA_OK) << lua_tostring(L, -1);
        lua_settop(L, 0);
    }

    void module(const std::string &name, const std::string &code = "return {}") const
    {
        const std::filesystem::path path = directory_ + "/" + name;
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path) << code;
    }

    /// The candidates at the end of `line`, joined by blanks.
    std::string at(const std::string &line) const { return at(line, line.size()); }
    std::string at(const std::string &line, size_t cursor) const
    {
        const json_ref candidates(json_array());
        lua_autocomplete(line.c_str(), cursor, candidates.get());
        EXPECT_EQ(lua_gettop(L), 0) << "the stack is as it was";
        std::string result;
        for (size_t i = 0; i < json_array_size(candidates.get()); ++i)
            result += (i > 0 ? " " : "") + std::string(json_string_value(json_array_get(candidates.get(), i)));
        return result;
    }

    ve_lua_context *context_;
    lua_State *L;
    std::string directory_;
};

} // namespace

TEST_F(Completion, OffersReservedWordsInTheirOrder)
{
    EXPECT_EQ(at("x = f"), "false for function");
    EXPECT_EQ(at("e"), "else elseif end error");
    EXPECT_EQ(at("got"), "");
    EXPECT_TRUE(at("").starts_with("and break do else elseif end false for function if in local nil not or repeat "
                                   "return then true until while "));
}

TEST_F(Completion, TakesTheWordBeforeTheCursor)
{
    run("alpha = 1");
    EXPECT_EQ(at("alp"), "alpha");
    EXPECT_EQ(at("print(alp"), "alpha");
    EXPECT_EQ(ve_rl_completion_start(), 6U);
    EXPECT_EQ(at("alp + x", 3), "alpha");
    EXPECT_EQ(at("x=alphabet", 5), "alpha");
    EXPECT_EQ(ve_rl_completion_start(), 2U);
    EXPECT_EQ(at("x<alp"), "alpha");
    EXPECT_EQ(at("x,alp"), "") << "a comma does not end a word";
}

TEST_F(Completion, OffersFieldsWithWhatGoesOn)
{
    run("t = {alpha = {x = 1}, beta = function() end, gamma = 3, delta = {1}, empty = {}, [1] = 'one', [2] = 'two'}");
    EXPECT_EQ(at("t.al"), "t.alpha");
    EXPECT_EQ(at("t.alpha"), "t.alpha.");
    EXPECT_EQ(at("t.beta"), "t.beta(");
    EXPECT_EQ(at("t.gamma"), "t.gamma");
    EXPECT_EQ(at("t.delta"), "t.delta[");
    EXPECT_EQ(at("t.empty"), "t.empty");
    EXPECT_EQ(at("t:b"), "t:beta");
    EXPECT_EQ(at("t:a"), "");
    EXPECT_EQ(at("t.nope"), "");
    EXPECT_EQ(at("nope.x"), "");
    EXPECT_EQ(at("string"), "string.");
    EXPECT_EQ(at("t.alpha.x"), "t.alpha.x");
}

TEST_F(Completion, OffersKeysInBrackets)
{
    run("t = {10, 20, name = 1, [1.5] = 2, [true] = 3}");
    EXPECT_EQ(at("t["), "t[1] t[2] t[\"name\"]");
    EXPECT_EQ(at("t[2"), "t[2]");
    EXPECT_EQ(at("t['n"), "t['name']");
    EXPECT_EQ(at("t[\"n"), "t[\"name\"]");
}

TEST_F(Completion, FollowsMetatables)
{
    run("base = {hello = function() end, word = 1} o = setmetatable({own = 1}, {__index = base})");
    EXPECT_EQ(at("o.o"), "o.own");
    EXPECT_EQ(at("o.h"), "o.hello");
    EXPECT_EQ(at("o:"), "o:hello");
    run("p = setmetatable({}, {__pairs = function() return next, {virtual = 1}, nil end})");
    EXPECT_EQ(at("p.v"), "p.virtual");
    EXPECT_EQ(at("io.stdout:wr"), "io.stdout:write");
}

TEST_F(Completion, OffersFloatKeysOfWholeValueAsIntegers)
{
    run("p = setmetatable({}, {__pairs = function() local keys = {1.0, 2.5, 3, '4'} "
        "return function(_, k) k = table.remove(keys, 1) return k, k end end})");
    EXPECT_EQ(at("p["), "p[1] p[3] p[\"4\"]");
}

TEST_F(Completion, StaysSilentWhenWhatItEvaluatesFails)
{
    run("bad = setmetatable({}, {__pairs = function() error('no') end, __index = function() error('no') end})");
    EXPECT_EQ(at("bad.x"), "");
    EXPECT_EQ(at("bad.x.y"), "");
    EXPECT_EQ(at("error().x"), "");
    EXPECT_EQ(at(")).x"), "");
    run("setmetatable(_G, {__index = function() error('no such global') end})");
    EXPECT_EQ(at("alp"), "");
    EXPECT_EQ(at("str"), "string");
}

TEST_F(Completion, GivesUpAnEvaluationThatDoesNotEnd)
{
    run("slow = setmetatable({}, {__index = function() while true do end end})");
    EXPECT_EQ(at("slow.x.y"), "");
    run("for i = 1, 1000 do end print = print");
    EXPECT_EQ(at("whil"), "while");
}

TEST_F(Completion, OffersModulesThatRequireCouldFind)
{
    module("abc.lua");
    module("abd.lua");
    module("dir/init.lua");
    module("abq/inner.lua");
    module("init.lua");
    EXPECT_EQ(at("ab"), "abc abd");
    EXPECT_EQ(at("di"), "dir");
    EXPECT_EQ(at("abq.i"), "abq.inner");
    EXPECT_EQ(at("'ab"), "'abc' 'abd'");
    EXPECT_EQ(at("require\"ab"), "") << "a quote does not begin a word";
    EXPECT_EQ(at("require \"ab"), "\"abc\" \"abd\"");
    EXPECT_EQ(at("ini"), "") << "init is no module's name";
    run("package.preload.abx = print");
    EXPECT_EQ(at("ab"), "ab abc abd") << "the typed word stands for a preloaded module";
    run("require = nil");
    EXPECT_EQ(at("ab"), "");
}

TEST_F(Completion, OffersOnlyModulesThatHaveAName)
{
    module("lib.lua");
    module("liba.lua");
    run("package.path = '" + directory_ + "/lib?.lua'");
    EXPECT_EQ(at("require '"), "'a'");
}

TEST_F(Completion, OutlivesAnythingThatThePackageTableMayHold)
{
    module("abc.lua");
    run("package.preload = 5");
    EXPECT_EQ(at("ab"), "abc");
    for (const char *config : {"nil", "''", "'/'", "'/\\n\\n?'", "{}"}) {
        run(std::string("package.config = ") + config);
        EXPECT_EQ(at("ab"), "") << config;
    }
    run("package.config = '/\\n;\\n?'");
    EXPECT_EQ(at("ab"), "abc");
}

TEST_F(Completion, OffersNothingWithoutAState)
{
    lua_complete_set_state(nullptr);
    EXPECT_EQ(at("whi"), "");
}

TEST_F(Completion, LoadsTheModuleThatTheWordNames)
{
    module("abc.lua", "return {field = 1}");
    testing::internal::CaptureStdout();
    EXPECT_EQ(at("abc"), "abc.");
    EXPECT_EQ(at("abc"), "abc.");
    run("abc = nil");
    EXPECT_EQ(at("abc"), "abc.");
    ve_out_flush();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "\nLoaded module 'abc'.\n\nGlobalized module 'abc'.\n");
    run("assert(abc.field == 1)");
    module("broken.lua", "error('no')");
    EXPECT_EQ(at("broken"), "broken");
    run("assert(broken == nil)");
}
