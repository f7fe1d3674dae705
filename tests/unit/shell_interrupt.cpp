#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <vector>

#include "platform/ve_landing.h"
#include "platform/ve_wait.h"
#include "state/interrupt.h"

namespace
{

int alive = 0;

/// Counts itself and keeps a text on the heap, which the leak checker would miss.
class counted
{
public:
    explicit counted(size_t size) : text_(size, 'x') { alive++; }
    counted(const counted &) = delete;
    counted &operator=(const counted &) = delete;
    ~counted()
    {
        EXPECT_EQ(text_.find_first_not_of('x'), std::string::npos);
        alive--;
    }

private:
    std::string text_;
};

[[gnu::noinline]] void wait_below(int depth)
{
    const jump_safe<counted> own(100 + static_cast<size_t>(depth));
    if (depth > 0) {
        wait_below(depth - 1);
    } else {
        raise(SIGINT);
        EXPECT_EQ(ve_wait_sleep_ms(60000), -1) << "Ctrl-C was not delivered";
    }
}

/// Uses as much stack as the frames that the jump left behind.
[[gnu::noinline]] size_t overwrite_stack()
{
    volatile char frame[4096];
    for (volatile char &byte : frame)
        byte = 0x5a;
    return sizeof frame + static_cast<size_t>(frame[17]);
}

TEST(Interrupt, EverythingJumpedOverIsReleased)
{
    ve_wait_init();
    const jump_safe<counted> outer(3);
    for (int round = 0; round < 50; round++) {
        ASSERT_EQ(alive, 1);
        ASSERT_EQ(signal(SIGINT, sigint_handler), SIG_DFL);
        ve_landing_node *const mark = ve_landing_mark();
        if (sigsetjmp(sigint_buf, 1) == 0) {
            sigint_buf_setted = 1;
            wait_below(20);
            FAIL() << "no jump";
        }
        EXPECT_GT(overwrite_stack(), 4096U);
        interrupt_land(mark);
        EXPECT_EQ(sigint_buf_setted, 0);
        signal(SIGINT, SIG_DFL);
    }
    EXPECT_EQ(alive, 1);
}

TEST(Interrupt, WithoutAnArmedJumpNothingHappens)
{
    ve_wait_init();
    signal(SIGINT, sigint_handler);
    raise(SIGINT);
    ve_wait_checkpoint();
    signal(SIGINT, SIG_DFL);
}

} // namespace
