// Nodes out of lists as texts, and as texts again.
#pragma once

#include <string>

#include "cdpath/dm_builder.h"
#include "platform/ve_json.h"

/// The node that a ParameterList describes, for what lies below `base`.
inline dm_node node_of(const std::string &list, const char *base = "")
{
    dm_builder builder{dm_path(base)};
    builder.add(ve_parameters(json_text_check(list) ? json_piece(list) : json_piece()));
    return builder.take();
}

/// The node's type (nothing when no attributes are known), what it says of every instance in <>, its children in ().
inline std::string shown(const dm_node &node)
{
    std::string text;
    if (const json_ref attributes = node.description()) {
        const json_t *type = json_object_get(attributes.get(), "type");
        text += json_is_string(type) ? json_string_value(type) : "?";
    }
    if (node.is_multi())
        text += '*';
    text += node.known == dm_known::assumed ? "~" : node.known == dm_known::known ? "!" : "";
    text += node.known == dm_known::refused ? "x" : "";
    if (node.pattern != nullptr)
        text += "<" + shown(*node.pattern) + ">";
    for (size_t place = 0; place < node.size(); ++place) {
        dm_node leaf;
        leaf.attributes = node.attributes_of(place);
        const bool more = place < node.below.size() && node.below[place] != nullptr;
        text += (place == 0 ? "(" : " ") + (*node.level)[place].name + ":" + shown(more ? *node.below[place] : leaf);
    }
    return text + (node.size() > 0 ? ")" : "");
}
