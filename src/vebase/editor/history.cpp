#include "platform/ve_history.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "vebase/editor/history_files.h"
#include "vebase/editor/history_list.h"

namespace
{

std::string texts;               // all entries, oldest first, each with its NUL
std::vector<size_t> starts;      // where each entry begins in texts
size_t marked = 0;               // entries there were at the last load, clear or mark
size_t longest = 0;              // bytes of the longest entry
std::string origin;              // the file that the list was loaded from; empty: none
std::vector<std::string> warned; // files that were complained about

void append(std::string_view entry)
{
    starts.push_back(texts.size());
    const size_t before = texts.size();
    texts.append(entry);
    // An entry is a C string for its readers.
    texts.erase(std::remove(texts.begin() + static_cast<ptrdiff_t>(before), texts.end(), '\0'), texts.end());
    longest = std::max(longest, texts.size() - before);
    texts.push_back('\0');
}

void warn_once(const char *path, const char *reason)
{
    if (std::find(warned.begin(), warned.end(), path) != warned.end())
        return;
    warned.emplace_back(path);
    fprintf(stderr, "%s: %s, the history there is left alone.\n", path, reason);
}

void clear_list()
{
    texts.clear();
    starts.clear();
    marked = 0;
    longest = 0;
    origin.clear();
}

int dump_history(const char *path)
{
    std::string old;
    const char *reason = nullptr;
    // A list that did not come from this file must not take its place.
    if (origin != path && (starts.empty() || history_read(path, old, &reason) != history_file::missing))
        return -1;
    std::string content;
    content.reserve(texts.size());
    for (size_t i = 0; i < starts.size(); ++i)
        history_encode(history_entry(i), content);
    if (history_replace(path, content, &reason) == 0)
        return 0;
    warn_once(path, reason);
    return -1;
}

int dump_script(const char *path, size_t count)
{
    count = std::min(count, starts.size());
    std::string content;
    for (size_t i = starts.size() - count; i < starts.size(); ++i) {
        content.append(history_entry(i));
        content.push_back('\n');
    }
    if (history_write_script(path, content) == 0)
        return 0;
    fprintf(stderr, "%s: %s\n", path, strerror(errno));
    return -1;
}

} // namespace

int ve_history_load(const char *path)
{
    clear_list();
    std::string content;
    const char *reason = nullptr;
    const history_file status = history_read(path, content, &reason);
    if (status == history_file::refused) {
        warn_once(path, reason);
        return -1;
    }
    texts.reserve(content.size() + 1);
    std::string entry;
    for (size_t at = 0; at < content.size();) {
        const size_t end = std::min(content.find('\n', at), content.size());
        const std::string_view line{content.data() + at, end - at};
        if (!line.empty()) {
            history_decode(line, entry);
            append(entry);
        }
        at = end + 1;
    }
    marked = starts.size();
    origin = path;
    return 0;
}

int ve_history_dump(const char *path, int count)
{
    if (count < 0)
        return dump_history(path);
    return dump_script(path, count == 0 ? starts.size() - marked : static_cast<size_t>(count));
}

void ve_history_add(const char *entry)
{
    if (entry != nullptr && entry[0] != '\0')
        append(entry);
}

void ve_history_clear()
{
    clear_list();
}

void ve_history_mark()
{
    marked = starts.size();
}

size_t ve_history_size()
{
    return starts.size();
}

const char *ve_history_get(size_t index)
{
    return index < starts.size() ? texts.data() + starts[index] : nullptr;
}

std::string_view history_entry(size_t index)
{
    const size_t end = index + 1 < starts.size() ? starts[index + 1] : texts.size();
    return {texts.data() + starts[index], end - starts[index] - 1};
}

size_t history_longest()
{
    return longest;
}
