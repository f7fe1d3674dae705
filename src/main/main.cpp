#include "base/thread.h"
#include "main/start.h"

int main(int argc, char **argv)
{
    return run_with_stack([&] { return kest_main(argc, argv); });
}
