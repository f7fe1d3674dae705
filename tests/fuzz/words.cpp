// Reading any line: the word at its end is the last one or the next, and every word reads back when it is quoted.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "platform/ve_words.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string_view text(reinterpret_cast<const char *>(data), size);
    ve_words_complete(text);
    const ve_words line = ve_words_read(text);
    if (line.index > line.words.size() || line.index + 1 < line.words.size())
        abort();
    for (const std::string &word : line.words) {
        const ve_words again = ve_words_read(ve_words_quote(word, 0, true));
        if (again.words.size() != 1 || again.words[0] != word)
            abort();
    }
    return 0;
}
