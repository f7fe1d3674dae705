#include "dispatch/table.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "platform/ve_json.h"
#include "platform/ve_out.h"

namespace
{

std::vector<std::string> completed(const char *prefix)
{
    const json_ref list{json_array()};
    autocomplete_command(prefix, list.get());
    std::vector<std::string> names;
    size_t index;
    json_t *name;
    json_array_foreach(list.get(), index, name) names.emplace_back(json_string_value(name));
    return names;
}

template <class Run> std::string printed(Run run)
{
    testing::internal::CaptureStdout();
    ve_out_reopened();
    run();
    ve_out_flush();
    return testing::internal::GetCapturedStdout();
}

} // namespace

TEST(CommandTable, HasItsRowsInOrder)
{
    ASSERT_EQ(cmd_rows().size(), 33U);
    EXPECT_EQ(completed(nullptr),
              (std::vector<std::string>{"add",   "attr",     "cd",        "cat",     "catree", "clear", "color",
                                        "del",   "download", "get",       "help",    "info",   "login", "logout",
                                        "ls",    "lua",      "luarecord", "opt",     "order",  "pwd",   "reboot",
                                        "reset", "rm",       "save",      "set",     "record", "sh",    "touch",
                                        "take",  "tree",     "up",        "upgrade", "execute"}));
    EXPECT_EQ(completed(""), completed(nullptr));
    EXPECT_EQ(completed("re"), (std::vector<std::string>{"reboot", "reset", "record"}));
    EXPECT_EQ(completed("x"), std::vector<std::string>{});
}

TEST(CommandTable, TheShellKnowsWordsMethodsAndTheQuestionMark)
{
    EXPECT_STREQ(parse_cmd("ls")->name, "ls");
    EXPECT_STREQ(parse_cmd("GetParameterNames")->name, "ls");
    EXPECT_STREQ(parse_cmd("GetParameterValues")->name, "cat");
    EXPECT_STREQ(parse_cmd("GetParameterAttributes")->name, "attr");
    EXPECT_STREQ(parse_cmd("DeleteObject")->name, "del");
    EXPECT_STREQ(parse_cmd("?")->name, "help");
    for (const char *word : {"", "LS", "l", "lss", "getParameterNames"})
        EXPECT_EQ(parse_cmd(word), nullptr) << word;
    EXPECT_EQ(parse_cmd(nullptr), nullptr);
}

TEST(CommandTable, RequestsAreTheCommandsWithARequestHandler)
{
    for (const char *word :
         {"cd", "catree", "clear", "color", "help", "?", "luarecord", "opt", "pwd", "record", "take", "tree", "up"})
        EXPECT_EQ(parse_request(word), nullptr) << word;
    for (const char *word :
         {"add", "AddObject", "attr", "cat", "get", "ls", "Reboot", "lua", "sh", "upgrade", "execute", "Download"})
        EXPECT_NE(parse_request(word), nullptr) << word;
    EXPECT_EQ(parse_request(nullptr), nullptr);
}

TEST(CommandTable, AliasesShareEverythingButTheirTexts)
{
    for (const auto &[word, alias] : {std::pair{"cat", "get"}, {"attr", "info"}, {"del", "rm"}, {"add", "touch"}}) {
        EXPECT_EQ(parse_cmd(word)->arguments, parse_cmd(alias)->arguments);
        EXPECT_EQ(parse_cmd(word)->process, parse_cmd(alias)->process);
        EXPECT_EQ(parse_cmd(word)->request, parse_cmd(alias)->request);
        EXPECT_STREQ(parse_cmd(word)->method, parse_cmd(alias)->method);
    }
    EXPECT_NE(parse_cmd("attr")->process, parse_cmd("attr")->request);
}

TEST(Dispatch, UnknownWordsAreNamed)
{
    EXPECT_EQ(printed([] { EXPECT_EQ(exec_cmd("nope", {}), -1); }), "nope: command not found.\n");
    EXPECT_EQ(printed([] { EXPECT_EQ(exec_request("cd", {}), -1); }), "cd: unknown method.\n");
    EXPECT_EQ(printed([] { EXPECT_EQ(exec_request("?", {}), -1); }), "?: unknown method.\n");
}

TEST(Help, PadsEveryUsageToTheLongest)
{
    const std::string text = printed([] { EXPECT_EQ(process_help("help", {}), 0); });
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 33);
    EXPECT_NE(
        text.find("\nset <path>=<value> [...]                                            - set parameters' values\n"
                  "touch <path> "),
        std::string::npos)
        << "the line of sh";
    EXPECT_NE(text.find("\nexecute <path_to_method> [<rpath1>=<value1> <rpath2>=<value2>...]   - execute method\n"),
              std::string::npos);
}
