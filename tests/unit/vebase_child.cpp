#include "platform/ve_child.h"

#include <gtest/gtest.h>

#include <csignal>
#include <sys/wait.h>

#include "platform/ve_wait.h"

namespace
{

/// SIGINT as the program has it while a child runs.
class Child : public testing::Test
{
protected:
    Child()
    {
        disposition_ = signal(SIGINT, SIG_DFL);
        sigemptyset(&sigint_);
        sigaddset(&sigint_, SIGINT);
        pthread_sigmask(SIG_BLOCK, &sigint_, &before_);
    }
    ~Child() override
    {
        ve_wait_discard_sigint();
        pthread_sigmask(SIG_SETMASK, &before_, nullptr);
        signal(SIGINT, disposition_);
    }

private:
    void (*disposition_)(int);
    sigset_t sigint_;
    sigset_t before_;
};

} // namespace

TEST_F(Child, GivesItsStatus)
{
    const int failed = ve_child_run("exit 7");
    EXPECT_TRUE(WIFEXITED(failed));
    EXPECT_EQ(WEXITSTATUS(failed), 7);
    const int killed = ve_child_run("kill -9 $$");
    EXPECT_TRUE(WIFSIGNALED(killed));
    EXPECT_EQ(WTERMSIG(killed), SIGKILL);
}

TEST_F(Child, GetsACtrlCThatCameBeforeItWasThere)
{
    raise(SIGINT);
    const int status = ve_child_run("sleep 1; exit 3");
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGINT);
    EXPECT_EQ(ve_child_run("exit 0"), 0) << "it was one key press";
}
