#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cline/cline.h"
#include "platform/ve_json.h"

namespace
{

/// One run of the parser: result, options, and what it wrote.
struct parsed {
    int result = 0;
    cline_options options = {};
    std::vector<std::string> words;
    std::string out;
    std::string err;

    explicit parsed(std::vector<std::string> arguments, const char *program = "kest") : words(std::move(arguments))
    {
        words.insert(words.begin(), program);
        std::vector<char *> argv;
        for (std::string &word : words)
            argv.push_back(word.data());
        argv.push_back(nullptr);
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        result = cline_parse(static_cast<int>(words.size()), argv.data(), &options);
        out = testing::internal::GetCapturedStdout();
        err = testing::internal::GetCapturedStderr();
    }

    std::string param_list() const
    {
        const json_ref list{json_array()};
        for (const std::string &param : options.params)
            json_array_append_new(list.get(), json_string(param.c_str()));
        char *text = json_dumps(list.get(), JSON_COMPACT);
        std::string shown = text;
        free(text);
        return shown;
    }
    std::vector<int32_t> groups() const { return {options.groups, options.groups + options.groups_count}; }
};

std::string conflict(const char *now, const char *before)
{
    return "Cannot execute '" + std::string(now) + "' and '" + before + "' modes simultaneously.\n";
}

constexpr char usage[] = "Veltro Management System client.\n"
                         "Usage: kest [options]\n"
                         "\n"
                         "Options:\n"
                         "\t-r, --request <name> [<params>]     Proceed request.\n"
                         "\t-n, --notify <name> [<params>]      Send notify.\n"
                         "\t-e, --event <id> [<params>]         Send event.\n"
                         "\t-l, --listen                        Listen for incoming events (specify as -g).\n"
                         "\t    --raw <json-msg>                Send raw JSON-RPC message.\n"
                         "\t-s, --script <path-to-script>       Proceed script file.\n"
                         "\t-S, --lua-script <path-to-script>   Proceed Lua script file.\n"
                         "\t-g, --groups <gr1>[,<gr2>,..,<grN>] Join selected groups.\n"
                         "\t    --ssl                           Use SSL layer.\n"
                         "\t-c, --config <path>                 Path to config file (default is "
                         "\"$HOME/.local/kest/config\").\n"
                         "\t-u, --unixpath <path>               UNIX socket path to connect (default is "
                         "\"/var/run/veld.sock\").\n"
                         "\t-h, --help                          Print this help message.\n"
                         "\t-v, --version                       Display kest version.\n";

TEST(ClineParse, NoArgumentsAreTheInteractiveShell)
{
    const parsed run({});
    EXPECT_EQ(run.result, 0);
    EXPECT_EQ(run.options.mode, mode_interactive);
    EXPECT_EQ(run.param_list(), "[]");
    EXPECT_EQ(run.out + run.err, "");
}

TEST(ClineParse, HelpGoesToStandardOutput)
{
    for (const char *option : {"-h", "--help"}) {
        const parsed run({option});
        EXPECT_EQ(run.result, 1);
        EXPECT_EQ(run.out, usage);
        EXPECT_EQ(run.err, "");
    }
}

TEST(ClineParse, VersionIsTwoLines)
{
    for (const char *option : {"-v", "--version"}) {
        const parsed run({option});
        EXPECT_EQ(run.result, 1);
        EXPECT_EQ(run.out, "Veltro Management System client.\nkest version " KEST_VERSION "\n");
    }
}

TEST(ClineParse, UnknownOptionsShowTheUsageOnStandardError)
{
    const std::vector<std::vector<std::string>> wrong = {{"--nonsense"}, {"-x"}, {"-r"},          {"--raw"},
                                                         {"-i", "5"},    {"-i"}, {"--listen=now"}};
    for (const auto &arguments : wrong) {
        const parsed run(arguments);
        EXPECT_EQ(run.result, -1) << arguments.front();
        EXPECT_EQ(run.out, "");
        EXPECT_NE(run.err.find(usage), std::string::npos) << arguments.front();
    }
}

TEST(ClineParse, EachModeHasItsOption)
{
    const struct {
        std::vector<std::string> arguments;
        run_mode mode;
    } modes[] = {{{"--raw", "{}"}, mode_raw},
                 {{"-l"}, mode_listen},
                 {{"--listen"}, mode_listen},
                 {{"-r", "get"}, mode_request},
                 {{"--request=get"}, mode_request},
                 {{"-n", "x"}, mode_notify},
                 {{"--notify", "x"}, mode_notify},
                 {{"-e", "12"}, mode_event},
                 {{"--event", "12"}, mode_event},
                 {{"-s", "f"}, mode_script},
                 {{"--script", "f"}, mode_script},
                 {{"-S", "f"}, mode_lua_script},
                 {{"--lua-script", "f"}, mode_lua_script}};
    for (const auto &entry : modes) {
        const parsed run(entry.arguments);
        EXPECT_EQ(run.result, 0);
        EXPECT_EQ(run.options.mode, entry.mode) << entry.arguments.front();
    }
}

TEST(ClineParse, RequestTakesItsNameAndTheWordsBehind)
{
    const parsed run({"-r", "Name", "a", "b"});
    EXPECT_STREQ(run.options.name, "Name");
    EXPECT_EQ(run.param_list(), R"(["a","b"])");
}

TEST(ClineParse, WordsMayStandBeforeOptions)
{
    const parsed run({"a", "-r", "Name", "b", "--", "-l"});
    EXPECT_EQ(run.result, 0);
    EXPECT_EQ(run.param_list(), R"(["a","b","-l"])");
}

TEST(ClineParse, RawKeepsTheMessageAlone)
{
    const parsed run({"--raw", "{\"a\":1}", "more", "words"});
    EXPECT_EQ(run.result, 0);
    EXPECT_EQ(run.param_list(), R"(["{\"a\":1}"])");
}

TEST(ClineParse, EventIdIsANumber)
{
    EXPECT_EQ(parsed({"-e", "4294967295"}).options.event, 4294967295U);
    const parsed run({"-e", "abc", "5"});
    EXPECT_EQ(run.result, 0);
    EXPECT_EQ(run.err, "Group id must be an integer.\n");
    EXPECT_EQ(run.options.mode, mode_event);
    EXPECT_EQ(run.options.event, 0U);
    EXPECT_EQ(run.param_list(), R"(["5"])");
}

TEST(ClineParse, TwoModesAreAConflict)
{
    const struct {
        std::vector<std::string> arguments;
        std::string message;
        const char *program = "kest";
    } cases[] = {
        {{"-l", "-l"}, conflict("listen", "listen")},
        {{"-s", "a", "-S", "b"}, conflict("script", "script")},
        {{"-S", "a", "-r", "x"}, conflict("request", "script-lua")},
        {{"-S", "a", "-S", "b"}, conflict("script", "script-lua")},
        {{"-e", "1", "--raw", "{}"}, conflict("raw", "event")},
        {{"-n", "x", "-l"}, conflict("listen", "notify")},
        {{"-e", "1", "-e", "x"}, conflict("event", "event")},
        {{"-r", "x"}, conflict("request", "interactive"), "/usr/bin/kest_interpreter"},
        {{"-S", "x"}, conflict("script", "interactive"), "kest_lua"},
    };
    for (const auto &entry : cases) {
        const parsed run(entry.arguments, entry.program);
        EXPECT_EQ(run.result, -1);
        EXPECT_EQ(run.err, entry.message);
    }
}

TEST(ClineParse, TheProgramNameChoosesAMode)
{
    const parsed script({"file", "arg"}, "/opt/bin/kest_interpreter");
    EXPECT_EQ(script.options.mode, mode_script);
    EXPECT_EQ(script.options.script, nullptr);
    EXPECT_EQ(script.param_list(), R"(["file","arg"])");
    EXPECT_EQ(parsed({"file"}, "kest_lua").options.mode, mode_lua_script);
    EXPECT_EQ(parsed({}, "kest_lua2").options.mode, mode_interactive);
}

TEST(ClineParse, GroupsAddUpAndEmptyPiecesAreSkipped)
{
    EXPECT_EQ(parsed({"-g", "1,,2", "-g", "7"}).groups(), (std::vector<int32_t>{1, 2, 7}));
    EXPECT_EQ(parsed({"--groups", ",,"}).groups(), std::vector<int32_t>{});
}

TEST(ClineParse, AWrongGroupIsNamed)
{
    for (const char *piece : {"x", "1x", "-1", " 1", "4294967296", "1.0"}) {
        const parsed run({"-g", std::string("1,") + piece + ",3"});
        EXPECT_EQ(run.result, -1);
        EXPECT_EQ(run.err, "Invalid group number: '" + std::string(piece) + "'.\n");
    }
}

TEST(ClineParse, MoreGroupsThanFitAreRefused)
{
    std::string list = "1";
    for (int i = 2; i <= 64; i++)
        list += "," + std::to_string(i);
    EXPECT_EQ(parsed({"-g", list}).groups().size(), 64U);
    for (const auto &arguments : {std::vector<std::string>{"-g", list + ",65"}, {"-g", list, "-g", "65"}}) {
        const parsed run(arguments);
        EXPECT_EQ(run.result, -1);
        EXPECT_EQ(run.err, "Too many groups: at most 64 can be joined.\n");
    }
}

TEST(ClineParse, ALaterPathReplacesAnEarlierOne)
{
    const parsed run({"-u", "a", "-c", "b", "--unixpath", "c", "--config=d", "--ssl"});
    EXPECT_EQ(run.result, 0);
    EXPECT_STREQ(run.options.unixpath, "c");
    EXPECT_STREQ(run.options.config, "d");
    EXPECT_EQ(run.options.address, nullptr);
    EXPECT_EQ(run.options.ssl, 1);
}

TEST(ClineParse, WordsThatAreNoTextAreRefused)
{
    const parsed run({"-r", "get", "Device.\xff"});
    EXPECT_EQ(run.result, -1);
    EXPECT_EQ(run.err, "Argument 'Device.\\xff' is not valid UTF-8 text.\n");
    EXPECT_EQ(parsed({"--raw", "\"\xff\""}).param_list(), "[]");
}

TEST(ClineParseDeathTest, ARecordIsNeeded)
{
    char program[] = "kest";
    char *argv[] = {program, nullptr};
    EXPECT_DEATH(cline_parse(1, argv, nullptr), "options != \\(\\(void \\*\\)0\\)");
}

TEST(ClineParse, AProgramWithoutANameIsTheShell)
{
    char *argv[] = {nullptr};
    cline_options options = {};
    EXPECT_EQ(cline_parse(0, argv, &options), 0);
    EXPECT_EQ(options.mode, mode_interactive);
}

} // namespace
