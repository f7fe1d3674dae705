#include "state/prompt.h"

#include <cstring>
#include <gtest/gtest.h>
#include <string>

#include "cdpath/cdpath.h"
#include "event/request.h"

namespace
{

class Prompt : public testing::Test
{
protected:
    void SetUp() override { log_in(nullptr); }
    void TearDown() override
    {
        cwd = dm_path();
        prompt_update_postfix(nullptr);
        log_in(nullptr);
    }
    static void log_in(const char *name) { kest_update_login(name, nullptr); }
    static void stand_at(const char *path) { cwd = dm_path(path); }
    static std::string shown()
    {
        prompt_update_path();
        return prompt_get();
    }
};

} // namespace

TEST_F(Prompt, NamesTheProgramAndThePlace)
{
    EXPECT_EQ(shown(), "kest:> ");
    stand_at("Device.Hosts");
    EXPECT_EQ(shown(), "kest:Device.Hosts> ");
}

TEST_F(Prompt, NamesTheLogin)
{
    log_in("admin");
    stand_at("Device");
    EXPECT_EQ(shown(), "admin@kest:Device> ");
    log_in("");
    EXPECT_EQ(shown(), "kest:Device> ");
}

TEST_F(Prompt, NamesTheModeBehindTheProgram)
{
    log_in("admin");
    prompt_update_postfix("record");
    EXPECT_STREQ(prompt_get(), "admin@kest-record:> ");
    prompt_update_postfix("lua(fail)");
    EXPECT_STREQ(prompt_get(), "admin@kest-lua(fail):> ");
    prompt_update_postfix(nullptr);
    EXPECT_STREQ(prompt_get(), "admin@kest:> ");
}

TEST_F(Prompt, ALongModeWordIsCut)
{
    prompt_update_postfix("abcdefghijklmnopqrstuvwxyz");
    EXPECT_STREQ(prompt_get(), "kest-abcdefghijklmn:> ");
}

TEST_F(Prompt, ALongLoginIsCutForTheEyeOnly)
{
    const std::string login(10000, 'x');
    log_in(login.c_str());
    EXPECT_EQ(shown(), login.substr(0, 383));
    EXPECT_EQ(saved_login().user, login);
}

TEST_F(Prompt, IsCutBetweenCharacters)
{
    const auto cut = [](const std::string &character, const std::string &before) {
        std::string login = before;
        while (login.size() < 1000)
            login += character;
        log_in(login.c_str());
        return shown().size();
    };
    EXPECT_EQ(cut("é", ""), 382U);
    EXPECT_EQ(cut("é", "a"), 383U);
    EXPECT_EQ(cut("€", ""), 381U);
    EXPECT_EQ(cut("€", "a"), 382U);
    EXPECT_EQ(cut("€", "aa"), 383U);
    EXPECT_EQ(cut("😀", "aa"), 382U);
}

TEST_F(Prompt, AnUnfinishedStatementHasItsOwn)
{
    prompt_set_incompleted(1);
    EXPECT_STREQ(prompt_get(), "> ");
    prompt_set_incompleted(0);
    EXPECT_STREQ(prompt_get(), "kest:> ");
}

TEST_F(Prompt, PassingTheKeptLoginItselfIsSafe)
{
    log_in("admin");
    kest_update_login(saved_login().user.c_str(), saved_login().password.c_str());
    EXPECT_EQ(saved_login().user, "admin");
    EXPECT_EQ(saved_login().password, "");
}
