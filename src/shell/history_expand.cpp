#include "shell/history_expand.h"

#include <cerrno>
#include <cstdlib>

#include "platform/ve_words.h"

namespace
{

// An entry may refer to itself. What is left after so many replacements, or in so long a text, stays as it is.
constexpr unsigned replacements_max = 100;
constexpr size_t expanded_max = size_t{1} << 20;

/// The first "!" at the start of the line or behind white space.
size_t find_reference(const std::string &line)
{
    size_t at = line.find('!');
    while (at != std::string::npos && at > 0 && !ve_words_is_blank(line[at - 1]))
        at = line.find('!', at + 1);
    return at;
}

/// The digits at `text` as a number; 0 when there are none or they exceed every history.
unsigned long read_number(const char *text)
{
    if (*text < '0' || *text > '9')
        return 0;
    errno = 0;
    const unsigned long number = strtoul(text, nullptr, 10);
    return errno == 0 ? number : 0;
}

/// The number of the entry that the reference at `at` names, 1 the oldest; 0 for none.
size_t find_entry(const ve_history &history, const std::string &line, size_t at)
{
    const size_t size = history.size();
    const char *reference = line.c_str() + at;
    if (line.compare(at, std::string::npos, "!!") == 0)
        return size;
    const bool backwards = reference[1] == '-';
    const unsigned long number = read_number(reference + (backwards ? 2 : 1));
    if (number == 0 || number > size)
        return 0;
    return backwards ? size - number + 1 : number;
}

} // namespace

unsigned history_expand(const ve_history &history, std::string &line)
{
    unsigned replaced = 0;
    while (replaced < replacements_max && (replaced == 0 || line.size() <= expanded_max)) {
        const size_t begin = find_reference(line);
        const size_t number = begin != std::string::npos ? find_entry(history, line, begin) : 0;
        if (number == 0)
            break;
        size_t end = begin;
        while (end < line.size() && !ve_words_is_blank(line[end]))
            end++;
        line.replace(begin, end - begin, history.entry(number - 1));
        replaced++;
    }
    return replaced;
}
