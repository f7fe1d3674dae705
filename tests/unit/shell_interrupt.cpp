#include <gtest/gtest.h>

#include <csignal>

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
