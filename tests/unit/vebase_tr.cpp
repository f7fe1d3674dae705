#include "platform/ve_tr.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/ve_json.h"

namespace
{

json_ref parse(const std::string &text)
{
    return json_ref(json_loads(text.c_str(), JSON_DECODE_ANY | JSON_ALLOW_NUL, nullptr));
}

std::string compact(const json_t *value)
{
    char *text = json_dumps(value, JSON_ENCODE_ANY | JSON_COMPACT);
    const std::string result = text != nullptr ? text : "null pointer";
    free(text);
    return result;
}

std::string tree_of(const std::string &list, const char *base)
{
    const json_ref tree(ve_tr_names_to_config(parse(list).get(), base));
    return compact(tree.get());
}

std::string values_of(const std::string &list, const char *base)
{
    const json_ref tree(ve_tr_namevalues_to_config(parse(list).get(), base));
    return compact(tree.get());
}

int type_of(const std::string &node)
{
    return ve_tr_dm_node_type_get(parse(node).get());
}

} // namespace

TEST(TrNode, TypeIsRecognised)
{
    EXPECT_EQ(type_of(R"({"#attr":{"type":"object"}})"), 0);
    EXPECT_EQ(type_of(R"({"#attr":{"type":"method"}})"), 1);
    EXPECT_EQ(type_of(R"({"#attr":{"type":"boolean"}})"), 4);
    EXPECT_EQ(type_of(R"({"#attr":{"type":"path"}})"), 24);
    EXPECT_EQ(type_of(R"({"#attr":{"type":"switch"}})"), 26);
    for (const char *type : {"string", "int", "unsignedInt", "long", "unsignedLong", "decimal", "dateTime", "base64",
                             "hexBinary", "never heard of"})
        EXPECT_GT(type_of(std::string(R"({"#attr":{"type":")") + type + "\"}}"), 26) << type;
}

TEST(TrNode, WithoutATypeItIsAnObject)
{
    for (const char *node : {"{}", R"({"#attr":{}})", R"({"#attr":{"type":5}})", R"({"#attr":"type"})", "[]", "7"})
        EXPECT_EQ(type_of(node), 0) << node;
    EXPECT_EQ(ve_tr_dm_node_type_get(nullptr), 0);
}

TEST(TrNode, AttributesCountBeforeTheirConversionToo)
{
    const json_ref node = parse(R"({"#info":{"Name":"A","Attributes":{"type":"path","multi":true,"default":7}}})");
    EXPECT_EQ(ve_tr_dm_node_type_get(node.get()), 24);
    EXPECT_TRUE(ve_tr_dm_node_is_multi(node.get()));
    EXPECT_EQ(json_integer_value(ve_tr_dm_node_default_get(node.get())), 7);
}

TEST(TrNode, FlagsHoldOnlyWhenTrue)
{
    const json_ref node = parse(R"({"#attr":{"multi":true,"ordered":"true"}})");
    EXPECT_TRUE(ve_tr_dm_node_is_multi(node.get()));
    EXPECT_FALSE(ve_tr_dm_node_is_ordered(node.get()));
    EXPECT_EQ(ve_tr_dm_node_default_get(node.get()), nullptr);
}

TEST(TrPath, InstanceNumbers)
{
    for (const char *text : {"1", "007", "4294967295"})
        EXPECT_TRUE(ve_tr_str_is_instance(text)) << text;
    for (const char *text : {"", "0", "4294967296", "99999999999999999999999", "+1", "-1", " 1", "1 ", "1x", "[1]"})
        EXPECT_FALSE(ve_tr_str_is_instance(text)) << text;
    EXPECT_FALSE(ve_tr_str_is_instance(nullptr));
}

TEST(TrPath, FullAndPartial)
{
    EXPECT_TRUE(ve_tr_path_is_full("Device.Time.Enable"));
    EXPECT_FALSE(ve_tr_path_is_full("Device.Time."));
    EXPECT_FALSE(ve_tr_path_is_full(""));
    EXPECT_FALSE(ve_tr_path_is_full(nullptr));
    EXPECT_TRUE(ve_tr_path_is_partial("Device.Time."));
    EXPECT_TRUE(ve_tr_path_is_partial("."));
    EXPECT_FALSE(ve_tr_path_is_partial("Device"));
    EXPECT_FALSE(ve_tr_path_is_partial(""));
}

TEST(TrTree, NamesAreRelativeToTheBase)
{
    const std::string list = R"([{"Name":"Device.A."},{"Name":"Device.A.B."},{"Name":"Device.A.C"}])";
    const std::string expected =
        R"({"#info":{"Name":"Device.A."},"B":{"#info":{"Name":"Device.A.B."}},"C":{"#info":{"Name":"Device.A.C"}}})";
    EXPECT_EQ(tree_of(list, "Device.A."), expected);
    EXPECT_EQ(tree_of(list, "Device.A"), expected);
}

TEST(TrTree, WithoutABaseNamesAreWhole)
{
    const std::string list = R"([{"Name":"Device."},{"Name":"Device.A.B"},{"Name":"V"}])";
    const std::string expected =
        R"({"Device":{"#info":{"Name":"Device."},"A":{"B":{"#info":{"Name":"Device.A.B"}}}},"V":{"#info":{"Name":"V"}}})";
    EXPECT_EQ(tree_of(list, nullptr), expected);
    EXPECT_EQ(tree_of(list, "."), expected);
    EXPECT_EQ(tree_of(list, ""), expected);
}

TEST(TrTree, ATemplateBecomesAChild)
{
    EXPECT_EQ(tree_of(R"([{"Name":"H.","Template":[{"Name":""},{"Name":"N"}]},{"Name":"H.1."}])", "H."),
              R"({"#info":{"Name":"H.","Template":[{"Name":""},{"Name":"N"}]},)"
              R"("#template":{"#info":{"Name":""},"N":{"#info":{"Name":"N"}}},"1":{"#info":{"Name":"H.1."}}})");
}

TEST(TrTree, WhatDoesNotFitIsPassedOver)
{
    for (const char *name : {R"("Other.A")", R"("Device.AB")", R"("Device.A..B")", R"("Device.A.B..")", "7", "null",
                             R"("Device.A.#attr")", R"("Device.A.#attr.type")", R"("Device.A.B\u0000C")"})
        EXPECT_EQ(tree_of(std::string(R"([{"Name":)") + name + "}]", "Device.A."), "{}") << name;
    EXPECT_EQ(tree_of(R"([1,null,[],{},"x"])", "Device."), "{}");
    EXPECT_EQ(tree_of("null", "Device."), "{}");
    EXPECT_EQ(tree_of(R"({"Name":"Device.A"})", "Device."), "{}");
}

TEST(TrTree, EndlessNamesAndTemplatesDoNotExhaustTheStack)
{
    std::string name;
    for (int i = 0; i < 100000; ++i)
        name += "a.";
    EXPECT_EQ(tree_of("[{\"Name\":\"" + name + "\"}]", nullptr), "{}");
    name.resize(1000);
    std::string list = "[]";
    for (int i = 0; i < 900; ++i)
        list = R"([{"Name":")" + name + R"(","Template":)" + list + "}]";
    const json_ref tree(ve_tr_names_to_config(parse(list).get(), nullptr));
    EXPECT_EQ(json_object_size(tree.get()), 1U);
}

TEST(TrTree, ValuesStandAtTheirPlaces)
{
    const std::string list =
        R"([{"Name":"D.A.x","Value":1},{"Name":"D.A.B.y","Value":"t"},{"Name":"D.z","Value":null}])";
    EXPECT_EQ(values_of(list, "D."), R"({"A":{"x":1,"B":{"y":"t"}},"z":null})");
    EXPECT_EQ(values_of(list, "D.A"), R"({"x":1,"B":{"y":"t"}})");
    EXPECT_EQ(values_of(R"([{"Name":"D.A","Value":5}])", "D.A"), "5");
    EXPECT_EQ(values_of(R"([{"Name":"A","Value":5},{"Name":"A.B","Value":6},{"Name":"C"}])", nullptr), R"({"A":5})");
}

TEST(TrTree, AValueIsNotWrittenInto)
{
    const json_ref list = parse(R"([{"Name":"A","Value":{"k":1}},{"Name":"A.B","Value":6}])");
    const std::string before = compact(list.get());
    const json_ref tree(ve_tr_namevalues_to_config(list.get(), nullptr));
    EXPECT_EQ(compact(list.get()), before);
}

TEST(TrTree, PathsAreFollowed)
{
    const json_ref tree = parse(R"({"Device":{"X":{"Ping":{"Host":{"#attr":{"type":"string"}}}}}})");
    EXPECT_EQ(compact(ve_tr_node_find_path_config(tree.get(), "Device.X.Ping.Host")), R"({"#attr":{"type":"string"}})");
    EXPECT_NE(ve_tr_node_find_path_config(tree.get(), "Device.X."), nullptr);
    for (const char *path : {"", ".", "Device.Y", "Device..X", "Device.X..", "Device.X.Ping.Host.#attr", "#attr"})
        EXPECT_EQ(ve_tr_node_find_path_config(tree.get(), path), nullptr) << path;
    EXPECT_EQ(ve_tr_node_find_path_config(nullptr, "Device"), nullptr);
    EXPECT_EQ(ve_tr_node_find_path_config(tree.get(), nullptr), nullptr);
}

TEST(TrTree, ABranchIsFoundOnlyWhenItWasFetched)
{
    const json_ref tree = parse(R"({"#fetched":true,"Device":{"Known":{"#fetched":true,"#template":)"
                                R"({"Sub":{"#fetched":true}},"1":{}},"Unknown":{"#attr":{}}}})");
    EXPECT_NE(ve_conf_find_branch(tree.get(), "Device.Known.", 0), nullptr);
    EXPECT_EQ(ve_conf_find_branch(tree.get(), "Device.Unknown.", 0), nullptr);
    EXPECT_EQ(ve_conf_find_branch(tree.get(), "Device.", 0), nullptr);
    EXPECT_NE(ve_conf_find_branch(tree.get(), "Device.Known.7.Sub.", 0), nullptr);
    EXPECT_EQ(ve_conf_find_branch(tree.get(), "Device.Known.1.Sub.", 0), nullptr);
    EXPECT_EQ(ve_conf_find_branch(tree.get(), "Device.Known.#template.Sub.", 0), nullptr);
    EXPECT_EQ(ve_conf_find_branch(nullptr, "Device.", 0), nullptr);
}
