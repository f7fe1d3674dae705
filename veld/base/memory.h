// Memory that runs out: the daemon ends, with a text and a status, and never goes on without what it asked for.
#pragma once

#include <cstddef>

namespace veld
{

/// From here on no allocation fails: where there is no memory the program ends. What is on the disk stays as it is.
/// First thing in main().
void allocations_are_fatal();

/// realloc() that does not fail, for libraries that let their memory be given to them; null for no bytes.
void *fatal_realloc(void *memory, size_t size);

} // namespace veld
