#include "vebase/editor/rl_keys.h"

#include <gtest/gtest.h>

namespace
{

/// The keys that the bytes make: text as it is, operations as "<number>".
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
            if (key.op == rl_op::insert || key.op == rl_op::paste)
                text.push_back(key.c);
        }
        return *this;
    }

    rl_key_decoder decoder;
    std::wstring text;
    std::vector<rl_op> ops;
};

using ops = std::vector<rl_op>;

TEST(rl_keys, text_is_decoded_from_utf8)
{
    EXPECT_EQ(rl_keys_of("aé漢🙂").text, L"aé漢🙂");
    EXPECT_EQ(rl_keys_of("\xe9x").text, (std::wstring{0xdce9, L'x'}));
    EXPECT_EQ(rl_keys_of("\xc3(x").text, (std::wstring{0xdcc3, L'(', L'x'}));
    EXPECT_EQ(rl_keys_of("\xc2\x85").text, (std::wstring{0xdcc2, 0xdc85}));
}

TEST(rl_keys, control_characters_and_sequences_are_operations)
{
    EXPECT_EQ(rl_keys_of("\001\t\x7f\r\037").ops,
              (ops{rl_op::start, rl_op::complete, rl_op::rub, rl_op::enter, rl_op::undo}));
    EXPECT_EQ(rl_keys_of("\033[A\033OA\033[3~\033[1;5C").ops,
              (ops{rl_op::older, rl_op::older, rl_op::remove, rl_op::word_right}));
    EXPECT_EQ(rl_keys_of("\033b\033B\033.\033\x7f\033y").ops,
              (ops{rl_op::word_left, rl_op::word_left, rl_op::last_word, rl_op::cut_word_left, rl_op::yank_older}));
}

TEST(rl_keys, others_leave_nothing)
{
    EXPECT_EQ(rl_keys_of("\033[5~\033[201~\033[?1;2c\033OP\033[[A\033[999;999;999Hy\003\032").ops, ops{rl_op::insert});
    EXPECT_EQ(rl_keys_of("\033[" + std::string(5000, '1') + "~z").ops, ops{rl_op::insert});
    EXPECT_EQ(rl_keys_of(std::string_view{"\0", 1}).ops, ops{});
}

TEST(rl_keys, a_control_character_ends_an_unfinished_sequence)
{
    EXPECT_EQ(rl_keys_of("\033[1;\rx").ops, (ops{rl_op::enter, rl_op::insert}));
    EXPECT_EQ(rl_keys_of("\033[1\033[A").ops, ops{rl_op::older});
}

TEST(rl_keys, an_unfinished_character_before_a_key_is_kept)
{
    EXPECT_EQ(rl_keys_of("\xe6\xbc\r").ops, (ops{rl_op::insert, rl_op::insert, rl_op::enter}));
}

TEST(rl_keys, an_escape_alone_waits_until_it_is_released)
{
    rl_keys_of keys("\033");
    EXPECT_TRUE(keys.decoder.holds_escape());
    EXPECT_EQ(keys.ops, ops{});
    keys.decoder.release_escape();
    EXPECT_EQ(keys.take().ops, ops{rl_op::escape});
    EXPECT_EQ(rl_keys_of("\033\033").ops, ops{rl_op::escape});
    EXPECT_EQ(rl_keys_of("\033~\033é").ops, (ops{rl_op::escape, rl_op::escape, rl_op::insert}));
}

TEST(rl_keys, a_key_behind_ctrl_v_is_text)
{
    EXPECT_EQ(rl_keys_of("\026\003\021\tx\026\033[A").text, L"\003\tx\033[A");
    EXPECT_EQ(rl_keys_of("\026漢\001").ops, (ops{rl_op::insert, rl_op::start}));
    EXPECT_TRUE(rl_keys_of("\026").decoder.wants_text());
}

TEST(rl_keys, a_paste_is_text_up_to_its_end)
{
    rl_keys_of keys("\033[200~a\tb\003\026c");
    EXPECT_TRUE(keys.decoder.pasting());
    EXPECT_EQ(keys.text, L"a\tb\003\026c");
    keys.feed("\033[201\033[201~");
    EXPECT_FALSE(keys.decoder.pasting());
    EXPECT_EQ(keys.text, L"a\tb\003\026c\033[201");
    EXPECT_EQ(keys.ops.back(), rl_op::paste);
    EXPECT_EQ(keys.feed("\t").ops.back(), rl_op::complete);
}

TEST(rl_keys, the_lines_of_a_paste_end_and_the_paste_goes_on)
{
    rl_keys_of keys("\033[200~a\r\n\xe6");
    EXPECT_EQ(keys.ops, (ops{rl_op::paste, rl_op::enter, rl_op::enter}));
    keys.decoder.reset();
    EXPECT_TRUE(keys.decoder.pasting());
    EXPECT_EQ(keys.feed("\t").ops.back(), rl_op::paste);
}

TEST(rl_keys, a_paste_whose_end_never_comes_can_be_ended)
{
    rl_keys_of keys("\033[200~a\033[20");
    keys.decoder.end_paste();
    EXPECT_EQ(keys.take().text, L"a\033[20");
    EXPECT_EQ(keys.feed("\001").ops.back(), rl_op::start);
}

} // namespace
