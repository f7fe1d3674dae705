// Nodes made of what a daemon lists.
#include <gtest/gtest.h>

#include "cdpath_nodes.h"

namespace
{

std::string tree_of(const std::string &list, const char *base = "")
{
    return shown(node_of(list, base));
}

dm_type type_of(const std::string &attributes)
{
    const dm_attributes_ref made = dm_attributes_of(attributes);
    return made ? made->type : dm_type::object;
}

} // namespace

TEST(Attributes, TellTheType)
{
    EXPECT_EQ(type_of(R"({"type":"object"})"), dm_type::object);
    EXPECT_EQ(type_of(R"({"type":"method"})"), dm_type::method);
    EXPECT_EQ(type_of(R"({"type":"boolean"})"), dm_type::boolean);
    EXPECT_EQ(type_of(R"({"type":"path"})"), dm_type::path);
    EXPECT_EQ(type_of(R"({"type":"switch"})"), dm_type::toggle);
    for (const char *type : {"string", "int", "unsignedInt", "long", "unsignedLong", "decimal", "dateTime", "base64",
                             "hexBinary", "never heard of"})
        EXPECT_EQ(type_of(std::string(R"({"type":")") + type + "\"}"), dm_type::other) << type;
    for (const char *none : {"{}", R"({"type":5})", "[]", "7", "", "null"})
        EXPECT_EQ(type_of(none), dm_type::object) << none;
}

TEST(Attributes, FlagsHoldOnlyWhenTrue)
{
    const dm_attributes_ref made = dm_attributes_of(R"({"multi":true,"ordered":"true"})");
    EXPECT_TRUE(made->multi);
    EXPECT_FALSE(made->ordered);
}

TEST(Attributes, AreSharedByAllThatHaveThem)
{
    constexpr char text[] = R"({"type":"string","default":"shared"})";
    const dm_attributes_ref one = dm_attributes_of(text);
    EXPECT_EQ(dm_attributes_of(text), one);
    EXPECT_NE(dm_attributes_of(R"({"type":"string","default":"other"})"), one);
    dm_node node;
    EXPECT_EQ(node.description().get(), nullptr);
    node.attributes = one;
    EXPECT_STREQ(json_string_value(json_object_get(node.description().get(), "default")), "shared");
}

TEST(Level, FindsNamesAndSortsThem)
{
    for (const uint32_t count : {3U, 16U, 17U, 33U, 5000U}) {
        dm_level level;
        for (uint32_t i = count; i > 0; --i)
            EXPECT_EQ(level.append(std::to_string(i), nullptr), count - i);
        for (uint32_t i = count; i > 0; --i)
            ASSERT_EQ(level.find(std::to_string(i)), count - i);
        EXPECT_EQ(level.find("0"), dm_level::none);
        EXPECT_EQ(level.find(""), dm_level::none);
        ASSERT_EQ(level.sorted().size(), count);
        for (uint32_t i = 1; i < count; ++i)
            ASSERT_LT(level[level.sorted()[i - 1]].name, level[level.sorted()[i]].name);
    }
}

TEST(Builder, NamesAreRelativeToTheBase)
{
    const std::string list = R"([{"Name":"Device.A.","Attributes":{"type":"object"}},
        {"Name":"Device.A.B.","Attributes":{"type":"object"}},{"Name":"Device.A.C","Attributes":{"type":"int"}}])";
    EXPECT_EQ(tree_of(list, "Device.A."), "object(B:object C:int)");
    EXPECT_EQ(tree_of(list, "Device.A"), "object(B:object C:int)");
    for (const char *root : {"", "."})
        EXPECT_EQ(tree_of(list, root), "(Device:(A:object(B:object C:int)))");
}

TEST(Builder, NamesMayComeInAnyOrder)
{
    EXPECT_EQ(tree_of(R"([{"Name":"A.B.C"},{"Name":"D"},{"Name":"A.E"},{"Name":"A.","Attributes":{"type":"object"}},
                          {"Name":"A.B.F"},{"Name":"A.B.","Attributes":{"type":"method"}}])"),
              "(A:object(B:method(C: F:) E:) D:)");
}

TEST(Builder, WhatIsSaidLastOfANameHolds)
{
    EXPECT_EQ(
        tree_of(R"([{"Name":"A","Attributes":{"type":"int"}},{"Name":"B"},{"Name":"A","Attributes":{"type":"long"}},
                          {"Name":"","Attributes":{"type":"object"}}])"),
        "object(A:long B:)");
    EXPECT_EQ(tree_of(R"([{"Name":"A","Attributes":{"type":"int"}},{"Name":"A","Attributes":7}])"), "(A:)");
}

TEST(Builder, ATemplateSaysWhatEveryInstanceLooksLike)
{
    EXPECT_EQ(tree_of(R"([{"Name":"H.","Attributes":{"type":"object","multi":true},
                           "Template":[{"Name":"","Attributes":{"type":"object"}},{"Name":"N","Attributes":{"type":"int"}}]},
                          {"Name":"H.1."},{"Name":"H.1.N","Attributes":{"type":"int"}}])",
                      "H."),
              "object*<object(N:int)>(1:(N:int))");
    EXPECT_EQ(tree_of(R"([{"Name":"D.H.","Template":[{"Name":"N"}]},{"Name":"D.E"}])", "D"), "(H:<(N:)> E:)");
}

TEST(Builder, InstancesThatLookAlikeShareWhatTheyLookLike)
{
    dm_node table = node_of(R"([{"Name":"H.","Template":[{"Name":"N","Attributes":{"type":"int"}}]},
        {"Name":"H.1.N","Attributes":{"type":"int"}},{"Name":"H.2.N","Attributes":{"type":"int"}},
        {"Name":"H.3.N","Attributes":{"type":"long"}},{"Name":"H.4.N","Attributes":{"type":"long"}}])",
                            "H.");
    EXPECT_EQ(table.child("1")->level, table.pattern->level);
    EXPECT_EQ(table.child("2")->level, table.pattern->level);
    EXPECT_NE(table.child("3")->level, table.pattern->level);
    EXPECT_EQ(table.child("3")->level, table.child("4")->level);
    table.child("1")->child("N")->known = dm_known::refused;
    EXPECT_EQ(shown(table), "<(N:int)>(1:(N:intx) 2:(N:int) 3:(N:long) 4:(N:long))");
}

TEST(Builder, WhatDoesNotFitIsPassedOver)
{
    for (const char *name :
         {R"("Other.A")", R"("Device.AB")", R"("Device.A..B")", R"("Device.A.B..")", "7", "null", R"("Device.A..")",
          R"("Device.A.#attr")", R"("Device.A.#attr.type")", R"("Device.A.B\u0000C")"})
        EXPECT_EQ(tree_of(std::string(R"([{"Name":)") + name + "}]", "Device.A."), "") << name;
    for (const char *list : {"[1,null,[],{},\"x\"]", "null", R"({"Name":"Device.A"})"})
        EXPECT_EQ(tree_of(list, "Device."), "") << list;
}

TEST(Builder, EndlessNamesAndTemplatesDoNotExhaustTheStack)
{
    std::string name;
    for (int i = 0; i < 100000; ++i)
        name += "a.";
    EXPECT_EQ(tree_of("[{\"Name\":\"" + name + "\"}]"), "");
    name.resize(1000);
    std::string list = "[]";
    for (int i = 0; i < 900; ++i)
        list = R"([{"Name":")" + name + R"(","Template":)" + list + "}]";
    EXPECT_EQ(node_of(list).size(), 1U);
}

TEST(Builder, PathsAreFollowed)
{
    dm_node tree = node_of(R"([{"Name":"Device.X.Ping.Host","Attributes":{"type":"string"}}])");
    EXPECT_EQ(tree.find("Device.X.Ping.Host")->type(), dm_type::other);
    EXPECT_NE(tree.find("Device.X."), nullptr);
    for (const char *path : {"", ".", "Device.Y", "Device..X", "Device.X..", "Device.X.Ping.Host.#attr", "#attr"})
        EXPECT_EQ(tree.find(path), nullptr) << path;
}

TEST(Instances, ComeAndGo)
{
    dm_node table = node_of(R"([{"Name":"H.","Template":[{"Name":"","Attributes":{"type":"object"}},{"Name":"N"}]},
                                {"Name":"H.1.N"},{"Name":"H.2.N"},{"Name":"H.max_instance"}])",
                            "H.");
    table.change_instances({{5, {5, true}}});
    EXPECT_EQ(shown(table), "<object(N:)>(1:(N:) 2:(N:) max_instance:)") << "nobody has looked there";
    table.known = dm_known::known;
    table.child("7")->known = dm_known::refused;
    table.child("8")->known = dm_known::refused;
    table.change_instances({{2, {3, false}}, {4, {5, true}}, {7, {7, true}}});
    EXPECT_EQ(shown(table), "!<object(N:)>(1:(N:) max_instance: 4:object 5:object 7:object)");
    EXPECT_EQ(table.child("8")->known, dm_known::refused);
    EXPECT_EQ(table.child("2")->known, dm_known::assumed);
    table.become({}, dm_known::refused);
    table.change_instances({{1, {1, true}}});
    EXPECT_EQ(table.known, dm_known::unknown);
}

TEST(Instances, NobodyKnowsOfAreEachTheirOwn)
{
    dm_node table = node_of(R"([{"Name":"H.","Attributes":{"multi":true},
        "Template":[{"Name":"","Attributes":{"type":"object"}},{"Name":"N.","Attributes":{"type":"object"}}]}])",
                            "H.");
    EXPECT_EQ(table.child("0"), nullptr);
    EXPECT_EQ(table.child("x"), nullptr);
    EXPECT_EQ(table.peek("9"), nullptr);
    EXPECT_EQ(shown(*table.child("9")), "object~(N:object)");
    EXPECT_EQ(table.child("9"), table.child("9"));
    EXPECT_EQ(table.peek("9"), table.child("9").get());
    table.child("9")->child("N")->become({}, dm_known::refused);
    table.child("8")->become({}, dm_known::refused);
    EXPECT_EQ(shown(*table.child("9")), "object~(N:objectx)");
    EXPECT_EQ(shown(*table.child("8")), "objectx");
    EXPECT_EQ(shown(*table.child("7")), "object~(N:object)");
    EXPECT_EQ(shown(table), "?*<object(N:object)>");
}
