#include "base/json_write.h"
#include "veld/base/memory.h"
#include "veld/base/value_size.h"
#include "veld/firmware/source_url.h"
#include "veld/firmware/upgrade.h"
#include "veld/machine/image.h"
#include "veld/model/password.h"
#include "veld/model/pattern.h"

#include <gtest/gtest.h>

using namespace veld;

namespace
{

bool matches(const char *expression, std::string_view text)
{
    std::string error;
    const auto compiled = pattern::compile(expression, &error);
    EXPECT_TRUE(compiled) << error;
    return compiled && compiled->matches(text);
}

TEST(VeldPattern, HoldsForTheWholeText)
{
    EXPECT_TRUE(matches("a|bc", "bc"));
    EXPECT_FALSE(matches("a|bc", "abc"));
    EXPECT_FALSE(matches("[0-9]+", "12\n"));
    EXPECT_FALSE(matches("^[0-9]+$", "12\n"));
    EXPECT_TRUE(matches("", ""));
    EXPECT_TRUE(matches(".", "\xe2\x82\xac"));
    EXPECT_FALSE(matches("[a-z]*", std::string_view("a\0b", 3)));
}

TEST(VeldPattern, AMatchThatCostsTooMuchIsNone)
{
    EXPECT_FALSE(matches("(a+)+b", std::string(60, 'a')));
    EXPECT_FALSE(matches("(?:a?){40}a{40}", std::string(39, 'a')));
}

TEST(VeldPattern, SaysWhyItIsNone)
{
    std::string error;
    EXPECT_FALSE(pattern::compile("[a", &error));
    EXPECT_EQ(error, "missing terminating ] for character class");
}

std::string written(json_t *value)
{
    std::string out;
    json_write_value(&out, value);
    json_decref(value);
    return out;
}

TEST(VeldJsonText, WritesWhatTheLibraryWrites)
{
    EXPECT_EQ(written(json_integer(INT64_MIN)), "-9223372036854775808");
    EXPECT_EQ(written(json_real(0.5)), "0.5");
    EXPECT_EQ(written(json_true()), "true");
    EXPECT_EQ(written(json_null()), "null");
    EXPECT_EQ(written(json_pack("{s:[i,s]}", "a", 1, "b\"")), R"({"a":[1,"b\""]})");
    const char odd[] = "q\"b\\s/\b\f\n\r\t\x01\x1f\x7f\xc3\xa4";
    const json_ref odd_text{json_string(odd)};
    char *expected = json_dumps(odd_text.get(), JSON_ENCODE_ANY);
    EXPECT_EQ(written(json_string(odd)), expected);
    free(expected);
    EXPECT_EQ(written(json_stringn("a\0b", 3)), R"("a\u0000b")");
}

std::string hash_of(const char *password)
{
    const json_ref plain{json_string(password)};
    return json_string_value(password_hash(plain.get()).get());
}

TEST(VeldPassword, OnlyTheRightOneMatchesItsHash)
{
    const std::string hash = hash_of("secret");
    EXPECT_NE(hash_of("secret"), hash);
    EXPECT_TRUE(password_matches("secret", hash));
    EXPECT_FALSE(password_matches("Secret", hash));
    EXPECT_FALSE(password_matches("", hash));
    EXPECT_FALSE(password_matches(std::string("secret\0x", 8), hash));
    EXPECT_FALSE(password_matches(std::string(100000, 'a'), hash));
    for (const char *unusable : {"", "*", "x", "$", "$6$", "secret"})
        EXPECT_FALSE(password_matches("secret", unusable)) << unusable;
    EXPECT_FALSE(password_matches("", ""));
}

TEST(VeldPassword, NoneIsKeptAsNone)
{
    EXPECT_EQ(hash_of(""), "");
    EXPECT_TRUE(password_hash_usable(json_ref{json_string("")}.get()));
}

TEST(VeldPassword, WhatIsNoTextWithoutNulIsNoHash)
{
    const std::string hash = hash_of("secret");
    EXPECT_TRUE(password_hash_usable(json_ref{json_string(hash.c_str())}.get()));
    EXPECT_FALSE(password_hash_usable(json_ref{json_stringn((hash + '\0').data(), hash.size() + 1)}.get()));
    EXPECT_FALSE(password_hash_usable(json_ref{json_integer(6)}.get()));
}

TEST(VeldVersion, IsTheSameInOtherDigits)
{
    EXPECT_TRUE(same_version("1.2.3", "1.02.3"));
    EXPECT_TRUE(same_version("box-1.2", "box-1.2.0"));
    EXPECT_FALSE(same_version("box-1.2", "1.2"));
    EXPECT_FALSE(same_version("1.2", "1.2.1"));
    // Of a firmware whose version says nothing.
    EXPECT_FALSE(same_version("box-", "box-0"));
    EXPECT_TRUE(same_version("", ""));
}

TEST(VeldValueSize, QuotesInTextsEndThemNot)
{
    EXPECT_EQ(size_as_values(R"("a\"{[,:1")"), size_as_values(R"("abcdefghi")"));
    EXPECT_EQ(size_as_values(R"("\\")"), size_as_values(R"("ab")"));
    EXPECT_LT(size_as_values(R"(["a"])"), size_as_values(R"(["a",1])"));
}

TEST(VeldMemory, NothingIsGivenBack)
{
    EXPECT_EQ(fatal_realloc(fatal_realloc(nullptr, 8), 0), nullptr);
}

TEST(VeldImage, ReadsItsHeader)
{
    image_header header;
    std::string error;
    EXPECT_TRUE(image_header_parse("VELD-FIRMWARE 1 MY-BOX-1.2.3.4", &header, &error));
    EXPECT_EQ(header.version, "MY-BOX-1.2.3.4");
    EXPECT_EQ(header.failure, 0);
    EXPECT_TRUE(image_header_parse("VELD-FIRMWARE 1 1.2.3 fail=-9", &header, &error));
    EXPECT_EQ(header.failure, -9);
    for (const char *line : {"", "VELD", "VELD-FIRMWARE", "VELD-FIRMWARE 1", "VELD-FIRMWARE 1  1.2.3",
                             "VELD-FIRMWARE 1 1.2.3.", "VELD-FIRMWARE 1 1..3", "VELD-FIRMWARE 1 A\x01-1.2.3",
                             "VELD-FIRMWARE 1 1.2.9999999999", "veld-firmware 1 1.2.3"})
        EXPECT_FALSE(image_header_parse(line, &header, &error)) << line;
}

TEST(VeldSourceUrl, TakesItsThreeKinds)
{
    source_url url;
    std::string error;
    ASSERT_TRUE(source_url_parse("file:///a/b%20c?d", &url, &error));
    EXPECT_EQ(url.path, "/a/b%20c?d");
    ASSERT_TRUE(source_url_parse("netcat://10.0.0.1:65535", &url, &error));
    EXPECT_EQ(url.host, "10.0.0.1");
    EXPECT_EQ(url.port, 65535);
    EXPECT_EQ(source_url_file(url), "");
    ASSERT_TRUE(source_url_parse("http://host", &url, &error));
    EXPECT_EQ(url.host + std::to_string(url.port) + url.path, "host80/");
    ASSERT_TRUE(source_url_parse("http://[::1]:81/x/y.bin?q=/z#f", &url, &error));
    EXPECT_EQ(url.host + " " + std::to_string(url.port) + url.path, "::1 81/x/y.bin?q=/z");
    EXPECT_EQ(source_url_file(url), "y.bin");
    ASSERT_TRUE(source_url_parse("http://host?q", &url, &error));
    EXPECT_EQ(url.path, "/?q");
    for (const char *text :
         {"", "x", "file://", "file:/x", "http://", "http://:80/", "http://h:0/", "http://h:65536/", "http://h:x/",
          "netcat://1.2.3.4", "netcat://1.2.3.4:", "netcat://[::1]:5", "netcat://1.2.3.4:5x", "https://h/"})
        EXPECT_FALSE(source_url_parse(text, &url, &error)) << text;
}

} // namespace
