// Any list a daemon may send, turned into nodes, followed and changed.
#include <cstdint>

#include "cdpath/dm_builder.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string_view text(reinterpret_cast<const char *>(data), size);
    if (!json_text_check(text))
        return 0;
    const ve_parameters list{json_piece(text)};
    for (const char *base : {"", "Device.", "Device.Hosts.Host"}) {
        dm_builder builder{dm_path(base)};
        builder.add(list);
        builder.tell_all();
        builder.add(list);
        dm_node node = builder.take();
        node.find("Device.Hosts.Host.7.");
        node.known = dm_known::known;
        node.change_instances({{1, {2, true}}, {7, {7, false}}});
    }
    return 0;
}
