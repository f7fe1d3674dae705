#include "main/script.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "dispatch/table.h"
#include "platform/ve_input.h"
#include "platform/ve_out.h"
#include "platform/ve_wait.h"
#include "platform/ve_words.h"

namespace
{

constexpr std::string_view blanks = " \t";

/// The words of a line: no quotes here, and a word that begins with "#" ends them.
std::vector<std::string_view> split_blanks(std::string_view line)
{
    std::vector<std::string_view> words;
    size_t begin = line.find_first_not_of(blanks);
    while (begin != std::string_view::npos && line[begin] != '#') {
        const size_t end = line.find_first_of(blanks, begin);
        words.push_back(line.substr(begin, end - begin));
        begin = line.find_first_not_of(blanks, end);
    }
    return words;
}

void sleep_seconds(const std::string &number)
{
    ve_out_flush();
    for (long left = strtol(number.c_str(), nullptr, 10); left > 0;) {
        constexpr long most = INT_MAX / 1000;
        const long now = left < most ? left : most;
        if (ve_wait_sleep_ms(static_cast<int>(now) * 1000) < 0)
            return;
        left -= now;
    }
}

/// Does "echo" and "sleep". False when `word`, the first of `line`, is neither.
bool run_builtin(const std::string &line, std::string_view word)
{
    if (word != "echo" && word != "sleep")
        return false;
    const size_t end = static_cast<size_t>(word.data() - line.data()) + word.size();
    const std::string rest = end < line.size() ? line.substr(end + 1) : std::string();
    if (word == "sleep") {
        sleep_seconds(rest);
    } else {
        ve_out_write(rest.data(), rest.size());
        ve_out_write("\n", 1);
    }
    return true;
}

/// A binary file is told apart by its bytes: neither a NUL nor what is no UTF-8 can stand in a command.
int refuse(const char *path, size_t number)
{
    ve_out_flush();
    fprintf(stderr, "%s: line %zu is not text.\n", ve_visible_error(path).c_str(), number);
    return -1;
}

/// Runs one joined line into `*result`; what is no text is refused with -1.
void run_line(const std::string &line, int flags, const char *path, size_t number, int *result)
{
    const std::vector<std::string_view> parts = split_blanks(line);
    if (parts.empty() || run_builtin(line, parts.front()))
        return;
    const std::vector<std::string> words(parts.begin(), parts.end());
    if (!ve_words_are_utf8(words)) {
        *result = refuse(path, number);
        return;
    }
    const char *const name = words.front().c_str();
    const command_args args = command_args(words).subspan(1);
    *result = (flags & 1) != 0 ? exec_cmd(name, args) : exec_request(name, args);
}

} // namespace

int run_script(const char *path, int flags)
{
    return run_script(ve_input(path), path, flags);
}

int run_script(ve_input reader, const char *path, int flags)
{
    if (!reader.is_open()) {
        ve_printf("Cannot open script file %s\n", path != nullptr ? ve_visible(path).c_str() : "(null)");
        return -1;
    }
    std::string line;
    std::string pending;
    bool is_pending = false;
    int result = 0;
    size_t number = 1;
    for (; result >= 0 && reader.next(line); number++) {
        ve_wait_checkpoint();
        if (line.find('\0') != std::string::npos) {
            result = refuse(path, number);
            break;
        }
        const bool complete = ve_words_complete(line);
        if (!complete && line.ends_with('\\'))
            line.pop_back();
        if (!complete || is_pending) {
            pending += line;
            is_pending = true;
        }
        if (pending.size() > ve_input::size_max)
            break;
        if (!complete)
            continue;
        const std::string &text = is_pending ? pending : line;
        if (text.empty() || text.front() == '#')
            continue; // a pending text stays and takes in the next line
        run_line(text, flags, path, number, &result);
        ve_out_flush();
        pending.clear();
        is_pending = false;
    }
    if (reader.error() == EMSGSIZE || pending.size() > ve_input::size_max) {
        fprintf(stderr, "%s: line %zu is too long.\n", ve_visible_error(path).c_str(), number);
        result = -1;
    } else if (reader.error() != 0) {
        fprintf(stderr, "%s: the script cannot be read to its end.\n", ve_visible_error(path).c_str());
        result = -1;
    }
    return result;
}
