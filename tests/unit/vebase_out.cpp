#include "platform/ve_out.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <pthread.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace
{

/// Makes standard output a pipe that takes no more.
void fill_output()
{
    int ends[2];
    if (pipe(ends) != 0 || dup2(ends[1], STDOUT_FILENO) < 0)
        _exit(2);
    fcntl(STDOUT_FILENO, F_SETFL, O_NONBLOCK);
    while (write(STDOUT_FILENO, "x", 1) == 1)
        ;
    fcntl(STDOUT_FILENO, F_SETFL, 0);
}

} // namespace

TEST(Output, WhatNobodyReadsIsLeftBehindSignalsToo)
{
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        fill_output();
        struct sigaction action = {};
        action.sa_handler = [](int) {};
        action.sa_flags = SA_RESTART; // of a write, not of a poll
        sigaction(SIGUSR1, &action, nullptr);
        std::atomic<bool> left = false;
        std::thread writes([&] {
            ve_out_direct("x", 1);
            left = true;
        });
        for (int i = 0; i < 20; ++i) {
            usleep(5000);
            pthread_kill(writes.native_handle(), SIGUSR1);
        }
        ve_out_give_up();
        for (int i = 0; i < 1000 && !left; ++i)
            usleep(5000);
        if (!left)
            _exit(1);
        writes.join();
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}
