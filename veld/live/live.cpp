#include "veld/live/live.h"

#include "base/clock.h"
#include "base/json_ref.h"
#include "veld/live/providers.h"

#include <iterator>
#include <string>
#include <unordered_map>
#include <unordered_set>

namespace veld
{

namespace
{

struct provider {
    std::string_view name;
    json_t *(*read)();
};

constexpr provider values[] = {
    {"uptime", live_uptime},
    {"hostname", live_hostname},
    {"kernel", live_kernel},
    {"machine", live_machine},
    {"memory.total", live_memory_total},
    {"memory.free", live_memory_free},
    {"memory.available", live_memory_available},
    {"storage.total", live_storage_total},
    {"storage.free", live_storage_free},
    {"cpu.usage", live_cpu_usage},
    {"load.1", live_load_1},
    {"load.5", live_load_5},
    {"load.15", live_load_15},
    {"time.current", live_time_current},
    {"time.zone", live_time_zone},
    {"time.status", live_time_status},
};

constexpr provider tables[] = {
    {"processes", live_processes},   {"processors", live_processors},     {"ethernet", live_ethernet},
    {"interfaces", live_interfaces}, {"neighbors", live_neighbors},       {"resolvers", live_resolvers},
    {"routes", live_routes},         {"active_ports", live_active_ports},
};

// What was read last, and when. A snapshot serves all requests of its lifetime, so that one answer is of one piece.
struct snapshot {
    json_ref content;
    int64_t taken = 0;
};
constexpr int64_t snapshot_lifetime_ms = 200;
snapshot value_snapshots[std::size(values)];
snapshot table_snapshots[std::size(tables)];

template <size_t count> size_t find_provider(const provider (&list)[count], std::string_view name)
{
    size_t i = 0;
    while (i < count && list[i].name != name)
        i++;
    return i;
}

// Rows of equal key get keys of their own: a name server may be named twice.
void separate_keys(json_t *rows)
{
    std::unordered_set<std::string> seen;
    std::unordered_map<std::string, int> numbers; // by key: the last one behind it
    for (size_t i = 0; i < json_array_size(rows); i++) {
        json_t *row = json_array_get(rows, i);
        std::string key = json_string_value(json_object_get(row, "#key"));
        std::string unique = key;
        for (int *n = &numbers.try_emplace(key, 1).first->second; !seen.insert(unique).second;)
            unique = key + "#" + std::to_string(++*n);
        if (unique != key)
            json_object_set_new(row, "#key", json_string(unique.c_str()));
        const char *field;
        json_t *content;
        json_object_foreach(row, field, content) if (std::string_view(field).starts_with("#rows:"))
            separate_keys(content);
    }
}

// Takes over what was read. A machine that cannot be seen at the moment has not changed: what was read last stays.
void keep(snapshot *in, json_t *content)
{
    json_ref read(content);
    in->taken = monotonic_ms(); // what takes long to read is not old by then
    if (!sysfile_take_failure())
        in->content = std::move(read);
}

bool fresh(const snapshot &of)
{
    return of.taken != 0 && monotonic_ms() - of.taken < snapshot_lifetime_ms;
}

} // namespace

json_t *live_value(std::string_view name)
{
    size_t i = find_provider(values, name);
    if (i == std::size(values))
        return nullptr;
    snapshot &last = value_snapshots[i];
    if (!fresh(last))
        keep(&last, values[i].read());
    return json_incref(last.content.get());
}

json_t *live_rows(std::string_view name)
{
    size_t i = find_provider(tables, name);
    if (i == std::size(tables))
        return nullptr;
    snapshot &last = table_snapshots[i];
    if (!fresh(last)) {
        json_t *rows = tables[i].read();
        separate_keys(rows);
        keep(&last, rows);
    }
    return json_incref(last.content.get());
}

bool live_value_known(std::string_view name)
{
    return find_provider(values, name) < std::size(values);
}

bool live_rows_known(std::string_view name)
{
    return find_provider(tables, name) < std::size(tables);
}

} // namespace veld
