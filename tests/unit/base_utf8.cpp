#include "base/utf8.h"

#include <gtest/gtest.h>

#include <vector>

#include "base/visible.h"

namespace
{

/// Every string of up to four bytes out of those at which the rules turn.
std::vector<std::string> short_texts()
{
    static constexpr unsigned char turning[] = {0x00, 0x41, 0x7f, 0x80, 0x8f, 0x90, 0x9f, 0xa0, 0xbf, 0xc0, 0xc1,
                                                0xc2, 0xdf, 0xe0, 0xe1, 0xed, 0xef, 0xf0, 0xf1, 0xf4, 0xf5, 0xff};
    std::vector<std::string> texts{""};
    for (size_t begin = 0, length = 1; length <= 4; ++length) {
        const size_t end = texts.size();
        for (; begin < end; ++begin)
            for (const unsigned char byte : turning)
                texts.push_back(texts[begin] + static_cast<char>(byte));
    }
    return texts;
}

std::vector<std::string> forward(std::string_view text)
{
    std::vector<std::string> steps;
    while (!text.empty()) {
        const size_t size = utf8_first(text).size;
        steps.emplace_back(text.substr(0, size));
        text.remove_prefix(size);
    }
    return steps;
}

TEST(Utf8, EveryCharacterIsWrittenAndReadBack)
{
    for (char32_t code = 0; code <= 0x110000; ++code) {
        std::string text;
        utf8_append(&text, code);
        ASSERT_EQ(text.size(), utf8_size(code));
        const bool character = code < 0xd800 || (code > 0xdfff && code < 0x110000);
        const utf8_step step = utf8_first(text);
        ASSERT_EQ(step.well_formed, character) << std::hex << unsigned{code};
        ASSERT_EQ(utf8_valid(text), character);
        if (!character)
            continue;
        ASSERT_EQ(step.code, code);
        ASSERT_EQ(step.size, text.size());
        const utf8_step last = utf8_last("a" + text);
        ASSERT_EQ(last.code, code);
        ASSERT_EQ(last.size, text.size());
    }
}

TEST(Utf8, WhatIsNotWellFormedIsAStepForEachByte)
{
    for (const std::string_view text : {"\x80", "\xbf", "\xc0\xaf", "\xc1\xbf", "\xe0\x9f\xbf", "\xed\xa0\x80",
                                        "\xf0\x8f\xbf\xbf", "\xf4\x90\x80\x80", "\xf5\x80\x80\x80", "\xff"}) {
        EXPECT_EQ(forward(text).size(), text.size());
        EXPECT_FALSE(utf8_valid(text));
        EXPECT_FALSE(utf8_first(text).unfinished);
        EXPECT_EQ(utf8_first(text).code, static_cast<unsigned char>(text[0]));
    }
    EXPECT_EQ(forward("\xe2\x82\x41"), (std::vector<std::string>{"\xe2", "\x82", "A"}));
}

TEST(Utf8, ThreeBytesAreNoCharacterWhereTwoBytesAreLeft)
{
    for (const std::string_view text : {"\xc3", "\xe2", "\xe2\x82", "\xf0\x9f", "\xf0\x9f\x98"}) {
        EXPECT_TRUE(utf8_first(text).unfinished);
        EXPECT_EQ(utf8_first(text).size, 1U);
    }
    EXPECT_FALSE(utf8_first("\xe2\x82\xac").unfinished);
    EXPECT_FALSE(utf8_first("\xe0\x80").unfinished);
}

TEST(Utf8, BackwardIsForwardFromTheEnd)
{
    for (std::string_view text : short_texts()) {
        const std::string whole(text);
        std::vector<std::string> steps = forward(text);
        for (; !text.empty(); steps.pop_back()) {
            const utf8_step last = utf8_last(text);
            ASSERT_EQ(text.substr(text.size() - last.size), steps.back()) << testing::PrintToString(whole);
            text.remove_suffix(last.size);
        }
    }
}

TEST(Utf8, ACutNeverFallsIntoACharacter)
{
    for (const std::string &text : short_texts()) {
        const std::vector<std::string> steps = forward(text);
        for (size_t most = 0; most <= text.size(); ++most) {
            size_t whole = 0;
            for (size_t i = 0; i < steps.size() && whole + steps[i].size() <= most; ++i)
                whole += steps[i].size();
            ASSERT_EQ(utf8_cut(text, most), whole) << testing::PrintToString(text) << " at " << most;
        }
    }
    EXPECT_EQ(utf8_cut("a\xe2\x82\xac", 100), 4U);
}

TEST(Visible, PlainTextStaysAsItIs)
{
    for (const char *text : {"", "Device.Time. = \"x\"", "Zürich 東京 \xf0\x9f\x98\x80 e\xcc\x81"})
        EXPECT_EQ(visible(text), text);
}

TEST(Visible, ControlsAndIllFormedBytesAreEscapes)
{
    EXPECT_EQ(visible(std::string_view("a\0\x1b[2J\x7f\xc2\x9b\t\r\n", 12)), R"(a\x00\x1b[2J\x7f\u009b\x09\x0d\x0a)");
    EXPECT_EQ(visible("\xff\xc3(\xed\xa0\x80\xe2\x82"), R"(\xff\xc3(\xed\xa0\x80\xe2\x82)");
    EXPECT_EQ(visible("a\tb\r\nc", "\t\n"), "a\tb\\x0d\nc");
}

TEST(Visible, WhatTurnsATextAroundOrHidesIsAnEscape)
{
    EXPECT_EQ(visible("user\u202Etxt.exe\u2066\u200B\u200F\uFEFF"), R"(user\u202etxt.exe\u2066\u200b\u200f\ufeff)");
    EXPECT_EQ(visible("a\u00ADb\u061C\u2028\U000E0041"), R"(a\u00adb\u061c\u2028\U000e0041)");
    // What stands right before and behind them.
    for (const char32_t code :
         {U'\x20',       U'\x7e',       U'\xa0',       U'\xac',       U'\xae',       U'\u034e',     U'\u0350',
          U'\u0606',     U'\u061b',     U'\u061d',     U'\u06dc',     U'\u06de',     U'\u070e',     U'\u0710',
          U'\u088e',     U'\u0892',     U'\u08e1',     U'\u08e3',     U'\u115e',     U'\u1161',     U'\u17b3',
          U'\u17b6',     U'\u180a',     U'\u1810',     U'\u200a',     U'\u2010',     U'\u2027',     U'\u202F',
          U'\u205F',     U'\u2070',     U'\u3163',     U'\u3165',     U'\ufdff',     U'\ufe10',     U'\ufefe',
          U'\uff00',     U'\uff9f',     U'\uffa1',     U'\uffef',     U'\uFFFC',     U'\U000110bc', U'\U000110be',
          U'\U000110cc', U'\U000110ce', U'\U0001342f', U'\U00013440', U'\U0001bc9f', U'\U0001bca4', U'\U0001d172',
          U'\U0001d17b', U'\U000dffff', U'\U000E1000'})
        EXPECT_TRUE(is_visible(code)) << std::hex << unsigned{code};
}

} // namespace
