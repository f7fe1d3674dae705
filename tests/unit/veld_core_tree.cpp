#include "veld_core_small_model.h"

#include "veld/model/change.h"
#include "veld/model/populate.h"
#include "veld/state/configuration.h"

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

TEST(VeldTree, GivesNewInstancesFreeUniqueNumbers)
{
    const auto model = make_tree();
    node *added = nullptr;
    ASSERT_FALSE(change_add(model.get(), role::administrator, "Device.Host.", 0, &added));
    EXPECT_EQ(value_at(model.get(), "Device.Host.3.Id"), "3");
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
