#include "vebase/escapes.h"

#include <gtest/gtest.h>

namespace
{

/// What follows the sequence.
std::string_view behind(std::string_view text)
{
    return text.substr(escape_size(text));
}

} // namespace

TEST(Escapes, EndWhereATerminalSeesTheirEnd)
{
    EXPECT_EQ(behind("\033[0mabc"), "abc");
    EXPECT_EQ(behind("\033[38;5;12mabc"), "abc");
    EXPECT_EQ(behind("\033[?25habc"), "abc");
    EXPECT_EQ(behind("\0337abc"), "abc");
    EXPECT_EQ(behind("\033(Babc"), "abc");
    EXPECT_EQ(behind("\033#8abc"), "abc");
    EXPECT_EQ(behind("\033]0;a title\aabc"), "abc");
    EXPECT_EQ(behind("\033]0;a title\033\\abc"), "abc");
    EXPECT_EQ(behind("\033P1;2qabc\033\\abc"), "abc");
    EXPECT_EQ(behind("\033\033[mabc"), "[mabc");
}

TEST(Escapes, TakeAllOfTheTextWhenTheirEndIsNotThere)
{
    for (const char *text : {"\033", "\033[", "\033[3", "\033]0;a title", "\033]0;a title\033", "\033(", "\033_"})
        EXPECT_EQ(behind(text), "") << text + 1;
}
