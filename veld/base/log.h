// The daemon's log: one line per happening, on standard error or in a file. Whoever does not read it costs lines of it,
// never time: a line that cannot be written at once is lost, and the loss is told when there is room again.
#pragma once

#include <string>
#include <string_view>

namespace veld
{

enum class log_level { error, warning, info, debug };

/// Takes what follows --log: the name of a level ("error", "warning", "info", "debug": standard error), or the path of
/// a file, which gets everything up to "info". Returns false when there is no such file to be had; `*error` says why.
bool log_open(const std::string &target, std::string *error);
/// Opens the log file again, after it has been moved away.
void log_reopen();

/// From now on what is logged is what clients cause. They get a few hundred lines, then one a second; how many were
/// left out is told. "debug", which is there to show everything, stays without a limit.
void log_serving();

bool log_shows(log_level level);

/// The text, which may come from clients, is written in its visible form.
void log_line(log_level level, const char *format, ...) __attribute__((format(printf, 2, 3)));

#define LOG_ERROR(...) ::veld::log_line(::veld::log_level::error, __VA_ARGS__)
#define LOG_WARNING(...) ::veld::log_line(::veld::log_level::warning, __VA_ARGS__)
#define LOG_INFO(...) ::veld::log_line(::veld::log_level::info, __VA_ARGS__)
#define LOG_DEBUG(...) ::veld::log_line(::veld::log_level::debug, __VA_ARGS__)

} // namespace veld
