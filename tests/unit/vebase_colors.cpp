#include "platform/ve_colors.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <string>

namespace
{

std::string sequence(uint16_t hue, uint8_t saturation, uint8_t value)
{
    hsv_color color{};
    color.hue = hue;
    color.saturation = saturation;
    color.value = value;
    return ve_colors_sequence(color);
}

} // namespace

TEST(Colors, OfACubeTheNearestIsTaken)
{
    setenv("TERM", "xterm-256color", 1);
    unsetenv("COLORTERM");
    EXPECT_EQ(sequence(0, 100, 100), "\033[38;5;196m");  // 255 0 0
    EXPECT_EQ(sequence(120, 100, 100), "\033[38;5;46m"); // 0 255 0
    EXPECT_EQ(sequence(240, 100, 100), "\033[38;5;21m"); // 0 0 255
    EXPECT_EQ(sequence(60, 100, 61), "\033[38;5;142m");  // 156 156 0, of which 175 is nearest
    EXPECT_EQ(sequence(0, 100, 44), "\033[38;5;52m");    // 112 is nearer to 95
    EXPECT_EQ(sequence(0, 100, 45), "\033[38;5;88m");    // 115 lies between 95 and 135: the brighter
    EXPECT_EQ(sequence(0, 0, 50), "\033[38;5;244m");     // greys: 128
    EXPECT_EQ(sequence(0, 0, 0), "\033[38;5;16m");
}

TEST(Colors, OfTheSixteenTheNearestIsTaken)
{
    setenv("TERM", "xterm", 1);
    unsetenv("COLORTERM");
    EXPECT_EQ(sequence(0, 100, 100), "\033[91m");
    EXPECT_EQ(sequence(0, 100, 80), "\033[31m");
    EXPECT_EQ(sequence(0, 0, 50), "\033[90m");
}

TEST(Colors, AllAreThereInTrueColour)
{
    setenv("TERM", "xterm-direct", 1);
    unsetenv("COLORTERM");
    EXPECT_EQ(sequence(200, 50, 75), "\033[38;2;96;159;191m");
    setenv("TERM", "xterm", 1);
    setenv("COLORTERM", "truecolor", 1);
    EXPECT_EQ(sequence(200, 50, 75), "\033[38;2;96;159;191m");
    EXPECT_EQ(sequence(359, 100, 100), "\033[38;2;255;0;4m");
}
