#include "utils/json_util.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "base/json_ref.h"
#include "platform/ve_out.h"
#include "utils/tree_print.h"

namespace
{

json_ref parse(const char *text)
{
    return json_ref(json_loads(text, JSON_DECODE_ANY, nullptr));
}

std::string converted(const char *text, int type)
{
    const json_ref value{json_load_uservalue(text, type)};
    return value ? json_compact(value.get()) : "none";
}

void grow(drawn_tree *tree, drawn_tree::node node, json_piece described)
{
    std::string room;
    if (described.member("multi"))
        tree->set_multi(node);
    if (const json_piece value = described.member("value"))
        tree->set_value(node, value);
    for (json_walk children(described.member("content")); children.next();)
        grow(tree, tree->child(node, *children.value().member("name").string(&room)), children.value());
}

std::string drawn(const char *text)
{
    const json_piece described{text};
    std::string room;
    testing::internal::CaptureStdout();
    ve_out_reopened();
    drawn_tree tree(*described.member("name").string(&room));
    grow(&tree, drawn_tree::root, described);
    tree.draw();
    ve_out_flush();
    return testing::internal::GetCapturedStdout();
}

} // namespace

TEST(JsonArraySort, IsByteOrderAndStable)
{
    const json_ref array = parse(R"(["b", "10", "a", "2", "B", "a", ""])");
    json_array_sort(array.get());
    EXPECT_EQ(json_compact(array.get()), R"(["", "10", "2", "B", "a", "a", "b"])");
}

TEST(JsonArraySort, AgreesWithAPlainSortWhateverTheTextsShare)
{
    const std::string beginnings[] = {"", "a", "Interface", "InterfaceInterface", std::string(100, 'z')};
    const std::string letters[] = {"a", "b", "A", ".", "1", "\u00e9", "\U0001F600", "\x01"};
    std::mt19937 chance(1);
    for (const size_t count : {0U, 1U, 2U, 16U, 17U, 100U, 3000U}) {
        const json_ref array{json_array()};
        for (size_t i = 0; i < count; ++i) {
            std::string text = beginnings[chance() % std::size(beginnings)];
            for (size_t more = chance() % 12; more > 0; --more)
                text += letters[chance() % (i % 2 == 0 ? 2 : std::size(letters))];
            json_array_append_new(array.get(), json_string(text.c_str()));
        }
        std::vector<json_t *> expected;
        for (size_t i = 0; i < count; ++i)
            expected.push_back(json_array_get(array.get(), i));
        std::stable_sort(expected.begin(), expected.end(), [](const json_t *a, const json_t *b) {
            return strcmp(json_string_value(a), json_string_value(b)) < 0;
        });
        json_array_sort(array.get());
        ASSERT_EQ(json_array_size(array.get()), count);
        for (size_t i = 0; i < count; ++i)
            ASSERT_EQ(json_array_get(array.get(), i), expected[i]) << i << " of " << count;
    }
}

TEST(JsonArraySort, TakesLongTextsThatAreTheSame)
{
    const json_ref array{json_array()};
    for (int i = 40; i > 0; --i)
        json_array_append_new(array.get(),
                              json_string((std::string(100000, 'x') + std::to_string(i % 20 + 10)).c_str()));
    json_array_sort(array.get());
    for (size_t i = 1; i < 40; ++i)
        EXPECT_LE(std::string_view(json_string_value(json_array_get(array.get(), i - 1))),
                  std::string_view(json_string_value(json_array_get(array.get(), i))));
}

TEST(JsonArraySort, IsNotQuadratic)
{
    const json_ref array{json_array()};
    for (int i = 300000; i > 0; --i)
        json_array_append_new(array.get(), json_sprintf("%d", i));
    json_array_sort(array.get());
    EXPECT_STREQ(json_string_value(json_array_get(array.get(), 1)), "10");
}

TEST(LoadUservalue, FitsTheTypeOrFails)
{
    EXPECT_EQ(converted("TRUE", JSON_TRUE), "true");
    EXPECT_EQ(converted("False", JSON_FALSE), "false");
    EXPECT_EQ(converted("trueX", JSON_TRUE), "none");
    EXPECT_EQ(converted("yes", JSON_TRUE), "none");
    EXPECT_EQ(converted("", JSON_TRUE), "none");
    EXPECT_EQ(converted("12", JSON_INTEGER), "12");
    EXPECT_EQ(converted("4294967296", JSON_INTEGER), "none");
    EXPECT_EQ(converted("1x", JSON_INTEGER), "none");
    EXPECT_EQ(converted("1.5", JSON_REAL), "1.5");
    EXPECT_EQ(converted("nan", JSON_REAL), "none");
    EXPECT_EQ(converted("12", JSON_STRING), "\"12\"");
    EXPECT_EQ(converted("12", 7), "none");
    EXPECT_EQ(converted("12", JSON_ARRAY), "none");
}

TEST(DumpTree, DrawsBranchesAndAlignsValues)
{
    EXPECT_EQ(drawn(R"({"name": "root", "content": [
                        {"name": "b", "content": [{"name": "xx", "value": 1}, {"name": "y", "value": "t"}]},
                        {"name": "a", "value": true}]})"),
              "root\n"
              "├── a = true\n"
              "└── b\n"
              "    ├── xx = 1\n"
              "    └── y  = \"t\"\n");
    EXPECT_EQ(drawn(R"({"name": "r", "content": [{"name": "a", "content": [{"name": "b"}]}, {"name": "c"}]})"),
              "r\n"
              "├── a\n"
              "│   └── b\n"
              "└── c\n");
    EXPECT_EQ(drawn(R"({"name": "leaf", "value": {"k": [1, null]}})"), "leaf = {\"k\": [1, null]}\n");
}

TEST(DumpTree, InstancesStandInNumericOrder)
{
    EXPECT_EQ(drawn(R"({"name": "t", "multi": true, "content": [{"name": "10"}, {"name": "2"}, {"name": "1"}]})"),
              "t\n├── 1\n├── 2\n└── 10\n");
}

TEST(DumpTree, ChildrenAreFoundAgainHoweverManyThereAre)
{
    drawn_tree tree("t");
    std::vector<drawn_tree::node> made;
    for (int i = 0; i < 20000; ++i)
        made.push_back(tree.child(i % 3 == 0 ? drawn_tree::root : made[i / 2], std::to_string(i % 1000)));
    for (int i = 0; i < 20000; ++i)
        ASSERT_EQ(tree.child(i % 3 == 0 ? drawn_tree::root : made[i / 2], std::to_string(i % 1000)), made[i]);
}

TEST(DumpTree, TakesTreesDeeperThanTheCallStack)
{
    drawn_tree tree("t");
    drawn_tree::node last = drawn_tree::root;
    for (int i = 0; i < 3000; ++i)
        last = tree.child(last, "x");
    testing::internal::CaptureStdout();
    ve_out_reopened();
    tree.draw();
    ve_out_flush();
    EXPECT_EQ(testing::internal::GetCapturedStdout().size(), 2U + 3000 * 12 + 4U * 3000 * 2999 / 2);
}
