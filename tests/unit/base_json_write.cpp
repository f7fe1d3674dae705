#include "base/json_write.h"

#include <gtest/gtest.h>

#include "base/json_ref.h"
#include "base/utf8.h"

namespace
{

TEST(JsonWrite, WritesAnyValueInTheLayoutAskedFor)
{
    const json_ref value{json_pack("{s:[i,b], s:s}", "a", 1, 1, "b", "\xc3\xa9\n")};
    EXPECT_EQ(json_written(value.get(), JSON_COMPACT), "{\"a\":[1,true],\"b\":\"\xc3\xa9\\n\"}");
    EXPECT_EQ(json_written(value.get(), 0), "{\"a\": [1, true], \"b\": \"\xc3\xa9\\n\"}");
    EXPECT_EQ(json_written(json_object_get(value.get(), "a"), JSON_INDENT(1)), "[\n 1,\n true\n]");
    EXPECT_EQ(json_written(json_object_get(value.get(), "b"), 0), "\"\xc3\xa9\\n\"");
    EXPECT_EQ(json_written(nullptr, 0), "");
}

TEST(JsonWrite, PiecesAreTheSameTextAndEndBetweenCharacters)
{
    std::string odd = "x";
    for (int i = 0; i < 20000; ++i)
        odd += "\xf0\x9f\x98\x80";
    const json_ref value{json_pack("[s,s,[i]]", odd.c_str(), "", 1)};
    std::string text;
    size_t pieces = 0;
    json_write_pieces(value.get(), JSON_INDENT(2), [&](std::string_view piece) {
        EXPECT_TRUE(utf8_valid(piece));
        text += piece;
        return ++pieces > 0;
    });
    EXPECT_EQ(text, json_written(value.get(), JSON_INDENT(2)));
    EXPECT_GT(pieces, 3U);
    size_t calls = 0;
    json_write_pieces(value.get(), 0, [&](std::string_view) { return ++calls < 2; });
    EXPECT_EQ(calls, 2U);
}

TEST(JsonWrite, ATextWrittenDirectlyReadsBackAsItWas)
{
    const std::string odd("q\"b\\s/\b\f\n\r\t\x01\x1f\x7f\xc3\xa4\0end", 20);
    std::string text = "[";
    json_write_string(&text, odd);
    text += ",";
    json_write_integer(&text, INT64_MIN);
    text += "]";
    const json_ref read{json_loadb(text.data(), text.size(), JSON_ALLOW_NUL, nullptr)};
    ASSERT_TRUE(read);
    const json_t *string = json_array_get(read.get(), 0);
    EXPECT_EQ(std::string(json_string_value(string), json_string_length(string)), odd);
    EXPECT_EQ(json_integer_value(json_array_get(read.get(), 1)), INT64_MIN);
}

TEST(JsonWrite, WhatIsWrittenIsWellFormedAlways)
{
    std::string text;
    json_write_string(&text, "a\xe9z \xc3\xa9 \xf0\x9f\x98 \xed\xa0\x80");
    EXPECT_EQ(text,
              "\"a\xef\xbf\xbdz \xc3\xa9 \xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd \xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd\"");
}

} // namespace
