#include "veld/live/sysfile.h"

#include "base/fd.h"
#include "base/file.h"
#include "base/number.h"
#include "base/utf8.h"

#include <algorithm>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace veld
{

namespace
{
bool failure = false; // sysfile_failed() sets it, sysfile_take_failure() takes it
} // namespace

void sysfile_failed(int error)
{
    failure = failure || error == EMFILE || error == ENFILE || error == ENOMEM || error == ENOBUFS;
}

bool sysfile_take_failure()
{
    return std::exchange(failure, false);
}

std::string read_sysfile(const char *path, size_t limit)
{
    std::string text;
    const fd_owner fd(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat st;
    if (!fd)
        sysfile_failed(errno);
    if (fd && fstat(fd.get(), &st) == 0 && S_ISREG(st.st_mode))
        (void)!read_all(fd.get(), limit, &text);
    return text;
}

bool next_line(std::string_view *text, std::string_view *line)
{
    if (text->empty())
        return false;
    size_t end = text->find('\n');
    *line = text->substr(0, end);
    text->remove_prefix(end == std::string_view::npos ? text->size() : end + 1);
    return true;
}

std::string_view next_word(std::string_view *line)
{
    constexpr std::string_view blanks = " \t\r";
    size_t begin = line->find_first_not_of(blanks);
    if (begin == std::string_view::npos) {
        *line = {};
        return {};
    }
    line->remove_prefix(begin);
    size_t end = std::min(line->find_first_of(blanks), line->size());
    std::string_view word = line->substr(0, end);
    line->remove_prefix(end);
    return word;
}

int64_t number_or_zero(std::string_view word)
{
    return number_of<int64_t>(word).value_or(0);
}

json_t *json_clean_text(std::string_view text, size_t limit)
{
    if (text.size() <= limit)
        if (json_t *value = json_stringn(text.data(), text.size()))
            return value;
    std::string clean;
    for (utf8_step step; !text.empty(); text.remove_prefix(step.size)) {
        step = utf8_first(text);
        if (clean.size() + step.size > limit)
            break;
        clean += step.well_formed ? text.substr(0, step.size) : "?";
    }
    return json_stringn(clean.data(), clean.size());
}

live_row &live_row::set(const char *field, std::string_view text)
{
    json_object_set_new(row_, field, json_clean_text(text));
    return *this;
}

live_row &live_row::set(const char *field, int64_t number)
{
    json_object_set_new(row_, field, json_integer(number));
    return *this;
}

live_row &live_row::set(const char *field, bool truth)
{
    json_object_set_new(row_, field, json_boolean(truth));
    return *this;
}

live_row &live_row::nested(const char *table, json_t *array)
{
    json_object_set_new(row_, (std::string("#rows:") + table).c_str(), array);
    return *this;
}

} // namespace veld
