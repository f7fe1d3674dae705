#include "platform/ve_string.h"

#include <gtest/gtest.h>

TEST(VeString, UnsignedTakesDigitsOnlyWithin32Bits)
{
    uint32_t value = 7;
    EXPECT_EQ(ve_string_strtoul("4294967295", 10, &value), 0);
    EXPECT_EQ(value, 4294967295U);
    for (const char *bad : {"", "-1", "+1", " 1", "1 ", "1x", "4294967296", "0x10"}) {
        value = 7;
        EXPECT_LT(ve_string_strtoul(bad, 10, &value), 0) << bad;
        EXPECT_EQ(value, 7U) << bad;
    }
    EXPECT_LT(ve_string_strtoul(nullptr, 10, &value), 0);
}

TEST(VeString, SignedIs32BitsWide)
{
    int32_t value = 0;
    EXPECT_EQ(ve_string_strtol("-2147483648", 10, &value), 0);
    EXPECT_EQ(value, INT32_MIN);
    EXPECT_EQ(ve_string_strtol("+5", 10, &value), 0);
    EXPECT_EQ(value, 5);
    for (const char *bad : {"", "-", "+", "+-1", "--1", "2147483648", "1.0", "1 "})
        EXPECT_LT(ve_string_strtol(bad, 10, &value), 0) << bad;
}

TEST(VeString, RealsAreFinite)
{
    double value = 0;
    EXPECT_EQ(ve_string_strtod("-1.5e3", &value), 0);
    EXPECT_EQ(value, -1500.0);
    for (const char *bad : {"", "nan", "inf", "-infinity", "1e999", "1,5", "1.5x", " 1"})
        EXPECT_LT(ve_string_strtod(bad, &value), 0) << bad;
    EXPECT_LT(ve_string_strtod(nullptr, &value), 0);
}
