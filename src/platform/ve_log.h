// The fatal assertion and the allocation that cannot fail.
#pragma once

#include <cstddef>

/// Reports a failed assertion on standard error ("unit:line: function: Assertion `expression' failed: " and the
/// formatted text) and aborts.
[[noreturn]] void __ve_log_assert_fmt(const char *expression, const char *unit, int line, const char *function,
                                      const char *format, ...) __attribute__((format(printf, 5, 6)));

/// Makes every allocation of this process fatal when it fails: operator new and Jansson's. Called once, in main().
void ve_log_allocations_are_fatal();

/// malloc that does not fail: out of memory is the assertion "pointer != NULL" reported for `function` of `unit`.
void *ve_xmalloc(size_t size, const char *function, int line, const char *unit);
/// realloc that does not fail. `size` is not 0.
void *ve_xrealloc(void *pointer, size_t size, const char *function, int line, const char *unit);
