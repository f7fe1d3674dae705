// Each test shows the keys, as the bytes that a terminal sends, and the line that they leave, with "|" for the cursor.
#include "vebase/editor/rl_line.h"
#include "vebase/editor/rl_text.h"

#include <gtest/gtest.h>

#include <random>

namespace
{

class rl_lines : public ::testing::Test
{
protected:
    rl_lines()
    {
        rl_set_locale();
        begin();
    }

    void remember(std::initializer_list<const char *> entries)
    {
        for (const char *entry : entries)
            history.add(entry);
        begin();
    }

    void begin() { line.begin(history, false); }

    /// What the line is after these keys.
    std::string after(std::string_view keys)
    {
        for (const char byte : keys) {
            decoder.feed(static_cast<unsigned char>(byte));
            rl_key key;
            while (decoder.take(&key))
                done = line.apply(key);
        }
        std::string shown = line.text();
        shown.insert(line.cursor(), "|");
        return shown;
    }

    /// The same for a new line.
    std::string typed(std::string_view keys)
    {
        begin();
        return after(keys);
    }

    std::string search() const { return line.searching() ? line.search_message() : ""; }

    ve_history history;
    rl_line line;
    rl_key_decoder decoder;
    rl_done done = rl_done::yes;
};

const std::string ctrl_left = "\033[1;5D";
const std::string ctrl_right = "\033[1;5C";

TEST_F(rl_lines, characters_are_inserted_at_the_cursor)
{
    EXPECT_EQ(typed("abc"), "abc|");
    EXPECT_EQ(typed("ac\033[Db"), "ab|c");
    EXPECT_EQ(typed("漢é🙂\002\002x"), "漢x|é🙂");
    EXPECT_EQ(typed("a\xff\xc3(b"), "a\xff\xc3(b|");
}

TEST_F(rl_lines, characters_of_several_bytes_stay_whole)
{
    EXPECT_EQ(typed("漢é🙂\033[D\033[D\033[D\033[C"), "漢|é🙂");
    EXPECT_EQ(after("\033[3~\033[C\x7f"), "漢|");
    EXPECT_EQ(typed("e\xcc\x81漢\024"), "e漢\xcc\x81|");
    EXPECT_EQ(typed("\xe6\xbc\002\002x"), "x|\xe6\xbc");
}

TEST_F(rl_lines, the_cursor_moves_and_stops_at_the_ends)
{
    EXPECT_EQ(typed("abc\001"), "|abc");
    EXPECT_EQ(typed("abc\001\006"), "a|bc");
    EXPECT_EQ(typed("abc\033[H\033[F"), "abc|");
    EXPECT_EQ(typed("ab\001\002"), "|ab");
    EXPECT_EQ(done, rl_done::refused);
    EXPECT_EQ(typed("ab\033[C"), "ab|");
    EXPECT_EQ(done, rl_done::refused);
}

TEST_F(rl_lines, words_end_at_blanks_dots_and_equal_signs)
{
    EXPECT_EQ(typed("one two three\033b\033b"), "one |two three");
    EXPECT_EQ(typed("one two\001\033f"), "one| two");
    EXPECT_EQ(typed("set Device.Time.Enable=true\033b"), "set Device.Time.Enable=|true");
    EXPECT_EQ(after(ctrl_left), "set Device.Time.|Enable=true");
    EXPECT_EQ(after(ctrl_left), "set Device.|Time.Enable=true");
    EXPECT_EQ(after(ctrl_right), "set Device.Time|.Enable=true");
    EXPECT_EQ(after(ctrl_right + ctrl_right), "set Device.Time.Enable=true|");
    EXPECT_EQ(typed("ÄÖ 漢字\033b\033B"), "|ÄÖ 漢字");
}

TEST_F(rl_lines, characters_are_deleted_before_and_under_the_cursor)
{
    EXPECT_EQ(typed("a漢\x7f"), "a|");
    EXPECT_EQ(typed("\b"), "|");
    EXPECT_EQ(done, rl_done::refused);
    EXPECT_EQ(typed("abc\001\033[3~\004"), "|c");
    EXPECT_EQ(typed("abc\004"), "abc|");
    EXPECT_EQ(done, rl_done::refused);
    EXPECT_EQ(typed("\033[3~"), "|");
    EXPECT_EQ(done, rl_done::refused);
}

TEST_F(rl_lines, what_the_line_cannot_do_is_left_to_the_caller)
{
    const std::pair<const char *, rl_done> wanted[] = {{"\r", rl_done::enter},
                                                       {"\n", rl_done::enter},
                                                       {"\t", rl_done::complete},
                                                       {"\014", rl_done::clear},
                                                       {"\004", rl_done::end}};
    for (const auto &[key, asked] : wanted) {
        typed(key);
        EXPECT_EQ(done, asked) << static_cast<int>(key[0]);
    }
}

TEST_F(rl_lines, parts_of_the_line_are_cut_and_inserted)
{
    EXPECT_EQ(typed("abcd\002\002\013x\031"), "abxcd|");
    EXPECT_EQ(typed("abcd\002\025\005\031"), "dabc|");
    EXPECT_EQ(typed("cat Device.Time. x\033[D\033[D\027"), "cat | x");
    EXPECT_EQ(after("\031\031"), "cat Device.Time.Device.Time.| x");
    EXPECT_EQ(typed("cat Device.Time.\033\x7f"), "cat Device.|");
    EXPECT_EQ(typed("set A.B=c\033\x7f\033\b"), "set A.|");
    EXPECT_EQ(typed("A.Bc=d\001\033d\033d"), "|=d");
    EXPECT_EQ(after("\005\031"), "=dA.Bc|");
}

TEST_F(rl_lines, nothing_cut_leaves_what_was_cut_before)
{
    EXPECT_EQ(typed("abc\025\013\025\031"), "abc|");
}

TEST_F(rl_lines, cuts_in_a_row_make_one_piece)
{
    EXPECT_EQ(typed("one two three\027\027x\031"), "one xtwo three|");
    EXPECT_EQ(typed("one two three\001\033d\033d\005\031"), " threeone two|");
}

TEST_F(rl_lines, what_was_cut_before_takes_the_place_of_what_was_inserted)
{
    typed("first\025second\025third\025");
    EXPECT_EQ(after("a\031b\002"), "athird|b");
    EXPECT_EQ(after("\033y"), "athird|b");
    EXPECT_EQ(done, rl_done::refused);
    EXPECT_EQ(after("\033y"), "athird|b");
    EXPECT_EQ(after("\031\033y"), "athirdsecond|b");
    EXPECT_EQ(after("\033y"), "athirdfirst|b");
    EXPECT_EQ(after("\033y"), "athirdthird|b");
}

TEST_F(rl_lines, two_characters_are_swapped)
{
    EXPECT_EQ(typed("ab\024"), "ba|");
    EXPECT_EQ(typed("abc\001\006\024"), "ba|c");
    EXPECT_EQ(typed("a\024"), "a|");
    EXPECT_EQ(done, rl_done::refused);
    EXPECT_EQ(typed("ab\001\024"), "|ab");
}

TEST_F(rl_lines, words_change_their_case)
{
    EXPECT_EQ(typed("wörd more\001\033u"), "WÖRD| more");
    EXPECT_EQ(typed("WORD\001\033l"), "word|");
    EXPECT_EQ(typed("a woRD\001\033f\033c"), "a Word|");
}

TEST_F(rl_lines, changes_are_taken_back_one_by_one)
{
    typed("one two\033b\033u\027");
    EXPECT_EQ(after("\037"), "one TWO|");
    EXPECT_EQ(after("\037"), "one |two");
    EXPECT_EQ(after("\037"), "one |");
    EXPECT_EQ(after("\037"), "|");
    EXPECT_EQ(after("\037"), "|");
    EXPECT_EQ(done, rl_done::refused);
}

TEST_F(rl_lines, a_paste_is_taken_back_whole)
{
    EXPECT_EQ(typed("a\033[200~some words here\033[201~\037"), "|");
    EXPECT_EQ(typed("a \033[200~some words here\033[201~"), "a some words here|");
}

TEST_F(rl_lines, a_paste_is_text_but_for_its_line_ends)
{
    EXPECT_EQ(typed("\033[200~a\tb\003\x7f\033[A\033c\033[201~d"), "a\tb\003\x7f\033[A\033cd|");
    typed("\033[200~one\r");
    EXPECT_EQ(done, rl_done::enter);
    EXPECT_EQ(typed("\ttwo\033[201~x"), "\ttwox|");
}

TEST_F(rl_lines, the_history_is_walked_and_the_line_kept)
{
    remember({"one", "two "});
    EXPECT_EQ(after("half\002\033[A"), "two |");
    EXPECT_EQ(after("\033OA\020"), "one|");
    EXPECT_EQ(done, rl_done::refused);
    EXPECT_EQ(after("x\016"), "two |");
    EXPECT_EQ(after("\033[B"), "half|");
    EXPECT_EQ(after("\033[B"), "half|");
    EXPECT_EQ(done, rl_done::refused);
    EXPECT_EQ(after("\037"), "|");
}

TEST_F(rl_lines, the_last_words_of_the_entries_are_inserted)
{
    remember({"old first", "set A=\"two words\"", "  ", "it's here ", "x"});
    EXPECT_EQ(after("ls \033."), "ls x|");
    EXPECT_EQ(after("\033."), "ls here|");
    EXPECT_EQ(after("\033."), "ls A=\"two words\"|");
    EXPECT_EQ(after("\033."), "ls first|");
    EXPECT_EQ(after("\033."), "ls first|");
    EXPECT_EQ(done, rl_done::refused);
    EXPECT_EQ(after("\033[A\033."), "xhere|");
}

TEST_F(rl_lines, a_search_finds_older_entries_and_newer_ones)
{
    remember({"first match", "other", "second match, a match"});
    EXPECT_EQ(after("half\022"), "half|");
    EXPECT_EQ(search(), "bck:");
    EXPECT_EQ(after("match"), "second match, a |match");
    EXPECT_EQ(after("\022"), "second |match, a match");
    EXPECT_EQ(after("\022"), "first |match");
    EXPECT_EQ(search(), "bck:match");
    EXPECT_EQ(after("\022"), "first |match");
    EXPECT_EQ(search(), "bck?match");
    EXPECT_EQ(after("\023"), "second |match, a match");
    EXPECT_EQ(search(), "fwd:match");
    EXPECT_EQ(after("\033[D"), "second| match, a match");
    EXPECT_EQ(search(), "");
    EXPECT_EQ(after("\033[B"), "half|");
}

TEST_F(rl_lines, a_search_goes_back_step_by_step_and_is_given_up)
{
    remember({"alpha", "beta"});
    EXPECT_EQ(after("x\022a"), "bet|a");
    EXPECT_EQ(after("lp"), "|alpha");
    EXPECT_EQ(after("\x7f\x7f"), "bet|a");
    EXPECT_EQ(search(), "bck:a");
    EXPECT_EQ(after("zz"), "bet|a");
    EXPECT_EQ(search(), "bck?azz");
    EXPECT_EQ(after("\007"), "bet|a");
    EXPECT_EQ(search(), "bck:a");
    EXPECT_EQ(after("\007"), "x|");
    EXPECT_EQ(search(), "");
    EXPECT_EQ(after("\033[A"), "beta|");
}

TEST_F(rl_lines, a_search_comes_back_to_an_entry_that_was_changed)
{
    remember({"old", "new"});
    after("\033[Awith much more behind it\022ol");
    EXPECT_EQ(after("\x7f\x7f"), "new|");
}

TEST_F(rl_lines, a_search_ends_at_the_beginning_of_the_oldest_entry)
{
    remember({"alpha", "beta"});
    EXPECT_EQ(after("\022al\022"), "|alpha");
    EXPECT_EQ(search(), "bck?al");
}

TEST_F(rl_lines, a_search_takes_no_pattern_without_end)
{
    const std::string longest(1024, 'a');
    after("\022" + longest);
    EXPECT_EQ(search(), "bck?" + longest);
    after("a");
    EXPECT_EQ(done, rl_done::refused);
    EXPECT_EQ(search(), "bck?" + longest);
}

TEST_F(rl_lines, an_empty_search_looks_for_the_last_pattern)
{
    remember({"one match", "another", "two match"});
    EXPECT_EQ(after("\022match\007"), "|");
    EXPECT_EQ(after("\022\022"), "two |match");
    EXPECT_EQ(search(), "bck:match");
}

TEST_F(rl_lines, a_search_takes_characters_of_any_script_and_folds_none)
{
    remember({"Привет Москва", "一上本語字", "other"});
    EXPECT_EQ(after("\022Моск"), "Привет |Москва");
    EXPECT_EQ(after("\007\022上本"), "一|上本語字");
    after("\007\022МОСК");
    EXPECT_EQ(search(), "bck?МОСК");
}

TEST_F(rl_lines, what_ends_a_search_acts_on_what_it_found)
{
    remember({"alpha", "beta"});
    EXPECT_EQ(after("\022lph\001X"), "X|alpha");
    EXPECT_EQ(typed("\022lph\033\033[3~"), "a|pha");
    typed("\022lph\r");
    EXPECT_EQ(done, rl_done::enter);
    EXPECT_EQ(line.text(), "alpha");
    EXPECT_EQ(typed("\022lph\033[B"), "beta|");
}

TEST_F(rl_lines, a_kept_line_goes_on)
{
    typed("half");
    line.begin(history, true);
    EXPECT_EQ(after("x"), "halfx|");
}

TEST_F(rl_lines, random_keys_leave_a_line)
{
    const std::string_view keys[] = {
        "a",      "b ",   ".",    "=",     "漢",    "e\xcc\x81", "\xff",     "\xe6\xbc", "\r",    "\033[A",
        "\033[B", "\002", "\006", "\033b", "\033f", "\001",      "\x7f",     "\004",     "\033d", "\033\x7f",
        "\013",   "\025", "\027", "\031",  "\033y", "\033.",     "\033u",    "\037",     "\024",  "\022",
        "\023",   "\007", "\026", "\033",  "\t",    "\033[200~", "\033[201~"};
    std::mt19937 random{1};
    remember({"one two", "set A.B=\"x y\"", "漢字 é", "it's", "\xff\xfe"});
    for (int i = 0; i < 100000; ++i) {
        after(keys[random() % std::size(keys)]);
        ASSERT_LE(line.cursor(), line.text().size());
        if (done == rl_done::enter || line.text().size() > 200)
            begin();
    }
}

TEST_F(rl_lines, a_million_characters_are_taken_at_once)
{
    const std::string many(1 << 20, 'x');
    EXPECT_EQ(typed(many).size(), many.size() + 1);
    EXPECT_EQ(after("\025\031\037\037").size(), many.size() + 1);
}

} // namespace
