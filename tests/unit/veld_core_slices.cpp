// Questions that are answered in slices, while the model changes between them.
#include "veld_core_small_model.h"

#include "veld/model/change.h"
#include "veld/model/query.h"

using namespace veld;
using namespace veld_test;

namespace
{

constexpr size_t plenty = size_t{1} << 20;

std::string values_of(tree *model, const char *names)
{
    std::string text;
    model->begin_request();
    EXPECT_FALSE(query_values(model, role::administrator, json(names).get(), {&text, plenty}));
    return text;
}

// A question whose every slice is one step long; `between` is called before each but the first.
std::string sliced(tree *model, const std::unique_ptr<query> &asked, const std::function<void(int)> &between)
{
    std::string text;
    model->begin_request();
    model->begin_past();
    for (int slice = 0;; ++slice) {
        if (slice > 0)
            between(slice);
        if (!model->has_past())
            return "ended";
        model->look_back(true);
        const bool over = asked->proceed({&text, plenty}, [] { return true; });
        model->look_back(false);
        if (over)
            break;
    }
    EXPECT_FALSE(asked->problem());
    model->end_past();
    return text;
}

std::unique_ptr<query> ask_values(tree *model, const char *names)
{
    return query::of_values(model, role::administrator, json(names).get());
}

void set(tree *model, const char *name, const char *value)
{
    const json_ref list{json_pack("[{s:s,s:o}]", "Name", name, "Value", json(value).release())};
    std::vector<value_change> changes;
    model->begin_request();
    const fault problem = change_values(model, role::administrator, list.get(), &changes);
    EXPECT_FALSE(problem) << name << ": " << problem.message << problem.data;
}

void add(tree *model, const char *table, uint64_t order = 0)
{
    node *added = nullptr;
    model->begin_request();
    EXPECT_FALSE(change_add(model, role::administrator, table, order, &added));
}

void remove(tree *model, const char *instance)
{
    node *table = nullptr;
    uint32_t number = 0;
    model->begin_request();
    EXPECT_FALSE(change_delete(model, role::administrator, instance, &table, &number));
}

constexpr const char *everything = R"([".","Device.Host.2.","Device.Search.3","Device.HostCount","Device.Nothing"])";

} // namespace

TEST(VeldSlices, SayTheSameAsOneGo)
{
    const auto model = make_tree();
    const json_ref names = json(everything);
    const auto none = [](int) {};
    std::string whole;
    query_values(model.get(), role::user, names.get(), {&whole, plenty});
    EXPECT_EQ(sliced(model.get(), query::of_values(model.get(), role::user, names.get()), none), whole);
    for (const int64_t depth : {-1, 0, 1, 2, 9}) {
        whole.clear();
        query_attributes(model.get(), role::user, names.get(), depth, {&whole, plenty});
        EXPECT_EQ(sliced(model.get(), query::of_attributes(model.get(), role::user, names.get(), depth), none), whole);
    }
    for (const bool next_level : {false, true}) {
        for (const char *path : {".", "Device.", "Device.Host.1.", "Device.Ping", "Device.Name", "Device.Search."}) {
            whole.clear();
            query_names(model.get(), role::user, path, next_level, {&whole, plenty});
            EXPECT_EQ(sliced(model.get(), query::of_names(model.get(), role::user, path, next_level), none), whole);
        }
    }
}

// Whatever changes before whichever slice: the answer is that of the beginning, what is asked then is that of the end.
TEST(VeldSlices, TellOfTheMomentInWhichTheyBegan)
{
    const std::vector<std::pair<const char *, std::function<void(tree *)>>> happenings = {
        {"set", [](tree *model) { set(model, "Device.Name", R"("other")"); }},
        {"set twice",
         [](tree *model) {
             set(model, "Device.Host.2.Alias", R"("first")");
             set(model, "Device.Host.2.Alias", R"("second")");
         }},
        {"set the last", [](tree *model) { set(model, "Device.Admin.Hidden", "9"); }},
        {"add", [](tree *model) { add(model, "Device.Host."); }},
        {"add below", [](tree *model) { add(model, "Device.Host.1.Address."); }},
        {"delete", [](tree *model) { remove(model, "Device.Host.2."); }},
        {"delete and add",
         [](tree *model) {
             remove(model, "Device.Host.1.");
             add(model, "Device.Host.");
             set(model, "Device.Host.3.Alias", R"("three")");
             remove(model, "Device.Host.3.");
         }},
        {"order",
         [](tree *model) {
             add(model, "Device.Search.", 1);
             remove(model, "Device.Search.3");
             EXPECT_FALSE(change_order(model, role::administrator, "Device.Search.1", 1));
         }},
    };
    for (const auto &[what, happen] : happenings) {
        int slices = 0;
        std::string after;
        { // one tree at a time
            const auto model = make_tree();
            sliced(model.get(), ask_values(model.get(), everything), [&slices](int slice) { slices = slice; });
            happen(model.get());
            after = values_of(model.get(), everything);
        }
        ASSERT_GT(slices, 20);
        for (int when = 1; when <= slices; ++when) {
            const auto model = make_tree();
            const std::string before = values_of(model.get(), everything);
            const std::string told =
                sliced(model.get(), ask_values(model.get(), everything), [&, &happens = happen](int slice) {
                    if (slice == when) {
                        happens(model.get());
                        EXPECT_NE(values_of(model.get(), everything), before) << what << ": seen by others at once";
                    }
                });
            EXPECT_EQ(told, before) << what << " before slice " << when;
            EXPECT_EQ(values_of(model.get(), everything), after) << what;
        }
    }
}

// The machine's rows are told as they were when they were come upon; then their number and they go together.
TEST(VeldSlices, TellOfTheMachinesRowsAsTheyWereFirstComeUpon)
{
    int rows = 2;
    const auto tell = [&rows](std::string_view) {
        json_t *list = json_array();
        for (int i = 0; i < rows; ++i) {
            const std::string key = std::to_string(100 + i - rows); // others each time
            json_array_append_new(list, json_pack("{s:s,s:s,s:[{s:s,s:s}]}", "#key", key.c_str(), "name", key.c_str(),
                                                  "#rows:Address", "#key", "a", "ip", key.c_str()));
        }
        return list;
    };
    const char *asked = R"(["Device.Name","Device.Link.max_instance","Device.Link."])";
    int slices = 0;
    {
        const auto model = make_tree({nullptr, tell});
        sliced(model.get(), ask_values(model.get(), asked), [&slices](int slice) { slices = slice; });
    }
    for (int when = 1; when <= slices; ++when) {
        rows = 2;
        const auto model = make_tree({nullptr, tell});
        const std::string first = values_of(model.get(), asked);
        std::string others;
        const std::string told = sliced(model.get(), ask_values(model.get(), asked), [&](int slice) {
            if (slice == when) {
                rows = 5;
                others = values_of(model.get(), asked);
            }
        });
        EXPECT_NE(others, first);
        // The second slice comes upon the table.
        EXPECT_EQ(told, when > 1 ? first : others) << when;
    }
}

TEST(VeldSlices, EndBeforeWhatCannotBeKept)
{
    const auto model = make_tree();
    const std::string before = values_of(model.get(), everything);
    const auto asked = ask_values(model.get(), everything);
    std::string rest;
    int ended = 0;
    model->on_end_reader([&] {
        ++ended;
        EXPECT_EQ(value_at(model.get(), "Device.Name"), R"("set")");
        model->end_past();
    });
    EXPECT_EQ(sliced(model.get(), asked,
                     [&model](int slice) {
                         if (slice == 3)
                             set(model.get(), "Device.Name", R"("set")");
                         if (slice == 5)
                             model->reset();
                     }),
              "ended");
    EXPECT_EQ(ended, 1);
    EXPECT_EQ(values_of(model.get(), everything), before);
    model->reset(); // nobody reads
    EXPECT_EQ(ended, 1);
}
