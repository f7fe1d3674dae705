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

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string path = "/tmp/kest-fuzz-history." + std::to_string(getpid());
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
