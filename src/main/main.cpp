#include "base/thread.h"
#include "main/start.h"

#include <cstdlib>
#include <exception>

/// What the C++ library does with an exception that nobody takes: ours throws none but for want of memory, and to spell
/// its name the library would bring a tenth of the program along.
namespace __gnu_cxx
{
void __verbose_terminate_handler()
{
    abort();
}
} // namespace __gnu_cxx

int main(int argc, char **argv)
{
    return run_with_stack([&] { return kest_main(argc, argv); });
}
