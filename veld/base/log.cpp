#include "veld/base/log.h"

#include "base/clock.h"
#include "base/utf8.h"
#include "base/visible.h"
#include "veld/base/line_sink.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <iterator>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace veld
{

namespace
{

constexpr const char *level_names[] = {"error", "warning", "info", "debug"};
constexpr size_t text_max = 2048;

// What clients may cause: so many lines at once, and one more each second.
class allowance
{
public:
    /// Whether another line may be written; `*left_out` receives how many were not since the last that was.
    bool take(int64_t now, uint64_t *left_out)
    {
        left_ = std::min(left_ + (now - last_), lines_at_once * line_ms);
        last_ = now;
        if (left_ < line_ms) {
            ++left_out_;
            return false;
        }
        left_ -= line_ms;
        *left_out = std::exchange(left_out_, 0);
        return true;
    }

private:
    static constexpr int64_t lines_at_once = 300;
    static constexpr int64_t line_ms = 1000;
    int64_t left_ = lines_at_once * line_ms;
    int64_t last_ = monotonic_ms();
    uint64_t left_out_ = 0;
};

// Set by log_open() and log_reopen() only.
log_level shown = log_level::warning;
std::string file_path;

// Set by log_serving(). Errors have lines of their own, which other noise does not use up.
bool serving = false;

line_sink &sink()
{
    static line_sink standard_error = line_sink::of_standard_error();
    return standard_error;
}

allowance &allowance_of(log_level level)
{
    static allowance errors;
    static allowance others;
    return level == log_level::error ? errors : others;
}

// A regular file alone: anything else could be one that nobody reads.
fd_owner open_file(std::string *error)
{
    struct stat found {
    };
    if (stat(file_path.c_str(), &found) == 0 && !S_ISREG(found.st_mode)) {
        *error = file_path + ": not a regular file";
        return {};
    }
    fd_owner file(open(file_path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0640));
    if (!file || fstat(file.get(), &found) != 0) {
        *error = file_path + ": " + strerror(errno);
        return {};
    }
    if (!S_ISREG(found.st_mode)) {
        *error = file_path + ": not a regular file";
        return {};
    }
    return file;
}

std::string line_of(log_level level, const char *text)
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm broken{};
    gmtime_r(&now.tv_sec, &broken);
    char stamp[40];
    strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%S", &broken);
    char head[80];
    snprintf(head, sizeof head, "%s.%03ldZ veld %s: ", stamp, now.tv_nsec / 1000000,
             level_names[static_cast<size_t>(level)]);
    return head + visible(std::string_view(text).substr(0, utf8_cut(text, text_max))) + "\n";
}

} // namespace

bool log_open(const std::string &target, std::string *error)
{
    for (size_t i = 0; i < std::size(level_names); ++i) {
        if (target == level_names[i]) {
            shown = static_cast<log_level>(i);
            return true;
        }
    }
    file_path = target;
    fd_owner file = open_file(error);
    if (!file)
        return false;
    sink() = line_sink(std::move(file));
    shown = log_level::info;
    return true;
}

void log_reopen()
{
    if (file_path.empty())
        return;
    std::string error;
    fd_owner again = open_file(&error);
    if (!again) {
        LOG_ERROR("cannot open the log file again: %s", error.c_str());
        return;
    }
    sink() = line_sink(std::move(again));
}

void log_serving()
{
    (void)sink();
    serving = true;
}

bool log_shows(log_level level)
{
    return level <= shown;
}

void log_line(log_level level, const char *format, ...)
{
    if (level > shown)
        return;
    uint64_t left_out = 0;
    if (serving && level != log_level::debug && !allowance_of(level).take(monotonic_ms(), &left_out))
        return;
    char text[text_max + 1];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);

    std::string lines;
    if (left_out > 0)
        lines += line_of(level, (std::to_string(left_out) + " lines were left out").c_str());
    if (sink().lost() > 0)
        lines += line_of(log_level::warning, (std::to_string(sink().lost()) + " lines were lost").c_str());
    sink().write(lines + line_of(level, text));
}

} // namespace veld
