#include "veld/base/memory.h"

#include <cstdlib>
#include <new>
#include <unistd.h>

#include <jansson.h>

namespace veld
{

namespace
{

void out_of_memory()
{
    static constexpr char text[] = "veld: out of memory\n";
    const ssize_t ignored = write(STDERR_FILENO, text, sizeof text - 1);
    static_cast<void>(ignored);
    _exit(EXIT_FAILURE); // what is kept is written whole or not at all; nothing is left to do
}

void *json_memory(size_t size)
{
    return fatal_realloc(nullptr, size > 0 ? size : 1);
}

} // namespace

void allocations_are_fatal()
{
    std::set_new_handler(out_of_memory);
    json_set_alloc_funcs(json_memory, free);
}

void *fatal_realloc(void *memory, size_t size)
{
    if (size == 0) {
        free(memory);
        return nullptr;
    }
    void *grown = realloc(memory, size);
    if (grown == nullptr)
        out_of_memory();
    return grown;
}

} // namespace veld
