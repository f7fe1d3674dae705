#include "platform/ve_wait.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <sys/resource.h>

TEST(Wait, APollThatTheKernelRefusesFails)
{
    ve_wait_init();
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none{0, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0); // no poll may ask about more descriptors than there may be
    pollfd fd{-1, POLLIN, 0};
    const int ready = ve_wait_poll(&fd, 1, ve_wait_deadline(1000));
    const int problem = errno;
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(ready, -1);
    EXPECT_EQ(problem, EINVAL);
}
