// Ctrl-C in a test as the program has it: blocked but at wait points, where a handler of the test's own sees it.
#pragma once

#include <pthread.h>

#include <csignal>

#include "platform/ve_wait.h"

class interrupts
{
public:
    explicit interrupts(void (*handler)(int))
    {
        ve_wait_init();
        struct sigaction action {
        };
        action.sa_handler = handler;
        sigaction(SIGINT, &action, &before_);
    }
    interrupts(const interrupts &) = delete;
    interrupts &operator=(const interrupts &) = delete;
    ~interrupts()
    {
        ve_wait_clear_interrupt();
        ve_wait_discard_sigint();
        sigaction(SIGINT, &before_, nullptr);
        sigset_t interrupt;
        sigemptyset(&interrupt);
        sigaddset(&interrupt, SIGINT);
        pthread_sigmask(SIG_UNBLOCK, &interrupt, nullptr);
    }

private:
    struct sigaction before_ {
    };
};
