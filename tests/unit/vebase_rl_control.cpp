#include "vebase/editor/rl_control.h"

#include <gtest/gtest.h>

#include <csignal>

#include "interrupts.h"

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
