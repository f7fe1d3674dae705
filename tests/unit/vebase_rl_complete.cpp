#include "vebase/editor/rl_complete.h"

#include <gtest/gtest.h>

namespace
{

using names = std::vector<std::string_view>;

/// The line after Tab at its end, when the typed part begins at `start`.
std::string after_tab(const std::string &line, size_t start, const names &candidates, bool verbatim = false)
{
    const rl_replacement merged = rl_merge(line, start, line.size(), candidates, verbatim);
    return merged.changes ? line.substr(0, start) + merged.text : line;
}

TEST(rl_complete, one_candidate_takes_the_place_of_what_was_typed)
{
    EXPECT_EQ(after_tab("cd Dev", 3, {"Device."}), "cd Device.");
    EXPECT_EQ(after_tab("cd ", 3, {"Device."}), "cd Device.");
    EXPECT_EQ(after_tab("cd Device.", 3, {"Device."}), "cd Device.");
    EXPECT_EQ(after_tab("download file firmware.b", 14, {"firmware.bin"}), "download file firmware.bin");
    EXPECT_EQ(after_tab("ls dl/", 6, {"dl/"}), "ls dl/dl/");
}

TEST(rl_complete, several_insert_what_they_have_in_common)
{
    EXPECT_EQ(after_tab("c", 0, {"cat", "catree"}), "cat");
    EXPECT_EQ(after_tab("cat", 0, {"cat", "catree"}), "cat");
    EXPECT_EQ(after_tab("x", 0, {"alpha", "beta"}), "x");
    EXPECT_EQ(after_tab("", 0, {"é1", "è2"}), ""); // their first bytes are no character
    EXPECT_EQ(after_tab("m", 0, {"my file 1", "my file 2"}), "\"my file ");
    EXPECT_EQ(after_tab("\"my f", 1, {"my file 1", "my file 2"}), "\"my file ");
}

TEST(rl_complete, what_is_inserted_is_read_back_as_it_was)
{
    EXPECT_EQ(after_tab("a", 0, {"a b"}), "\"a b\"");
    EXPECT_EQ(after_tab("a", 0, {"a b/"}), "\"a b/");
    EXPECT_EQ(after_tab("a", 0, {"a\"'\\#"}), "a\\\"\\'\\\\\\#");
    EXPECT_EQ(after_tab("a", 0, {"a \"'\\#"}), "\"a \\\"'\\\\#\"");
    EXPECT_EQ(after_tab("'a", 1, {"a b'c\"d"}), "'a b\\'c\"d");
    EXPECT_EQ(after_tab("\"a", 1, {"a b'c\"d"}), "\"a b'c\\\"d");
}

TEST(rl_complete, nothing_makes_two_lines_of_one)
{
    EXPECT_EQ(after_tab("cd a", 3, {"a\nreset\n#"}), "cd a");
    EXPECT_EQ(after_tab("cd a", 3, {"ab\n1", "ab\n2"}), "cd a");
    EXPECT_EQ(after_tab("cd a", 3, {"ab\n1", "abc"}), "cd ab");
    EXPECT_EQ(after_tab("a", 0, {"a\nb"}, true), "a");
}

TEST(rl_complete, quotes_that_were_opened_within_the_typed_part_stay)
{
    EXPECT_EQ(after_tab("cat \"my f", 4, {"my file"}), "cat \"my file");
    EXPECT_EQ(after_tab("cat 'my", 4, {"myfile"}), "cat 'myfile");
    EXPECT_EQ(after_tab("cat my\\#", 4, {"my#file"}), "cat my\\#file");
}

TEST(rl_complete, the_typed_part_may_follow_a_closed_quote)
{
    EXPECT_EQ(after_tab("cat \"my dir/\"fi", 12, {"file"}), "cat \"my dir/file");
}

TEST(rl_complete, verbatim_candidates_go_in_as_they_are)
{
    EXPECT_EQ(after_tab("t[\"a", 2, {"\"a b\"]"}, true), "t[\"a b\"]");
}

TEST(rl_complete, text_behind_the_cursor_is_not_looked_at)
{
    const std::string line = "cat Dev \"x";
    const rl_replacement merged = rl_merge(line, 4, 7, {"Device."}, false);
    EXPECT_EQ(merged.text, "Device.");
}

TEST(rl_complete, quotes_around_the_place_of_the_typed_part_are_kept_in_mind)
{
    EXPECT_EQ(after_tab("cat \"a/b\"'c", 7, {"say \"b'c\""}), "cat \"a/say \\\"b'c\\\"");
}

TEST(rl_complete, a_backslash_that_waits_is_part_of_what_was_typed)
{
    EXPECT_EQ(after_tab("cat a\\", 4, {"a\\b", "a\\c"}), "cat a\\");
    EXPECT_EQ(after_tab("cat a\\", 4, {"a\\b"}), "cat a\\\\b");
}

TEST(rl_complete, common_beginning_of_many)
{
    std::vector<std::string> many;
    for (int i = 0; i < 100000; ++i)
        many.push_back("Device.Hosts.Host." + std::to_string(i));
    const names all(many.begin(), many.end());
    EXPECT_EQ(rl_common_beginning(all), "Device.Hosts.Host.");
    EXPECT_EQ(rl_common_beginning({}), "");
}

} // namespace
