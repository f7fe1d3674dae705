#include <gtest/gtest.h>

#include <csignal>
#include <unistd.h>

#include "platform/ve_out.h"
#include "platform/ve_wait.h"
#include "state/interrupt.h"

namespace
{

TEST(Interrupt, EndsEveryWaitUntilTheCommandHasEnded)
{
    ve_wait_init();
    for (int round = 0; round < 3; round++) {
        ASSERT_TRUE(interrupt_arm());
        raise(SIGINT);
        EXPECT_FALSE(ve_wait_interrupted()) << "noted outside a wait";
        EXPECT_EQ(ve_wait_sleep_ms(60000), -1);
        EXPECT_EQ(ve_wait_sleep_ms(60000), -1);
        interrupt_disarm();
        EXPECT_EQ(ve_wait_sleep_ms(1), 0);
        EXPECT_EQ(signal(SIGINT, SIG_DFL), SIG_DFL);
    }
}

TEST(Interrupt, IsSeenWhereSomethingIsReadyAllTheTime)
{
    ve_wait_init();
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    ASSERT_EQ(write(ends[1], "x", 1), 1);
    pollfd fd{ends[0], POLLIN, 0};
    ASSERT_TRUE(interrupt_arm());
    raise(SIGINT);
    EXPECT_EQ(ve_wait_poll(&fd, 1, -1), 1) << "what came before it";
    EXPECT_TRUE(ve_wait_interrupted());
    EXPECT_EQ(ve_wait_poll(&fd, 1, -1), -1);
    interrupt_disarm();
    close(ends[0]);
    close(ends[1]);
}

TEST(Interrupt, WhatIsPrintedAfterItIsDropped)
{
    ve_wait_init();
    testing::internal::CaptureStdout();
    ASSERT_TRUE(interrupt_arm());
    ve_printf("before\n");
    ve_out_flush();
    raise(SIGINT);
    ve_wait_checkpoint();
    ve_printf("%s\n", "a text");
    ve_puts("a line");
    ve_out_write("bytes", 5);
    interrupt_disarm();
    ve_puts("next");
    ve_out_flush();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "before\nnext\n");
}

TEST(Interrupt, BelongsToOneCommandAtATime)
{
    ve_wait_init();
    ASSERT_TRUE(interrupt_arm());
    EXPECT_FALSE(interrupt_arm());
    {
        const interrupt_suspension suspension;
        EXPECT_FALSE(interrupt_is_armed());
        EXPECT_TRUE(interrupt_arm());
    }
    EXPECT_FALSE(interrupt_is_armed());
    raise(SIGINT);
    ve_wait_checkpoint();
    EXPECT_FALSE(ve_wait_interrupted()) << "nobody's key was noted";
    interrupt_disarm();
    signal(SIGINT, SIG_IGN);
    EXPECT_FALSE(interrupt_arm()) << "somebody else's signal was taken";
    interrupt_disarm();
}

TEST(Interrupt, OneThatComesTooLateIsNobodys)
{
    ve_wait_init();
    ASSERT_TRUE(interrupt_arm());
    raise(SIGINT);
    interrupt_disarm();
    EXPECT_EQ(ve_wait_sleep_ms(1), 0);
}

} // namespace
