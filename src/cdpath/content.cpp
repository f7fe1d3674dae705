#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "cdpath/cdpath.h"
#include "cdpath/dm_builder.h"
#include "event/request.h"
#include "platform/ve_json.h"

namespace
{

/// Appends the names that are asked for to a list.
class name_list
{
public:
    /// `text` and `flags` are those of cdpath_content.
    name_list(const char *text, unsigned flags) : flags_(flags)
    {
        if ((flags & CDPATH_ABSOLUTE) != 0)
            front_ = ':';
        if (text == nullptr)
            return;
        if ((flags & CDPATH_FILTER_PREFIX) != 0)
            filter_ = text;
        else
            front_.append(text).append(1, '.');
    }

    const std::string &filter() const { return filter_; }
    void add(std::string_view name, bool object)
    {
        const bool left_out = !object && (flags_ & CDPATH_OBJECTS_ONLY) != 0;
        if (left_out || !name.starts_with(filter_))
            return;
        item_.assign(front_).append(name);
        if (object && (flags_ & CDPATH_OBJECT_DOT) != 0 && !name.ends_with('.'))
            item_ += '.';
        // The names come from JSON texts, so they are UTF-8.
        json_array_append_new(list_.get(), json_stringn_nocheck(item_.data(), item_.size()));
    }
    json_t *take() { return list_.release(); }

private:
    unsigned flags_;
    std::string front_;
    std::string filter_;
    std::string item_;
    json_ref list_{json_array()};
};

/// The children as the cache holds them.
json_t *list_cached(const dm_node *node, const char *text, unsigned flags, bool sorted)
{
    name_list list(text, flags);
    const size_t size = node != nullptr ? node->size() : 0;
    const auto name_at = [&](size_t place) -> const std::string & { return (*node->level)[place].name; };
    const auto add = [&](size_t place) {
        const dm_attributes_ref &attributes = node->attributes_of(place);
        list.add(name_at(place), !attributes || attributes->type == dm_type::object);
    };
    if (!sorted) {
        for (size_t place = 0; place < size; ++place)
            add(place);
    } else if (size > 0) {
        const std::vector<uint32_t> &places = node->level->sorted();
        const auto first = std::lower_bound(places.begin(), places.end(), list.filter(),
                                            [&](uint32_t at, const std::string &word) { return name_at(at) < word; });
        for (auto at = first; at != places.end() && name_at(*at).starts_with(list.filter()); ++at)
            add(*at);
    }
    return list.take();
}

/// "max_instance" and "order" for a word that is no instance; null when it begins neither.
json_t *list_own_parameters(const char *text, unsigned flags)
{
    name_list list(text, flags & ~CDPATH_OBJECTS_ONLY);
    for (const char *name : {"max_instance", "order"})
        list.add(name, false);
    json_ref found(list.take());
    return json_array_size(found.get()) > 0 ? found.release() : nullptr;
}

} // namespace

json_t *cdpath_content_fast(cdpath *place, const char *text, unsigned flags)
{
    if (place->node == nullptr || !place->node->was_asked())
        cdpath_fetch(place);
    return list_cached(place->node.get(), text, flags, true);
}

json_t *cdpath_content(const dm_path &path, const dm_node *node, const char *text, unsigned flags)
{
    if (node == nullptr || !node->is_multi())
        return list_cached(node, text, flags, false);

    const bool of_objects = node->pattern == nullptr || node->pattern->is_object();
    if (path.last() == "max_instance" || (!of_objects && (flags & CDPATH_OBJECTS_ONLY) != 0))
        return nullptr;
    if ((flags & CDPATH_FILTER_PREFIX) != 0 && text != nullptr && *text != '\0' && *text != '[' &&
        !dm_path::is_instance(text))
        return list_own_parameters(text, flags);

    const bool ordered = node->is_ordered();
    const msg_ref message(ve_jrpcmsg_cmd_get_parameter_names(path.as_object().c_str(), 1));
    msg_exec(message.get(), -1);
    if (!ve_jrpcmsg_has_result(message.get()))
        return nullptr;
    name_list list(text, flags);
    ve_parameter entry;
    for (ve_parameters entries = ve_jrpcmsg_parameters(message.get()); entries.next(&entry);) {
        const std::string_view spelled = entry.name.value_or("");
        const std::string_view name = dm_path::without_dot(path.relative(spelled.substr(0, spelled.find('\0'))));
        if (name.empty())
            continue;
        const bool maximum = name == "max_instance";
        const bool order = name == "order";
        if ((maximum || order) && (flags & CDPATH_OBJECTS_ONLY) != 0)
            continue;
        list.add(name, of_objects && !maximum && !(ordered && order));
    }
    return list.take();
}

std::shared_ptr<dm_node> cdpath_get_input(const cdpath &place)
{
    if (place.node == nullptr || place.node->type() != dm_type::method)
        return nullptr;
    const msg_ref message(ve_jrpcmsg_cmd_get_parameter_attributes_new(nullptr));
    ve_jrpcmsg_cmd_get_parameter_attributes_add(message.get(), place.path.as_object().c_str());
    msg_exec(message.get(), -1);

    dm_builder builder(place.path);
    ve_parameter entry;
    std::string room;
    ve_parameters arguments = ve_jrpcmsg_parameters(message.get());
    builder.expect(arguments);
    while (arguments.next(&entry)) {
        if (entry.attributes.member("Direction").string(&room) == "input")
            builder.add(entry);
    }
    return std::make_shared<dm_node>(builder.take());
}
