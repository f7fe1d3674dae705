#include "lua/printer.h"

#include <gtest/gtest.h>

#include <lua.hpp>

#include <string>

#include "platform/ve_lua.h"

namespace
{

/// A state with the texts that the printer gives for what Lua code returns.
class Printer : public testing::Test
{
protected:
    Printer() : context_(ve_lua_init(0)), L(context_->state) {}
    ~Printer() override { ve_lua_free(context_); }

    /// The description of the value of a Lua expression, or "error: " and the message.
    std::string of(const std::string &expression)
    {
        lua_settop(L, 0);
        const std::string code = "return " + expression;
        if (luaL_loadbuffer(L, code.data(), code.size(), "=test") != LUA_OK || lua_pcall(L, 0, 1, 0) != LUA_OK)
            return std::string("bad expression: ") + lua_tostring(L, -1);
        return describe_top();
    }

    std::string describe_top()
    {
        lua_pushcfunction(L, [](lua_State *S) {
            luap_describe(S, 1);
            return 0;
        });
        lua_insert(L, -2);
        const bool failed = lua_pcall(L, 1, 0, 0) != LUA_OK;
        luap_colours = true;
        if (failed)
            return std::string("error: ") + lua_tostring(L, -1);
        return {luap_describe_text(), luap_description_length()};
    }

    ve_lua_context *context_;
    lua_State *L;
};

std::string times(const std::string &text, int count)
{
    std::string result;
    for (int i = 0; i < count; ++i)
        result += text;
    return result;
}

} // namespace

TEST_F(Printer, ShowsScalarsAsLuaWritesThem)
{
    EXPECT_EQ(of("nil"), "nil");
    EXPECT_EQ(of("true"), "true");
    EXPECT_EQ(of("false"), "false");
    EXPECT_EQ(of("7"), "7");
    EXPECT_EQ(of("-7"), "-7");
    EXPECT_EQ(of("0"), "0");
    EXPECT_EQ(of("math.mininteger"), "-9223372036854775808");
    EXPECT_EQ(of("math.maxinteger"), "9223372036854775807");
    EXPECT_EQ(of("1.0"), "1.0");
    EXPECT_EQ(of("-0.0"), "-0.0");
    EXPECT_EQ(of("0.1"), "0.1");
    EXPECT_EQ(of("1e100"), "1e+100");
    EXPECT_EQ(of("1/0"), "inf");
}

TEST_F(Printer, NamesTheKindAndAddressOfWhatHasNoText)
{
    lua_getglobal(L, "next");
    char address[32];
    snprintf(address, sizeof address, "%p", lua_topointer(L, -1));
    EXPECT_EQ(of("next"), "<function: " + std::string(address) + ">");
    EXPECT_TRUE(of("coroutine.create(print)").starts_with("<thread: 0x"));
    EXPECT_TRUE(of("debug.setmetatable(io.tmpfile(), nil)").starts_with("<userdata: 0x"));
}

TEST_F(Printer, QuotesStringsSoThatTheyCanBeTypedBack)
{
    EXPECT_EQ(of("''"), R"("")");
    EXPECT_EQ(of("'a'"), R"("a")");
    EXPECT_EQ(of(R"('a"b\\c')"), R"("a\"b\\c")");
    EXPECT_EQ(of(R"('\a\b\f\n\r')"), R"("\a\b\f\n\r")");
    EXPECT_EQ(of(R"('\t\v\a\a')"), R"("\t\v\a\a")");
    EXPECT_EQ(of("'a\\tb'"), R"("a\tb")");
    EXPECT_EQ(of("'\\200'"), R"("\200")");
    EXPECT_EQ(of("'\\0\\1\\127'"), R"("\000\001\127")");
    EXPECT_EQ(of("'\xc3\xa9'"), R"("\195\169")");
}

TEST_F(Printer, ShowsLongStringsWhole)
{
    EXPECT_TRUE(of("('x'):rep(3 << 20)") == "[[\n" + std::string(3 << 20, 'x') + "]]");
}

TEST_F(Printer, ScoresStringsForTheLongForm)
{
    const std::string a80 = times("a", 80);
    EXPECT_EQ(of("('a'):rep(80)"), '"' + a80 + '"');
    EXPECT_EQ(of("('a'):rep(81)"), "[[\n" + a80 + "a]]");
    EXPECT_EQ(of("'\\n\\n'"), "[[\n\n\n]]");                                       // 2 + 80
    EXPECT_EQ(of("'\\n'"), R"("\n")");                                             // 1 + 40
    EXPECT_EQ(of("('a'):rep(40)..'\\n'"), "[[\n" + times("a", 40) + "\n]]");       // 41 + 40
    EXPECT_EQ(of("('a'):rep(39)..'\\n'"), '"' + times("a", 39) + "\\n\"");         // 40 + 40
    EXPECT_EQ(of("('a'):rep(90)..'\\200'"), '"' + times("a", 90) + "\n\\200\"");   // 91 - 20
    EXPECT_EQ(of("('a'):rep(100)..'\\200'"), "[[\n" + times("a", 100) + "\xc8]]"); // 101 - 20
    EXPECT_EQ(of("('a'):rep(100)..'\\f'"), "[[\n" + times("a", 100) + "\f]]");     // 101 - 20
    EXPECT_EQ(of("'\\n\\n\\a\\b'"), R"("\n\n\a\b")");                              // 4 + 80 - 40
}

TEST_F(Printer, ChoosesALongBracketThatTheStringDoesNotClose)
{
    const auto level = [this](const char *middle) {
        const std::string text = of("('a'):rep(81)..'" + std::string(middle) + "'");
        return text.find('[', 1) - 1;
    };
    EXPECT_EQ(level("]"), 0U);
    EXPECT_EQ(level("]]"), 1U);
    EXPECT_EQ(level("]=]"), 2U);
    EXPECT_EQ(level("]=]==]"), 4U); // the counts of a chain add up
    EXPECT_EQ(level("]=a=]]"), 1U);
    EXPECT_EQ(level("]=]]a]==]"), 3U);
    EXPECT_EQ(of("('a'):rep(81)..']]'"), "[=[\n" + times("a", 81) + "]]]=]");
}

TEST_F(Printer, LaysTablesOut)
{
    EXPECT_EQ(of("{}"), "{  }");
    EXPECT_EQ(of("{1, 2, 3}"), "{ 1, 2, 3,  }");
    EXPECT_EQ(of("{a = 1}"), "{ \n  a = 1,\n}");
    EXPECT_EQ(of("{1, a = 1}"), "{ 1, \n  a = 1,\n}");
    EXPECT_EQ(of("{{}}"), "{ \n  {  }, \n}");
    EXPECT_EQ(of("{{1}, {2}}"), "{ \n  { 1,  }, \n  { 2,  }, \n}");
    EXPECT_EQ(of("{1, {2}, 3}"), "{ 1, \n  { 2,  }, \n  3, \n}");
    EXPECT_EQ(of("{a = {b = {}}}"), "{ \n  a = { \n        b = {  },\n  },\n}");
}

TEST_F(Printer, WritesKeysBareOrInBrackets)
{
    EXPECT_EQ(of("{['end'] = 1}"), "{ \n  end = 1,\n}");
    EXPECT_EQ(of("{_x1 = 1}"), "{ \n  _x1 = 1,\n}");
    EXPECT_EQ(of("{['1a'] = 1}"), "{ \n  [\"1a\"] = 1,\n}");
    EXPECT_EQ(of("{[1.5] = 1}"), "{ \n  [1.5] = 1,\n}");
    EXPECT_EQ(of("{[''] = 1}"), "{ \n   = 1,\n}");
    EXPECT_EQ(of("{[true] = 1}"), "{ \n  [true] = 1,\n}");
    EXPECT_EQ(of("{[7] = 1}"), "{ \n  [7] = 1,\n}");
    EXPECT_EQ(of("{['a\\0'] = 1}"), "{ \n  [\"a\\000\"] = 1,\n}");
    EXPECT_EQ(of("{[{}] = 1}"), "{ \n  [{  }] = 1,\n}");
}

TEST_F(Printer, CoversTheArrayPartUpToItsBorder)
{
    EXPECT_EQ(of("{1, nil, 3}"), "{ 1, nil, 3,  }");
    EXPECT_EQ(of("{1, 2, [5] = 5}"), "{ 1, 2, \n  [5] = 5,\n}");
    EXPECT_EQ(of("setmetatable({1, nil, 3}, {__index = function(_, k) return k * 10 end})"), "{ 1, 20, 3,  }");
}

TEST_F(Printer, WrapsPiecesThatFitOnTheNextLine)
{
    // Two for the brace, then 78 columns of "1, ": the 27th begins at column 80.
    EXPECT_EQ(of("(function() local t = {} for i = 1, 27 do t[i] = 1 end return t end)()"),
              "{ " + times("1, ", 26) + "\n  1,  }");
    // A quoted string is not moved as a whole; only its decimal escapes are pieces.
    EXPECT_EQ(of("{('a'):rep(70), ('b'):rep(20)}"), "{ \"" + times("a", 70) + "\", \"" + times("b", 20) + "\",  }");
    EXPECT_EQ(of("{('a'):rep(76)..'\\200'}"), "{ \"" + times("a", 76) + "\n  \\200\",  }");
    // Behind a key that reaches over the width the line breaks.
    EXPECT_EQ(of("{[('k'):rep(79)] = 1}"), "{ \n  " + times("k", 79) + "\n   = 1,\n}");
    EXPECT_EQ(of("{[('k'):rep(78)] = 1}"), "{ \n  " + times("k", 78) + " = \n  1,\n}");
}

TEST_F(Printer, MarksTablesThatContainThemselves)
{
    EXPECT_EQ(of("(function() local t = {} t.self = t return t end)()"), "{ \n  self = { [-1]... },\n}");
    EXPECT_EQ(of("(function() local t = {} t.a = {t} return t end)()"), "{ \n  a = { \n        { [-2]... }, \n  },\n}");
    EXPECT_EQ(of("(function() local t = {} return {t, t} end)()"), "{ \n  {  }, \n  {  }, \n}");
    EXPECT_EQ(of("setmetatable({{}}, {__eq = function() return true end})"), "{ \n  { [-1]... }, \n}");
}

TEST_F(Printer, StopsWhereTheIndentPasses64Columns)
{
    const std::string text = of("(function() local t = {} for i = 1, 40 do t = {t} end return t end)()");
    EXPECT_NE(text.find("\n" + times(" ", 64) + "{ \n" + times(" ", 66) + "{ ... }, \n"), std::string::npos) << text;
}

TEST_F(Printer, LetsMetafieldsSpeakFirst)
{
    EXPECT_EQ(of("setmetatable({}, {__tostring = function() return 'me' end})"), "me");
    EXPECT_EQ(of("setmetatable({}, {__tostring = function() return 12 end})"), "12");
    EXPECT_EQ(of("setmetatable({}, {__tostring = function() error('no', 0) end})"), "no");
    EXPECT_EQ(of("{setmetatable({}, {__tostring = function() return {} end})}"), "{ \n  , \n}");
    EXPECT_EQ(of("{setmetatable({}, {__tostring = false})}"), "{ \n  attempt to call a boolean value, \n}");
    EXPECT_EQ(of("dm.null"), "null");
    // Escape sequences take no room: 76 visible characters fit behind the brace.
    EXPECT_EQ(of("{setmetatable({}, {__tostring = function() return '\\27[1m'..('a'):rep(78)..'\\27[0m' end})}"),
              "{ \n  \033[1m" + times("a", 78) + "\033[0m, \n}");
}

TEST_F(Printer, RepeatsTheDescriptionBeforeForALightUserdata)
{
    const std::string light = "debug.upvalueid(function() return _ENV end, 1)";
    EXPECT_EQ(of("{1}"), "{ 1,  }");
    EXPECT_EQ(of(light), "{ 1,  }");
    EXPECT_EQ(of(light), "{ 1,  }");
    EXPECT_EQ(of("{" + light + "}"), "{ ,  }");
}

TEST_F(Printer, LeavesErrorsOfMetamethodsToItsCaller)
{
    EXPECT_EQ(of("setmetatable({1, nil, 3}, {__index = function() error('no', 0) end})"), "error: no");
    EXPECT_EQ(of("setmetatable({{}}, {__eq = function() error('no', 0) end})"), "error: no");
    EXPECT_EQ(of("{1}"), "{ 1,  }");
}

TEST_F(Printer, ShowsBoldKindsWhenColoursAreOn)
{
    lua_pushboolean(L, 1);
    luap_describe(L, -1); // resets the text
    luap_describe_value(L, -1);
    EXPECT_EQ(std::string(luap_describe_text(), luap_description_length()), "true\033[1mtrue\033[22m");
    EXPECT_TRUE(luap_colours);
}

TEST_F(Printer, AgreesWithAReferenceOnRandomValues)
{
    ASSERT_EQ(luaL_dofile(L, KEST_SOURCE_DIR "/tests/unit/lua_printer_reference.lua"), LUA_OK) << lua_tostring(L, -1);
    lua_settop(L, 2); // describe, make
    for (int seed = 1; seed <= 3000; ++seed) {
        lua_pushvalue(L, 2);
        lua_pushinteger(L, seed);
        ASSERT_EQ(lua_pcall(L, 1, 1, 0), LUA_OK) << lua_tostring(L, -1);
        lua_pushvalue(L, 1);
        lua_pushvalue(L, -2);
        const bool expected_fails = lua_pcall(L, 1, 1, 0) != LUA_OK;
        size_t size = 0;
        const char *text = lua_tolstring(L, -1, &size);
        const std::string expected = expected_fails ? "error" : std::string(text, size);
        lua_pop(L, 1);
        if (expected.empty()) { // nothing was written: the text before stands
            lua_settop(L, 2);
            continue;
        }
        std::string actual = describe_top();
        if (expected_fails)
            actual = actual.substr(0, 5);
        ASSERT_EQ(actual, expected) << "seed " << seed;
        lua_settop(L, 2);
    }
}

TEST_F(Printer, WritesPlainTablesThatLoadBack)
{
    ASSERT_EQ(luaL_dofile(L, KEST_SOURCE_DIR "/tests/unit/lua_printer_reference.lua"), LUA_OK) << lua_tostring(L, -1);
    for (int seed = 1; seed <= 2000; ++seed) {
        lua_settop(L, 4); // describe, make, make_plain, same
        lua_pushvalue(L, 3);
        lua_pushinteger(L, seed);
        lua_call(L, 1, 1);
        lua_pushvalue(L, 4);
        lua_pushvalue(L, 5);
        lua_pushvalue(L, 5);
        const std::string code = "return " + describe_top();
        ASSERT_EQ(luaL_dostring(L, code.c_str()), LUA_OK) << code << lua_tostring(L, -1);
        lua_call(L, 2, 1);
        ASSERT_TRUE(lua_toboolean(L, -1)) << code;
    }
}
