// JSON texts read where they stand, against Jansson: the same texts are accepted, the same values found.
#include "platform/ve_json_text.h"

#include <gtest/gtest.h>

#include <iterator>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "base/json_ref.h"

namespace
{

json_ref read(std::string_view text)
{
    return json_ref(json_loadb(text.data(), text.size(), JSON_DECODE_ANY | JSON_ALLOW_NUL, nullptr));
}

std::string dumped(const json_t *value)
{
    std::string text;
    json_dump_callback(
        value,
        [](const char *data, size_t size, void *out) {
            static_cast<std::string *>(out)->append(data, size);
            return 0;
        },
        &text, JSON_ENCODE_ANY);
    return text;
}

std::string shown(json_piece piece)
{
    std::string text;
    piece.append_to(&text);
    return text;
}

/// Whatever Jansson finds in a value, the piece shows too.
void expect_alike(json_piece piece, const json_t *value)
{
    ASSERT_EQ(shown(piece), dumped(value)) << piece.text();
    std::string room;
    const std::optional<std::string_view> text = piece.string(&room);
    ASSERT_EQ(text.has_value(), json_is_string(value)) << piece.text();
    if (text) {
        ASSERT_EQ(*text, std::string_view(json_string_value(value), json_string_length(value)));
    }
    size_t count = 0;
    for (json_walk elements(piece.is_array() ? piece : json_piece()); elements.next(); ++count)
        expect_alike(elements.value(), json_array_get(value, count));
    ASSERT_EQ(count, json_array_size(value)) << piece.text();
    const char *key;
    json_t *member;
    json_object_foreach(const_cast<json_t *>(value), key, member) expect_alike(piece.member(key), member);
    ASSERT_FALSE(piece.member("\x01 no such name"));
}

/// True when both accept the text, and then find the same in it.
bool accepted(std::string_view text)
{
    const json_ref value = read(text);
    EXPECT_EQ(json_text_check(text), static_cast<bool>(value)) << text;
    if (value && json_text_check(text))
        expect_alike(json_piece(text), value.get());
    return static_cast<bool>(value);
}

std::string nested(size_t levels, const std::string &inside)
{
    return std::string(levels, '[') + inside + std::string(levels, ']');
}

/// A document made of all that JSON knows, some of it wrong now and then.
class documents
{
public:
    explicit documents(unsigned seed) : chance_(seed) {}

    std::string any(int levels)
    {
        std::string text = blanks();
        const unsigned kind = chance_() % (levels > 0 ? 8 : 5);
        if (kind < 5) {
            text += kind < 2 ? string() : pick(scalars);
        } else {
            const bool object = kind == 5;
            text += object ? '{' : '[';
            for (unsigned left = chance_() % 5; left > 0; --left)
                text += (object ? blanks() + string() + blanks() + ':' : "") + any(levels - 1) + (left > 1 ? "," : "");
            text += object ? '}' : ']';
        }
        return text + blanks();
    }

    /// The text with one of its bytes lost, doubled or replaced.
    std::string spoilt(std::string text)
    {
        if (text.empty())
            return text;
        const size_t at = chance_() % text.size();
        const unsigned how = chance_() % 3;
        if (how == 0)
            text.erase(at, 1);
        else
            text.replace(at, how == 1 ? 0 : 1, 1, "{}[]\",:\\u0-.e \n\x80\xff"[chance_() % 17]);
        return text;
    }

private:
    template <class Table> std::string pick(const Table &table) { return table[chance_() % std::size(table)]; }
    std::string blanks() { return chance_() % 8 == 0 ? pick(spaces) : ""; }

    std::string string()
    {
        std::string text = "\"";
        for (unsigned left = chance_() % 6; left > 0; --left)
            text += pick(texts);
        return text + '"';
    }

    static constexpr const char *spaces[] = {" ", "\t", "\r", "\n", "  \n"};
    static constexpr const char *scalars[] = {
        "true",  "false", "null", "0",    "-0",     "1",   "-17",     "9223372036854775807", "-9223372036854775808",
        "1.5",   "-0.0",  "1e3",  "2E-3", "1e-400", "0.1", "1.25e+2", "123456789012345678",  "1234567890123456789",
        "1e400", "tru",   "01",   "1.",   "-",      "+1",  "1e",      "9223372036854775808", "-9223372036854775809",
        "{}",    "[]",    "[ ]",  "{ }"};
    static constexpr const char *texts[] = {"Name",
                                            "Value",
                                            "a",
                                            "Device.Hosts.Host.1.Name",
                                            "\\n",
                                            "\\\\",
                                            "\\\"",
                                            "\\/",
                                            "\\u0041",
                                            "\\u00e9",
                                            "\\u0000",
                                            "\\ud83d\\ude00",
                                            "\\ud83d",
                                            "\\ude00",
                                            "\\uD83D\\u0041",
                                            "\\u12G4",
                                            "\\x",
                                            "\xc3\xa9",
                                            "\xe2\x82\xac",
                                            "\xf0\x9f\x98\x80",
                                            "\xed\xa0\x80",
                                            "\xc0\x80",
                                            "\xf4\x90\x80\x80",
                                            "\x7f",
                                            "\x1f",
                                            " ",
                                            "{",
                                            "]",
                                            "\\u001f",
                                            "\\b\\f\\r\\t"};
    std::mt19937 chance_;
};

} // namespace

TEST(JsonText, AcceptsWhatJanssonAccepts)
{
    for (const char *text :
         {"{}", " { } ", "[]", "null", "\"\"", "\"a\\u0000b\"", "12", "-0", "1.0", "1e2", "\"\xf4\x8f\xbf\xbf\"",
          "[1 , 2]", "{\"a\" : {\"b\":[true,false,null]}}", "{\"a\":1,\"a\":2}", "\"\\uD834\\uDd1E\"",
          "9223372036854775807", "-9223372036854775808", "1e-999", "\"exactly eight bytes or more \x7f\""})
        EXPECT_TRUE(accepted(text)) << text;
    EXPECT_TRUE(accepted(std::string(400, '1') + ".5e-200"));
}

TEST(JsonText, RefusesWhatJanssonRefuses)
{
    for (const char *text : {"",
                             " ",
                             "{",
                             "}",
                             "[",
                             "]",
                             "[1",
                             "[1,",
                             "[1,]",
                             "[,1]",
                             "{\"a\"}",
                             "{\"a\":}",
                             "{\"a\":1,}",
                             "{,}",
                             "{1:2}",
                             "{\"a\" 1}",
                             "[1 2]",
                             "[1}",
                             "{\"a\":1]",
                             "[] []",
                             "{} x",
                             "tru",
                             "truex",
                             "nul",
                             "+1",
                             "01",
                             "-",
                             "-a",
                             "1.",
                             ".5",
                             "1.e1",
                             "1e",
                             "1e+",
                             "0x1",
                             "NaN",
                             "Infinity",
                             "'a'",
                             "\"",
                             "\"a",
                             "\"\\",
                             "\"\\\"",
                             "\"\\u12\"",
                             "\"\\u123",
                             "\"\\u12g4\"",
                             "\"\\x41\"",
                             "\"\\ud800\"",
                             "\"\\ud800x\"",
                             "\"\\ud800\\n\"",
                             "\"\\ud800\\ud800\"",
                             "\"\\udc00\"",
                             "\"\\ud800\\udc0\"",
                             "\"a\nb\"",
                             "\"a\tb\"",
                             "\"seven b\x1f and on\"",
                             "\"\x80\"",
                             "\"\xc3\"",
                             "\"\xc3(\"",
                             "\"\xc0\xaf\"",
                             "\"\xe0\x80\xaf\"",
                             "\"\xed\xa0\x80\"",
                             "\"\xf0\x8f\xbf\xbf\"",
                             "\"\xf4\x90\x80\x80\"",
                             "\"\xf8\x88\x80\x80\x80\"",
                             "\"\xe2\x82",
                             "\xef\xbb\xbf{}",
                             "9223372036854775808",
                             "-9223372036854775809",
                             "1e999",
                             "-1e999",
                             "[1]\x01",
                             "{\"a\\u0000\":1}"})
        EXPECT_FALSE(accepted(text)) << text;
    EXPECT_FALSE(accepted(std::string_view("[1]\0", 4)));
    EXPECT_FALSE(json_text_check(std::string_view("[1\0]", 4))); // which Jansson overlooks
    EXPECT_FALSE(accepted(std::string_view("\"a\0b\"", 5)));
    EXPECT_FALSE(accepted(std::string(400, '1') + ".5"));
}

TEST(JsonText, TakesAsManyLevelsAsJansson)
{
    EXPECT_TRUE(accepted(nested(2048, "")));
    EXPECT_FALSE(accepted(nested(2049, "")));
    EXPECT_TRUE(accepted(nested(2047, "1")));
    EXPECT_FALSE(accepted(nested(2048, "1")));
    EXPECT_FALSE(accepted(nested(2048, "{}")));
}

TEST(JsonText, ReadsAnyDocumentAsJanssonDoes)
{
    documents made(1);
    size_t valid = 0;
    for (int i = 0; i < 30000; ++i) {
        const std::string text = made.any(5);
        valid += accepted(text) ? 1 : 0;
        accepted(made.spoilt(text));
        ASSERT_FALSE(HasFailure());
    }
    EXPECT_GT(valid, 3000U);
}

TEST(JsonText, MembersAreFoundByWhatTheirNamesMean)
{
    const json_piece object(R"({"\\":1, "\\\\":2, "\"a":3, "\u0041\n":4})");
    EXPECT_EQ(shown(object.member("\\")), "1");
    EXPECT_EQ(shown(object.member("\\\\")), "2");
    EXPECT_EQ(shown(object.member("\"a")), "3");
    EXPECT_EQ(shown(object.member("A\n")), "4");
}

TEST(JsonText, MembersGivenTwiceAreTheLastOnes)
{
    const json_piece object(R"( {"a":1, "b":{"c":2}, "\u0061":3} )");
    EXPECT_EQ(shown(object.member("a")), "3");
    EXPECT_EQ(shown(object.member("b").member("c")), "2");
    EXPECT_FALSE(object.member("c"));
    EXPECT_FALSE(object.member("a").member("b"));
    EXPECT_FALSE(json_piece().member("a"));
    EXPECT_EQ(shown(json_piece()), "");
}

TEST(Parameters, AreReadWithTheirMembersInOrder)
{
    ve_parameters list(json_piece(
        R"([{"Name":"D.a","Value":1},{"Value":"t","x":[{}],"Name":"\u0044.b\u0000c"}, 5,{"Name":7}, {},
            {"Name":"D.","Attributes":{"multi":true},"Template":[{"Name":""}]},{"Name":"first","Name":"last"}])"));
    ve_parameter entry;
    ASSERT_TRUE(list.next(&entry));
    EXPECT_EQ(entry.name, "D.a");
    EXPECT_EQ(entry.value.text(), "1");
    EXPECT_FALSE(entry.attributes || entry.pattern);
    ASSERT_TRUE(list.next(&entry));
    EXPECT_EQ(entry.name, std::string_view("D.b\0c", 5));
    EXPECT_EQ(entry.value.text(), "\"t\"");
    for (int unnamed = 0; unnamed < 3; ++unnamed) {
        ASSERT_TRUE(list.next(&entry));
        EXPECT_FALSE(entry.name || entry.value || entry.attributes || entry.pattern);
    }
    ASSERT_TRUE(list.next(&entry));
    EXPECT_EQ(entry.attributes.text(), R"({"multi":true})");
    ve_parameters pattern(entry.pattern);
    ASSERT_TRUE(pattern.next(&entry));
    EXPECT_EQ(entry.name, "");
    EXPECT_FALSE(pattern.next(&entry));
    ASSERT_TRUE(list.next(&entry));
    EXPECT_EQ(entry.name, "last");
    EXPECT_FALSE(list.next(&entry));
    EXPECT_FALSE(list.next(&entry));
}

TEST(Parameters, OfWhatIsNoListAreNone)
{
    ve_parameter entry;
    for (const char *text : {"{\"Name\":\"a\"}", "\"a\"", "null", "[]", "[ ]"})
        EXPECT_FALSE(ve_parameters(json_piece(text)).next(&entry)) << text;
    EXPECT_FALSE(ve_parameters(json_piece()).next(&entry));
}
