#include "base/thread.h"

#include <csignal>
#include <memory>
#include <sys/resource.h>

namespace
{

using thread_body = std::function<void()>;

void *run(void *argument)
{
    const std::unique_ptr<thread_body> body(static_cast<thread_body *>(argument));
    (*body)();
    return nullptr;
}

bool start(pthread_t *thread, int detach_state, size_t stack_size, thread_body body)
{
    auto handed_over = std::make_unique<thread_body>(std::move(body));
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, detach_state);
    const bool has_stack = pthread_attr_setstacksize(&attributes, stack_size > 0 ? stack_size : thread_stack_size) == 0;
    // A new thread begins with the mask of the one that made it.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const bool started = has_stack && pthread_create(thread, &attributes, run, handed_over.get()) == 0;
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    pthread_attr_destroy(&attributes);
    if (started)
        (void)handed_over.release();
    return started;
}

} // namespace

bool thread_start(size_t stack_size, std::function<void()> body)
{
    pthread_t thread;
    return start(&thread, PTHREAD_CREATE_DETACHED, stack_size, std::move(body));
}

bool thread_start_joinable(pthread_t *thread, size_t stack_size, std::function<void()> body)
{
    return start(thread, PTHREAD_CREATE_JOINABLE, stack_size, std::move(body));
}

int run_with_stack(std::function<int()> body)
{
    rlimit limit;
    if (getrlimit(RLIMIT_STACK, &limit) != 0 || limit.rlim_cur >= thread_stack_size)
        return body();
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    int result = 0;
    pthread_t thread;
    const bool started = thread_start_joinable(&thread, thread_stack_size, [&] {
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        result = body();
    });
    if (started) {
        pthread_join(thread, nullptr);
        return result;
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return body();
}
