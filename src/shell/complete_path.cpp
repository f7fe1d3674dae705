#include <cstring>
#include <string>
#include <string_view>

#include "cdpath/cdpath.h"
#include "platform/ve_json.h"
#include "shell/completers.h"
#include "utils/json_util.h"

namespace
{

/// The children of the place; asks the daemon for a level that nobody has looked at. An instance that is known by its
/// table's template alone is listed from that: it may not exist.
json_ref list_children(cdpath *here, const char *text, unsigned flags)
{
    if (!cdpath_settle(here))
        return {};
    if (here->node->known == dm_known::assumed) {
        json_ref names(cdpath_content(here->path, here->node.get(), text, flags));
        if (json_array_size(names.get()) > 0 || !here->node->is_object())
            return names;
    }
    return json_ref(cdpath_content_fast(here, text, flags));
}

/// Appends the nodes that the last component of `text` may become, from `here` on. Returns where that component begins.
size_t complete_node(cdpath *here, const std::string &text, json_t *candidates, bool objects_only)
{
    unsigned flags = CDPATH_FILTER_PREFIX | CDPATH_OBJECT_DOT;
    if (objects_only)
        flags |= CDPATH_OBJECTS_ONLY;
    const size_t dot = text.rfind('.');
    const size_t begin = dot != std::string::npos ? dot + 1 : 0;
    size_t filter = begin;
    if (dot != std::string::npos) {
        if (cdpath_parse(here, text.substr(0, dot).c_str(), true) != 0)
            return begin;
    } else if (text.starts_with(':')) {
        cdpath_clear(here);
        flags |= CDPATH_ABSOLUTE;
        filter = 1;
    }
    const json_ref names(list_children(here, text.c_str() + filter, flags));
    json_array_extend(candidates, names.get());
    return begin;
}

void append_if_prefix(const std::string &prefix, const char *text, json_t *candidates)
{
    if (strncmp(text, prefix.c_str(), prefix.size()) == 0)
        json_array_append_new(candidates, json_string(text));
}

/// The allowed values in the daemon's order; what is no text as JSON.
void complete_enum(const dm_node &node, const std::string &typed, json_t *candidates)
{
    const json_ref attributes = node.description();
    size_t index;
    json_t *entry;
    json_array_foreach(json_object_get(attributes.get(), "enum"), index, entry)
    {
        if (json_is_string(entry)) {
            append_if_prefix(typed, json_string_value(entry), candidates);
        } else {
            append_if_prefix(typed, json_compact(entry).c_str(), candidates);
        }
    }
}

/// Completes the value behind the last "=", which stands at `equals`.
completed_part complete_value(cdpath *here, const std::string &text, size_t equals, json_t *candidates,
                              bool objects_only)
{
    const size_t begin = equals + 1;
    if (cdpath_parse(here, text.substr(0, equals).c_str(), true) != 0 || !cdpath_settle(here))
        return {begin, false};
    const std::string typed = text.substr(begin);
    switch (here->node->type()) {
    case dm_type::object:
        break;
    case dm_type::boolean:
    case dm_type::toggle:
        append_if_prefix(typed, "true", candidates);
        append_if_prefix(typed, "false", candidates);
        break;
    case dm_type::path:
        cdpath_clear(here);
        return {begin + complete_node(here, typed, candidates, objects_only), true};
    default:
        complete_enum(*here->node, typed, candidates);
        break;
    }
    return {begin, false};
}

} // namespace

completed_part complete_path(const char *text, json_t *candidates, bool objects_only)
{
    cdpath here = cdpath_here();
    const std::string word(text != nullptr ? text : "");
    const size_t equals = word.rfind('=');
    if (equals != std::string::npos)
        return complete_value(&here, word, equals, candidates, objects_only);
    return {complete_node(&here, word, candidates, objects_only), true};
}
