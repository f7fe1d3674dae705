// Lines cut from any bytes in any chunks are the lines of the whole.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "base/framing.h"

static std::vector<std::string> lines(const char *data, size_t size, size_t chunk)
{
    wire_reader reader;
    std::vector<std::string> result;
    while (size > 0) {
        size_t room;
        char *place = reader.prepare(&room);
        const size_t count = std::min({room, chunk, size});
        memcpy(place, data, count);
        reader.commit(count);
        data += count;
        size -= count;
        std::string_view line;
        while (reader.next(&line) == wire_reader::state::line) {
            result.emplace_back(line);
            json_decref(wire_decode(line));
        }
    }
    return result;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    const auto *text = reinterpret_cast<const char *>(data) + 1;
    if (lines(text, size - 1, 1 + data[0]) != lines(text, size - 1, SIZE_MAX))
        abort();
    return 0;
}
