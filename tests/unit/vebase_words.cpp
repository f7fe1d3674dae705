#include "platform/ve_words.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>

namespace
{

using texts = std::vector<std::string>;

texts split(std::string_view line)
{
    return ve_words_read(line).words;
}

/// The index of the word under a cursor.
size_t index_at(std::string_view line, size_t cursor)
{
    return ve_words_read(line.substr(0, cursor)).index;
}

std::string random_text(std::mt19937 &random, size_t longest)
{
    constexpr char alphabet[] = "ab.=:/ \t\n'\"\\#\xc3";
    std::string text;
    for (size_t length = random() % (longest + 1); length > 0; length--)
        text += alphabet[random() % (sizeof alphabet - 1)];
    return text;
}

} // namespace

TEST(Words, QuotesGroupAndAreDropped)
{
    EXPECT_EQ(split("a 'b c' d"), (texts{"a", "b c", "d"}));
    EXPECT_EQ(split("\"a'b\" 'c\"d'"), (texts{"a'b", "c\"d"}));
    EXPECT_EQ(split("x'y z'w"), (texts{"xy zw"}));
    EXPECT_EQ(split("''"), texts{});
    EXPECT_EQ(split("'a b"), (texts{"a b"}));
}

TEST(Words, ABackslashEscapesQuotesItselfAndTheCommentSign)
{
    EXPECT_EQ(split("a\\'b"), (texts{"a'b"}));
    EXPECT_EQ(split("a\\\\b \\#c"), (texts{"a\\b", "#c"}));
    EXPECT_EQ(split("a\\nb"), (texts{"a\\nb"}));
    EXPECT_EQ(split("a\\ b"), (texts{"a\\", "b"}));
    EXPECT_EQ(split("a\\"), (texts{"a\\"}));
    EXPECT_EQ(split("'a\\'b'"), (texts{"a'b"}));
}

TEST(Words, ACommentRunsToTheEndOfItsLine)
{
    EXPECT_EQ(split("a # comment"), (texts{"a"}));
    EXPECT_EQ(split("a#b\nc"), (texts{"a", "c"}));
    EXPECT_EQ(split("'#' x"), (texts{"#", "x"}));
    EXPECT_EQ(split("a # b \\ c\nd\ne"), (texts{"a", "e"})) << "a backslash anywhere in a comment carries it over";
    EXPECT_EQ(split("a # b\\c"), (texts{"a", "\\"})) << "one that still waits at the end is a word";
    EXPECT_TRUE(ve_words_read("cat # De").comment);
    EXPECT_TRUE(ve_words_read("cat De#").comment);
    EXPECT_FALSE(ve_words_read("cat \"# De").comment);
    EXPECT_FALSE(ve_words_read("cat \\#De").comment);
}

TEST(Words, EmptyAndBlankLinesHaveNone)
{
    EXPECT_EQ(split(""), texts{});
    EXPECT_EQ(split(" \t\n\v\f\r"), texts{});
}

TEST(Words, WhatIsNoTextIsReadAndTold)
{
    EXPECT_EQ(split("a \xff b"), (texts{"a", "\xff", "b"}));
    EXPECT_FALSE(ve_words_are_utf8(split("a \xff b")));
    EXPECT_TRUE(ve_words_are_utf8(split("\xc3'\xa9' # \xff"))) << "only words count, and only as they are read";
}

TEST(Words, TheCursorStandsInTheWordAtTheEndOrInTheNext)
{
    EXPECT_EQ(index_at("ab cd", 3), 1U);
    EXPECT_EQ(index_at("ab cd", 1), 0U);
    EXPECT_EQ(index_at("ab cd", 2), 0U);
    EXPECT_EQ(index_at("ab    cd", 4), 1U);
    EXPECT_EQ(index_at("ab cd ", 6), 2U);
    EXPECT_EQ(index_at("  ab", 4), 0U);
}

TEST(Words, TheWordBehindABlankIsNotBegun)
{
    for (const std::string text : {"", "cat ", "cat\t", "cat \"", "cat ''", "cat a b "}) {
        const ve_words line = ve_words_read(text);
        EXPECT_EQ(line.index, line.words.size()) << text;
        EXPECT_EQ(line.current(), "") << text;
        EXPECT_EQ(line.place(0), text.size()) << text;
    }
}

TEST(Words, TellWhereTheirBytesStand)
{
    const struct {
        const char *text;
        std::vector<size_t> places;
    } cases[] = {
        {"cat De", {4, 5}},    {"cat \"De", {5, 6}}, {"cat D\"e\"", {4, 6}},  {"a \\\"b", {2, 4}},
        {"a b\\c", {2, 3, 4}}, {"a b\\", {2, 3}},    {"a \"b c", {3, 4, 5}},  {"a 'b\"c'd", {3, 4, 5, 7}},
        {"a \"#b", {3, 4}},    {"a \\#b", {2, 4}},   {"a b\\\\c", {2, 3, 5}},
    };
    for (const auto &entry : cases) {
        const ve_words line = ve_words_read(entry.text);
        EXPECT_EQ(line.places, entry.places) << entry.text;
        EXPECT_EQ(line.place(1), entry.places[1]) << entry.text;
        EXPECT_EQ(line.current_from(entry.places[1]), line.current().substr(1)) << entry.text;
    }
}

TEST(Words, KnowTheOpenQuote)
{
    EXPECT_EQ(ve_words_read("a \"b").quote, '"');
    EXPECT_EQ(ve_words_read("a \"b'\" c").quote, '\0');
    EXPECT_EQ(ve_words_read("a \\\"b").quote, '\0');
    EXPECT_EQ(ve_words_read("a '\\'b").quote, '\'');
}

/// A text that is quoted reads back, alone and between others; and wherever a line of such words is cut, the word at
/// the cut is the beginning of the word that stands there.
TEST(Words, WhatIsQuotedReadsBack)
{
    std::mt19937 random(20);
    for (int round = 0; round < 5000; round++) {
        std::string line;
        texts expected;
        std::vector<size_t> ends;
        for (size_t count = random() % 4; count > 0; count--) {
            std::string text = random_text(random, 8);
            if (text.empty())
                continue;
            line += random() % 2 == 0 ? " " : "\t ";
            const char quote = "\0'\""[random() % 3];
            if (quote != 0)
                line += quote;
            line += ve_words_quote(text, quote, true);
            if (quote != 0)
                line += quote;
            expected.push_back(std::move(text));
            ends.push_back(line.size());
        }
        ASSERT_EQ(split(line), expected) << line;
        EXPECT_TRUE(ve_words_complete(line)) << line;
        for (size_t cut = 0; cut <= line.size(); cut++) {
            const ve_words before = ve_words_read(std::string_view(line).substr(0, cut));
            const size_t index = std::count_if(ends.begin(), ends.end(), [cut](size_t end) { return end < cut; });
            ASSERT_EQ(before.index, index) << line << " cut at " << cut;
            const std::string_view begun = before.current().substr(0, before.current().size() - before.escaped);
            if (index < expected.size())
                ASSERT_TRUE(expected[index].starts_with(begun)) << line << " cut at " << cut;
            else
                ASSERT_EQ(begun, "") << line << " cut at " << cut;
        }
    }
}

/// Whatever was typed before: a candidate that takes the place of a part of the word gives the word with that
/// candidate.
TEST(Words, WhatIsQuotedWhereAQuoteIsOpenReadsBack)
{
    std::mt19937 random(21);
    for (int round = 0; round < 20000; round++) {
        const std::string typed = "x " + random_text(random, 8);
        const ve_words line = ve_words_read(typed);
        if (line.comment || line.escaped || line.index + 1 != line.words.size())
            continue;
        const std::string more = random_text(random, 6) + "z";
        const std::string written = typed + ve_words_quote(more, line.quote, random() % 2 == 0);
        const texts words = split(written);
        ASSERT_EQ(words.size(), line.words.size()) << written;
        EXPECT_EQ(words.back(), std::string(line.current()) + more) << written;
    }
}

TEST(Words, ContinueInTheNextLineAfterABackslashOrAnOpenQuote)
{
    EXPECT_TRUE(ve_words_complete(""));
    EXPECT_FALSE(ve_words_complete("a\\"));
    EXPECT_TRUE(ve_words_complete("a\\\\"));
    EXPECT_FALSE(ve_words_complete("a\\\\\\"));
    EXPECT_FALSE(ve_words_complete("say 'hi"));
    EXPECT_TRUE(ve_words_complete("say 'a\\'b'"));
    EXPECT_TRUE(ve_words_complete("say \"it's\""));
    EXPECT_FALSE(ve_words_complete("'a\\\\")) << "an escaped backslash at the end, but the quote is open";
    EXPECT_FALSE(ve_words_complete("# it's")) << "quotes count in comments too";
}
