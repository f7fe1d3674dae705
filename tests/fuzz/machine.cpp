// What comes from outside while values are read and names are looked up: name servers' answers, the kernel's tables.
#include "platform/ve_json.h"
#include "veld/live/providers.h"
#include "veld/methods/dns_message.h"

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    using namespace veld;
    for (const dns_type type : {dns_type::a, dns_type::aaaa, dns_type::ptr})
        dns_parse(data, size, 0x3131, "host.example", type);

    const std::string_view text(reinterpret_cast<const char *>(data), size);
    const json_ref rows(json_array());
    row_of_process(text, rows.get());
    rows_of_tcp(text, rows.get());
    const json_ref tables[] = {json_ref(rows_of_arp(text)), json_ref(rows_of_resolv_conf(text)),
                               json_ref(rows_of_route(text)), json_ref(rows_of_cpuinfo(text, "machine"))};
    for (const json_ref &table : tables)
        if (!json_is_array(table.get()))
            abort();
    zone_of_tzfile(text);
    meminfo_field(text, "MemTotal");
    const json_ref clean(json_clean_text(text, 100));
    if (!json_is_string(clean.get()) || json_string_length(clean.get()) > 100)
        abort();
    return 0;
}
