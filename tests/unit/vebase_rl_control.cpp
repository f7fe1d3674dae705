#include "vebase/editor/rl_control.h"

#include <gtest/gtest.h>

#include <csignal>

#include "interrupts.h"

TEST(RlSignals, AWishToEndTheProgramIsNoKeyAndWaitsOn)
{
    const interrupts handling([](int) { ve_wait_note_interrupt(); });
    raise(SIGINT);
    EXPECT_FALSE(rl_signals::take_typed_interrupt());
    EXPECT_FALSE(ve_wait_interrupted());
    ve_wait_checkpoint();
    EXPECT_TRUE(ve_wait_interrupted());
}
