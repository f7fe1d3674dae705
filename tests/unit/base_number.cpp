#include "base/number.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace
{

TEST(Numbers, AreReadToTheLastCharacter)
{
    EXPECT_EQ(number_of<uint16_t>("65535"), 65535);
    EXPECT_EQ(number_of<int64_t>("-9223372036854775808"), INT64_MIN);
    EXPECT_EQ(number_of<uint32_t>("007"), 7U);
    EXPECT_EQ(number_of<uint32_t>("fF", 16), 255U);
    EXPECT_EQ(number_of<double>("-2.5e1"), -25.0);
    for (const char *bad : {"", " 1", "1 ", "+1", "-1", "1.0", "0x1", "65536", "99999999999999999999"})
        EXPECT_FALSE(number_of<uint16_t>(bad)) << bad;
    for (const char *bad : {"", "1,5", "1.5x", " 1", "1e999"})
        EXPECT_FALSE(number_of<double>(bad)) << bad;
    EXPECT_FALSE(number_of<int>(std::string_view("1\0", 2)));
}

} // namespace
