#include "commands/password.h"

#include <gtest/gtest.h>

TEST(SecretText, GrowsAndKeepsWhatWasAdded)
{
    secret_text text;
    std::string expected;
    for (int i = 0; i < 10000; ++i) {
        text.add(static_cast<char>('a' + i % 26));
        expected += static_cast<char>('a' + i % 26);
    }
    EXPECT_EQ(text, expected);
}

TEST(SecretText, WipesItsWholeMemory)
{
    secret_text text;
    for (const char *at = "a secret that is longer than any short text"; *at != '\0'; ++at)
        text.add(*at);
    const char *memory = text.data();
    const size_t size = text.size();
    text.wipe();
    EXPECT_TRUE(text.empty());
    ASSERT_EQ(text.data(), memory);
    for (size_t i = 0; i < size; ++i)
        ASSERT_EQ(memory[i], 0);
}
