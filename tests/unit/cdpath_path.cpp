// Paths as texts.
#include <gtest/gtest.h>

#include "cdpath/dm_path.h"

TEST(DmPath, IsSpelledWithAndWithoutItsFinalDot)
{
    for (const char *spelled : {"Device.Hosts", "Device.Hosts."}) {
        const dm_path path(spelled);
        EXPECT_EQ(path.text(), "Device.Hosts");
        EXPECT_EQ(path.as_object(), "Device.Hosts.");
        EXPECT_EQ(path.last(), "Hosts");
        EXPECT_TRUE(path.is("Device.Hosts"));
        EXPECT_TRUE(path.is("Device.Hosts."));
        EXPECT_FALSE(path.is("Device.Hosts.."));
        EXPECT_FALSE(path.is("Device"));
    }
    for (const char *spelled : {"", "."}) {
        const dm_path root(spelled);
        EXPECT_TRUE(root.is_root());
        EXPECT_EQ(root.as_object(), ".");
        EXPECT_EQ(root.last(), "");
    }
}

TEST(DmPath, GoesDownAndUp)
{
    dm_path path;
    path.pop();
    EXPECT_TRUE(path.is_root());
    EXPECT_TRUE(path.push("Device"));
    EXPECT_TRUE(path.push("Hosts"));
    EXPECT_EQ(path.text(), "Device.Hosts");
    EXPECT_TRUE(path.push(path.last()));
    EXPECT_EQ(path.text(), "Device.Hosts.Hosts");
    path.pop();
    path.pop();
    EXPECT_EQ(path, dm_path("Device."));
    path.pop();
    EXPECT_TRUE(path.is_root());
}

TEST(DmPath, GoesNoFurtherThanItsLimit)
{
    dm_path path;
    EXPECT_FALSE(path.push(std::string(dm_path::size_max + 1, 'n')));
    EXPECT_TRUE(path.is_root());
    const std::string name(dm_path::size_max - 2, 'n');
    EXPECT_TRUE(path.push(name));
    EXPECT_FALSE(path.push("xx"));
    EXPECT_EQ(path.text(), name);
    EXPECT_TRUE(path.push("x"));
    EXPECT_EQ(path.text().size(), dm_path::size_max);
    path.pop();
    EXPECT_EQ(path.text(), name);
}

TEST(DmPath, NamesAreToldRelativeToIt)
{
    const dm_path path("Device.Host");
    EXPECT_EQ(path.relative("Device.Host.1.Name"), "1.Name");
    EXPECT_EQ(path.relative("Device.Host.1."), "1.");
    EXPECT_EQ(path.relative("Device.Host."), "");
    for (const char *elsewhere : {"Device.Host", "Device.Hosts.1.", "Else.C", ""})
        EXPECT_EQ(path.relative(elsewhere), elsewhere);
    EXPECT_EQ(dm_path().relative("Device."), "Device.");
}

TEST(DmPath, IsCutNameByName)
{
    std::string_view rest = "a..b.";
    EXPECT_EQ(dm_path::cut_name(&rest), "a");
    EXPECT_EQ(dm_path::cut_name(&rest), "");
    EXPECT_EQ(dm_path::cut_name(&rest), "b");
    EXPECT_EQ(rest, "");
}

TEST(DmPath, KnowsInstanceNumbers)
{
    for (const char *text : {"1", "007", "4294967295"})
        EXPECT_TRUE(dm_path::is_instance(text)) << text;
    for (const char *text : {"", "0", "4294967296", "99999999999999999999999", "+1", "-1", " 1", "1 ", "1x", "[1]"})
        EXPECT_FALSE(dm_path::is_instance(text)) << text;
}
