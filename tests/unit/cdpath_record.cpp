// Records and typed paths, on a cache that holds everything asked for.
#include <gtest/gtest.h>

#include <string>

#include "cdpath/cdpath.h"
#include "platform/ve_json.h"
#include "platform/ve_out.h"

namespace
{

class Path : public testing::Test
{
protected:
    Path()
    {
        dm = json_loads(R"({"#fetched": true, "Device": {"#fetched": true,
            "Time": {"#attr": {"type": "object"}, "#fetched": true, "Enable": {"#attr": {"type": "boolean"}}},
            "Host": {"#attr": {"type": "object", "multi": true, "ordered": true}, "#fetched": true,
                     "#template": {"#attr": {"type": "object"}, "Name": {"#attr": {"type": "string"}}},
                     "1": {"#fetched": true, "Only": {"#fetched": true}}}}})",
                        0, nullptr);
        cdpath_new(&cwd);
        cdpath_new(&old_cwd);
    }
    ~Path() override
    {
        cdpath_free(&cwd);
        cdpath_free(&old_cwd);
        json_decref(dm);
        dm = nullptr;
    }

    /// Where a path typed at the root leads to, with its flags, or how it fails.
    static std::string at(const char *text)
    {
        cdpath_local place(cwd);
        if (const int result = cdpath_parse(&place, text); result != 0)
            return "fails: " + std::to_string(result);
        return std::string(place.path) + (place.is_multi != 0 ? " multi" : "") +
               (place.is_ordered != 0 ? " ordered" : "");
    }
};

} // namespace

TEST_F(Path, IsFollowedComponentByComponent)
{
    EXPECT_EQ(at("Device.Time.Enable"), "Device.Time.Enable");
    EXPECT_EQ(at("Device.Host"), "Device.Host multi ordered");
    EXPECT_EQ(at(":Device.Time"), "Device.Time");
}

TEST_F(Path, EmptyComponentsVanish)
{
    EXPECT_EQ(at("Device..Time."), "Device.Time");
    EXPECT_EQ(at(".Device"), "Device");
    EXPECT_EQ(at(""), "");
    EXPECT_EQ(at(":"), "");
    EXPECT_EQ(at("..."), "");
}

TEST_F(Path, ClimbsAndStaysAtTheRoot)
{
    EXPECT_EQ(at("Device.Time.<"), "Device");
    EXPECT_EQ(at("Device.Time.<<.Device"), "Device");
    EXPECT_EQ(at("<<<"), "");
    EXPECT_EQ(at("<x"), "fails: -1");
    EXPECT_EQ(at("Device.Host.1.<"), "Device.Host multi ordered");
}

TEST_F(Path, BookkeepingKeysCannotBeEntered)
{
    EXPECT_EQ(at("#attr"), "fails: -1");
    EXPECT_EQ(at("Device.Host.#template"), "fails: -1");
    EXPECT_EQ(at("Device.#fetched"), "fails: -1");
}

TEST_F(Path, UnknownNamesAndMissingTextsFail)
{
    EXPECT_EQ(at("Device.Nothing"), "fails: -1");
    EXPECT_EQ(cdpath_parse(&cwd, nullptr), -2);
    EXPECT_EQ(cdpath_parse(nullptr, "Device"), -1);
}

TEST_F(Path, WhatWasFollowedBeforeAFailureStaysApplied)
{
    cdpath_local place(cwd);
    EXPECT_EQ(cdpath_parse(&place, "Device.Time.Nothing.Enable"), -1);
    EXPECT_STREQ(place.path, "Device.Time");
}

TEST_F(Path, InstancesAreFoundThroughTheTemplate)
{
    EXPECT_EQ(at("Device.Host.7.Name"), "Device.Host.7.Name");
    EXPECT_EQ(at("Device.Host.1.Only"), "Device.Host.1.Only");
    EXPECT_EQ(at("Device.Host.1.Name"), "fails: -1");
    EXPECT_EQ(at("Device.Host.0"), "fails: -1");
    EXPECT_EQ(at("Device.Host.4294967295"), "Device.Host.4294967295");
    EXPECT_EQ(at("Device.Host.4294967296"), "fails: -1");
    EXPECT_EQ(at("Device.Time.7"), "fails: -1");
}

TEST_F(Path, DashLeadsToThePreviousPlaceAndSaysSo)
{
    ASSERT_EQ(cdpath_parse(&old_cwd, "Device.Host"), 0);
    testing::internal::CaptureStdout();
    ve_out_reopened();
    EXPECT_EQ(at("-"), "Device.Host multi ordered");
    EXPECT_EQ(at("-whatever.1"), "Device.Host.1");
    cdpath_clear(&old_cwd);
    EXPECT_EQ(at("Device.-"), " ordered");
    cdpath_local place(cwd);
    EXPECT_EQ(cdpath_parse(&place, "-", true), 0);
    ve_out_flush();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), ":Device.Host\n:Device.Host\n:\n");
}

TEST_F(Path, DashKeepsARecordOnTheHeap)
{
    cdpath *record = cdpath_copy(nullptr, &cwd);
    EXPECT_EQ(record->allocated, 1);
    EXPECT_EQ(cdpath_parse(record, "-", true), 0);
    EXPECT_EQ(record->allocated, 1);
    cdpath_free(record);
}

TEST_F(Path, ClearKeepsTheOrderedFlag)
{
    cdpath_local place(cwd);
    ASSERT_EQ(cdpath_parse(&place, "Device.Host"), 0);
    cdpath_clear(&place);
    EXPECT_STREQ(place.path, "");
    EXPECT_EQ(place.node, dm);
    EXPECT_EQ(place.is_multi, 0);
    EXPECT_EQ(place.is_ordered, 1);
    EXPECT_EQ(json_array_size(place.parents), 0U);
}

TEST_F(Path, ParentsAreStackedNearestFirst)
{
    cdpath_local place(cwd);
    ASSERT_EQ(cdpath_parse(&place, "Device.Time.Enable"), 0);
    ASSERT_EQ(json_array_size(place.parents), 3U);
    EXPECT_EQ(json_array_get(place.parents, 2), dm);
    EXPECT_EQ(json_object_get(json_array_get(place.parents, 0), "Enable"), place.node);
}

TEST_F(Path, TooLongAPathIsRefused)
{
    cdpath_local place(cwd);
    const std::string name(cdpath_text_max - 1, 'n');
    EXPECT_EQ(cdpath_push(&place, dm, (name + "mm").c_str(), false, false), -1);
    EXPECT_STREQ(place.path, "");
    json_t *node = json_object_get(dm, "Device");
    EXPECT_EQ(cdpath_push(&place, node, name.c_str(), false, false), 0);
    EXPECT_EQ(cdpath_push(&place, node, "x", false, false), -1);
    EXPECT_EQ(place.path, name);
    EXPECT_EQ(json_array_size(place.parents), 1U);
}

TEST_F(Path, APathOfExactlyTheLimitIsTaken)
{
    cdpath_local place(cwd);
    json_t *node = json_object_get(dm, "Device");
    ASSERT_EQ(cdpath_push(&place, node, std::string(cdpath_text_max - 2, 'n').c_str(), false, false), 0);
    EXPECT_EQ(cdpath_push(&place, node, "x", true, false), 0);
    EXPECT_EQ(std::string(place.path).size(), cdpath_text_max);
    EXPECT_EQ(cdpath_pop(&place), 0);
    EXPECT_EQ(std::string(place.path).size(), cdpath_text_max - 2);
    EXPECT_EQ(place.is_multi, 0);
}

TEST_F(Path, RecordsOutliveTheCache)
{
    ASSERT_EQ(cdpath_parse(&cwd, "Device.Host"), 0);
    cdpath_free(&old_cwd);
    cdpath_copy(&old_cwd, &cwd);
    json_decref(dm);
    dm = json_object();
    cdpath_clear(&cwd);
    EXPECT_EQ(cdpath_parse(&cwd, "-", true), 0);
    EXPECT_STREQ(cwd.path, "Device.Host");
    EXPECT_EQ(cdpath_parse(&cwd, "1.Only.<<<<"), 0);
    EXPECT_STREQ(cwd.path, "");
    EXPECT_TRUE(cdpath_is_root(&cwd));
    EXPECT_EQ(cdpath_push(&cwd, dm, "New", false, false), 0);
    EXPECT_STREQ(cwd.path, "New");
}

TEST(PathZeroed, IsAnUnloadedRoot)
{
    cdpath zero{};
    EXPECT_TRUE(cdpath_is_root(&zero));
    cdpath_local copy(zero);
    EXPECT_EQ(copy.node, nullptr);
    EXPECT_EQ(cdpath_pop(&copy), 0);
    EXPECT_EQ(cdpath_parse(&zero, ""), 0);
    cdpath_clear(&zero);
    cdpath_free(&zero);
    cdpath_free(nullptr);
}

TEST(InfoToAttr, ConvertsEveryLevel)
{
    const json_ref tree{json_loads(
        R"({"#info": {"Name": "x", "Attributes": {"type": "object"}}, "A": {"#info": {"Attributes": {"t": 1}}},
            "B": {"C": {"#info": {}}}, "D": 5})",
        0, nullptr)};
    cdpath_info_to_attr(tree.get());
    const json_ref expected{
        json_loads(R"({"#attr": {"type": "object"}, "A": {"#attr": {"t": 1}}, "B": {"C": {}}, "D": 5})", 0, nullptr)};
    EXPECT_TRUE(json_equal(tree.get(), expected.get()));
}
