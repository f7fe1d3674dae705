// Any list a daemon may send, turned into nodes, followed and changed.
#include <cstdint>

#include "cdpath/dm_builder.h"
#include "platform/ve_json.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const json_ref list{
        json_loadb(reinterpret_cast<const char *>(data), size, JSON_ALLOW_NUL | JSON_DECODE_ANY, nullptr)};
    for (const char *base : {"", "Device.", "Device.Hosts.Host"}) {
        dm_builder builder{dm_path(base)};
        builder.add(list.get());
        builder.tell_all();
        builder.add(list.get());
        dm_node node = builder.take();
        node.find("Device.Hosts.Host.7.");
        node.known = dm_known::known;
        node.change_instances({{1, {2, true}}, {7, {7, false}}});
        node.copy()->forget_instances();
    }
    return 0;
}
