// Data-model XML: whatever the file holds, it is imported and can be served, or it is refused with a message.
#include "veld/import/import.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const int file = memfd_create("data model", MFD_CLOEXEC);
    static const std::string path = "/proc/self/fd/" + std::to_string(file);
    if (ftruncate(file, 0) != 0 || pwrite(file, data, size, 0) != static_cast<ssize_t>(size))
        abort();
    veld::import_counts counts;
    veld::import_warnings warnings;
    std::string error;
    const json_ref model = veld::import_model(path.c_str(), "", &counts, &warnings, &error);
    if (!model && error.empty())
        abort();
    return 0;
}
