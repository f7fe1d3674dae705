// A history file of any content: it is read, added to, written and read again, and the entries are still the same.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

#include "base/file.h"
#include "platform/ve_history.h"

namespace
{

std::vector<std::string> entries(const ve_history &history)
{
    std::vector<std::string> all;
    for (size_t i = 0; i < history.size(); ++i)
        if (!history.entry(i).empty()) // made of NULs only: it is not kept
            all.emplace_back(history.entry(i));
    return all;
}

// A folder of its own in memory, where there is such a place: what is saved looks through the folder for leftovers.
std::string folder()
{
    for (const char *pattern : {"/dev/shm/kest-fuzz.XXXXXX", "/tmp/kest-fuzz.XXXXXX"}) {
        std::string path = pattern;
        if (mkdtemp(path.data()))
            return path;
    }
    abort();
}

// Removed at the end of the program.
struct own_folder {
    const std::string path = folder();
    ~own_folder() { rmdir(path.c_str()); }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const own_folder own;
    const std::string path = own.path + "/history";
    const std::string_view text(reinterpret_cast<const char *>(data), size);
    if (!replace_file(path, text, {.mode = 0600}))
        abort();
    ve_history first;
    if (first.load(path.c_str()) == 0) {
        first.add("added");
        ve_history second;
        if (first.save() != 0 || second.load(path.c_str()) != 0 || entries(second) != entries(first))
            abort();
    }
    unlink(path.c_str());
    return 0;
}
