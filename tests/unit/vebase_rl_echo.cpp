#include "platform/ve_rl.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

namespace
{

/// A terminal as standard input.
class EchoTest : public testing::Test
{
protected:
    void SetUp() override
    {
        int terminal = -1;
        ASSERT_EQ(openpty(&master_, &terminal, nullptr, nullptr, nullptr), 0);
        kept_ = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 10);
        dup2(terminal, STDIN_FILENO);
        close(terminal);
    }
    void TearDown() override
    {
        dup2(kept_, STDIN_FILENO);
        close(kept_);
        close(master_);
    }
    static bool echoes()
    {
        termios modes{};
        return tcgetattr(STDIN_FILENO, &modes) == 0 && (modes.c_lflag & ECHO) != 0;
    }
    static void set_echo(bool on)
    {
        termios modes{};
        tcgetattr(STDIN_FILENO, &modes);
        modes.c_lflag = on ? modes.c_lflag | ECHO : modes.c_lflag & ~tcflag_t{ECHO};
        tcsetattr(STDIN_FILENO, TCSANOW, &modes);
    }

private:
    int master_ = -1;
    int kept_ = -1;
};

} // namespace

TEST_F(EchoTest, ComesBackAsItWas)
{
    for (const bool on : {true, false}) {
        set_echo(on);
        EXPECT_EQ(ve_rl_echo_off(STDIN_FILENO), 0);
        EXPECT_FALSE(echoes());
        EXPECT_EQ(ve_rl_echo_on(STDIN_FILENO), 0);
        EXPECT_EQ(echoes(), on);
    }
}

TEST_F(EchoTest, ComesBackWhenAnotherTerminalIsSilenced)
{
    int others_master = -1;
    int other = -1;
    ASSERT_EQ(openpty(&others_master, &other, nullptr, nullptr, nullptr), 0);
    set_echo(true);
    EXPECT_EQ(ve_rl_echo_off(STDIN_FILENO), 0);
    EXPECT_EQ(ve_rl_echo_off(other), 0);
    EXPECT_TRUE(echoes());
    EXPECT_EQ(ve_rl_echo_on(other), 0);
    close(other);
    close(others_master);
}

TEST_F(EchoTest, IsOffAgainWhenAStoppedProgramGoesOn)
{
    set_echo(true);
    const auto stop = [] {
        setsid(); // where nobody could let it go on, the system lets no program stop
        ve_rl_echo_off(STDIN_FILENO);
        raise(SIGTSTP);
        _exit(echoes() ? 1 : 0);
    };
    EXPECT_EXIT(stop(), testing::ExitedWithCode(0), "");
}

TEST_F(EchoTest, IsNotTouchedByWhoDidNotTurnItOff)
{
    ASSERT_EQ(ve_rl_echo_off(STDIN_FILENO), 0);
    ASSERT_EQ(ve_rl_echo_on(STDIN_FILENO), 0);
    set_echo(false);
    EXPECT_EQ(ve_rl_echo_on(STDIN_FILENO), 0);
    EXPECT_FALSE(echoes());
}
