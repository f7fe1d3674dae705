#include "vebase/editor/rl_layout.h"

#include <gtest/gtest.h>

#include "vebase/editor/rl_columns.h"
#include "vebase/editor/rl_text.h"

namespace
{

class rl_layout_test : public testing::Test
{
protected:
    rl_layout_test() { rl_set_locale(); }

    static std::vector<std::string> rows(const rl_layout &layout)
    {
        std::vector<std::string> all;
        for (const rl_row &row : layout.rows)
            all.push_back(row.bytes);
        return all;
    }
    static std::pair<size_t, int> cursor(const rl_layout &layout) { return {layout.cursor_row, layout.cursor_column}; }
};

using texts = std::vector<std::string>;
using place = std::pair<size_t, int>;

TEST_F(rl_layout_test, wraps_at_the_width)
{
    const auto layout = rl_lay_out({{"> ", {}}, {"abcdefghij", {}}}, 1, 10, 10);
    EXPECT_EQ(rows(layout), (texts{"> abcdefgh", "ij"}));
    EXPECT_EQ(cursor(layout), (place{1, 2}));
}

TEST_F(rl_layout_test, a_full_last_row_is_followed_by_an_empty_one)
{
    const auto layout = rl_lay_out({{"> ", {}}, {"abcdefgh", {}}}, 1, 8, 10);
    EXPECT_EQ(rows(layout), (texts{"> abcdefgh", ""}));
    EXPECT_EQ(cursor(layout), (place{1, 0}));
}

TEST_F(rl_layout_test, the_cursor_before_a_wrapped_character_is_on_its_row)
{
    const auto layout = rl_lay_out({{"abcdefghijk", {}}}, 0, 10, 10);
    EXPECT_EQ(cursor(layout), (place{1, 0}));
}

TEST_F(rl_layout_test, a_wide_character_that_does_not_fit_leaves_a_blank)
{
    const auto layout = rl_lay_out({{"abcdefghi漢字", {}}}, 0, 9, 10);
    EXPECT_EQ(rows(layout), (texts{"abcdefghi ", "漢字"}));
    EXPECT_EQ(cursor(layout), (place{1, 0}));
}

TEST_F(rl_layout_test, control_characters_tabs_and_bad_bytes_are_spelled)
{
    const auto layout = rl_lay_out({{"a\001\033\t|", {}}, {"\xff\xc2\x85", {}}}, 0, 0, 40);
    EXPECT_EQ(rows(layout), (texts{"a^A^[   |\\xff\\u0085"}));
}

TEST_F(rl_layout_test, a_tab_ends_with_the_row)
{
    const auto layout = rl_lay_out({{"abcdefghi\tx", {}}}, 0, 11, 10);
    EXPECT_EQ(rows(layout), (texts{"abcdefghi ", "x"}));
}

TEST_F(rl_layout_test, line_feeds_begin_rows)
{
    const auto layout = rl_lay_out({{"for\nend", {}}}, 0, 3, 10);
    EXPECT_EQ(rows(layout), (texts{"for", "end"}));
    EXPECT_EQ(cursor(layout), (place{0, 3}));
}

TEST_F(rl_layout_test, combining_marks_stay_with_their_letter)
{
    const auto layout = rl_lay_out({{"e\u0301x", {}}}, 0, 3, 10);
    EXPECT_EQ(layout.rows[0].width, 2);
    EXPECT_EQ(cursor(layout), (place{0, 1}));
    EXPECT_EQ(rows(rl_lay_out({{"\u0301x", {}}}, 0, 0, 10)), (texts{"\\u0301x"}));
}

TEST_F(rl_layout_test, a_colour_is_ended_and_begun_again_with_each_row)
{
    const auto layout = rl_lay_out({{"12345678", "\033[31m"}, {"90ab", "\033[32m"}}, 1, 0, 10);
    EXPECT_EQ(rows(layout), (texts{"\033[31m12345678\033[0m\033[32m90\033[0m", "\033[32mab\033[0m"}));
}

TEST_F(rl_layout_test, painting_goes_up_writes_erases_and_places_the_cursor)
{
    rl_painted painted{.top = 0, .cursor = 1};
    const auto layout = rl_lay_out({{"> abcdefghij", {}}}, 0, 4, 10);
    EXPECT_EQ(rl_paint(layout, 24, painted), "\033[1A\r> abcdefghij\033[J\033[1A\r\033[4C");
    EXPECT_EQ(painted.cursor, 0U);
}

TEST_F(rl_layout_test, a_filled_row_is_left_before_the_erase)
{
    rl_painted painted;
    const auto layout = rl_lay_out({{"> abcdefgh", {}}}, 0, 10, 10);
    EXPECT_EQ(rl_paint(layout, 24, painted), "\r> abcdefgh\r\n\033[J\r");
    EXPECT_EQ(painted.cursor, 1U);
}

TEST_F(rl_layout_test, what_is_taller_than_the_screen_is_shown_around_the_cursor)
{
    const std::string text(95, 'x');
    rl_painted painted;
    const auto at_end = rl_lay_out({{text, {}}}, 0, 95, 10);
    rl_paint(at_end, 4, painted);
    EXPECT_EQ(painted.top, 6U);
    EXPECT_EQ(painted.cursor, 3U);
    const auto above = rl_lay_out({{text, {}}}, 0, 75, 10);
    rl_paint(above, 4, painted);
    EXPECT_EQ(painted.top, 6U);
    EXPECT_EQ(painted.cursor, 1U);
    const auto at_start = rl_lay_out({{text, {}}}, 0, 0, 10);
    const std::string bytes = rl_paint(at_start, 4, painted);
    EXPECT_EQ(painted.top, 0U);
    EXPECT_EQ(painted.cursor, 0U);
    // The last row shown is full: an erase would take its last cell.
    EXPECT_EQ(bytes, "\033[1A\r" + std::string(40, 'x') + "\033[3A\r");
}

TEST_F(rl_layout_test, erasing_leaves_the_cursor_at_the_first_row)
{
    EXPECT_EQ(rl_erase({.top = 0, .cursor = 2}), "\033[2A\r\033[J");
    EXPECT_EQ(rl_erase({}), "\r\033[J");
}

TEST_F(rl_layout_test, every_byte_is_shown)
{
    EXPECT_EQ(rl_visible("a\tb\n\x1b[31m\u202e"), "a^Ib^J^[[31m\\u202e");
    EXPECT_EQ(rl_visible("\xff\xfe"
                         "a\xc3"),
              "\\xff\\xfea\\xc3");
    EXPECT_EQ(rl_visible("\xed\xa0\x80"), "\\xed\\xa0\\x80");
    EXPECT_EQ(rl_width("é漢^"), 4U);
}

TEST_F(rl_layout_test, columns_are_read_downwards)
{
    const auto listing = [](const rl_columns &columns) {
        texts all;
        for (size_t row = 0; row < columns.rows(); ++row)
            columns.append_row(row, all.emplace_back());
        return all;
    };
    EXPECT_EQ(listing({{"a", "b", "c", "d", "e"}, 7}), (texts{"a  c  e", "b  d"}));
    EXPECT_EQ(listing({{"a", "b", "c", "d", "e"}, 6}), (texts{"a  d", "b  e", "c"}));
    EXPECT_EQ(listing({{"漢", "long"}, 10}), (texts{"漢    long"}));
    EXPECT_EQ(listing({{}, 10}), texts{});
    const rl_columns tall{{"0123456789abc", "x"}, 10};
    EXPECT_EQ(tall.rows(), 2U);
    EXPECT_EQ(tall.screen_rows(), 3U);
}

} // namespace
