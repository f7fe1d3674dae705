#include "platform/ve_log.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <new>

#include <jansson.h>

void __ve_log_assert_fmt(const char *expression, const char *unit, int line, const char *function, const char *format,
                         ...)
{
    // Memory may be what ran out: nothing here allocates.
    char text[512];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    char message[768];
    snprintf(message, sizeof message, "%s:%d: %s: Assertion `%s' failed: %s\n", unit, line, function, expression, text);
    fputs(message, stderr);
    fflush(stderr);
    abort();
}

void *ve_xmalloc(size_t size, const char *function, int line, const char *unit)
{
    return ve_xrealloc(nullptr, size > 0 ? size : 1, function, line, unit);
}

void *ve_xrealloc(void *pointer, size_t size, const char *function, int line, const char *unit)
{
    void *const grown = realloc(pointer, size);
    if (grown == nullptr)
        __ve_log_assert_fmt("pointer != NULL", unit, line, "_xmalloc", "xmalloc failed at func %s:%zu (%s)", function,
                            static_cast<size_t>(line), unit);
    return grown;
}

namespace
{

void *json_memory(size_t size)
{
    return ve_xmalloc(size, "json", __LINE__, "json");
}

void out_of_memory()
{
    __ve_log_assert_fmt("pointer != NULL", "new", __LINE__, "operator new", "xmalloc failed at func %s:%zu (%s)",
                        "operator new", static_cast<size_t>(__LINE__), "new");
}

} // namespace

void ve_log_allocations_are_fatal()
{
    std::set_new_handler(out_of_memory);
    json_set_alloc_funcs(json_memory, free);
}
