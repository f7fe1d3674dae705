#include "platform/ve_lua.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <lua.hpp>
#include <memory>
#include <string>
#include <string_view>
#include <sys/time.h>
#include <unistd.h>

#include "interrupts.h"
#include "platform/ve_jrpcapi.h"
#include "platform/ve_jrpcmsg.h"
#include "platform/ve_json.h"
#include "platform/ve_lua_frames.h"
#include "platform/ve_wait.h"
#include "vebase/lua/lua_json.h"
#include "vebase_scripted_peer.h"

using namespace std::string_view_literals;

namespace
{

// The daemon of these tests: it keeps what it was asked and answers what it was told, or the request's own parameters.
json_ref asked;
json_ref answer;
int answer_code = 0;
json_ref answer_data;
std::string logins;

int answer_request(ve_jrpcmsg *message, int)
{
    const json_ref request(ve_jrpcmsg_json(message));
    asked = json_ref(json_deep_copy(request.get()));
    if (answer_code != 0) {
        ve_jrpcmsg_set_error(message, answer_code, "what is wrong", json_incref(answer_data.get()));
        return 0;
    }
    json_t *result = answer ? json_incref(answer.get()) : json_incref(json_object_get(request.get(), "params"));
    ve_jrpcmsg_set_result_new(message, result != nullptr ? result : json_object());
    return 0;
}

int take_event(ve_jrpcmsg *message)
{
    asked = json_ref(ve_jrpcmsg_json(message));
    return answer_code;
}

void note_login(const char *user, const char *password)
{
    logins += std::string("(") + (user != nullptr ? user : "-") + "," + (password != nullptr ? password : "-") + ")";
}

class VeLua : public testing::Test
{
protected:
    VeLua() : context(ve_lua_init(0))
    {
        ve_lua_set_hooks({answer_request, take_event, note_login, nullptr});
        asked.reset();
        answer.reset();
        answer_code = 0;
        answer_data.reset();
        logins.clear();
    }
    ~VeLua() override
    {
        ve_lua_free(context);
        ve_lua_set_hooks({});
        ve_wait_clear_interrupt();
        asked.reset();
        answer.reset();
        answer_data.reset();
    }

    /// What the code prints, or "ERROR " and its error text.
    std::string run(const std::string &code, const char *name = nullptr, std::span<const std::string> arguments = {})
    {
        return ve_lua_exec(context, code.data(), code.size(), name, arguments) == 0 ? context->output
                                                                                    : "ERROR " + context->error;
    }

    /// The daemon's next answers.
    static void reply(const char *json) { answer = json_ref(json_loads(json, 0, nullptr)); }

    /// The last request, or one member of it.
    static std::string request(const char *member = nullptr)
    {
        json_object_del(asked.get(), "id");
        json_object_del(asked.get(), "jsonrpc");
        const json_t *part = member != nullptr ? json_object_get(asked.get(), member) : asked.get();
        char *text = json_dumps(part, JSON_COMPACT | JSON_ENCODE_ANY | JSON_SORT_KEYS);
        std::string result = text != nullptr ? text : "";
        free(text);
        return result;
    }

    /// Runs code that never ends, with Ctrl-C noted a moment later and the flag left set.
    std::string run_interrupted(const std::string &code)
    {
        signal(SIGALRM, [](int) { ve_wait_note_interrupt(); });
        const itimerval timer = {.it_interval = {}, .it_value = {.tv_sec = 0, .tv_usec = 20000}};
        setitimer(ITIMER_REAL, &timer, nullptr);
        const std::string result = run(code);
        signal(SIGALRM, SIG_DFL);
        return result;
    }

    ve_lua_context *context;
};

} // namespace

TEST_F(VeLua, CollectsWhatCodePrints)
{
    EXPECT_EQ(run("print(1, 'a', nil) print()"), "1\ta\tnil\n\n");
    EXPECT_EQ(run("io.write('a', 1, 2.5) io.stdout:write('b') io.output():write('c')"), "a12.5bc");
    EXPECT_EQ(run("io.stdout:setvbuf('full', 100) io.write('kept')"), "kept");
    EXPECT_EQ(run("print(setmetatable({}, {__tostring = function() return 'me' end}))"), "me\n");
    EXPECT_EQ(run("print('a\\0b')"), std::string("a\0b\n", 4));
    EXPECT_EQ(run("print(os.execute())"), "true\n");
    EXPECT_EQ(run("tostring = function() return {} end print(1)"),
              "ERROR [string \"stdin\"]:1: 'tostring' must return a string to 'print'");
    EXPECT_EQ(run(""), "");
}

TEST_F(VeLua, ShowsValuesAsLuaDoesWhereNobodyDescribesThem)
{
    EXPECT_EQ(run("dm.show(1, 'a', nil, true)"), "1\na\nnil\ntrue\n");
    EXPECT_EQ(run("dm.show(setmetatable({}, {__tostring = function() return 'me' end}))"), "me\n");
}

TEST_F(VeLua, SleepsNoShorterThanItIsTold)
{
    for (int i = 0; i < 5; ++i) {
        const auto began = std::chrono::steady_clock::now();
        EXPECT_EQ(run("dm.sleep(0.00199)"), "");
        EXPECT_GE(std::chrono::steady_clock::now() - began, std::chrono::microseconds(1990));
    }
}

TEST_F(VeLua, GivesErrorsAsTheirTextAlone)
{
    EXPECT_EQ(run("error('x')"), "ERROR [string \"stdin\"]:1: x");
    EXPECT_EQ(run("\n\nerror('x')", "/a/b.lua"), "ERROR /a/b.lua:3: x");
    EXPECT_EQ(run("x = = 1"), "ERROR [string \"stdin\"]:1: unexpected symbol near '='");
    EXPECT_EQ(run("error()"), "ERROR (error object is a nil value)");
    EXPECT_EQ(run("error({})"), "ERROR (error object is a table value)");
    EXPECT_EQ(run("error(setmetatable({}, {__tostring = function() return 'me' end}))"), "ERROR me");
    EXPECT_EQ(run("error(setmetatable({}, {__tostring = function() error('deep', 0) end}))"), "ERROR deep");
    EXPECT_EQ(run("\x1bLua"), "ERROR attempt to load a binary chunk (mode is 't')");
}

TEST_F(VeLua, PassesArguments)
{
    const std::string words[] = {"one", "two"};
    EXPECT_EQ(run("print(..., arg[0], arg[1], arg[2], #arg)", "/s.lua", words), "one\t/s.lua\tone\ttwo\t2\n");
    EXPECT_EQ(run("print(select('#', ...), select(2, ...))", "/s.lua", words), "2\ttwo\n");
    EXPECT_EQ(run("print(select('#', ...))"), "0\n");
}

TEST_F(VeLua, TurnsJsonIntoValuesAndBackWithoutLoss)
{
    // The daemon sends back what it was asked; every value must come back equal.
    const char *same =
        "local function same(a, b) if type(a) ~= 'table' then return a == b and math.type(a) == math.type(b) "
        "end for k, v in pairs(a) do if not same(v, b[k]) then return false end end "
        "for k in pairs(b) do if a[k] == nil then return false end end return true end "
        "local function echo(v) return dm.request('Echo', {v = v}).v end ";
    for (const char *value : {"1",
                              "-1",
                              "0",
                              "math.maxinteger",
                              "math.mininteger",
                              "1.0",
                              "0.1",
                              "-0.0",
                              "1e300",
                              "5e-324",
                              "true",
                              "false",
                              "''",
                              "'a\\0b'",
                              "'\xc3\xa9'",
                              "{1, 2, 3}",
                              "{a = 1, b = {c = {}}}",
                              "{{}, {1}, {a = {}}}",
                              "{1.0, 2, 'x', false}",
                              "dm.null",
                              "{dm.null, {dm.null}}",
                              "dm.array()",
                              "{a = dm.array{}}",
                              "9007199254740993",
                              "{['1'] = 'a', ['2'] = 'b'}",
                              "{[''] = 1}"})
        EXPECT_EQ(run(std::string(same) + "print(same(" + value + ", echo(" + value + ")))"), "true\n") << value;

    EXPECT_EQ(run("dm.request('X', {a = {}, b = dm.array(), c = {1}, d = 1.0, e = 1, f = dm.null})"), "");
    EXPECT_EQ(request("params"), R"({"a":{},"b":[],"c":[1],"d":1.0,"e":1,"f":null})");
    // What was an array stays one.
    EXPECT_EQ(run("local r = dm.request('X', {a = {1}}) table.remove(r.a) dm.request('Y', r)"), "");
    EXPECT_EQ(request("params"), R"({"a":[]})");
}

TEST_F(VeLua, CarriesTwoThousandLevels)
{
    EXPECT_EQ(run("local v = 'x' for i = 1, 2000 do v = {v} end local r = dm.request('X', {v = v}).v "
                  "local n = 0 while type(r) == 'table' do r = r[1] n = n + 1 end print(n, r)"),
              "2000\tx\n");
    for (const char *send : {"dm.request('X', {v = v})", "dm.call('M', {v = v})"})
        EXPECT_TRUE(run(std::string("local v = 'x' for i = 1, 3000 do v = {v} end ") + send)
                        .ends_with("(tables are nested too deep (more than 2040 levels))"));
}

TEST_F(VeLua, RefusesWhatHasNoJsonForm)
{
    const std::pair<const char *, const char *> cases[] = {
        {"{v = print}", "v: a function has no JSON form"},
        {"{v = {coroutine.create(print)}}", "v.1: a coroutine has no JSON form"},
        {"{v = {w = {io.stdout}}}", "v.w.1: a userdata has no JSON form"},
        {"{v = 0/0}", "v: a number that is not finite has no JSON form"},
        {"{v = '\\200'}", "v: a text that is not UTF-8 has no JSON form"},
        {"{['\\200'] = 1}", "a key that is not UTF-8 has no JSON form"},
        {"{['a\\0'] = 1}", "a key that holds a NUL has no JSON form"},
        {"{v = {1, a = 2}}", "v: a table whose keys are neither all texts nor 1 to n has no JSON form"},
        {"{v = {1, nil, 3}}", "v: a table whose keys are neither all texts nor 1 to n has no JSON form"},
        {"{v = {[1.5] = 1}}", "v: a table whose keys are neither all texts nor 1 to n has no JSON form"},
        {"(function() local t = {} t.t = t return t end)()", "t: a table that contains itself has no JSON form"},
        {"(function() local t = {} t.t = {t} return t end)()", "t.1: a table that contains itself has no JSON form"},
        {"{1, 2}", "parameters have names"},
        {"5", "table expected, got number"},
    };
    for (const auto &[value, problem] : cases) {
        asked.reset();
        EXPECT_EQ(run(std::string("dm.request('X', ") + value + ")"),
                  std::string("ERROR [string \"stdin\"]:1: bad argument #2 to 'request' (") + problem + ")")
            << value;
        EXPECT_FALSE(asked) << "nothing is sent";
    }
    // The same table twice is no cycle.
    EXPECT_EQ(run("local t = {1} dm.request('X', {a = t, b = t})"), "");
    EXPECT_EQ(request("params"), R"({"a":[1],"b":[1]})");
    EXPECT_EQ(run("dm.request('X')"), "");
    EXPECT_EQ(request(), R"({"method":"X"})");
}

TEST_F(VeLua, ConvertsATableThatStandsInManyPlacesOnce)
{
    // Every level doubles the value: twenty hold a million leaves, forty would fill any memory.
    EXPECT_EQ(run("local t = {} for i = 1, 15 do t = {t, t} end dm.request('X', {v = t})"), "");
    EXPECT_EQ(request("params").size(), R"({"v":})"sv.size() + (1 << 15) * 5 - 3);
    asked.reset();
    const std::string too_long = "(longer than a message may be)";
    EXPECT_TRUE(run("local t = {} for i = 1, 2000 do t = {t, t} end dm.request('X', {v = t})").ends_with(too_long));
    EXPECT_TRUE(run("local t = {} for i = 1, 40 do t = {a = t, b = t} end dm.call('M', {v = t})").ends_with(too_long));
    EXPECT_TRUE(run("local t = {c = 1} for i = 1, 20 do t = {[('a'):rep(20)] = t, b = t} end dm.call('M', t)")
                    .ends_with(too_long));
    EXPECT_TRUE(run("dm.event(100, ('x'):rep(64 << 20 | 1))").ends_with(too_long));
    EXPECT_TRUE(run("local s = ('x'):rep(40 << 20) dm.request('X', {a = s, b = s})").ends_with(too_long));
    // The second place of the inner table is deeper than a message may be, the first is not.
    EXPECT_TRUE(run("local t = {} for i = 1, 2030 do t = {t} end local u = {t} for i = 1, 20 do u = {u} end "
                    "dm.request('X', {v = {t, u}})")
                    .ends_with("(tables are nested too deep (more than 2040 levels))"));
    EXPECT_FALSE(asked) << "nothing is sent";
}

TEST_F(VeLua, StopsConversionsWhenCtrlCIsNoted)
{
    lua_State *L = context->state;
    const char *problem = nullptr;
    const json_ref rows(json_pack("[i, [i], {s:i}]", 1, 2, "a", 3));
    ve_lua_push_json(L, rows.get());
    ve_wait_note_interrupt();
    EXPECT_FALSE(json_ref(ve_lua_to_json(L, -1, &problem)));
    EXPECT_STREQ(problem, "interrupted");
    lua_newtable(L);
    EXPECT_FALSE(json_ref(ve_lua_to_arguments(L, -1, &problem)));
    EXPECT_STREQ(problem, "interrupted");
    lua_pop(L, 1);
    lua_pushcfunction(L, [](lua_State *S) {
        ve_lua_push_json(S, static_cast<const json_t *>(lua_touserdata(S, 1)));
        return 1;
    });
    lua_pushlightuserdata(L, rows.get());
    EXPECT_EQ(lua_pcall(L, 1, 1, 0), LUA_ERRRUN);
    EXPECT_STREQ(lua_tostring(L, -1), "interrupted");
    ve_wait_clear_interrupt();
    const json_ref back(ve_lua_to_json(L, -2, &problem));
    EXPECT_TRUE(json_equal(back.get(), rows.get()));
    lua_settop(L, 0);
}

TEST_F(VeLua, GetsValuesAndTables)
{
    reply(R"({"ParameterList":[{"Name":"Device.Time.Enable","Value":true}]})");
    EXPECT_EQ(run("print(dm.get('Device.Time.Enable'))"), "true\n");
    EXPECT_EQ(request(), R"({"method":"GetParameterValues","params":{"ParameterNames":["Device.Time.Enable"]}})");
    EXPECT_EQ(run("print(dm.get(':Device.Time.Enable'), dm.get('Device.Time.Enable.'))"), "true\ttrue\n");
    EXPECT_EQ(run("print(dm.get('Device.Time.').Enable, dm.get('Device.Time').Enable, dm.get(':').Enable)"),
              "true\ttrue\tnil\n");
    EXPECT_EQ(request("params"), R"({"ParameterNames":["."]})");
    EXPECT_EQ(run("print(dm.get('.')['Device.Time.Enable'])"), "true\n");
    reply(R"({"ParameterList":[]})");
    EXPECT_EQ(run("print(next(dm.get('Device.Empty.')))"), "nil\n");
    reply(R"({"ParameterList":[{"Name":"Device.X","Value":null}, {"Value":1}, {"Name":7}]})");
    EXPECT_EQ(run("print(dm.get('Device.').X == dm.null)"), "true\n");
    reply("{}");
    EXPECT_EQ(run("print(next(dm.get('Device.')))"), "nil\n");
}

TEST_F(VeLua, SetsTypedValuesAllAtOnce)
{
    EXPECT_EQ(run("print(dm.set('Device.A', 1))"), "true\n");
    EXPECT_EQ(request(),
              R"({"method":"SetParameterValues","params":{"ParameterList":[{"Name":"Device.A","Value":1}]}})");
    EXPECT_EQ(run("dm.set(':Device.A', 1.0)"), "");
    EXPECT_EQ(request("params"), R"({"ParameterList":[{"Name":"Device.A","Value":1.0}]})");
    EXPECT_EQ(run("print(dm.set{['Device.A'] = 'x'})"), "true\n");
    EXPECT_EQ(request("params"), R"({"ParameterList":[{"Name":"Device.A","Value":"x"}]})");
    EXPECT_EQ(run("dm.set{['Device.A'] = true, ['Device.B'] = 2}"), "");
    EXPECT_NE(request("params").find(R"({"Name":"Device.A","Value":true})"), std::string::npos);
    EXPECT_NE(request("params").find(R"({"Name":"Device.B","Value":2})"), std::string::npos);
    asked.reset();
    EXPECT_EQ(run("dm.set('Device.A')"), "ERROR [string \"stdin\"]:1: bad argument #2 to 'set' (value expected)");
    EXPECT_EQ(run("dm.set('Device.A', nil)"),
              "ERROR [string \"stdin\"]:1: bad argument #2 to 'set' (nil has no JSON form (use dm.null))");
    EXPECT_EQ(run("dm.set{1}"), "ERROR [string \"stdin\"]:1: bad argument #1 to 'set' (a path is expected)");
    EXPECT_EQ(run("dm.set{a = print}"),
              "ERROR [string \"stdin\"]:1: bad argument #1 to 'set' (a: a function has no JSON form)");
    EXPECT_EQ(run("dm.set('', 1)"), "ERROR [string \"stdin\"]:1: bad argument #1 to 'set' (an empty path)");
    EXPECT_FALSE(asked);
}

TEST_F(VeLua, NamesChildrenAndAttributes)
{
    reply(R"({"ParameterList":[{"Name":"Device.Time.Enable","Writable":true},{"Name":"Device.Time.Sub."}]})");
    EXPECT_EQ(run("print(table.unpack(dm.names('Device.Time.')))"), "Enable\tSub.\n");
    EXPECT_EQ(request(),
              R"({"method":"GetParameterNames","params":{"NextLevel":true,"ParameterPath":"Device.Time."}})");
    EXPECT_EQ(run("print(table.unpack(dm.names('Device.Time')))"), "Enable\tSub.\n");
    reply(R"({"ParameterList":[{"Name":"Device.A","Attributes":{"type":"int","perms":"rw"}}]})");
    EXPECT_EQ(run("local a = dm.attrs('Device.A') print(a.type, a.perms)"), "int\trw\n");
    EXPECT_EQ(request(), R"({"method":"GetParameterAttributes","params":{"Depth":0,"ParameterNames":["Device.A"]}})");
}

TEST_F(VeLua, TakesAnswersOfAnyShape)
{
    reply(R"({"ParameterList":[{"Name":"Device.A.B"},{"Writable":true},{"Name":"Other.C"},5]})");
    EXPECT_EQ(run("print(table.concat(dm.names('Device.A.'), ' '))"), "B Other.C\n");
    reply(R"({"ParameterList":[{"Name":"Device."}]})");
    EXPECT_EQ(run("print(next(dm.attrs('.')))"), "nil\n") << "the root has no attributes";
}

TEST_F(VeLua, AddsDeletesAndOrdersInstances)
{
    reply(R"({"InstanceNumber":5,"Status":0})");
    EXPECT_EQ(run("print(dm.add('Device.Hosts.Host'))"), "5\n");
    EXPECT_EQ(request(), R"({"method":"AddObject","params":{"ObjectName":"Device.Hosts.Host."}})");
    EXPECT_EQ(run("print(dm.add(':Device.Hosts.Host.', 2))"), "5\n");
    EXPECT_EQ(request("params"), R"({"ObjectName":"Device.Hosts.Host.","Order":2})");
    EXPECT_EQ(run("print(dm.del('Device.Hosts.Host.5.'))"), "true\n");
    EXPECT_EQ(request(), R"({"method":"DeleteObject","params":{"ObjectName":"Device.Hosts.Host.5."}})");
    EXPECT_EQ(run("print(dm.order('Device.Hosts.Host.5.', 1))"), "true\n");
    EXPECT_EQ(request(), R"({"method":"ChangeOrder","params":{"ObjectName":"Device.Hosts.Host.5.","Order":1}})");
    EXPECT_EQ(run("print(dm.order(':Device.DNS.SearchDomain.2', 3))"), "true\n");
    EXPECT_EQ(request("params"), R"({"ObjectName":"Device.DNS.SearchDomain.2.","Order":3})");
    EXPECT_EQ(run("dm.order('Device.A.', 0)"), "ERROR [string \"stdin\"]:1: bad argument #2 to 'order' (out of range)");
    EXPECT_EQ(run("dm.add('Device.A.', 4294967295)"),
              "ERROR [string \"stdin\"]:1: bad argument #2 to 'add' (out of range)");
}

TEST_F(VeLua, CallsMethodsWithNestedArgumentsAndOutputs)
{
    reply(R"({"ParameterList":[{"Name":"Status","Value":"OK"},{"Name":"Hops.1.Host","Value":"a"},
             {"Name":"Hops.2.Host","Value":"b"},{"Name":"Status.Deep","Value":1}]})");
    EXPECT_EQ(run("local r = dm.call(':Device.M', {Host = 'x', Opt = {Size = 3, Deep = {On = true}}}) "
                  "print(r.Status, #r.Hops, r.Hops[1].Host, r.Hops[2].Host, r['Status.Deep'] or r.Deep)"),
              "OK\t2\ta\tb\t1\n");
    EXPECT_EQ(request("method"), "\"Execute\"");
    EXPECT_NE(request("params").find(R"({"Name":"Opt.Size","Value":3})"), std::string::npos);
    EXPECT_NE(request("params").find(R"({"Name":"Opt.Deep.On","Value":true})"), std::string::npos);
    EXPECT_NE(request("params").find(R"("Path":"Device.M")"), std::string::npos);
    // Instance numbers are integers there too; a list that is a value has the mark.
    EXPECT_EQ(run("dm.call('M', {Hop = {{Host = 'a'}, {Host = 'b'}, [7] = {Host = 'c', On = {false}}}})"), "");
    for (const char *entry : {R"({"Name":"Hop.1.Host","Value":"a"})", R"({"Name":"Hop.2.Host","Value":"b"})",
                              R"({"Name":"Hop.7.Host","Value":"c"})", R"({"Name":"Hop.7.On.1","Value":false})"})
        EXPECT_NE(request("params").find(entry), std::string::npos) << entry;
    EXPECT_EQ(run("dm.call('M', {L = dm.array{1, {a = {}}}, E = {}})"), "");
    EXPECT_EQ(request("params"), R"({"ParameterList":[{"Name":"L","Value":[1,{"a":{}}]}],"Path":"M"})");
    EXPECT_EQ(run("local a = {b = {c = {{print}}}} dm.call('M', a)"),
              "ERROR [string \"stdin\"]:1: bad argument #2 to 'call' (b.c.1.1: a function has no JSON form)");
    EXPECT_EQ(run("dm.call('M', {a = {[1.5] = 1}})"),
              "ERROR [string \"stdin\"]:1: bad argument #2 to 'call' (a: keys are names or instance numbers)");
    EXPECT_EQ(run("dm.call('M', {a = {[0] = 1}})"),
              "ERROR [string \"stdin\"]:1: bad argument #2 to 'call' (a: keys are names or instance numbers)");
    EXPECT_EQ(
        run("local t = {} t.t = {t} dm.call('M', t)"),
        "ERROR [string \"stdin\"]:1: bad argument #2 to 'call' (t.1: a table that contains itself has no JSON form)");
    for (const char *list : {"{1, 2}", "dm.array()"}) {
        EXPECT_EQ(run(std::string("dm.call('M', ") + list + ")"),
                  "ERROR [string \"stdin\"]:1: bad argument #2 to 'call' (arguments have names)");
    }
    reply("{}");
    EXPECT_EQ(run("print(next(dm.call('Device.M')))"), "nil\n");
    EXPECT_EQ(request("params"), R"({"ParameterList":[],"Path":"Device.M"})");
}

TEST_F(VeLua, RaisesRefusalsAsValues)
{
    answer_code = 9005;
    EXPECT_EQ(
        run("local ok, e = pcall(dm.get, 'Device.X') print(ok, e.code, e.title, e.message, e.data, e)"),
        "false\t9005\tInvalid parameter name\twhat is wrong\tnil\t[9005] Invalid parameter name: what is wrong\n");
    EXPECT_EQ(run("dm.get('Device.X')"), "ERROR [string \"stdin\"]:1: [9005] Invalid parameter name: what is wrong");
    // The entries in the daemon's order, as the shell shows them.
    answer_data = json_ref(
        json_pack("{s:s, s:i, s:[n], s:s}", "Device.D", "bad", "Device.B", 1, "Device.C", "Device.A", "\xc3\xa9\n"));
    EXPECT_EQ(run("local ok, e = pcall(dm.set, 'Device.A', 1) print(e.data['Device.D'], e.data['Device.B'])"),
              "bad\t1\n");
    const std::string lines = "\nDevice.D: \"bad\"\nDevice.B: 1\nDevice.C: [null]\nDevice.A: \"\xc3\xa9\\n\"";
    EXPECT_EQ(run("dm.set('Device.A', 1)"),
              "ERROR [string \"stdin\"]:1: [9005] Invalid parameter name: what is wrong" + lines);
    EXPECT_EQ(
        run("local ok, e = pcall(dm.set, 'Device.A', 1) e.message = 'mine' collectgarbage() io.write(tostring(e))"),
        "[9005] Invalid parameter name: mine" + lines);
    EXPECT_EQ(run("local ok, e = pcall(dm.set, 'Device.A', 1) e.data = {} e.title = nil io.write(tostring(e))"),
              "[9005] ?: what is wrong");
}

TEST_F(VeLua, SaysWhereARefusalCameFrom)
{
    answer_code = 9005;
    const std::string said = "[9005] Invalid parameter name: what is wrong";
    EXPECT_EQ(run("local function f()\n dm.get('X')\nend\n f()", "/a/b.lua"), "ERROR /a/b.lua:2: " + said);
    // What calls the binding may be no Lua code itself.
    EXPECT_EQ(run("\nlocal _, e = pcall(dm.get, 'X')\nprint(e.where, e)", "/a/b.lua"), "/a/b.lua:2\t" + said + "\n");
    EXPECT_EQ(run("local _, e = pcall(dm.get, 'X')\n\nerror(e)", "/a/b.lua"), "ERROR /a/b.lua:1: " + said);
    EXPECT_EQ(run("coroutine.wrap(function()\ndm.get('X') end)()", "/a/b.lua"), "ERROR /a/b.lua:2: " + said);
    EXPECT_EQ(run("local ok, e = coroutine.resume(coroutine.create(dm.get), 'X') print(e.where, e)"),
              "nil\t" + said + "\n");
    EXPECT_EQ(run("local _, e = pcall(dm.get, 'X') e.where = nil error(e)"), "ERROR " + said);
    EXPECT_EQ(run("local _, e = pcall(dm.get, 'X') print('<' .. e .. '>' .. 1, e .. e == tostring(e):rep(2))"),
              "<" + said + ">1\ttrue\n");
    EXPECT_EQ(run("print(xpcall(dm.get, function(e) return e.where .. ': ' .. e end, 'X'))"),
              "false\t[string \"stdin\"]:1: " + said + "\n");
}

TEST_F(VeLua, SendsEvents)
{
    EXPECT_EQ(run("print(dm.event(100, {a = 1}))"), "true\n");
    EXPECT_EQ(request(), R"({"method":"Event","params":{"Id":100,"Value":{"a":1}}})");
    EXPECT_EQ(run("print(dm.event(101))"), "true\n");
    EXPECT_EQ(request("params"), R"({"Id":101})");
    EXPECT_EQ(run("dm.event(102, dm.null)"), "");
    EXPECT_EQ(request("params"), R"({"Id":102,"Value":null})");
    EXPECT_EQ(run("dm.event(-1)"), "ERROR [string \"stdin\"]:1: bad argument #1 to 'event' (out of range)");
    answer_code = -1;
    EXPECT_EQ(run("dm.event(1)"), "ERROR [string \"stdin\"]:1: [-32002] Connection lost: the daemon closed the link");
    ve_lua_set_hooks({nullptr,
                      [](ve_jrpcmsg *message) {
                          ve_jrpcmsg_set_error(message, 9004, "too long", nullptr);
                          return -1;
                      },
                      nullptr, nullptr});
    EXPECT_EQ(run("dm.event(1)"), "ERROR [string \"stdin\"]:1: [9004] Resources exceeded: too long");
}

TEST_F(VeLua, UsesTheContextsLinkWhereNobodyElseDoes)
{
    ve_lua_set_hooks({});
    EXPECT_EQ(run("dm.request('X')"), "ERROR [string \"stdin\"]:1: [-32002] Connection lost: no link to the daemon");
    EXPECT_EQ(run("dm.event(12)"), "ERROR [string \"stdin\"]:1: [-32002] Connection lost: the daemon closed the link");
    std::string event;
    {
        const scripted_peer peer([&](peer_link &link) {
            link.answer(link.request(), R"({"a":1})");
            event = link.line();
        });
        const std::unique_ptr<ve_jrpcapi, void (*)(ve_jrpcapi *)> ctx(ve_jrpcapi_init(), ve_jrpcapi_deinit);
        ve_jrpcapi_set_destination(ctx.get(), nullptr, peer.destination(), ve_socket_unix);
        ASSERT_EQ(ve_jrpcapi_connect(ctx.get()), 0);
        context->request_ctx = ctx.get();
        EXPECT_EQ(run("print(dm.request('X').a)"), "1\n");
        EXPECT_EQ(run("print(dm.event(12))"), "true\n");
        context->request_ctx = nullptr;
    }
    EXPECT_EQ(event, R"({"jsonrpc":"2.0","method":"Event","params":{"Id":12}})");
}

TEST_F(VeLua, SaysWhatEndsTheProgramWhenNobodyCatchesAnError)
{
    lua_pushliteral(context->state, "what is wrong");
    EXPECT_DEATH(lua_error(context->state), "Lua: unprotected error: what is wrong\n");
}

TEST_F(VeLua, LeavesAnErrorOutputThatTakesNothingWhenCtrlCComes)
{
    const interrupts handling([](int) { ve_wait_note_interrupt(); });
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
    const std::string block(4096, 'x');
    while (write(ends[1], block.data(), block.size()) > 0)
        ;
    const int kept = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 10);
    dup2(ends[1], STDERR_FILENO);
    raise(SIGINT);
    ve_lua_write_error("text", 4);
    dup2(kept, STDERR_FILENO);
    for (const int fd : {kept, ends[0], ends[1]})
        close(fd);
    EXPECT_TRUE(ve_wait_interrupted());
}

TEST_F(VeLua, TurnsJsonTextsIntoValuesAndBack)
{
    EXPECT_EQ(run("local s = ('x'):rep(8 << 20) print(dm.json(s) == '\"' .. s .. '\"', dm.json(1))"), "true\t1\n");
    EXPECT_EQ(run("print(dm.json{b = 1, a = {dm.null, 1.5, 'x'}, c = dm.array(), d = {}})"),
              "{\"a\":[null,1.5,\"x\"],\"b\":1,\"c\":[],\"d\":{}}\n");
    EXPECT_EQ(run("print(dm.json('\\0\\n'), dm.json(1), dm.json(1.0), dm.json(dm.null), dm.json(false))"),
              "\"\\u0000\\n\"\t1\t1.0\tnull\tfalse\n");
    EXPECT_EQ(run("local t = dm.parse('{\"a\":[1,2.0,null,{}],\"b\":\"\\\\u0000\"}') "
                  "print(math.type(t.a[1]), math.type(t.a[2]), t.a[3] == dm.null, next(t.a[4]), #t.b)"),
              "integer\tfloat\ttrue\tnil\t1\n");
    EXPECT_EQ(run("print(dm.parse(' 7 '), dm.parse('null'), dm.json(dm.parse('[]')), dm.json(dm.parse('{}')))"),
              "7\tnull\t[]\t{}\n");
    EXPECT_EQ(run("dm.json(nil)"),
              "ERROR [string \"stdin\"]:1: bad argument #1 to 'json' (nil has no JSON form (use dm.null))");
    EXPECT_EQ(run("dm.json{a = {1, print}}"),
              "ERROR [string \"stdin\"]:1: bad argument #1 to 'json' (a.2: a function has no JSON form)");
    EXPECT_TRUE(
        run("dm.parse('{\"a\":\\n[1,}')")
            .starts_with("ERROR [string \"stdin\"]:1: bad argument #1 to 'parse' (no JSON: line 2, column 4: "));
    EXPECT_NE(run("dm.parse('')").find("no JSON: line 1"), std::string::npos);
    EXPECT_NE(run("dm.parse('1 2')").find("no JSON: line 1"), std::string::npos);
}

TEST_F(VeLua, Sleeps)
{
    EXPECT_EQ(run("print(select('#', dm.sleep(0)), select('#', dm.sleep(0.001)))"), "0\t0\n");
    for (const char *time : {"-1", "0/0"}) {
        EXPECT_EQ(run(std::string("dm.sleep(") + time + ")"),
                  "ERROR [string \"stdin\"]:1: bad argument #1 to 'sleep' (not a time in seconds)");
    }
}

TEST_F(VeLua, RepeatsTextsAsLuaDoes)
{
    EXPECT_EQ(run("print(('ab'):rep(3), ('ab'):rep(3, ','), ('ab'):rep(1, ','), ('ab'):rep(0) .. ('ab'):rep(-1), "
                  "(''):rep(5, '-'), #(''):rep(1e9))"),
              "ababab\tab,ab,ab\tab\t\t----\t0\n");
    EXPECT_EQ(run("local s = ('abc'):rep(1000003, 'de') print(#s, s:sub(-5), s:sub(1, 6), s:sub(2500001, 2500005) == "
                  "('abcde'):rep(2):sub(1, 5))"),
              "5000013\tdeabc\tabcdea\ttrue\n");
    for (const char *count : {"math.maxinteger", "1 << 62", "1 << 63 >> 1"})
        EXPECT_EQ(run(std::string("('xx'):rep(") + count + ")"),
                  "ERROR [string \"stdin\"]:1: resulting string too large");
    EXPECT_EQ(run("print(#(''):rep(1 << 32), #(''):rep((1 << 32) + 5))"), "0\t0\n");
    EXPECT_EQ(run("string.rep()"),
              "ERROR [string \"stdin\"]:1: bad argument #1 to 'rep' (string expected, got no value)");
}

TEST_F(VeLua, MovesElementsAsLuaDoes)
{
    const char *same = "local function check(n, f, e, t, ...) local a = {} for i = 1, n do a[i] = i end "
                       "local b = ... and {} or a local r = table.move(a, f, e, t, ...) "
                       "for i = f, e do if r[t + i - f] ~= i then return i end end return #r end ";
    EXPECT_EQ(run(std::string(same) + "print(check(50000, 1, 50000, 1), check(50000, 1, 50000, 7), "
                                      "check(50000, 11, 50000, 1), check(50000, 1, 50000, 40000), "
                                      "check(50000, 1, 50000, 3, {}), check(30, 1, 30, 5))"),
              "50000\t50006\t50000\t89999\t50002\t34\n");
    EXPECT_EQ(run("table.move({}, -1, math.maxinteger, 2)"),
              "ERROR [string \"stdin\"]:1: bad argument #3 to 'move' (too many elements to move)");
    EXPECT_EQ(run("table.move({}, 1, math.maxinteger, 2)"),
              "ERROR [string \"stdin\"]:1: bad argument #4 to 'move' (destination wrap around)");
    EXPECT_EQ(run("print(#table.move({}, 2, 1, 1))"), "0\n");
}

TEST_F(VeLua, StopsLongCallsOfTheLibrary)
{
    EXPECT_EQ(run_interrupted("while true do pcall(string.rep, 'x', 1 << 30) end"), "ERROR interrupted");
    ve_wait_clear_interrupt();
    EXPECT_EQ(run_interrupted("table.move({}, 1, 1 << 60, 2)"), "ERROR interrupted");
}

TEST_F(VeLua, CallsHooksOfTheScriptsOwnAsLuaDoes)
{
    EXPECT_EQ(run("local lines = {} debug.sethook(function(event, line) lines[#lines + 1] = event .. line end, 'l')\n"
                  "local a\n"
                  "a = 1\n"
                  "debug.sethook() print(table.concat(lines, ' ')) print(debug.gethook())"),
              "line2 line3 line4\nnil\t\t0\n");
    EXPECT_EQ(run("local function f() end debug.sethook(f, 'cr', 5000) local g, mask, count = debug.gethook() "
                  "debug.sethook() print(f == g, mask, count)"),
              "true\tcr\t5000\n");
    EXPECT_EQ(run("local function f() end debug.sethook(f, 'l') local g, mask, count = debug.gethook() "
                  "debug.sethook() print(f == g, mask, count)"),
              "true\tl\t0\n");
    EXPECT_EQ(
        run("local n = 0 debug.sethook(function() n = n + 1 end, '', 100) for i = 1, 10000 do end debug.sethook() "
            "print(n >= 99 and n <= 110)"),
        "true\n");
    EXPECT_EQ(
        run("local n = 0 debug.sethook(function() n = n + 1 end, '', 4000) for i = 1, 40000 do end debug.sethook() "
            "print(n >= 9 and n <= 11)"),
        "true\n");
    EXPECT_EQ(run("local co = coroutine.create(function() end) debug.sethook(co, print, 'c') "
                  "print(debug.gethook(co) == print, debug.gethook())"),
              "true\tnil\t\t0\n");
}

TEST_F(VeLua, StopsCodeThatHasAHookOfItsOwn)
{
    for (const char *set : {"debug.sethook(function() end, 'c')", "debug.sethook(function() end, '', 1000000000)",
                            "debug.sethook(function() end, 'l', 7)", "debug.sethook()"}) {
        EXPECT_EQ(run_interrupted(std::string(set) + " while true do end"), "ERROR interrupted") << set;
        ve_wait_clear_interrupt();
    }
    EXPECT_TRUE(run_interrupted("coroutine.wrap(function() debug.sethook(print, 'r') while true do end end)()")
                    .ends_with("interrupted"));
}

TEST_F(VeLua, RefusesToWaitForNoGroup)
{
    for (const char *groups : {"0", "-1", "'x'", "{}", "{1, 'x'}", "1.5", "4294967296", "nil"}) {
        EXPECT_EQ(run(std::string("dm.wait(") + groups + ")"),
                  "ERROR [string \"stdin\"]:1: bad argument #1 to 'wait' (not a group or an array of groups)")
            << groups;
    }
    EXPECT_EQ(run("dm.wait(1, -1)"), "ERROR [string \"stdin\"]:1: bad argument #2 to 'wait' (not a time in seconds)");
    EXPECT_EQ(run("dm.wait(1, 0)"), "ERROR [string \"stdin\"]:1: no link to the daemon");
}

TEST_F(VeLua, TellsTheClientOfLogins)
{
    EXPECT_EQ(run("print(dm.login('admin', 'secret'))"), "true\n");
    EXPECT_EQ(request(), R"({"method":"Login","params":{"Password":"secret","User":"admin"}})");
    EXPECT_EQ(run("dm.login('root')"), "");
    EXPECT_EQ(request("params"), R"({"User":"root"})");
    EXPECT_EQ(run("print(dm.logout())"), "true\n");
    EXPECT_EQ(request("method"), "\"Logout\"");
    EXPECT_EQ(logins, "(admin,secret)(root,-)(-,-)");
    logins.clear();
    answer_code = 9001;
    EXPECT_EQ(run("dm.login('admin', 'wrong')"), "ERROR [string \"stdin\"]:1: [9001] Request denied: what is wrong");
    EXPECT_EQ(logins, "(-,-)") << "a refused login leaves nobody logged in";
    EXPECT_EQ(run("print(pcall(dm.save))"), "false\t[9001] Request denied: what is wrong\n");
}

TEST_F(VeLua, HasANullThatEqualsItself)
{
    EXPECT_EQ(run("print(dm.null, dm.null == dm.null, type(dm.null), dm.null == nil)"),
              "null\ttrue\tuserdata\tfalse\n");
}

TEST_F(VeLua, StopsCodeThatRunsOnWhenCtrlCIsNoted)
{
    for (const char *code : {
             "while true do end",
             "while true do pcall(function() while true do end end) end",
             "pcall(pcall, function() while true do end end) while true do end",
             "local c = coroutine.create(function() while true do end end) while true do coroutine.resume(c) end",
             "coroutine.wrap(function() while true do pcall(function() while true do end end) end end)()",
             "while true do coroutine.resume(coroutine.create(function() while true do end end)) end",
             "xpcall(function() while true do end end, function() while true do end end) while true do end",
             "xpcall(error, function() while true do end end)",
             "local function f() return f() end f()",
             "local function f() f() end while true do pcall(f) end",
             "setmetatable({}, {__index = function(t, k) return t[k] end})[1] = 1 while true do end",
             "local t = setmetatable({}, {__lt = function() while true do end end}) print(t < t)",
             "string.gsub(('x'):rep(100), '.', function() while true do end end)",
             "table.sort({3, 2, 1}, function() while true do end end)",
             "while true do local s = ('x'):rep(1000000) end",
             "load('while true do end')()",
             "while true do dm.get('Device.X') end",
         }) {
        ve_wait_clear_interrupt();
        const std::string result = run_interrupted(code);
        EXPECT_TRUE(result.starts_with("ERROR ")) << code << " -> " << result;
        EXPECT_TRUE(ve_wait_interrupted());
    }
    ve_wait_clear_interrupt();
    EXPECT_EQ(run("print(1 + 1)"), "2\n") << "the state is sound";
}

TEST_F(VeLua, WalksDeepStacksFrameByFrame)
{
    // From within a deep recursion: the frames are those that lua_getstack finds, the innermost first.
    lua_State *L = context->state;
    lua_pushcfunction(L, [](lua_State *S) {
        ve_lua_frames frames(S);
        lua_Debug frame;
        lua_Debug expected;
        int level = 0;
        int functions = 0;
        for (; frames.next(&frame); ++level) {
            if (level < 50) {
                EXPECT_EQ(lua_getstack(S, level, &expected), 1);
                lua_getinfo(S, "f", &expected);
                lua_getinfo(S, "f", &frame);
                functions += lua_rawequal(S, -1, -2);
                lua_pop(S, 2);
            }
        }
        EXPECT_EQ(functions, 50);
        EXPECT_EQ(lua_getstack(S, level - 1, &expected), 1);
        EXPECT_EQ(lua_getstack(S, level, &expected), 0);
        lua_pushinteger(S, level);
        return 1;
    });
    lua_setglobal(L, "count");
    EXPECT_EQ(run("local function f(n) if n == 0 then return count() end return (f(n - 1)) end print(f(150000))"),
              "150004\n");
}
