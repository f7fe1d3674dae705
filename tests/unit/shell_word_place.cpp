#include <gtest/gtest.h>

#include <random>
#include <string>

#include "platform/ve_json.h"
#include "shell/word_place.h"
#include "utils/words.h"

namespace
{

TEST(WordPlace, TheWordBehindABlankIsNotBegun)
{
    for (const char *text : {"", "cat ", "cat\t", "cat \"", "cat ''", "cat a b "}) {
        const word_place place = find_last_word(text);
        EXPECT_TRUE(place.bytes.empty()) << text;
        EXPECT_EQ(place.at(0), strlen(text)) << text;
    }
}

TEST(WordPlace, QuotesAndEscapesAreNotPartOfTheWord)
{
    // A word, and where each of its bytes stands.
    const struct {
        const char *text;
        std::vector<size_t> bytes;
    } cases[] = {
        {"cat De", {4, 5}},    {"cat \"De", {5, 6}}, {"cat D\"e\"", {4, 6}},  {"a \\\"b", {2, 4}},
        {"a b\\c", {2, 3, 4}}, {"a b\\", {2, 3}},    {"a \"b c", {3, 4, 5}},  {"a 'b\"c'd", {3, 4, 5, 7}},
        {"a \"#b", {3, 4}},    {"a \\#b", {2, 4}},   {"a b\\\\c", {2, 3, 5}},
    };
    for (const auto &entry : cases)
        EXPECT_EQ(find_last_word(entry.text).bytes, entry.bytes) << entry.text;
}

TEST(WordPlace, AnUnquotedHashBeginsAComment)
{
    EXPECT_TRUE(find_last_word("cat # De").comment);
    EXPECT_TRUE(find_last_word("cat De#").comment);
    EXPECT_FALSE(find_last_word("cat \"# De").comment);
    EXPECT_FALSE(find_last_word("cat \\#De").comment);
}

/// Whatever is typed, the word under the cursor is the one that the splitter finds.
TEST(WordPlace, AgreesWithTheSplitter)
{
    std::mt19937 random(20);
    constexpr char alphabet[] = "ab.=:/ \t'\"\\#";
    for (int round = 0; round < 20000; round++) {
        std::string text;
        for (unsigned length = random() % 12; length > 0; length--)
            text += alphabet[random() % (sizeof alphabet - 1)];
        const word_place place = find_last_word(text);
        if (place.comment)
            continue;
        size_t index = 0;
        const json_ref words(str_split(text.c_str(), static_cast<long>(text.size()), &index));
        const char *word = json_string_value(json_array_get(words.get(), index));
        std::string found;
        for (const size_t byte : place.bytes) {
            const bool escape = text[byte] == '\\' && byte + 1 < text.size() && found.size() < strlen(word) &&
                                word[found.size()] == text[byte + 1] && word[found.size()] != '\\';
            found += text[escape ? byte + 1 : byte];
        }
        EXPECT_EQ(found, word != nullptr ? word : "") << "in <" << text << ">";
    }
}

} // namespace
