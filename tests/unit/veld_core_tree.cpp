#include "veld_core_small_model.h"

#include "veld/model/change.h"
#include "veld/model/given.h"
#include "veld/model/populate.h"
#include "veld/state/configuration.h"

#include <map>

using namespace veld;
using namespace veld_test;

namespace
{

std::vector<uint32_t> numbers(tree *model, const char *path)
{
    model->begin_request();
    std::vector<uint32_t> out;
    for (const node *one : model->listed(model->find(path).at))
        out.push_back(one->number);
    return out;
}

fault set(tree *model, const char *list)
{
    std::vector<value_change> changes;
    return change_values(model, role::administrator, json(list).get(), &changes);
}

TEST(VeldTree, FindsNodesByNameWithAndWithoutTheFinalDot)
{
    const auto model = make_tree();
    for (const char *path : {".", "", "Device", "Device.", "Device.Name", "Device.Name.", "Device.Host.2.Stats.Resets",
                             "Device.Search.1", "Device.Host.max_instance", "Device.Search.order", "Device.Ping",
                             "Device.Ping.Host", "Device.Ping.Options.Count", "Device.Ping.Result.Time."})
        EXPECT_TRUE(model->find(path)) << path;
    for (const char *path : {"..", ".Device", "Device..Name", "Device.Nothing", "Device.Name.More", "Device.Host.0",
                             "Device.Host.01", "Device.Host.3", "Device.Host.1x", "Device.Host.4294967297",
                             "Device.Host.-1", "Device.Ping.Nothing", "Device.Host.order", "device"})
        EXPECT_FALSE(model->find(path)) << path;
}

TEST(VeldTree, SpellsNamesAsAnswersDo)
{
    const auto model = make_tree();
    for (const char *path : {"Device.", "Device.Host.", "Device.Host.2.", "Device.Host.2.Alias", "Device.Search.1",
                             "Device.Ping", "Device.Host.1.Stats."})
        EXPECT_EQ(tree::name(model->find(path).at), path);
}

TEST(VeldTree, StartsWithTheFactoryInstances)
{
    const auto model = make_tree();
    EXPECT_EQ(numbers(model.get(), "Device.Host"), (std::vector<uint32_t>{1, 2}));
    EXPECT_EQ(numbers(model.get(), "Device.Search"), (std::vector<uint32_t>{2, 3, 1}));
    EXPECT_EQ(value_at(model.get(), "Device.Host.2.Stats.Resets"), "3");
    EXPECT_EQ(value_at(model.get(), "Device.Search.order"), "\"2,3,1\"");
    EXPECT_EQ(value_at(model.get(), "Device.HostCount"), "2");
}

TEST(VeldTree, NeverUsesANumberAgain)
{
    const auto model = make_tree();
    node *table = model->find("Device.Host.").at;
    node *third = model->add(table, 99);
    EXPECT_EQ(third->number, 3U);
    model->remove(third);
    EXPECT_EQ(value_at(model.get(), "Device.Host.max_instance"), "3");
    EXPECT_EQ(model->add(table, 99)->number, 4U);
}

TEST(VeldTree, MovesInstancesWithinTheOrder)
{
    const auto model = make_tree();
    model->move(model->find("Device.Search.1").at, 0);
    EXPECT_EQ(numbers(model.get(), "Device.Search"), (std::vector<uint32_t>{1, 2, 3}));
    model->move(model->find("Device.Search.1").at, 99);
    EXPECT_EQ(numbers(model.get(), "Device.Search"), (std::vector<uint32_t>{2, 3, 1}));
    model->add(model->find("Device.Search").at, 1);
    EXPECT_EQ(numbers(model.get(), "Device.Search"), (std::vector<uint32_t>{2, 4, 3, 1}));
    // So far behind the last place that a word of some machines does not hold it.
    for (const uint64_t order : {(uint64_t{1} << 32) + 1, uint64_t{INT64_MAX}}) {
        ASSERT_FALSE(change_order(model.get(), role::administrator, "Device.Search.1", 1));
        ASSERT_FALSE(change_order(model.get(), role::administrator, "Device.Search.1", order));
        EXPECT_EQ(numbers(model.get(), "Device.Search"), (std::vector<uint32_t>{2, 4, 3, 1}));
    }
    model->remove(model->find("Device.Search.3").at);
    EXPECT_EQ(numbers(model.get(), "Device.Search"), (std::vector<uint32_t>{2, 4, 1}));
}

TEST(VeldTree, KeepsTheValuesThatInstancesBeginWithApart)
{
    const auto model = make_tree({}, R"({"format":1,"root":{"Device":{"children":{"T":{"multi":true,"template":
        {"children":{"N":{"type":"int","access":"readWrite","default":1,"unique":true}}}}}}}})");
    node *table = model->find("Device.T.").at;
    model->add(table, 99);
    EXPECT_EQ(set(model.get(), R"([{"Name":"Device.T.1.N","Value":5}])").code, code::none);
    model->add(table, 99);
    EXPECT_EQ(set(model.get(), R"([{"Name":"Device.T.1.N","Value":1}])").code, code::bad_value);
    model->remove(model->find("Device.T.2.").at);
    EXPECT_EQ(set(model.get(), R"([{"Name":"Device.T.1.N","Value":1}])").code, code::none);
}

TEST(VeldTree, KeepsUniqueValuesApart)
{
    const auto model = make_tree();
    EXPECT_EQ(set(model.get(), R"([{"Name":"Device.Host.1.Alias","Value":"two"}])").code, code::bad_value);
    EXPECT_EQ(set(model.get(), R"([{"Name":"Device.Host.1.Alias","Value":"two"},
                                   {"Name":"Device.Host.2.Alias","Value":"one"}])")
                  .code,
              code::none);
    EXPECT_EQ(set(model.get(), R"([{"Name":"Device.Host.1.Alias","Value":"one"}])").code, code::bad_value);
    EXPECT_EQ(set(model.get(), R"([{"Name":"Device.Host.2.Alias","Value":""}])").code, code::none);
    EXPECT_EQ(set(model.get(), R"([{"Name":"Device.Host.1.Alias","Value":"one"}])").code, code::none);
    // A chain: each takes what the next gives up.
    EXPECT_EQ(set(model.get(), R"([{"Name":"Device.Host.2.Alias","Value":"one"},
                                   {"Name":"Device.Host.1.Alias","Value":"new"}])")
                  .code,
              code::none);
    model->remove(model->find("Device.Host.2").at);
    EXPECT_EQ(set(model.get(), R"([{"Name":"Device.Host.1.Alias","Value":"one"}])").code, code::none);
}

/// What a parameter of the table "T." begins with in a new instance.
std::string value_of_new(tree *model, const char *parameter)
{
    node *added = nullptr;
    const fault problem = change_add(model, role::administrator, "T.", 0, &added);
    return problem ? problem.message : value_at(model, (tree::name(added) + parameter).c_str());
}

TEST(VeldTree, GivesNewInstancesFreeUniqueNumbers)
{
    const auto model = make_tree();
    node *added = nullptr;
    ASSERT_FALSE(change_add(model.get(), role::administrator, "Device.Host.", 0, &added));
    EXPECT_EQ(value_at(model.get(), "Device.Host.3.Id"), "3");
    // Where none is free there is no place for another instance; nor is there any number beyond the last one.
    for (const char *n : {R"("int","default":1,"maxInclusive":2)", R"("long","default":9223372036854775806)"}) {
        const auto narrow = make_tree({}, (std::string(R"({"format":1,"root":{"T":{"multi":true,"access":"readWrite",
            "template":{"access":"readWrite","children":{"N":{"unique":true,"type":)") +
                                           n + "}}}}}}")
                                              .c_str());
        const int64_t first = std::stoll(value_of_new(narrow.get(), "N"));
        EXPECT_EQ(value_of_new(narrow.get(), "N"), std::to_string(first + 1));
        const fault full = change_add(narrow.get(), role::administrator, "T.", 0, &added);
        EXPECT_EQ(full.code, code::resources);
        EXPECT_EQ(full.message, "T. has no value left for a new instance's N");
        EXPECT_EQ(numbers(narrow.get(), "T"), (std::vector<uint32_t>{1, 2}));
        EXPECT_EQ(value_at(narrow.get(), "T.max_instance"), "2");
        node *table = nullptr;
        uint32_t number = 0;
        ASSERT_FALSE(change_delete(narrow.get(), role::administrator, "T.1", &table, &number));
        EXPECT_EQ(value_of_new(narrow.get(), "N"), std::to_string(first));
    }
}

TEST(VeldTree, GivesNewInstancesFreeUniqueValuesOfEveryType)
{
    const struct {
        const char *what;
        std::vector<std::string> values;
        bool full = false; // when there are as many
    } cases[] = {
        {R"("string","default":"")", {R"("")", R"("")", R"("")"}},
        {R"("string","default":"rule")", {R"("rule")", R"("rule-2")", R"("rule-3")"}},
        {R"("string","default":"rule","maxLength":5)", {R"("rule")", R"("rule2")", R"("rule3")"}},
        {R"("string","default":"rule","regex":"[a-z]*")", {R"("rule")", R"("")", R"("")"}},
        {R"("string","default":"Port1")", {R"("Port1")", R"("Port2")", R"("Port3")"}},
        {R"("string","default":"a-09","maxLength":4)", {R"("a-09")", R"("a-10")", R"("a-11")"}},
        {R"("string","default":"b","enum":["a","b","c"])", {R"("b")", R"("a")", R"("c")"}, true},
        {R"("boolean","default":true)", {"true", "false"}, true},
        {R"("int","default":3,"minInclusive":1,"maxInclusive":3)", {"3", "1", "2"}, true},
        {R"("int","default":-1,"offValue":-1,"minInclusive":5,"maxInclusive":7)", {"-1", "5", "6"}},
        {R"("int","default":0,"ranges":[[0,10,5]])", {"0", "5", "10"}, true},
        {R"("int","default":10,"ranges":[[1,1],[10,10]])", {"10", "1"}, true},
        {R"("int","default":20,"enum":[10,20,30])", {"20", "10", "30"}, true},
        {R"("decimal","default":0.5)", {"0.5", "1.5", "2.5"}},
        {R"("unsignedLong","default":"18446744073709551614")",
         {R"("18446744073709551614")", R"("18446744073709551615")"},
         true},
        {R"("dateTime","default":"2024-01-01T00:00:00Z")",
         {R"("2024-01-01T00:00:00Z")", R"("2024-01-01T00:00:01Z")", R"("2024-01-01T00:00:02Z")"}},
        {R"("hexBinary","default":"0A09")", {R"("0A09")", R"("0A10")", R"("0A11")"}},
        {R"("path","default":"T.1","targets":[])", {R"("T.1")", R"("")", R"("")"}},
    };
    for (const auto &one : cases) {
        const auto model =
            make_tree({}, (std::string(R"({"format":1,"root":{"T":{"multi":true,"access":"readWrite","template":
            {"children":{"O":{"children":{"V":{"unique":true,"type":)") +
                           one.what + "}}}}}}}}")
                              .c_str());
        for (const std::string &value : one.values)
            EXPECT_EQ(value_of_new(model.get(), "O.V"), value) << one.what;
        node *added = nullptr;
        const fault problem = change_add(model.get(), role::administrator, "T.", 0, &added);
        EXPECT_EQ(problem.code == code::resources, one.full) << one.what;
    }
}

TEST(VeldTree, GivesEveryInstanceOfTheModelAFreeUniqueValue)
{
    const auto model = make_tree({}, R"({"format":1,"root":{
        "T":{"multi":true,"template":{"children":{"N":{"type":"string","default":"n","unique":true}}},
             "instances":{"1":{},"2":{},"3":{"N":"n-2"},"4":{}}},
        "Class":{"multi":true,"minCount":3,"maxCount":3,"template":{"children":{
            "Name":{"type":"string","default":"BE","enum":["BE","BK","VI"],"unique":true}}}}}})");
    std::string values;
    for (const char *path : {"T.1.N", "T.2.N", "T.3.N", "T.4.N", "Class.1.Name", "Class.2.Name", "Class.3.Name"})
        values += value_at(model.get(), path) + " ";
    EXPECT_EQ(values, R"("n" "n-3" "n-2" "n-4" "BE" "BK" "VI" )");
    for (const char *three : {R"("minCount":3,"maxCount":3)", R"("instances":{"1":{},"2":{},"3":{}})"}) {
        const json_ref narrow = json((std::string(R"({"format":1,"root":{"T":{"multi":true,"template":{"children":{
            "On":{"type":"boolean","default":false,"unique":true}}},)") +
                                      three + "}}}")
                                         .c_str());
        std::string error;
        EXPECT_FALSE(document_tree(narrow.get(), nullptr, &error));
        EXPECT_EQ(error, "T.3.: no value is left for On");
    }
}

/// What is said of a value that does not fit.
std::string said(tree *model, const char *path, const std::string &value)
{
    const json_ref problems =
        json(set(model, (R"([{"Name":")" + std::string(path) + R"(","Value":)" + value + "}]").c_str()).data.c_str());
    const char *text = json_string_value(json_object_get(problems.get(), path));
    return text != nullptr ? text : "";
}

TEST(VeldTree, EnumerationsAreOfNumbersTooAndMayBeLong)
{
    std::string names;
    for (int i = 100; i < 200; ++i)
        names += (i > 100 ? "," : "") + ("\"" + std::to_string(i) + "\"");
    const std::string document =
        R"({"format":1,"root":{"D":{"type":"decimal","access":"readWrite","default":1,"enum":[1,2.5]},)"
        R"("L":{"type":"string","access":"readWrite","default":"100","enum":[)" +
        names + "]}}}";
    const auto model = make_tree({}, document.c_str());
    for (const char *fits : {"1", "1.0", "2.5"})
        EXPECT_FALSE(set(model.get(), (R"([{"Name":"D","Value":)" + std::string(fits) + "}]").c_str())) << fits;
    EXPECT_EQ(said(model.get(), "D", "2"), "must be one of 1, 2.5");
    EXPECT_FALSE(set(model.get(), R"([{"Name":"L","Value":"199"}])"));
    const std::string refusal = said(model.get(), "L", "\"x\"");
    EXPECT_TRUE(refusal.starts_with(R"(must be one of "100", "101", )") && refusal.ends_with(R"(", ...)")) << refusal;
    EXPECT_LT(refusal.size(), 420U);
}

TEST(VeldTree, RangesAreOfWholeNumbersOfAnySizeAndOfOthers)
{
    const auto model = make_tree({}, R"({"format":1,"root":{
        "D":{"type":"decimal","access":"readWrite","default":1,"ranges":[[0,2],[5,null]]},
        "S":{"type":"decimal","access":"readWrite","default":1,"ranges":[[1,null,2]]},
        "I":{"type":"long","access":"readWrite","default":-3,"ranges":[[-3,null,5]]},
        "A":{"type":"unsignedLong","access":"readWrite","default":1,"ranges":[[1,null,2]]},
        "B":{"type":"unsignedLong","access":"readWrite","default":1,"ranges":[[1,9223372036854775807]]},
        "E":{"type":"unsignedLong","access":"readWrite","default":"5","enum":["5",6,"18446744073709551615"]}}})");
    const std::map<std::string, std::pair<std::vector<std::string>, std::vector<std::string>>> known = {
        {"D", {{"0", "-0.0", "1.5", "2", "5.0", "1e300"}, {"-0.5", "2.5", "4.9", "-1e300"}}},
        {"S", {{"1", "3.0", "1e300"}, {"1.5", "2", "-1"}}},
        {"I", {{"-3", "2", "9223372036854775807"}, {"-8", "0", "9223372036854775806"}}},
        {"A",
         {{"3", "9223372036854775807", R"("18446744073709551615")"}, {"2", R"("18446744073709551614")", R"("-1")"}}},
        {"B", {{"1", "9223372036854775807"}, {"0", R"("9223372036854775808")"}}},
        {"E", {{"5", R"("5")", R"("6")", R"("18446744073709551615")"}, {"7", R"("18446744073709551614")"}}}};
    for (const auto &[name, values] : known) {
        for (const std::string &fits : values.first)
            EXPECT_FALSE(set(model.get(), (R"([{"Name":")" + name + R"(","Value":)" + fits + "}]").c_str()))
                << name << " " << fits;
        for (const std::string &wrong : values.second)
            EXPECT_TRUE(set(model.get(), (R"([{"Name":")" + name + R"(","Value":)" + wrong + "}]").c_str()))
                << name << " " << wrong;
    }
    EXPECT_EQ(said(model.get(), "D", "2.5"), "must be 0 to 2 or 5 and more");
}

TEST(VeldTree, AListEndsWithAnItemToo)
{
    const auto model = make_tree({}, R"({"format":1,"root":{
        "N":{"type":"string","access":"readWrite","default":"1","itemRanges":[[1,3]]},
        "L":{"type":"string","access":"readWrite","default":"a","itemLengths":[[1,2]]},
        "B":{"type":"string","access":"readWrite","default":"","itemRanges":[[1,null,2]]},
        "C":{"type":"string","access":"readWrite","default":"","maxCount":2,"itemLengths":[[0,2]]}}})");
    EXPECT_FALSE(set(model.get(), R"([{"Name":"N","Value":"1, 3"},{"Name":"L","Value":"a,b "},
                                      {"Name":"B","Value":"1,18446744073709551615"},
                                      {"Name":"C","Value":"a,"}])"));
    EXPECT_EQ(said(model.get(), "B", R"("18446744073709551614")"), "must have items of 1 and more in steps of 2");
    for (const char *wrong : {R"("1,")", R"(",1")", R"("1,,2")", R"(" ")", R"("1,4")"})
        EXPECT_EQ(said(model.get(), "N", wrong), "must have items of 1 to 3") << wrong;
    EXPECT_EQ(said(model.get(), "L", R"("a,")"), "must have items of 1 to 2 characters");
    EXPECT_EQ(said(model.get(), "C", R"("a,,")"), "must have at most 2 items");
}

TEST(VeldTree, PathsLeadToWhatTheirKindSays)
{
    const auto path = [](const char *kind) {
        return std::string(R"({"type":"path","access":"readWrite","default":"","targets":[],"targetType":")") + kind +
               "\"}";
    };
    const std::string document = R"({"format":1,"root":{"R":)" + path("row") + R"(,"T":)" + path("table") + R"(,"S":)" +
                                 path("single") + R"(,"P":)" + path("parameter") + R"(,"O":)" + path("object") +
                                 R"(,"Table":{"multi":true,"template":{},"instances":{"1":{}}},"Single":{}}})";
    const auto model = make_tree({}, document.c_str());
    const std::map<std::string, std::string> fitting = {
        {"R", "Table.1."}, {"T", "Table."}, {"S", "Single."}, {"P", "R"}, {"O", "Table. Table.1. Single."}};
    for (const auto &[name, those] : fitting) {
        for (const char *to : {"Table.1.", "Table.", "Single.", "R"}) {
            const bool fits = (" " + those + " ").find(" " + std::string(to) + " ") != std::string::npos;
            const fault problem = set(model.get(), (R"([{"Name":")" + name + R"(","Value":")" + to + "\"}]").c_str());
            EXPECT_EQ(!problem, fits) << name << " to " << to << ": " << problem.data;
        }
    }
}

TEST(VeldTree, AnInstanceThatIsNotSaidBindsNobody)
{
    // Of which instance of Other the value is to be one, nothing says; of the own one it is said.
    const auto model = make_tree({}, R"({"format":1,"root":{
        "Other":{"multi":true,"instances":{"1":{}},"template":{"children":{"All":{"type":"string","default":"a,b"}}}},
        "T":{"multi":true,"instances":{"1":{}},"template":{"children":{
            "All":{"type":"string","default":"a,b"},
            "Free":{"type":"string","access":"readWrite","default":"","valuesOf":"Other.{i}.All"},
            "Own":{"type":"string","access":"readWrite","default":"","valuesOf":"T.{i}.All"}}}}}})");
    EXPECT_EQ(said(model.get(), "T.1.Own", "\"c\""), "must be among what T.1.All lists");
    EXPECT_FALSE(set(model.get(), R"([{"Name":"T.1.Free","Value":"c"},{"Name":"T.1.Own","Value":"b"}])"));
}

TEST(VeldTree, ParametersBeginWithTheirFactoryValues)
{
    const auto model =
        make_tree({}, R"({"format":1,"root":{"P":{"type":"int","access":"readWrite","default":1,"value":2},
        "T":{"multi":true,"instances":{"1":{}},"template":{"children":{"P":{"type":"int","default":1,"value":3}}}}}})");
    EXPECT_EQ(value_at(model.get(), "P"), "2");
    EXPECT_EQ(value_at(model.get(), "T.1.P"), "3");
    EXPECT_EQ(text_of(configuration_of(model.get())), R"({"veld-config":1,"config":{}})");
    ASSERT_FALSE(set(model.get(), R"([{"Name":"P","Value":1}])"));
    EXPECT_EQ(value_at(model.get(), "P"), "1");
    model->reset();
    EXPECT_EQ(value_at(model.get(), "P"), "2");
}

TEST(VeldTree, ATablesOwnParametersAreSaved)
{
    const auto model = make_tree({}, R"({"format":1,"root":{"T":{"multi":true,"template":{},
        "own":{"Mode":{"type":"string","access":"readWrite","default":"a","enum":["a","b"]}}}}})");
    ASSERT_FALSE(set(model.get(), R"([{"Name":"T.Mode","Value":"b"}])"));
    const json_ref saved = configuration_of(model.get());
    EXPECT_EQ(text_of(json_ref::share(saved.get())), R"({"veld-config":1,"config":{"T":{"Mode":"b"}}})");
    model->reset();
    std::string error;
    ASSERT_TRUE(configuration_restore(model.get(), saved.get(), &error)) << error;
    EXPECT_EQ(value_at(model.get(), "T.Mode"), "\"b\"");
    json_ref whole;
    const json_ref wrong = json(R"({"veld-config":1,"config":{"T":{"Mode":"c"}}})");
    EXPECT_FALSE(configuration_check(model.get(), wrong.get(), &whole, &error));
    EXPECT_EQ(error, R"(T.Mode: must be one of "a", "b")");
}

TEST(VeldTree, AConfigurationGivesNoTwoInstancesTheSameKey)
{
    const auto model = make_tree({}, R"({"format":1,"root":{"T":{"multi":true,"access":"readWrite",
        "keys":[{"parameters":["A","B"],"enable":"On"}],"template":{"children":{
            "On":{"type":"boolean","access":"readWrite","default":true},
            "A":{"type":"int","access":"readWrite","default":0},"B":{"type":"int","access":"readWrite","default":0}}}}}})");
    const auto problem = [&](const std::string &first, const std::string &second) {
        std::string error;
        json_ref whole;
        const std::string text = R"({"veld-config":1,"config":{"T":{"instances":{"1":)" + first + R"(,"2":)" + second;
        configuration_check(model.get(), json((text + "}}}}").c_str()).get(), &whole, &error);
        return error;
    };
    EXPECT_EQ(problem(R"({"A":1,"B":2})", R"({"A":1,"B":2})"),
              "T.1.A: would give the instance the key (A, B) of instance 2");
    EXPECT_EQ(problem(R"({"A":1,"B":2})", R"({"A":1,"B":3})"), "");
    EXPECT_EQ(problem(R"({"A":1,"B":2})", R"({"A":1,"B":2,"On":false})"), "");
    EXPECT_EQ(problem("{}", "{}"), "");
}

/// A model with a key of two parameters, and these factory instances.
std::string keyed_model(const char *instances)
{
    return std::string(
               R"({"format":1,"root":{"T":{"multi":true,"keys":[{"parameters":["A","B"]}],"template":{"children":{
        "A":{"type":"int","access":"readWrite","default":0},"B":{"type":"int","access":"readWrite","default":0}}},
        "instances":)") +
           instances + "}}}";
}

TEST(VeldTree, NothingElseGivesTwoInstancesTheSameKey)
{
    std::string error;
    const json_ref equal = json(keyed_model(R"({"1":{"A":1,"B":2},"2":{"B":2,"A":1}})").c_str());
    EXPECT_FALSE(document_tree(equal.get(), nullptr, &error));
    EXPECT_EQ(error, "T.1.A: would give the instance the key (A, B) of instance 2");

    const auto model = make_tree({}, keyed_model(R"({"1":{"A":1,"B":2},"2":{"A":1,"B":3}})").c_str());
    value_change done;
    EXPECT_EQ(value_put(model.get(), "T.2.B", json(R"(2)").get(), &done),
              "would give the instance the key (A, B) of instance 1");
    EXPECT_EQ(value_put(model.get(), "T.2.B", json("4").get(), &done), "");

    // Of several values what counts is what they come to.
    given_values given;
    for (const char *one : {"T.1.B=4", "T.2.A=5"})
        ASSERT_TRUE(given.add(one, &error)) << error;
    EXPECT_TRUE(given.apply(model.get(), &error)) << error;
    ASSERT_TRUE(given.add("T.2.A=1", &error)) << error;
    EXPECT_FALSE(given.apply(model.get(), &error));
    EXPECT_EQ(error, "T.1.B: would give the instance the key (A, B) of instance 2");
}

TEST(VeldTree, AConfigurationGivesTheInstancesOfATableOnce)
{
    const auto model = make_tree();
    const json_ref twice = json(R"({"veld-config":1,"config":{"Device.Host":{"instances":{"7":{"Alias":"a"}}},
                                    "Device":{"Host":{"instances":{"8":{"Alias":"b"}}}}}})");
    std::string error;
    json_ref whole;
    EXPECT_FALSE(configuration_check(model.get(), twice.get(), &whole, &error));
    EXPECT_EQ(error, "Device.Host.: its instances are given twice");
}

TEST(VeldTree, AConfigurationKeepsTheUniqueValuesThatInstancesBeganWith)
{
    const auto model = make_tree({}, R"({"format":1,"root":{"T":{"multi":true,"access":"readWrite","template":
        {"access":"readWrite","children":{"Id":{"type":"string","default":"id","unique":true}}}}}})");
    for (const char *value : {R"("id")", R"("id-2")", R"("id-3")"})
        EXPECT_EQ(value_of_new(model.get(), "Id"), value);
    node *table = nullptr;
    uint32_t number = 0;
    ASSERT_FALSE(change_delete(model.get(), role::administrator, "T.1", &table, &number));
    const json_ref saved = configuration_of(model.get());
    std::string error;
    json_ref whole;
    EXPECT_TRUE(configuration_check(model.get(), saved.get(), &whole, &error)) << error;
    model->reset();
    ASSERT_TRUE(configuration_restore(model.get(), saved.get(), &error)) << error;
    EXPECT_EQ(value_at(model.get(), "T.2.Id") + value_at(model.get(), "T.3.Id"), R"("id-2""id-3")");
    // Those that say nothing of it get one.
    const json_ref bare = json(R"({"veld-config":1,"config":{"T":{"instances":{"4":{},"5":{}}}}})");
    model->reset();
    ASSERT_TRUE(configuration_restore(model.get(), bare.get(), &error)) << error;
    EXPECT_EQ(value_at(model.get(), "T.4.Id") + value_at(model.get(), "T.5.Id"), R"("id""id-5")");
}

TEST(VeldTree, NoTableIsTooSmallToBePopulatedThatMayHoldMoreThanAWordCounts)
{
    const auto model = make_tree({}, R"({"format":1,"root":{"T":{"multi":true,"maxCount":4294967296,"template":{
        "children":{"A":{"type":"int","default":0}}}}}})");
    populate(model.get(), 2, 0);
    EXPECT_EQ(numbers(model.get(), "T"), (std::vector<uint32_t>{1, 2}));
}

TEST(VeldTree, AnOrderNamesInstancesByTheirNumbersAlone)
{
    const auto model = make_tree();
    const auto problem = [&](const std::string &first) {
        std::string error;
        json_ref whole;
        const std::string text = R"({"veld-config":1,"config":{"Device":{"Search":{"order":[)" + first + ",2,3]}}}}";
        configuration_check(model.get(), json(text.c_str()).get(), &whole, &error);
        return error;
    };
    EXPECT_EQ(problem("1"), "");
    for (const char *number : {"4294967297", "-4294967295", "0", "\"1\"", "2"})
        EXPECT_EQ(problem(number), "Device.Search.: \"order\" does not name every instance once") << number;
}

TEST(VeldTree, TenThousandInstancesAreNoQuadraticWork)
{
    const auto model = make_tree();
    populate(model.get(), 10000, 1);
    EXPECT_EQ(value_at(model.get(), "Device.HostCount"), "10000");
    EXPECT_EQ(value_at(model.get(), "Device.Host.10000.Address.max_instance"), "1");
}

TEST(VeldTree, NewInstancesComeWithTheInstancesOfTheirTemplate)
{
    const auto model = make_tree({}, R"json({"format":1,"root":{
        "T":{"multi":true,"access":"readWrite","instances":{"1":{}},"template":{"children":{
            "Queue":{"multi":true,"instances":{"1":"first","2":"second"},
                     "template":{"type":"string","default":"","access":"readWrite"}}}}}}})json");
    EXPECT_EQ(value_at(model.get(), "T.1.Queue.2"), "\"second\"");
    model->add(model->find("T").at, 9);
    EXPECT_EQ(value_at(model.get(), "T.2.Queue.1"), "\"first\"");
    EXPECT_EQ(text_of(configuration_of(model.get())), R"({"veld-config":1,"config":{}})");
}

TEST(VeldTree, LiveValuesFallBackToTheDefault)
{
    int asked = 0;
    live_source live;
    live.value = [&asked](std::string_view provider) -> json_t * {
        EXPECT_EQ(provider, "uptime");
        ++asked;
        return asked == 1 ? json_integer(42) : asked == 2 ? json_string("wrong") : nullptr;
    };
    const auto model = make_tree(live);
    EXPECT_EQ(value_at(model.get(), "Device.Uptime"), "42");
    EXPECT_EQ(value_at(model.get(), "Device.Uptime"), "7");
    EXPECT_EQ(value_at(model.get(), "Device.Uptime"), "7");
}

TEST(VeldTree, LiveRowsKeepTheirNumbersWhileTheyExist)
{
    json_ref rows = json(R"([{"#key":"a","name":"eth0","#rows:Address":[{"#key":"x","ip":"10.0.0.1"}]},
                             {"#key":"b","name":"eth1"}])");
    int asked = 0;
    live_source live;
    live.rows = [&](std::string_view provider) {
        EXPECT_EQ(provider, "links");
        ++asked;
        return json_incref(rows.get());
    };
    const auto model = make_tree(live);
    EXPECT_EQ(numbers(model.get(), "Device.Link"), (std::vector<uint32_t>{1, 2}));
    EXPECT_EQ(value_at(model.get(), "Device.Link.1.Name"), "\"eth0\"");
    EXPECT_EQ(value_at(model.get(), "Device.Link.1.Address.1.IP"), "\"10.0.0.1\"");
    EXPECT_FALSE(set(model.get(), R"([{"Name":"Device.Link.2.Note","Value":"mine"}])"));

    rows = json(
        R"([{"#key":"c","name":"eth2"},{"#key":"b","name":"renamed"},{"#key":"b","name":"twice"},{"name":"keyless"}])");
    EXPECT_EQ(numbers(model.get(), "Device.Link"), (std::vector<uint32_t>{2, 3}));
    EXPECT_EQ(value_at(model.get(), "Device.Link.2.Name"), "\"renamed\"");
    EXPECT_EQ(value_at(model.get(), "Device.Link.2.Note"), "\"mine\"");
    EXPECT_EQ(value_at(model.get(), "Device.Link.max_instance"), "3");

    // Within one request the machine is asked once.
    model->begin_request();
    const int before = asked;
    model->find("Device.Link.2.Name");
    model->find("Device.Link.3.Name");
    EXPECT_EQ(asked, before + 1);

    // What cannot be told now is as it was.
    rows.reset();
    EXPECT_EQ(numbers(model.get(), "Device.Link"), (std::vector<uint32_t>{2, 3}));
    rows = json("[]");
    EXPECT_EQ(numbers(model.get(), "Device.Link"), std::vector<uint32_t>{});
}

TEST(VeldTree, OfATableThatIsGoneTheMachineIsNotAskedAgain)
{
    int asked = 0;
    live_source live;
    live.rows = [&asked](std::string_view) {
        ++asked;
        return json_array();
    };
    const auto model = make_tree(live, R"({"format":1,"root":{"T":{"multi":true,"instances":{"1":{},"2":{}},
        "template":{"children":{"Link":{"multi":true,"live":"links","template":{}}}}}}})");
    numbers(model.get(), "T.1.Link");
    numbers(model.get(), "T.2.Link");
    EXPECT_EQ(asked, 2);
    model->refresh_known();
    EXPECT_EQ(asked, 4);
    model->remove(model->find("T.1.").at);
    for (const int expected : {5, 6}) {
        model->refresh_known();
        EXPECT_EQ(asked, expected);
    }
}

TEST(VeldTree, ASavedConfigurationRestoresExactlyWhatWasThere)
{
    const auto model = make_tree();
    ASSERT_FALSE(set(model.get(), R"([{"Name":"Device.Name","Value":"x"},{"Name":"Device.Host.1.Alias","Value":"two"},
                                      {"Name":"Device.Host.2.Alias","Value":"one"}])"));
    model->move(model->find("Device.Search.1").at, 0);
    model->find("Device.Search").at->changed = true;
    node *table = nullptr;
    uint32_t number = 0;
    ASSERT_FALSE(change_delete(model.get(), role::administrator, "Device.Search.3", &table, &number));
    const json_ref saved = configuration_of(model.get());
    model->reset();
    EXPECT_EQ(value_at(model.get(), "Device.Name"), "\"box\"");
    std::string error;
    ASSERT_TRUE(configuration_restore(model.get(), saved.get(), &error)) << error;
    EXPECT_EQ(text_of(configuration_of(model.get())), text_of(json_ref::share(saved.get())));
    EXPECT_EQ(numbers(model.get(), "Device.Search"), (std::vector<uint32_t>{1, 2}));
    EXPECT_EQ(value_at(model.get(), "Device.Host.1.Alias"), "\"two\"");
    EXPECT_EQ(set(model.get(), R"([{"Name":"Device.Host.1.Alias","Value":"one"}])").code, code::bad_value);
}

TEST(VeldTree, AnUntouchedTreeHasNothingToSave)
{
    const auto model = make_tree();
    EXPECT_EQ(text_of(configuration_of(model.get())), R"({"veld-config":1,"config":{}})");
}

} // namespace
