// What is written in a wrong way, in a model and in a configuration, is refused with its place.
#include "veld_core_small_model.h"

#include "veld/model/scheme.h"
#include "veld/state/configuration.h"

using namespace veld;
using namespace veld_test;

namespace
{

/// Why no model is made of these children of Device.
std::string refusal(const std::string &children)
{
    std::string error;
    const json_ref document = json((R"({"format":1,"root":{"Device":{"children":)" + children + "}}}").c_str());
    EXPECT_FALSE(document_tree(document.get(), nullptr, &error)) << children;
    return error;
}

TEST(VeldDocuments, AMistakeInAModelIsRefusedWithItsPlace)
{
    const std::pair<const char *, const char *> mistakes[] = {
        {R"({"P":{"type":"int","default":1,"unique":1}})", R"(Device.P: "unique" must be true or false)"},
        {R"({"P":{"type":"int","default":1,"description":1,"live":2}})", R"(Device.P: "live" must be a text)"},
        {R"({"P":{"type":5,"default":1}})", R"(Device.P: "type" must be a text)"},
        {R"({"P":{"type":"string","default":"","regex":1}})", R"(Device.P: "regex" must be a text)"},
        {R"({"P":{"type":"string","default":"","entries":1}})", R"(Device.P: "entries" must be a text)"},
        {R"({"P":{"type":"string","default":"","minLength":"1"}})", R"(Device.P: "minLength" must be an integer)"},
        {R"({"P":{"type":"int","default":1,"read":1}})", R"(Device.P: "read" must be a text)"},
        {R"({"P":{"type":"int","default":1,"write":"all"}})",
         R"(Device.P: "write" must be "public", "user" or "admin")"},
        {R"({"P":{"type":"int","default":1,"access":"write"}})",
         R"(Device.P: "access" must be "readOnly" or "readWrite")"},
        {R"({"P":{"type":"int","default":1,"enum":1}})", R"(Device.P: "enum" must be an array)"},
        {R"({"P":{"type":"int","default":1,"value":"1"}})", R"(Device.P: "value" is no int)"},
        {R"({"P":{"type":"int","default":1,"access":"readWrite","handler_set":"password"}})",
         "Device.P: a password must be a text"},
        {R"({"P":{"type":"string","default":"a,b","maxCount":1}})", R"(Device.P: "default" must have at most 1 items)"},
        {R"({"P":{"type":"string","default":"","valuesOf":"Device.T."}})",
         R"(Device.P: "valuesOf" must be the path of a parameter)"},
        {R"({"P":{"type":"string","default":"","itemsOf":1}})",
         R"(Device.P: "itemsOf" must be the path of a parameter)"},
        {R"({"P":{"type":"string","default":"","nullValue":""}})",
         R"(Device.P: "nullValue" without "valuesOf" or "itemsOf")"},
        {R"({"P":{"type":"string","default":"","valuesOf":"Device.Q","nullValue":1}})",
         R"(Device.P: "nullValue" must be a text)"},
        {R"({"P":{"type":"int","default":1,"valuesOf":"Device.Q"}})", R"(Device.P: "valuesOf" belongs to a text)"},
        {R"({"P":{"type":"int","default":1,"targets":["Device."]}})",
         R"(Device.P: "targets" belongs to a path, or to a list of paths)"},
        {R"({"P":{"type":"path","default":"","targetType":"row"}})", R"(Device.P: "targetType" without "targets")"},
        {R"({"N":{"type":"int","default":0,"entries":"T"}})", R"(Device.N: "entries" names no table beside it)"},
        {R"({"N":{"type":"string","default":"","entries":"T"},"T":{"multi":true,"template":{}}})",
         R"(Device.N: "entries" belongs to an integer)"},
        {R"({"O":{"children":{"P":{"type":"int","default":0,"entries":"T"}}}})",
         R"(Device.O.P: "entries" names no table beside it)"},
        {R"({"T":{"multi":true,"template":{"children":{"N":{"type":"int","default":0,"entries":"U"}}}}})",
         R"(Device.T.{i}.N: "entries" names no table beside it)"},
        {R"({"T":{"multi":true,"template":{},"own":[]}})", R"(Device.T.: "own" must hold parameters)"},
        {R"({"T":{"multi":true,"template":{},"own":{"O":{}}}})", R"(Device.T.: "own" must hold parameters)"},
        {R"({"T":{"multi":true,"template":{},"own":{"P":{"type":"int"}}}})",
         R"(Device.T.P: a parameter must have a "default")"},
        {R"({"T":{"multi":true,"template":{},"own":{"max_instance":{"type":"int","default":5}}}})",
         R"(Device.T.: "max_instance" is not written down)"},
        {R"({"T":{"multi":true,"ordered":true,"template":{},"own":{"order":{"type":"int","default":5}}}})",
         R"(Device.T.: "order" is not written down)"},
        {R"({"T":{"multi":true,"template":{},"instances":[1]}})", R"(Device.T.: "instances" must be an object)"},
        {R"({"T":{"multi":true,"template":{},"minCount":100000,"maxCount":100000}})",
         R"(Device.T.: a table has at most 4096 instances from the beginning)"},
        {R"({"T":{"multi":true,"template":{},"order":1}})", R"(Device.T.: "order" must be an array)"},
        {R"({"T":{"multi":true,"template":{},"keys":{}}})",
         R"(Device.T.: "keys" must be an array, of a table of objects)"},
        {R"({"T":{"multi":true,"template":{},"keys":[{}]}})",
         R"(Device.T.: "keys" must be an array of {"parameters": [...]}, perhaps with "enable")"},
        {R"({"M":{"type":"method","input":[]}})", R"(Device.M: "input" must be an object of arguments)"},
        {R"({"M":{"type":"method","input":{"A":{"type":"method"}}}})", R"(Device.M.A: a method cannot be an argument)"},
        {R"({"M":{"type":"method","input":{"O":{}},"output":{"O":{"children":{"A":{"type":"int"}}}}}})",
         R"(Device.M.O.A: a parameter must have a "default")"},
        {R"({"M":{"type":"method","input":{"A":{"type":"int","default":0}},"output":{"A":{"type":"int","default":0}}}})",
         R"(Device.M.A: named twice)"},
        {R"({"O":{"access":"write"}})", R"(Device.O.: "access" must be "readOnly" or "readWrite")"},
        {R"({"T":{"multi":true,"minCount":"1","template":{}}})", R"(Device.T.: "minCount" must be an integer)"},
        {R"({"T":{"multi":true,"template":{"children":{"P":{"type":"int","default":0}}},"instances":{"1":{"P":"x"}}}})",
         "Device.T.1.P: the value is no int"},
        {R"({"O":{"events":1}})", R"(Device.O.: "events" must be an object)"},
        {R"({"O":{"events":{"1":{}}}})", R"(Device.O.1!: no good event)"},
        {R"({"O":{"events":{"E":{"arguments":1}}}})", R"(Device.O.E!: "arguments" must be an object of arguments)"},
        {R"({"O":{"children":1}})", R"(Device.O.: "children" must be an object)"},
        {R"({"O":1})", R"(Device.O: a node must be an object)"},
    };
    for (const auto &[children, expected] : mistakes)
        EXPECT_EQ(refusal(children), expected) << children;
    const std::string longest(128, 'n');
    EXPECT_EQ(refusal("{\"" + longest + "n\":{}}"), "Device." + longest + "n: not a good name for a node");
    std::string error;
    EXPECT_TRUE(scheme_load(json(("{\"format\":1,\"root\":{\"" + longest + "\":{}}}").c_str()).get(), &error)) << error;
}

TEST(VeldDocuments, ModelsNestSoDeep)
{
    const auto nested = [](int levels) {
        std::string text;
        for (int i = 0; i < levels; ++i)
            text += R"({"children":{"O":)";
        return R"({"format":1,"root":{"O":)" + text + "{}" + std::string(static_cast<size_t>(levels) * 2, '}') + "}}";
    };
    std::string error;
    EXPECT_TRUE(scheme_load(json(nested(scheme_deepest - 1).c_str()).get(), &error)) << error;
    EXPECT_FALSE(scheme_load(json(nested(scheme_deepest).c_str()).get(), &error));
    EXPECT_TRUE(error.ends_with("O.O: nested too deep")) << error;
}

/// What is said of a configuration of the small model, as one that was saved; as one from outside behind " | ".
std::string refusals(const char *config)
{
    const auto model = make_tree();
    const std::string text = std::string(R"({"veld-config":1,"config":{"Device":)") + config + "}}";
    const json_ref document = json(text.c_str());
    std::string saved;
    const bool restored = configuration_restore(model.get(), document.get(), &saved);
    EXPECT_EQ(restored, saved.empty());
    std::string given;
    json_ref whole;
    const bool checked = configuration_check(model.get(), document.get(), &whole, &given);
    EXPECT_EQ(checked, given.empty());
    return saved + " | " + given;
}

TEST(VeldDocuments, OfASavedConfigurationWhatTheModelDoesNotTakeIsLeftOut)
{
    EXPECT_EQ(refusals(R"({"Name":"all right","Level":3})"), " | Device.Name: must have at most 8 characters");
    EXPECT_EQ(refusals(R"({"Uptime":3})"), " | Device.Uptime: has no value of its own");
    EXPECT_EQ(refusals(R"({"HostCount":3})"), " | Device.HostCount: has no value of its own");
    EXPECT_EQ(refusals(R"({"Admin.Shown":3})"), " | Device.Admin.Shown: is not part of the configuration");
    EXPECT_EQ(refusals(R"({"Nothing":3})"), R"( | Device.: has no "Nothing")");
    EXPECT_EQ(refusals(R"({"Name.Below":3})"), R"( | Device.: has no "Name.Below")");
    EXPECT_EQ(refusals(R"({"Ping":{}})"), " | Device.Ping: is a method");
    EXPECT_EQ(refusals(R"({"Host":{"Other":1}})"), R"( | Device.Host.: has no "Other")");
}

TEST(VeldDocuments, ADamagedConfigurationIsRefusedWithItsPlace)
{
    const auto both = [](const std::string &text) { return text + " | " + text; };
    EXPECT_EQ(refusals("1"), both("Device.: must be an object"));
    EXPECT_EQ(refusals(R"({"Host":1})"), both("Device.Host.: must be an object"));
    EXPECT_EQ(refusals(R"({"Host":{"instances":1}})"), both(R"(Device.Host.: bad "instances")"));
    EXPECT_EQ(refusals(R"({"Link":{"instances":{}}})"), both(R"(Device.Link.: bad "instances")"));
    EXPECT_EQ(refusals(R"({"Host":{"instances":{"01":{}}}})"), both(R"(Device.Host.: "01" is no instance number)"));
    EXPECT_EQ(refusals(R"({"Host":{"instances":{"1":2}}})"), both("Device.Host.1.: must be an object"));
    EXPECT_EQ(refusals(R"({"Host":{"order":[1,2]}})"), both(R"(Device.Host.: a bad "order")"));
    EXPECT_EQ(refusals(R"({"Search":{"order":1}})"), both(R"(Device.Search.: a bad "order")"));
    for (const char *order : {"[1,2,2]", "[1,2]", "[4294967298,3,1]", R"(["2",3,1])"})
        EXPECT_EQ(refusals((R"({"Search":{"order":)" + std::string(order) + "}}").c_str()),
                  both(R"(Device.Search.: "order" does not name every instance once)"));
}

TEST(VeldDocuments, OfEqualUniqueValuesOneIsTakenFromASavedConfiguration)
{
    const char *const saved = R"({"Host":{"instances":{"1":{"Alias":"a","Id":2},"2":{"Alias":"a","Id":2},
        "3":{"Alias":"a","Id":2}}}})";
    EXPECT_EQ(refusals(saved), " | Device.Host.1.Id: the value is already used by instance 2");
    const auto model = make_tree();
    std::string error;
    ASSERT_TRUE(configuration_restore(
        model.get(), json((R"({"veld-config":1,"config":{"Device":)" + std::string(saved) + "}}").c_str()).get(),
        &error))
        << error;
    // What is left out begins as it does in the factory, where that is free.
    const std::pair<const char *, const char *> expected[] = {
        {"1.Alias", "\"a\""}, {"1.Id", "1"}, {"2.Alias", "\"two\""}, {"2.Id", "2"}, {"3.Alias", "\"\""}, {"3.Id", "3"}};
    for (const auto &[name, value] : expected)
        EXPECT_EQ(value_at(model.get(), ("Device.Host." + std::string(name)).c_str()), value) << name;
    const json_ref again = configuration_of(model.get());
    json_ref whole;
    EXPECT_TRUE(configuration_check(model.get(), again.get(), &whole, &error)) << error;
}

TEST(VeldDocuments, AnInstanceThatTheFactoryHasNoMoreStaysInASavedConfiguration)
{
    std::string text = small_model;
    const std::string first = R"("1": {"Alias": "one", "Id": 1}, )";
    text.erase(text.find(first), first.size());
    const auto model = make_tree({}, text.c_str());
    std::string error;
    EXPECT_TRUE(configuration_restore(
        model.get(),
        json(R"({"veld-config":1,"config":{"Device":{"Host":{"instances":{"1":{"Id":7},"2":{}}}}}})").get(), &error))
        << error;
    EXPECT_EQ(value_at(model.get(), "Device.Host.1.Id"), "7");
    EXPECT_EQ(value_at(model.get(), "Device.Host.2.Alias"), "\"two\"");
    EXPECT_EQ(model->listed(model->find("Device.Host").at).size(), 2U);
}

} // namespace
