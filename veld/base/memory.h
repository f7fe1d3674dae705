// Memory that runs out: the daemon ends, with a text and a status, and never goes on without what it asked for.
#pragma once

namespace veld
{

/// From here on no allocation fails: where there is no memory the program ends. What is on the disk stays as it is.
/// First thing in main().
void allocations_are_fatal();

} // namespace veld
