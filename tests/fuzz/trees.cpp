// Any list a daemon may send, turned into a tree, looked up and printed.
#include <cstdint>
#include <string>

#include "platform/ve_json.h"
#include "platform/ve_tr.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const json_ref list{
        json_loadb(reinterpret_cast<const char *>(data), size, JSON_ALLOW_NUL | JSON_DECODE_ANY, nullptr)};
    for (const char *base : {static_cast<const char *>(nullptr), ".", "Device.", "Device.Hosts.Host"}) {
        const json_ref tree{ve_tr_names_to_config(list.get(), base)};
        ve_tr_dm_node_type_get(ve_tr_node_find_path_config(tree.get(), "Device.Hosts."));
        ve_tr_dm_node_default_get(tree.get());
        ve_conf_find_branch(tree.get(), "Device.Hosts.Host.", 0);
        const json_ref values{ve_tr_namevalues_to_config(list.get(), base)};
    }
    return 0;
}
