#include "utils/words.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "platform/ve_json.h"

namespace
{

using words = std::vector<std::string>;

words split(const char *text)
{
    const json_ref array{str_split(text, -1, nullptr)};
    words result;
    size_t index;
    json_t *value;
    json_array_foreach(array.get(), index, value)
        result.emplace_back(json_string_value(value), json_string_length(value));
    return result;
}

size_t index_at(const char *text, long position)
{
    size_t index = 99;
    const json_ref array{str_split(text, position, &index)};
    return index;
}

} // namespace

TEST(StrSplit, QuotesGroupAndAreDropped)
{
    EXPECT_EQ(split("a 'b c' d"), (words{"a", "b c", "d"}));
    EXPECT_EQ(split("\"a'b\" 'c\"d'"), (words{"a'b", "c\"d"}));
    EXPECT_EQ(split("x'y z'w"), (words{"xy zw"}));
    EXPECT_EQ(split("''"), words{});
    EXPECT_EQ(split("'a b"), (words{"a b"}));
}

TEST(StrSplit, ABackslashEscapesQuotesItselfAndTheCommentSign)
{
    EXPECT_EQ(split("a\\'b"), (words{"a'b"}));
    EXPECT_EQ(split("a\\\\b \\#c"), (words{"a\\b", "#c"}));
    EXPECT_EQ(split("a\\nb"), (words{"a\\nb"}));
    EXPECT_EQ(split("a\\ b"), (words{"a\\", "b"}));
    EXPECT_EQ(split("a\\"), (words{"a\\"}));
    EXPECT_EQ(split("'a\\'b'"), (words{"a'b"}));
}

TEST(StrSplit, ACommentRunsToTheEndOfItsLine)
{
    EXPECT_EQ(split("a # comment"), (words{"a"}));
    EXPECT_EQ(split("a#b\nc"), (words{"a", "c"}));
    EXPECT_EQ(split("'#' x"), (words{"#", "x"}));
    EXPECT_EQ(split("a # b \\ c\nd\ne"), (words{"a", "e"})) << "a backslash anywhere in a comment carries it over";
}

TEST(StrSplit, EmptyAndBlankTextsHaveNoWords)
{
    EXPECT_EQ(split(""), words{});
    EXPECT_EQ(split(" \t\n\v\f\r"), words{});
    EXPECT_EQ(str_split(nullptr, -1, nullptr), nullptr);
}

TEST(StrSplit, WordsThatAreNotUtf8AreRefused)
{
    EXPECT_EQ(str_split("a \xff b", -1, nullptr), nullptr);
}

TEST(StrSplit, CountsTheWordUnderAPosition)
{
    EXPECT_EQ(index_at("ab cd", 3), 1U);
    EXPECT_EQ(index_at("ab cd", 1), 0U);
    EXPECT_EQ(index_at("ab cd", 2), 0U);
    EXPECT_EQ(index_at("ab    cd", 4), 1U);
    EXPECT_EQ(index_at("ab cd ", 6), 2U);
    EXPECT_EQ(index_at("  ab", 4), 0U);
    EXPECT_EQ(index_at("ab #c", 5), 2U);
}

TEST(LineCompleted, ContinuesAfterABackslashOrAnOpenQuote)
{
    EXPECT_EQ(line_completed(nullptr), 1);
    EXPECT_EQ(line_completed(""), 1);
    EXPECT_EQ(line_completed("a\\"), 0);
    EXPECT_EQ(line_completed("a\\\\"), 1);
    EXPECT_EQ(line_completed("a\\\\\\"), 0);
    EXPECT_EQ(line_completed("say 'hi"), 0);
    EXPECT_EQ(line_completed("say 'a\\'b'"), 1);
    EXPECT_EQ(line_completed("say \"it's\""), 1);
    EXPECT_EQ(line_completed("'a\\\\"), 0) << "an escaped backslash at the end, but the quote is open";
    EXPECT_EQ(line_completed("# it's"), 0) << "quotes count in comments too";
}
