// Typed paths, on a cache that holds everything asked for.
#include <gtest/gtest.h>

#include <string>

#include "cdpath/cdpath.h"
#include "cdpath_nodes.h"
#include "platform/ve_out.h"

namespace
{

class Path : public testing::Test
{
protected:
    Path()
    {
        dm = std::make_shared<dm_node>(node_of(R"([
            {"Name": "Device.Time.", "Attributes": {"type": "object"}},
            {"Name": "Device.Time.Enable", "Attributes": {"type": "boolean"}},
            {"Name": "Device.Host.", "Attributes": {"type": "object", "multi": true, "ordered": true},
             "Template": [{"Name": "", "Attributes": {"type": "object"}}, {"Name": "Name", "Attributes": {"type": "string"}}]},
            {"Name": "Device.Host.1.Only"}])"));
        for (const char *known : {"Device", "Device.Time", "Device.Time.Enable", "Device.Host", "Device.Host.1"})
            dm->find(known)->known = dm_known::known;
    }
    ~Path() override
    {
        cwd = old_cwd = dm_path();
        dm = nullptr;
    }

    /// Where a path typed at the root leads to, with its flags, or how it fails.
    static std::string at(const char *text)
    {
        cdpath place = cdpath_here();
        if (const int result = cdpath_parse(&place, text); result != 0)
            return "fails: " + std::to_string(result);
        return place.path.text() + (place.node->is_multi() ? " multi" : "") +
               (place.node->is_ordered() ? " ordered" : "");
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
    cdpath place = cdpath_here();
    EXPECT_EQ(cdpath_parse(&place, nullptr), -2);
    EXPECT_EQ(cdpath_parse(nullptr, "Device"), -1);
}

TEST_F(Path, WhatWasFollowedBeforeAFailureStaysApplied)
{
    cdpath place = cdpath_here();
    EXPECT_EQ(cdpath_parse(&place, "Device.Time.Nothing.Enable"), -1);
    EXPECT_EQ(place.path.text(), "Device.Time");
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
    old_cwd = dm_path("Device.Host");
    testing::internal::CaptureStdout();
    ve_out_reopened();
    EXPECT_EQ(at("-"), "Device.Host multi ordered");
    EXPECT_EQ(at("-whatever.1"), "Device.Host.1");
    old_cwd = dm_path();
    EXPECT_EQ(at("Device.-"), "");
    old_cwd = dm_path("Device.Gone");
    EXPECT_EQ(at("-"), "fails: -1");
    cdpath place = cdpath_here();
    EXPECT_EQ(cdpath_parse(&place, "-", true), -1);
    ve_out_flush();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), ":Device.Host\n:Device.Host\n:\n:Device.Gone\n");
}

TEST_F(Path, TooLongAPathIsRefused)
{
    const std::string name(dm_path::size_max - 7, 'n');
    const std::string list = R"([{"Name": "Device.)" + name + R"(."}, {"Name": "Device.)" + name + R"(.x"},
        {"Name": "Device.)" + name +
                             R"(n"}])";
    *dm = node_of(list);
    cdpath place = cdpath_here();
    EXPECT_EQ(cdpath_parse(&place, ("Device." + name + "n").c_str()), -1);
    EXPECT_EQ(place.path.text(), "Device");
    EXPECT_EQ(cdpath_parse(&place, name.c_str()), 0);
    EXPECT_EQ(place.path.text().size(), dm_path::size_max);
    EXPECT_EQ(cdpath_parse(&place, "x"), -1);
    EXPECT_EQ(cdpath_parse(&place, "<"), 0);
    EXPECT_EQ(place.node, dm->find("Device"));
}

TEST_F(Path, PlacesOutliveTheCacheAndAreFoundInTheNextOne)
{
    cdpath place = cdpath_here();
    ASSERT_EQ(cdpath_parse(&place, "Device.Host"), 0);
    cwd = old_cwd = place.path;
    dm = std::make_shared<dm_node>(node_of(R"([{"Name": "Device.Host.New"}])"));
    EXPECT_EQ(cdpath_parse(&place, "1.Only"), 0);
    EXPECT_EQ(cdpath_here().node, dm->find("Device.Host"));
    EXPECT_EQ(at("New"), "Device.Host.New");
    place = cdpath_here();
    EXPECT_EQ(cdpath_parse(&place, "-.New", true), 0);
    EXPECT_EQ(place.node, dm->find("Device.Host.New"));
    cdpath_clear(&place);
    EXPECT_EQ(place.node, dm);
    EXPECT_TRUE(place.path.is_root());
}

TEST(PathUnloaded, StaysAtTheRoot)
{
    cdpath place = cdpath_here();
    EXPECT_EQ(place.node, nullptr);
    EXPECT_FALSE(cdpath_settle(&place));
    EXPECT_EQ(cdpath_parse(&place, ""), 0);
    EXPECT_EQ(cdpath_parse(&place, ":<"), 0);
    EXPECT_EQ(cdpath_parse(&place, "Device"), -1);
    EXPECT_TRUE(place.path.is_root());
}
