// The providers behind live.h, by family. Each gives a new reference: what the machine shows at this moment.
#pragma once

#include "veld/live/sysfile.h"

#include <jansson.h>

#include <optional>
#include <string>
#include <string_view>

namespace veld
{

// --- the system ---
json_t *live_uptime();
json_t *live_hostname();
json_t *live_kernel();
json_t *live_machine();
json_t *live_memory_total();
json_t *live_memory_free();
json_t *live_memory_available();
json_t *live_storage_total();
json_t *live_storage_free();
json_t *live_cpu_usage();
json_t *live_load_1();
json_t *live_load_5();
json_t *live_load_15();
json_t *live_time_current();
json_t *live_time_zone();
json_t *live_time_status();
json_t *live_processes();
json_t *live_processors();

// --- the network ---
json_t *live_ethernet();
json_t *live_interfaces();
json_t *live_neighbors();
json_t *live_resolvers();
json_t *live_routes();
json_t *live_active_ports();

// --- what the kernel's files hold, as rows; `text` is the content of the file that the name tells ---
/// /proc/net/arp
json_t *rows_of_arp(std::string_view text);
/// /etc/resolv.conf
json_t *rows_of_resolv_conf(std::string_view text);
/// /proc/net/route
json_t *rows_of_route(std::string_view text);
/// /proc/net/tcp or tcp6, appended to `rows`
void rows_of_tcp(std::string_view text, json_t *rows);
/// /proc/PID/stat, appended to `rows`; nothing when the text is not understood
void row_of_process(std::string_view text, json_t *rows);
/// /proc/cpuinfo
json_t *rows_of_cpuinfo(std::string_view text, const char *architecture);
/// /proc/stat, looked at again and again: how busy the processors were since the look before, in percent; at the first
/// one, since the machine started. Nothing when the text is not understood.
class cpu_meter
{
public:
    std::optional<int64_t> look(std::string_view text);

private:
    int64_t total_ = 0; // ticks, as of the last look
    int64_t idle_ = 0;
    int64_t usage_ = 0;
};
/// The POSIX TZ text at the end of a time zone file; empty when it has none.
std::string_view zone_of_tzfile(std::string_view content);
/// `/proc/meminfo`: the number of KiB behind `name`, or nothing.
std::optional<int64_t> meminfo_field(std::string_view text, std::string_view name);

} // namespace veld
