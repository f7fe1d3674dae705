#include "vebase/editor/rl_control.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "interrupts.h"
#include "platform/ve_rl.h"

TEST(RlSignals, OneThatCameTooLateToBeServedIsHandedOver)
{
    for (const int number : rl_signals::fatal) {
        rl_signals signals;
        signals.install();
        EXPECT_TRUE(signals.is_default(number));
        raise(number);
        EXPECT_EQ(signals.restore(), number);
        EXPECT_EQ(signals.restore(), 0);
    }
}

TEST(RlSignals, AWishToEndTheProgramIsNoKeyAndWaitsOn)
{
    const interrupts handling([](int) { ve_wait_note_interrupt(); });
    raise(SIGINT);
    EXPECT_FALSE(rl_signals::take_typed_interrupt());
    EXPECT_FALSE(ve_wait_interrupted());
    ve_wait_checkpoint();
    EXPECT_TRUE(ve_wait_interrupted());
}

// While the whole program stands still the line has no chance to leave the screen.
TEST(RlControl, AStopIsNoReasonToTakeTheScreen)
{
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        std::atomic<bool> released = false;
        std::atomic<bool> given = false;
        rl_control_claim_screen();
        std::thread other([&] {
            ve_rl_write_control_char(-1, ve_rl_hide);
            given = released.load();
        });
        while (!rl_control_hidden())
            usleep(1000);
        raise(SIGSTOP);
        usleep(50000);
        released = true;
        rl_control_release_screen();
        other.join();
        _exit(given ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, WUNTRACED), child);
    ASSERT_TRUE(WIFSTOPPED(status));
    usleep(700000);
    kill(child, SIGCONT);
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST(RlControl, ALineThatNeverLeavesTheScreenIsNotWaitedForForever)
{
    rl_control_claim_screen();
    ve_rl_write_control_char(-1, ve_rl_hide);
    EXPECT_TRUE(rl_control_hidden());
    rl_control_release_screen();
    rl_control_unhide();
}
