#include "vebase/editor/rl_line.h"

#include <gtest/gtest.h>

namespace
{

/// The keys that the bytes make: the text, and the operations, null for a character or a key that means nothing.
class rl_keys_of
{
public:
    explicit rl_keys_of(std::string_view bytes) { feed(bytes); }

    rl_keys_of &feed(std::string_view bytes)
    {
        for (const char byte : bytes) {
            decoder.feed(static_cast<unsigned char>(byte));
            take();
        }
        return *this;
    }
    rl_keys_of &take()
    {
        rl_key key;
        while (decoder.take(&key)) {
            ops.push_back(key.op);
            text += key.text;
            pasted = key.pasted;
        }
        return *this;
    }

    rl_key_decoder decoder;
    std::string text;
    std::vector<rl_op> ops;
    bool pasted = false; // the last one
};

using ops = std::vector<rl_op>;

TEST(rl_keys, text_is_decoded_from_utf8)
{
    EXPECT_EQ(rl_keys_of("aé漢🙂").text, "aé漢🙂");
    EXPECT_EQ(rl_keys_of("\xe9x").text, "\xe9x");
    EXPECT_EQ(rl_keys_of("\xc3(x").text, "\xc3(x");
    EXPECT_EQ(rl_keys_of("\xc2\x85").text, "\xc2\x85");
}

TEST(rl_keys, control_characters_and_sequences_are_operations)
{
    EXPECT_EQ(rl_keys_of("\001\t\x7f\r\037").ops,
              (ops{&rl_line::to_start, &rl_line::complete, &rl_line::rub, &rl_line::enter, &rl_line::undo}));
    EXPECT_EQ(rl_keys_of("\033[A\033OA\033[3~\033[1;5C").ops,
              (ops{&rl_line::older, &rl_line::older, &rl_line::remove, &rl_line::to_word_right}));
    EXPECT_EQ(rl_keys_of("\033b\033B\033.\033\x7f\033y").ops,
              (ops{&rl_line::to_word_left, &rl_line::to_word_left, &rl_line::last_word, &rl_line::cut_word_left,
                   &rl_line::yank_older}));
}

TEST(rl_keys, others_leave_nothing)
{
    for (const std::string_view key :
         {"\033[5~", "\033[201~", "\033[?1;2c", "\033OP", "\033[999;999;999H", "\003", "\033~", "\032"}) {
        EXPECT_EQ(rl_keys_of(key).ops, ops{nullptr});
        EXPECT_EQ(rl_keys_of(key).text, "");
    }
    EXPECT_EQ(rl_keys_of("\033[[Ay").text, "y");
    EXPECT_EQ(rl_keys_of("\033[" + std::string(5000, '1') + "~z").text, "z");
    EXPECT_EQ(rl_keys_of(std::string_view{"\0", 1}).text, "");
}

TEST(rl_keys, a_control_character_ends_an_unfinished_sequence)
{
    EXPECT_EQ(rl_keys_of("\033[1;\rx").ops, (ops{&rl_line::enter, nullptr}));
    EXPECT_EQ(rl_keys_of("\033[1\033[A").ops, ops{&rl_line::older});
}

TEST(rl_keys, an_unfinished_character_before_a_key_is_kept)
{
    EXPECT_EQ(rl_keys_of("\xe6\xbc\r").ops, (ops{nullptr, nullptr, &rl_line::enter}));
}

TEST(rl_keys, an_escape_alone_waits_until_it_is_released)
{
    rl_keys_of keys("\033");
    EXPECT_TRUE(keys.decoder.holds_escape());
    EXPECT_EQ(keys.ops, ops{});
    keys.decoder.release_escape();
    EXPECT_EQ(keys.take().ops, ops{nullptr});
    EXPECT_EQ(rl_keys_of("\033\033").ops, ops{nullptr});
    EXPECT_EQ(rl_keys_of("\033~\033é").text, "é");
}

TEST(rl_keys, a_key_behind_ctrl_v_is_text)
{
    EXPECT_EQ(rl_keys_of("\026\003\021\tx\026\033[A").text, "\003\tx\033[A");
    EXPECT_EQ(rl_keys_of("\026漢\001").ops, (ops{nullptr, &rl_line::to_start}));
    EXPECT_TRUE(rl_keys_of("\026").decoder.wants_text());
}

TEST(rl_keys, a_paste_is_text_up_to_its_end)
{
    rl_keys_of keys("\033[200~a\tb\003\026c");
    EXPECT_TRUE(keys.decoder.pasting());
    EXPECT_EQ(keys.text, "a\tb\003\026c");
    keys.feed("\033[201\033[201~");
    EXPECT_FALSE(keys.decoder.pasting());
    EXPECT_EQ(keys.text, "a\tb\003\026c\033[201");
    EXPECT_TRUE(keys.pasted);
    EXPECT_EQ(keys.feed("\t").ops.back(), &rl_line::complete);
}

TEST(rl_keys, the_lines_of_a_paste_end_and_the_paste_goes_on)
{
    rl_keys_of keys("\033[200~a\r\n\xe6");
    EXPECT_EQ(keys.ops, (ops{nullptr, &rl_line::enter, &rl_line::enter}));
    keys.decoder.reset();
    EXPECT_TRUE(keys.decoder.pasting());
    EXPECT_EQ(keys.feed("\t").text, "a\xe6\t");
}

TEST(rl_keys, a_paste_whose_end_never_comes_can_be_ended)
{
    rl_keys_of keys("\033[200~a\033[20");
    keys.decoder.end_paste();
    EXPECT_EQ(keys.take().text, "a\033[20");
    EXPECT_EQ(keys.feed("\001").ops.back(), &rl_line::to_start);
}

} // namespace
