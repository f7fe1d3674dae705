// Splitting any line: the index of the word under the cursor is one of the words or the next.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform/ve_json.h"
#include "utils/words.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string text(reinterpret_cast<const char *>(data), size);
    line_completed(text.c_str());
    size_t index = 0;
    const json_ref words{str_split(text.c_str(), static_cast<long>(size / 2), &index)};
    if (words && index > json_array_size(words.get()) + size)
        abort();
    return 0;
}
