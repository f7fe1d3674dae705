// What the value commands print, without a daemon.
#include "commands/values.h"

#include <gtest/gtest.h>

#include <string>

#include "base/json_ref.h"
#include "platform/ve_out.h"

namespace
{

template <class Action> std::string printed(Action act)
{
    testing::internal::CaptureStdout();
    ve_out_reopened();
    act();
    ve_out_flush();
    return testing::internal::GetCapturedStdout();
}

std::string status_of(int code, const char *text, const char *data)
{
    const msg_ref message(ve_jrpcmsg_create_new("Any", nullptr));
    if (code != 0)
        ve_jrpcmsg_set_error(message.get(), code, text, json_loads(data, 0, nullptr));
    return printed([&] { print_status(message.get()); });
}

std::string tree_of(const char *list, const char *name)
{
    return printed([&] { values_tree(ve_parameters(json_piece(list)), name); });
}

} // namespace

TEST(PrintStatus, Success)
{
    EXPECT_EQ(status_of(0, nullptr, ""), "Status: OK\n");
}

TEST(PrintStatus, ErrorsWithTheirDataInItsOrder)
{
    EXPECT_EQ(status_of(9005, "gone", ""), "[9005] Invalid parameter name: gone\n");
    EXPECT_EQ(status_of(9003, "bad", R"({"b": "why", "a": [1, {"x": null}]})"),
              "[9003] Invalid arguments: bad\nb: \"why\"\na: [1, {\"x\": null}]\n");
}

TEST(PrintStatus, AnExchangeWithoutAnAnswerIsAnError)
{
    EXPECT_EQ(status_of(ve_jrpc_err_lost, "the daemon closed the link", ""),
              "[-32002] Connection lost: the daemon closed the link\n");
    EXPECT_EQ(status_of(ve_jrpc_err_timeout, "no answer from the daemon in time", ""),
              "[-32001] Timed out: no answer from the daemon in time\n");
}

TEST(ValuesTree, NamesShareTheirBranches)
{
    EXPECT_EQ(tree_of(R"([{"Name": "D.b.x", "Value": 1}, {"Name": "D.a", "Value": 2}, {"Name": "D.b.y", "Value": "t"},
                          {"Name": "D.c.x", "Value": 3}, {"Name": "D.b.x", "Value": 4}])",
                      "D."),
              "D.\n├── a = 2\n├── b\n│   ├── x = 4\n│   └── y = \"t\"\n└── c\n    └── x = 3\n");
}

TEST(ValuesTree, TablesAreInNumericOrder)
{
    EXPECT_EQ(
        tree_of(R"([{"Name": "10", "Value": 1}, {"Name": "9", "Value": 2}, {"Name": "order", "Value": "9,10"}])", ""),
        "\n├── order = \"9,10\"\n├── 9     = 2\n└── 10    = 1\n");
    EXPECT_EQ(tree_of(R"([{"Name": "10", "Value": 1}, {"Name": "9", "Value": 2}])", ""), "\n├── 10 = 1\n└── 9  = 2\n");
}

TEST(ValuesTree, ASingleParameterIsTheRoot)
{
    EXPECT_EQ(tree_of(R"([{"Name": "D.x", "Value": [1]}])", "D.x"), "D.x = [1]\n");
}

TEST(ValuesTree, WhatIsNoListOrNoNameIsPassedOver)
{
    EXPECT_EQ(tree_of(R"({"Name": "x"})", "D."), "D.\n");
    EXPECT_EQ(
        tree_of(R"([1, {"Value": 2}, {"Name": 3, "Value": 4}, {"Name": "a.b"}, {"Name": "x\u0000y", "Value": 5}])",
                "D."),
        "D.\n├── a\n│   └── b\n└── x = 5\n");
    EXPECT_EQ(printed([] { values_tree(ve_parameters(json_piece()), "D."); }), "D.\n");
}

TEST(ValuesTree, AValueBesideAFurtherLevelKeepsBoth)
{
    EXPECT_EQ(tree_of(R"([{"Name": "a", "Value": 1}, {"Name": "a.b", "Value": 2}])", "D."),
              "D.\n└── a = 1\n    └── b = 2\n");
}
