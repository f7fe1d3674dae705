#include "veld_core_small_model.h"

#include "veld/model/change.h"
#include "veld/model/query.h"
#include "veld/rpc/arguments.h"
#include "veld/state/configuration.h"

using namespace veld;
using namespace veld_test;

namespace
{

constexpr size_t plenty = size_t{1} << 20;

std::vector<std::string> names_in(const std::string &result)
{
    std::vector<std::string> out;
    const json_ref parsed = json(result.c_str());
    size_t i = 0;
    json_t *entry = nullptr;
    json_array_foreach(json_object_get(parsed.get(), "ParameterList"), i, entry)
        out.emplace_back(json_string_value(json_object_get(entry, "Name")));
    return out;
}

std::vector<std::string> list_names(tree *model, role who, const char *path, bool next_level)
{
    std::string text;
    const fault problem = query_names(model, who, path, next_level, {&text, plenty});
    return problem ? std::vector<std::string>{std::to_string(wire_number(problem.code))} : names_in(text);
}

std::string values(tree *model, role who, const char *names)
{
    std::string text;
    const fault problem = query_values(model, who, json(names).get(), {&text, plenty});
    return problem ? std::to_string(wire_number(problem.code)) : text;
}

std::vector<std::string> attribute_names(tree *model, const char *name, int64_t depth)
{
    std::string text;
    const fault problem = query_attributes(
        model, role::administrator, json((std::string("[\"") + name + "\"]").c_str()).get(), depth, {&text, plenty});
    return problem ? std::vector<std::string>{std::to_string(wire_number(problem.code))} : names_in(text);
}

using list = std::vector<std::string>;

TEST(VeldQuery, NextLevelListsInstancesThenTheTablesOwnParameters)
{
    const auto model = make_tree();
    EXPECT_EQ(list_names(model.get(), role::user, "Device.Search", true),
              (list{"Device.Search.2", "Device.Search.3", "Device.Search.1", "Device.Search.max_instance",
                    "Device.Search.order"}));
    EXPECT_EQ(list_names(model.get(), role::user, "Device.Host.1.", true),
              (list{"Device.Host.1.Alias", "Device.Host.1.Id", "Device.Host.1.Stats.", "Device.Host.1.Address."}));
    EXPECT_EQ(list_names(model.get(), role::user, "Device.Name", true), list{});
    EXPECT_EQ(list_names(model.get(), role::user, "Device.Ping", true),
              (list{"Device.Ping.Host", "Device.Ping.Options.", "Device.Ping.Result."}));
}

TEST(VeldQuery, WhatMayNotBeReadIsListedButNotEntered)
{
    const auto model = make_tree();
    EXPECT_EQ(list_names(model.get(), role::user, "Device.Admin.", false),
              (list{"Device.Admin.", "Device.Admin.Hidden", "Device.Admin.Shown"}));
    EXPECT_EQ(values(model.get(), role::user, R"(["Device.Admin."])"),
              R"({"ParameterList":[{"Name":"Device.Admin.Shown","Value":0}]})");
    EXPECT_EQ(values(model.get(), role::user, R"(["Device.Admin.Hidden"])"), "9001");
    EXPECT_EQ(values(model.get(), role::user, R"(["Device.Admin.Hidden","Device.Level"])"),
              R"({"ParameterList":[{"Name":"Device.Level","Value":5}]})");
    std::string text;
    scheme_attributes(&text, *model->find("Device.Admin.Hidden").what, role::user);
    EXPECT_EQ(text, R"({"type":"int","access":"readWrite","perms":"","default":0})");
}

TEST(VeldQuery, SecretsAreForAdministrators)
{
    const auto model = make_tree();
    EXPECT_EQ(values(model.get(), role::user, R"(["Device.Key"])"),
              R"({"ParameterList":[{"Name":"Device.Key","Value":""}]})");
    EXPECT_EQ(values(model.get(), role::administrator, R"(["Device.Key"])"),
              R"({"ParameterList":[{"Name":"Device.Key","Value":"k"}]})");
}

TEST(VeldQuery, DepthCountsLevelsBelowTheNode)
{
    const auto model = make_tree();
    EXPECT_EQ(attribute_names(model.get(), "Device.Host.1.", 0), list{"Device.Host.1."});
    EXPECT_EQ(attribute_names(model.get(), "Device.Host.1.", 1),
              (list{"Device.Host.1.", "Device.Host.1.Alias", "Device.Host.1.Id", "Device.Host.1.Stats.",
                    "Device.Host.1.Address."}));
    EXPECT_EQ(attribute_names(model.get(), "Device.Host.1.", 1), attribute_names(model.get(), "Device.Host.1.", -1));
    EXPECT_EQ(attribute_names(model.get(), "Device.Host.1.", 2).size(), 7U);
    EXPECT_EQ(attribute_names(model.get(), "Device.Ping", -1),
              (list{"Device.Ping", "Device.Ping.Host", "Device.Ping.Options.", "Device.Ping.Options.Count",
                    "Device.Ping.Result.", "Device.Ping.Result.Time"}));
    EXPECT_EQ(attribute_names(model.get(), "Device.Ping.Options", 1),
              (list{"Device.Ping.Options.", "Device.Ping.Options.Count"}));
    EXPECT_EQ(attribute_names(model.get(), ".", 1), list{"Device."});
}

TEST(VeldQuery, AnAnswerIsAsLongAsItMayBeOrRefused)
{
    const auto model = make_tree();
    const json_ref all = json(R"([".","Device.Ping.Options","Device.Name"])");
    const std::function<fault(answer_text)> queries[] = {
        [&](answer_text answer) { return query_values(model.get(), role::administrator, all.get(), answer); },
        [&](answer_text answer) { return query_names(model.get(), role::administrator, "Device.Ping", false, answer); },
        [&](answer_text answer) { return query_attributes(model.get(), role::administrator, all.get(), 9, answer); },
    };
    for (const auto &query : queries) {
        std::string whole;
        ASSERT_FALSE(query({&whole, plenty}));
        for (size_t limit = 0; limit < whole.size(); ++limit) {
            std::string text;
            ASSERT_EQ(query({&text, limit}).code, code::resources) << limit << " of " << whole.size();
        }
        std::string text;
        EXPECT_FALSE(query({&text, whole.size()}));
        EXPECT_EQ(text, whole);
    }
}

TEST(VeldQuery, AnAnswerOverTheLimitIsRefusedEarly)
{
    const auto model = make_tree();
    std::string text;
    EXPECT_EQ(query_values(model.get(), role::administrator, json(R"(["."])").get(), {&text, 100}).code,
              code::resources);
    EXPECT_LT(text.size(), 300U);
    text.clear();
    EXPECT_EQ(query_names(model.get(), role::administrator, ".", false, {&text, 100}).code, code::resources);
    text.clear();
    EXPECT_EQ(query_attributes(model.get(), role::administrator, json(R"(["."])").get(), 9, {&text, 100}).code,
              code::resources);
}

TEST(VeldQuery, ArgumentsAreCompletedWithTheirDefaults)
{
    const auto model = make_tree();
    const scheme &method = *model->find("Device.Ping").what;
    json_ref input;
    EXPECT_FALSE(arguments_check(method, nullptr, &input));
    EXPECT_EQ(text_of(std::move(input)), R"({"Host":"localhost","Options":{"Count":4}})");
    EXPECT_FALSE(arguments_check(method, json(R"([{"Name":"Options.Count","Value":9}])").get(), &input));
    EXPECT_EQ(text_of(std::move(input)), R"({"Host":"localhost","Options":{"Count":9}})");
    const fault problem = arguments_check(
        method,
        json(
            R"([{"Name":"Options.Count","Value":0},{"Name":"Host","Value":"a"},{"Name":"Host","Value":"b"},{"Name":"Options","Value":1}])")
            .get(),
        &input);
    EXPECT_EQ(problem.code, code::bad_arguments);
    EXPECT_EQ(
        problem.data,
        R"({"Options.Count":"must be at least 1","Host":"is given more than once","Options":"is not an input argument"})");
}

TEST(VeldQuery, ATableWithoutALimitTakesSoManyFromClients)
{
    const auto model = make_tree();
    node *added = nullptr;
    fault full;
    int count = 3; // the factory's
    for (; !full && count < 100000; ++count)
        full = change_add(model.get(), role::user, "Device.Search.", 0, &added);
    EXPECT_EQ(count - 1, 65535);
    EXPECT_EQ(full.code, code::resources);
    EXPECT_EQ(full.message, "Device.Search. takes at most 65535 instances");
}

TEST(VeldQuery, TablesThatClientsCannotChangeStay)
{
    const auto model = make_tree({}, R"({"format":1,"root":{"Device":{"children":{
        "Fixed":{"multi":true,"access":"readWrite","template":{},"instances":{"1":{}}},
        "Row":{"multi":true,"ordered":true,"template":{},"instances":{"1":{},"2":{}}}}}}})");
    node *table = nullptr;
    uint32_t number = 0;
    EXPECT_EQ(change_delete(model.get(), role::administrator, "Device.Fixed.1.", &table, &number).message,
              "Device.Fixed.1. cannot be deleted");
    EXPECT_EQ(change_order(model.get(), role::administrator, "Device.Row.2.", 1).message,
              "Device.Row.2. cannot be moved");
    EXPECT_EQ(value_at(model.get(), "Device.Row.order"), "\"1,2\"");
}

TEST(VeldQuery, InstanceNumbersComeToAnEnd)
{
    const auto model = make_tree();
    std::string error;
    const json_ref saved =
        json(R"({"veld-config":1,"config":{"Device":{"Host":{"instances":{"4294967295":{"Alias":"last"}}}}}})");
    ASSERT_TRUE(configuration_restore(model.get(), saved.get(), &error)) << error;
    EXPECT_EQ(value_at(model.get(), "Device.Host.max_instance"), "4294967295");
    node *added = nullptr;
    const fault problem = change_add(model.get(), role::administrator, "Device.Host.", 0, &added);
    EXPECT_EQ(problem.code, code::resources);
    EXPECT_EQ(problem.message, "Device.Host. has no instance numbers left");
    EXPECT_EQ(value_at(model.get(), "Device.HostCount"), "1");
}

TEST(VeldQuery, ChangesNeedTheRightRole)
{
    const auto model = make_tree();
    std::vector<value_change> changes;
    EXPECT_EQ(
        change_values(model.get(), role::anonymous, json(R"([{"Name":"Device.Name","Value":"x"}])").get(), &changes)
            .code,
        code::denied);
    EXPECT_EQ(
        change_values(model.get(), role::user, json(R"([{"Name":"Device.Admin.Hidden","Value":1}])").get(), &changes)
            .code,
        code::denied);
    EXPECT_EQ(
        change_values(model.get(), role::user, json(R"([{"Name":"Device.Ping.Host","Value":"x"}])").get(), &changes)
            .code,
        code::bad_name);
    node *added = nullptr;
    EXPECT_EQ(change_add(model.get(), role::anonymous, "Device.Host.", 0, &added).code, code::denied);
    EXPECT_EQ(change_add(model.get(), role::user, "Device.Link.", 0, &added).code, code::denied);
    EXPECT_EQ(change_order(model.get(), role::anonymous, "Device.Search.1", 1).code, code::denied);
    EXPECT_TRUE(changes.empty());
}

} // namespace
