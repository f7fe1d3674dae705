// Threads beside a program's main thread. All signals are blocked in them: signals are the main thread's.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <functional>

/// Room to read and print a value as deep as the wire allows, whatever the system's usual size is.
constexpr size_t thread_stack_size = size_t{8} << 20;

/// Runs `body` in a detached thread with a stack of `stack_size` bytes (0: thread_stack_size). False when there is no
/// thread; `body` then does not run.
[[nodiscard]] bool thread_start(size_t stack_size, std::function<void()> body);
/// The same, but the caller joins `*thread`.
[[nodiscard]] bool thread_start_joinable(pthread_t *thread, size_t stack_size, std::function<void()> body);

/// Runs `body` on a stack of at least thread_stack_size: the caller's, or where the limits of the process make that
/// smaller (ulimit -s), that of a thread which stands for the caller: it has his signals, while he only waits. Returns
/// what `body` does.
int run_with_stack(std::function<int()> body);
