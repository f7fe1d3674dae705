#include <cstring>
#include <functional>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "commands/values.h"
#include "platform/ve_json.h"
#include "utils/tree_print.h"

namespace
{

// What stands deeper stays together as one name: trees are released recursively.
constexpr size_t depth_max = 512;

/// Grows the tree from dotted names. Finding a child costs the same however many there are.
class tree_builder
{
public:
    explicit tree_builder(json_t *root) { steps_.push_back({{}, root}); }

    /// The node that `name` leads to, made where it is missing. The name's text must outlive the builder.
    json_t *node(std::string_view name)
    {
        size_t depth = 0;
        for (std::string_view component; next(&name, depth, &component);) {
            json_t *node = steps_[depth].node;
            if (component == "max_instance" || component == "order")
                json_object_set_new(node, "multi", json_true());
            ++depth;
            // Names mostly share their beginning with the one before.
            if (depth < steps_.size() && steps_[depth].component == component)
                continue;
            steps_.resize(depth);
            steps_.push_back({component, child(node, component)});
        }
        steps_.resize(depth + 1);
        return steps_[depth].node;
    }

private:
    struct step {
        std::string_view component;
        json_t *node;
    };
    struct key {
        const json_t *node;
        std::string_view component;
        bool operator==(const key &) const = default;
    };
    struct key_hash {
        size_t operator()(const key &value) const
        {
            const size_t name = std::hash<std::string_view>()(value.component);
            return name ^ (std::hash<const void *>()(value.node) * 0x9e3779b97f4a7c15U);
        }
    };

    /// Takes the next component off; empty ones vanish.
    static bool next(std::string_view *rest, size_t depth, std::string_view *component)
    {
        const size_t begin = rest->find_first_not_of('.');
        if (begin == std::string_view::npos)
            return false;
        const size_t end = depth + 1 < depth_max ? rest->find('.', begin) : std::string_view::npos;
        *component = rest->substr(begin, end - begin);
        *rest = end == std::string_view::npos ? std::string_view() : rest->substr(end);
        return true;
    }

    json_t *child(json_t *node, std::string_view name)
    {
        json_t *&found = children_[{node, name}];
        if (found != nullptr)
            return found;
        json_t *content = json_object_get(node, "content");
        if (content == nullptr) {
            content = json_array();
            json_object_set_new(node, "content", content);
        }
        found = json_object();
        json_object_set_new(found, "name", json_stringn(name.data(), name.size()));
        json_array_append_new(content, found);
        return found;
    }

    std::vector<step> steps_; // from the root to the last node
    std::unordered_map<key, json_t *, key_hash> children_;
};

json_t *build_tree(const json_t *list, const char *path_text)
{
    json_t *root = json_object();
    tree_builder builder(root);
    const std::string_view path = path_text;
    size_t index;
    json_t *entry;
    json_array_foreach(list, index, entry)
    {
        const json_t *text = json_object_get(entry, "Name");
        if (!json_is_string(text))
            continue;
        std::string_view name = json_string_value(text);
        if (name.starts_with(path))
            name.remove_prefix(path.size());
        json_object_set(builder.node(name), "value", json_object_get(entry, "Value"));
    }
    json_object_set_new(root, "name", json_string(path_text));
    return root;
}

} // namespace

void values_tree(const json_t *list, const char *path_text)
{
    json_ref tree(build_tree(list, path_text));
    json_dump_tree(tree.get());
}
