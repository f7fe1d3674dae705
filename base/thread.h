// Threads beside a program's main thread. All signals are blocked in them: signals are the main thread's.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <functional>

/// Runs `body` in a detached thread with a stack of `stack_size` bytes (0: the system's usual size). False when there
/// is no thread; `body` then does not run.
[[nodiscard]] bool thread_start(size_t stack_size, std::function<void()> body);
/// The same, but the caller joins `*thread`.
[[nodiscard]] bool thread_start_joinable(pthread_t *thread, size_t stack_size, std::function<void()> body);
