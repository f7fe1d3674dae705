#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/ve_history.h"
#include "shell/history_expand.h"

namespace
{

class HistoryExpand : public testing::Test
{
protected:
    HistoryExpand()
    {
        for (const char *entry : {"one", "two words", "three"})
            history_.add(entry);
    }

    std::string expanded(std::string line)
    {
        replaced_ = history_expand(history_, line);
        return line;
    }
    ve_history history_;
    unsigned replaced_ = 0;
};

TEST_F(HistoryExpand, ReplacesReferences)
{
    const struct {
        const char *line;
        const char *expanded;
        unsigned replaced;
    } cases[] = {
        {"!!", "three", 1},
        {"!1", "one", 1},
        {"!3", "three", 1},
        {"!-1", "three", 1},
        {"!-3", "one", 1},
        {"cat !2", "cat two words", 1},
        {"\t!1 !2", "\tone two words", 2},
        {"a !!", "a three", 1},
        {"!1.Name x", "one x", 1}, // the whole word is the reference
        {"!01", "one", 1},
    };
    for (const auto &entry : cases) {
        EXPECT_EQ(expanded(entry.line), entry.expanded) << entry.line;
        EXPECT_EQ(replaced_, entry.replaced) << entry.line;
    }
}

TEST_F(HistoryExpand, LeavesEverythingElse)
{
    for (const char *line : {"", "a", "a!1", "a!!", "!", "!x", "!0", "!-0", "!-", "!4", "!-4", "!+1", "! 1", "!--1",
                             "!! a", "!!!", "!18446744073709551617", "!-18446744073709551617", "!x !1"}) {
        EXPECT_EQ(expanded(line), line);
        EXPECT_EQ(replaced_, 0U) << line;
    }
}

TEST_F(HistoryExpand, ANumberHasAnyDigit)
{
    for (int i = static_cast<int>(history_.size()) + 1; i <= 90; ++i)
        history_.add("entry " + std::to_string(i));
    for (const int i : {5, 6, 7, 8, 9, 10, 19, 29, 90})
        EXPECT_EQ(expanded("!" + std::to_string(i)), "entry " + std::to_string(i));
}

TEST_F(HistoryExpand, AReplacementMayHoldAReference)
{
    history_.add("x !1");
    EXPECT_EQ(expanded("!!"), "x one");
    EXPECT_EQ(replaced_, 2U);
}

TEST_F(HistoryExpand, EndsWhenAnEntryRefersToItself)
{
    history_.add("!!");
    EXPECT_EQ(expanded("!!"), "!!");
    history_.add("!5 !5 x");
    const std::string line = expanded("!5");
    EXPECT_TRUE(line.starts_with("!5 !5 x"));
    EXPECT_LT(line.size(), 10000U);
}

TEST_F(HistoryExpand, EndsWhenTheLineGetsTooLong)
{
    history_.add("!4 " + std::string(1 << 20, 'x'));
    EXPECT_LT(expanded("!4").size(), size_t{3} << 20);
    // In a text as long as that, nothing is replaced any more.
    const std::string rest = " " + std::string((1 << 20) + (1 << 19), 'x');
    EXPECT_TRUE(expanded("!1 !1" + rest) == "one !1" + rest);
}

} // namespace
