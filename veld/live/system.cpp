// The machine itself: time, memory, load, processors, processes.
#include "base/clock.h"
#include "base/number.h"
#include "veld/live/providers.h"

#include <sys/statvfs.h>
#include <sys/timex.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <dirent.h>

#include <algorithm>
#include <cstdlib>

namespace veld
{

json_t *live_uptime()
{
    return json_integer(uptime_s());
}

json_t *live_hostname()
{
    utsname names;
    return uname(&names) == 0 ? json_clean_text(names.nodename) : nullptr;
}

json_t *live_kernel()
{
    utsname names;
    return uname(&names) == 0 ? json_clean_text(std::string(names.sysname) + " " + names.release) : nullptr;
}

json_t *live_machine()
{
    utsname names;
    return uname(&names) == 0 ? json_clean_text(names.machine) : nullptr;
}

// --- memory and storage, in KiB as far as an unsignedInt can tell it ---

std::optional<int64_t> meminfo_field(std::string_view text, std::string_view name)
{
    for (std::string_view line; next_line(&text, &line);) {
        std::string_view label = next_word(&line);
        if (label.ends_with(':') && label.substr(0, label.size() - 1) == name)
            return number_of<int64_t>(next_word(&line));
    }
    return std::nullopt;
}

static json_t *meminfo(std::string_view name)
{
    std::optional<int64_t> kib = meminfo_field(read_sysfile("/proc/meminfo"), name);
    return kib ? json_integer(std::min<int64_t>(*kib, UINT32_MAX)) : nullptr;
}

json_t *live_memory_total()
{
    return meminfo("MemTotal");
}
json_t *live_memory_free()
{
    return meminfo("MemFree");
}
json_t *live_memory_available()
{
    return meminfo("MemAvailable");
}

// An amount of the root file system.
static json_t *root_storage(fsblkcnt_t blocks, unsigned long block_size)
{
    return json_integer(std::min<int64_t>(int64_t(blocks) * int64_t(block_size) / 1024, UINT32_MAX));
}

json_t *live_storage_total()
{
    struct statvfs root;
    return statvfs("/", &root) == 0 ? root_storage(root.f_blocks, root.f_frsize) : nullptr;
}

json_t *live_storage_free()
{
    struct statvfs root;
    return statvfs("/", &root) == 0 ? root_storage(root.f_bavail, root.f_frsize) : nullptr;
}

// --- load ---

json_t *live_cpu_usage()
{
    static cpu_meter meter;
    const std::optional<int64_t> usage = meter.look(read_sysfile("/proc/stat"));
    return usage ? json_integer(*usage) : nullptr;
}

std::optional<int64_t> cpu_meter::look(std::string_view text)
{
    std::string_view line;
    if (!next_line(&text, &line) || next_word(&line) != "cpu")
        return std::nullopt;
    int64_t total = 0;
    int64_t idle = 0;
    for (int column = 0; column < 8; column++) {
        const int64_t ticks = number_or_zero(next_word(&line));
        total += ticks;
        if (column == 3 || column == 4) // idle, waiting for input and output
            idle += ticks;
    }
    if (const int64_t spent = total - total_; spent > 0)
        usage_ = std::clamp<int64_t>(100 - (idle - idle_) * 100 / spent, 0, 100);
    total_ = total; // some kernels' counters go back at times: it goes on from there
    idle_ = idle;
    return usage_;
}

static json_t *load_average(int which)
{
    double loads[3];
    return getloadavg(loads, 3) > which ? json_real(loads[which]) : nullptr;
}

json_t *live_load_1()
{
    return load_average(0);
}
json_t *live_load_5()
{
    return load_average(1);
}
json_t *live_load_15()
{
    return load_average(2);
}

// --- time ---

json_t *live_time_current()
{
    time_t now = time(nullptr);
    tzset();
    tm local = {};
    localtime_r(&now, &local);
    char text[64];
    std::string value(text, strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S%z", &local));
    if (value.ends_with("+0000"))
        value.replace(value.size() - 5, 5, "Z");
    else
        value.insert(value.size() - 2, ":");
    return json_clean_text(value);
}

std::string_view zone_of_tzfile(std::string_view content)
{
    if (!content.starts_with("TZif") || content.size() < 5 || content[4] < '2' || !content.ends_with('\n'))
        return {};
    content.remove_suffix(1);
    size_t begin = content.rfind('\n');
    return begin == std::string_view::npos ? std::string_view{} : content.substr(begin + 1);
}

json_t *live_time_zone()
{
    std::string file = "/etc/localtime";
    if (const char *zone = getenv("TZ")) {
        std::string_view name = zone;
        if (name.empty())
            return json_string("UTC0");
        if (name.starts_with(':'))
            name.remove_prefix(1);
        file = name.starts_with('/') ? std::string(name) : "/usr/share/zoneinfo/" + std::string(name);
        if (access(file.c_str(), R_OK) != 0) // then it is such a text itself
            return json_clean_text(name);
    }
    std::string content = read_sysfile(file.c_str());
    std::string_view zone = zone_of_tzfile(content);
    return json_clean_text(zone.empty() ? "UTC0" : zone);
}

json_t *live_time_status()
{
    timex clock = {};
    int state = adjtimex(&clock);
    if (state < 0)
        return nullptr;
    return json_string(state == TIME_ERROR || (clock.status & STA_UNSYNC) != 0 ? "Unsynchronized" : "Synchronized");
}

// --- processors and processes ---

json_t *rows_of_cpuinfo(std::string_view text, const char *architecture)
{
    json_t *rows = json_array();
    std::string_view line;
    std::string_view model;
    int64_t frequency = 0;
    int64_t number = -1;
    auto finish = [&] {
        if (number >= 0)
            live_row(std::to_string(number))
                .set("architecture", architecture)
                .set("model", model)
                .set("frequency", frequency)
                .add_to(rows);
    };
    while (next_line(&text, &line)) {
        size_t colon = line.find(':');
        if (colon == std::string_view::npos)
            continue;
        std::string_view label = line.substr(0, std::min(colon, line.find_last_not_of(" \t", colon - 1) + 1));
        std::string_view value = line.substr(std::min(colon + 2, line.size()));
        if (label == "processor" && number_of<int64_t>(value)) {
            finish();
            number = *number_of<int64_t>(value);
            model = {};
            frequency = 0;
        } else if (label == "model name") {
            model = value;
        } else if (label == "cpu MHz") {
            frequency = number_or_zero(value.substr(0, value.find('.')));
        }
    }
    finish();
    return rows;
}

json_t *live_processors()
{
    utsname names;
    const char *architecture = uname(&names) == 0 ? names.machine : "";
    json_t *rows = rows_of_cpuinfo(read_sysfile("/proc/cpuinfo"), architecture);
    if (json_array_size(rows) == 0) // not every kernel numbers them there
        for (int64_t i = 0; i < sysconf(_SC_NPROCESSORS_ONLN); i++)
            live_row(std::to_string(i))
                .set("architecture", architecture)
                .set("model", "")
                .set("frequency", int64_t{0})
                .add_to(rows);
    return rows;
}

static const char *process_state(std::string_view letter)
{
    switch (letter.empty() ? '?' : letter[0]) {
    case 'R':
        return "Running";
    case 'S':
        return "Sleeping";
    case 'T':
    case 't':
        return "Stopped";
    case 'D':
        return "Uninterruptible";
    case 'Z':
    case 'X':
        return "Zombie";
    default:
        return "Idle";
    }
}

// A number of pages or clock ticks, small enough to be reckoned with.
static int64_t amount(std::string_view word)
{
    return std::clamp<int64_t>(number_or_zero(word), 0, INT64_MAX >> 12);
}

void row_of_process(std::string_view text, json_t *rows)
{
    // The name stands in parentheses and may hold anything, parentheses too; the numbers follow the last one.
    size_t open = text.find('(');
    size_t close = text.rfind(')');
    if (open == std::string_view::npos || close == std::string_view::npos || close < open)
        return;
    std::string_view head = text.substr(0, open);
    std::optional<int64_t> pid = number_of<int64_t>(next_word(&head));
    std::string_view name = text.substr(open + 1, close - open - 1);
    std::string_view rest = text.substr(close + 1);
    rest = rest.substr(0, rest.find('\n'));
    std::string_view fields[22]; // from the state, the third field of the file, to the resident pages
    for (std::string_view &field : fields)
        field = next_word(&rest);
    if (!pid || fields[21].empty())
        return;

    static const int64_t ticks = std::max<int64_t>(sysconf(_SC_CLK_TCK), 1);
    static const int64_t page_kib = std::max<int64_t>(sysconf(_SC_PAGESIZE) / 1024, 1);
    // The kernel's scale goes from -100 (real time) to 39 (the nicest).
    int64_t priority = (std::clamp<int64_t>(number_or_zero(fields[15]), -100, 39) + 100) * 99 / 139;
    live_row(std::to_string(*pid) + ":" + std::string(fields[19]))
        .set("pid", *pid)
        .set("command", name)
        .set("size", std::min<int64_t>(amount(fields[21]) * page_kib, UINT32_MAX))
        .set("priority", priority)
        .set("cpu_time", std::min<int64_t>((amount(fields[11]) + amount(fields[12])) * 1000 / ticks, UINT32_MAX))
        .set("state", process_state(fields[0]))
        .add_to(rows);
}

json_t *live_processes()
{
    json_t *rows = json_array();
    DIR *proc = opendir("/proc");
    if (proc == nullptr) {
        sysfile_failed(errno);
        return rows;
    }
    while (const dirent *entry = readdir(proc)) {
        if (!number_of<int64_t>(entry->d_name))
            continue;
        // A process that ended since leaves an empty text.
        std::string text = read_sysfile((std::string("/proc/") + entry->d_name + "/stat").c_str());
        row_of_process(text, rows);
    }
    closedir(proc);
    return rows;
}

} // namespace veld
