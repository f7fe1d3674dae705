#include "cdpath/cdpath.h"

#include <utility>

#include "event/listener.h"
#include "platform/ve_out.h"

std::shared_ptr<dm_node> dm;
dm_path cwd;
dm_path old_cwd;

namespace
{

/// The place of a path, its node as far as that is known without asking.
cdpath place_at(const dm_path &path)
{
    return {path, dm == nullptr || path.is_root() ? dm : dm->find(path.text())};
}

/// Brings the cache up to date with the instances that came and went. What nobody has looked at stays unknown.
void take_notices()
{
    const instance_changes changes = fetch_instance_queue();
    if (dm == nullptr)
        return;
    if (changes.too_many())
        dm->become({}, dm_known::unknown);
    for (const auto &[path, ranges] : changes.tables()) {
        dm_node *table = dm.get();
        for (std::string_view rest = dm_path::without_dot(path); !rest.empty() && table != nullptr;)
            table = table->peek(dm_path::cut_name(&rest));
        if (table != nullptr)
            table->change_instances(ranges);
    }
}

bool descend(cdpath *place, std::string_view name)
{
    if (!cdpath_settle(place))
        return false;
    if (!place->node->was_asked() && place->node->size() == 0)
        cdpath_fetch(place);
    std::shared_ptr<dm_node> child = place->node->child(name);
    if (child == nullptr || !place->path.push(name))
        return false;
    place->node = std::move(child);
    return true;
}

/// "<", "<<", ...: false when something else stands among them.
bool climb(cdpath *place, std::string_view component)
{
    if (component.find_first_not_of('<') != std::string_view::npos)
        return false;
    for (size_t levels = component.size(); levels > 0; --levels)
        place->path.pop();
    *place = place_at(place->path);
    return true;
}

} // namespace

cdpath cdpath_here()
{
    take_notices();
    return place_at(cwd);
}

bool cdpath_settle(cdpath *place)
{
    if (place->node != nullptr || dm == nullptr)
        return place->node != nullptr;
    const dm_path path = place->path;
    cdpath_clear(place);
    for (std::string_view rest = path.text(); !rest.empty();) {
        if (!descend(place, dm_path::cut_name(&rest))) {
            *place = {path, nullptr};
            return false;
        }
    }
    return true;
}

void cdpath_clear(cdpath *place)
{
    *place = place_at(dm_path());
}

int cdpath_parse(cdpath *place, const char *text, bool quiet)
{
    if (place == nullptr)
        return -1;
    if (text == nullptr)
        return -2;
    std::string_view rest = text;
    if (rest.starts_with(':')) {
        cdpath_clear(place);
        rest.remove_prefix(1);
    }
    while (!rest.empty()) {
        const std::string_view name = dm_path::cut_name(&rest);
        if (name.empty())
            continue;
        bool followed = false;
        switch (name.front()) {
        case '#':
            break;
        case '<':
            followed = climb(place, name);
            break;
        case '-':
            if (!quiet)
                ve_printf(":%s\n", ve_visible(old_cwd.c_str()).c_str());
            *place = place_at(old_cwd);
            followed = cdpath_settle(place);
            break;
        default:
            followed = descend(place, name);
        }
        if (!followed)
            return -1;
    }
    return 0;
}
