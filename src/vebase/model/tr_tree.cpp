#include "platform/ve_tr.h"

#include <string>
#include <string_view>

#include "platform/ve_json.h"

namespace
{

// Deeper names are passed over: a typed path cannot lead there, and trees are released recursively.
constexpr int depth_max = 512;

std::string_view text_of(const json_t *string)
{
    return json_is_string(string) ? std::string_view(json_string_value(string), json_string_length(string))
                                  : std::string_view();
}

/// Cuts the next component off `rest`.
std::string_view next_component(std::string_view &rest)
{
    const size_t dot = rest.find('.');
    const std::string_view component = rest.substr(0, dot);
    rest = dot == std::string_view::npos ? std::string_view() : rest.substr(dot + 1);
    return component;
}

/// The base without its final dot; empty for "." and null.
std::string_view base_name(const char *base)
{
    std::string_view name = base != nullptr ? base : "";
    if (name.ends_with('.'))
        name.remove_suffix(1);
    return name;
}

/// Leaves in `*name` what stands below `base`, without a final dot; empty for the base itself. Returns the number of
/// its components, or -1 when the name lies elsewhere or cannot be a node's.
int make_relative(std::string_view *name, std::string_view base)
{
    if (name->ends_with('.'))
        name->remove_suffix(1);
    if (!base.empty()) {
        if (!name->starts_with(base))
            return -1;
        name->remove_prefix(base.size());
        if (name->empty())
            return 0;
        if (name->front() != '.')
            return -1;
        name->remove_prefix(1);
        if (name->empty())
            return -1;
    }
    if (name->ends_with('.') || name->find('\0') != std::string_view::npos)
        return -1;
    int depth = 0;
    std::string_view rest = *name;
    while (!rest.empty()) {
        const std::string_view component = next_component(rest);
        // "#" begins the bookkeeping keys of the tree.
        if (component.empty() || component.front() == '#' || ++depth > depth_max)
            return -1;
    }
    return depth;
}

/// Stores what `name` leads to at the end of its walk through `tree`, making the nodes on the way.
class tree_writer
{
public:
    explicit tree_writer(json_t *tree) : tree_(tree) {}

    /// The object that holds the last component of `name` (not empty), which goes into `*key`; null when a value stands
    /// in the way.
    json_t *parent_of(std::string_view name, std::string *key)
    {
        const size_t dot = name.rfind('.');
        const std::string_view parent = dot == std::string_view::npos ? std::string_view() : name.substr(0, dot);
        key->assign(dot == std::string_view::npos ? name : name.substr(dot + 1));
        // The entries of a list mostly follow each other below one parent.
        if (last_ == nullptr || parent != last_name_) {
            last_ = walk(parent);
            last_name_ = parent;
        }
        return last_;
    }

private:
    json_t *walk(std::string_view rest)
    {
        json_t *node = tree_;
        std::string key;
        while (!rest.empty()) {
            key.assign(next_component(rest));
            json_t *child = json_object_get(node, key.c_str());
            if (child == nullptr) {
                child = json_object();
                json_object_set_new(node, key.c_str(), child);
            }
            if (!json_is_object(child))
                return nullptr;
            node = child;
        }
        return node;
    }

    json_t *tree_;
    json_t *last_ = nullptr;
    std::string_view last_name_;
};

/// ve_tr_names_to_config for a tree that may be `room` levels deep.
json_t *names_to_tree(const json_t *list, const char *base, int room)
{
    const std::string_view above = base_name(base);
    json_t *tree = json_object();
    tree_writer writer(tree);
    std::string key;
    size_t index;
    json_t *entry;
    json_array_foreach(list, index, entry)
    {
        const json_t *name_value = json_object_get(entry, "Name");
        std::string_view name = text_of(name_value);
        const int depth = json_is_string(name_value) ? make_relative(&name, above) : -1;
        if (depth < 0 || depth > room)
            continue;
        json_t *node = tree;
        if (depth > 0) {
            json_t *parent = writer.parent_of(name, &key);
            if (parent == nullptr)
                continue;
            node = json_object_get(parent, key.c_str());
            if (node == nullptr) {
                node = json_object();
                json_object_set_new(parent, key.c_str(), node);
            }
        }
        json_object_set(node, "#info", entry);
        const json_t *pattern = json_object_get(entry, "Template");
        if (json_is_array(pattern) && depth < room)
            json_object_set_new(node, "#template", names_to_tree(pattern, nullptr, room - depth - 1));
    }
    return tree;
}

} // namespace

json_t *ve_tr_names_to_config(const json_t *list, const char *base)
{
    return names_to_tree(list, base, depth_max);
}

json_t *ve_tr_namevalues_to_config(const json_t *list, const char *base)
{
    const std::string_view above = base_name(base);
    json_ref tree{json_object()};
    tree_writer writer(tree.get());
    std::string key;
    size_t index;
    json_t *entry;
    json_array_foreach(list, index, entry)
    {
        const json_t *name_value = json_object_get(entry, "Name");
        json_t *value = json_object_get(entry, "Value");
        std::string_view name = text_of(name_value);
        if (value == nullptr || !json_is_string(name_value) || make_relative(&name, above) < 0)
            continue;
        if (name.empty())
            return json_incref(value);
        json_t *parent = writer.parent_of(name, &key);
        // A value that is an object is copied: later names may lead into it.
        if (parent != nullptr && json_object_get(parent, key.c_str()) == nullptr)
            json_object_set_new(parent, key.c_str(),
                                json_is_object(value) ? json_deep_copy(value) : json_incref(value));
    }
    return tree.release();
}

json_t *ve_tr_node_find_path_config(const json_t *tree, const char *path)
{
    std::string_view rest = base_name(path);
    if (rest.empty())
        return nullptr;
    const json_t *node = tree;
    std::string key;
    bool last = false;
    while (!last && node != nullptr) {
        last = rest.find('.') == std::string_view::npos;
        key.assign(next_component(rest));
        if (key.empty() || key.front() == '#')
            return nullptr;
        node = json_object_get(node, key.c_str());
    }
    return json_is_object(node) ? const_cast<json_t *>(node) : nullptr;
}

json_t *ve_conf_find_branch(const json_t *dm, const char *path, int)
{
    const json_t *node = dm;
    std::string_view rest = base_name(path);
    std::string key;
    while (!rest.empty() && node != nullptr) {
        key.assign(next_component(rest));
        if (key.empty() || key.front() == '#')
            return nullptr;
        const json_t *child = json_object_get(node, key.c_str());
        if (child == nullptr && ve_tr_str_is_instance(key.c_str()))
            child = json_object_get(node, "#template");
        node = child;
    }
    return json_is_true(json_object_get(node, "#fetched")) ? const_cast<json_t *>(node) : nullptr;
}
