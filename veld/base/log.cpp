#include "veld/base/log.h"

#include "base/fd.h"
#include "base/visible.h"

#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <iterator>
#include <unistd.h>

namespace veld
{

namespace
{

constexpr const char *level_names[] = {"error", "warning", "info", "debug"};

// Set by log_open() and log_reopen() only.
log_level shown = log_level::warning;
fd_owner file; // standard error without one
std::string file_path;

fd_owner open_file()
{
    return fd_owner(open(file_path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0640));
}

} // namespace

bool log_open(const char *target)
{
    for (size_t i = 0; i < std::size(level_names); ++i) {
        if (std::string_view(target) == level_names[i]) {
            shown = static_cast<log_level>(i);
            return true;
        }
    }
    file_path = target;
    file = open_file();
    if (!file)
        return false;
    shown = log_level::info;
    return true;
}

void log_reopen()
{
    if (file_path.empty())
        return;
    fd_owner again = open_file();
    if (!again) {
        LOG_ERROR("cannot open the log file %s again: %m", file_path.c_str());
        return;
    }
    file = std::move(again);
}

void log_line(log_level level, const char *format, ...)
{
    if (level > shown)
        return;
    char text[2048];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);

    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm broken{};
    gmtime_r(&now.tv_sec, &broken);
    char stamp[40];
    strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%S", &broken);

    char head[80];
    snprintf(head, sizeof head, "%s.%03ldZ veld %s: ", stamp, now.tv_nsec / 1000000,
             level_names[static_cast<size_t>(level)]);
    const std::string line = head + visible(text) + "\n";
    // A log that cannot be written must not stop the daemon.
    [[maybe_unused]] const ssize_t written = write(file ? file.get() : STDERR_FILENO, line.data(), line.size());
}

} // namespace veld
