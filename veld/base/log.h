// The daemon's log: one line per happening, on standard error or in a file.
#pragma once

#include <string>
#include <string_view>

namespace veld
{

enum class log_level { error, warning, info, debug };

/// Takes what follows --log: the name of a level ("error", "warning", "info", "debug": standard error), or the path of
/// a file, which gets everything up to "info". Returns false when the file cannot be opened; errno says why.
bool log_open(const char *target);
/// Opens the log file again, after it has been moved away.
void log_reopen();

/// The text, which may come from clients, is written in its visible form.
void log_line(log_level level, const char *format, ...) __attribute__((format(printf, 2, 3)));

#define LOG_ERROR(...) ::veld::log_line(::veld::log_level::error, __VA_ARGS__)
#define LOG_WARNING(...) ::veld::log_line(::veld::log_level::warning, __VA_ARGS__)
#define LOG_INFO(...) ::veld::log_line(::veld::log_level::info, __VA_ARGS__)
#define LOG_DEBUG(...) ::veld::log_line(::veld::log_level::debug, __VA_ARGS__)

} // namespace veld
