#include "vebase/editor/rl_keys.h"

#include <gtest/gtest.h>

namespace
{

std::wstring decoded(std::string_view bytes, bool searching = false)
{
    rl_key_decoder decoder;
    std::wstring all;
    wchar_t c = 0;
    bool is_text = false;
    for (const char byte : bytes) {
        decoder.feed(static_cast<unsigned char>(byte), searching);
        while (decoder.take(&c, &is_text))
            all.push_back(c);
    }
    return all;
}

TEST(rl_keys, text_is_decoded_from_utf8)
{
    EXPECT_EQ(decoded("aé漢🙂"), L"aé漢🙂");
    EXPECT_EQ(decoded("\xe9x"), (std::wstring{0xdce9, L'x'}));
    EXPECT_EQ(decoded("\xc3(x"), (std::wstring{0xdcc3, L'(', L'x'}));
}

TEST(rl_keys, sequences_that_are_bound_pass_whole)
{
    EXPECT_EQ(decoded("\033[A\033OA\033[3~\033[1;5C"), L"\033[A\033OA\033[3~\033[1;5C");
    EXPECT_EQ(decoded("\033b"), L"\033b");
}

TEST(rl_keys, text_is_told_from_keys)
{
    rl_key_decoder decoder;
    std::string kinds;
    wchar_t c = 0;
    bool is_text = false;
    for (const char byte : std::string_view{"a漢\tb\033bc\033[Cd\x7f"})
        decoder.feed(static_cast<unsigned char>(byte), false);
    while (decoder.take(&c, &is_text))
        kinds += is_text ? 't' : 'k';
    EXPECT_EQ(kinds, "ttktkktkkktk");
}

TEST(rl_keys, others_leave_nothing)
{
    EXPECT_EQ(decoded("\033[5~\033[200~x\033[201~\033[?1;2c\033OP\033[[A\033[999;999;999Hy"), L"xy");
    EXPECT_EQ(decoded("\033[" + std::string(5000, '1') + "~z"), L"z");
}

TEST(rl_keys, a_control_character_ends_an_unfinished_sequence)
{
    EXPECT_EQ(decoded("\033[1;\rx"), L"\rx");
    EXPECT_EQ(decoded("\033[1\033[A"), L"\033[A");
}

TEST(rl_keys, while_searching_a_sequence_first_ends_the_search)
{
    EXPECT_EQ(decoded("\033[D", true), L"\033\033[D");
}

TEST(rl_keys, an_escape_alone_waits_until_it_is_released)
{
    rl_key_decoder decoder;
    wchar_t c = 0;
    bool is_text = true;
    decoder.feed(0x1b, false);
    EXPECT_TRUE(decoder.holds_escape());
    EXPECT_FALSE(decoder.take(&c, &is_text));
    decoder.release_escape();
    EXPECT_TRUE(decoder.take(&c, &is_text));
    EXPECT_FALSE(is_text);
    EXPECT_EQ(c, L'\033');
}

} // namespace
