// The cache of the model's scheme: what is known of it, node by node. Main thread only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "event/notices.h"
#include "platform/ve_json.h"

/// Node types as far as somebody tells them apart.
enum class dm_type : uint8_t {
    object = 0, ///< an object, or nothing known
    method = 1,
    boolean = 4,
    path = 24,
    toggle = 26,
    other = 32 ///< a parameter of any other type
};

/// What the daemon says of a node. Nodes of which it says the same share one.
struct dm_attributes {
    std::string text; ///< the object "Attributes", as JSON
    dm_type type = dm_type::object;
    bool multi = false;
    bool ordered = false;
};
using dm_attributes_ref = std::shared_ptr<const dm_attributes>;
/// The attributes that `text`, a JSON object, holds; null when it is none.
dm_attributes_ref dm_attributes_of(std::string_view text);

/// Names in the daemon's order, with what it says of each. Nodes that look alike share one.
class dm_level
{
public:
    static constexpr size_t none = SIZE_MAX;
    struct entry {
        std::string name;
        dm_attributes_ref attributes; ///< null when nothing is said
        bool operator==(const entry &) const = default;
    };

    size_t size() const { return entries_.size(); }
    const entry &operator[](size_t at) const { return entries_[at]; }
    bool operator==(const dm_level &other) const { return entries_ == other.entries_; }
    /// Where the name stands, or `none`. Costs the same however many there are.
    size_t find(std::string_view name) const;
    /// The places of the names in the order of their bytes.
    const std::vector<uint32_t> &sorted() const;

    /// Appends a name that is not there yet. Returns its place.
    size_t append(std::string_view name, dm_attributes_ref attributes)
    {
        entries_.push_back({std::string(name), std::move(attributes)});
        return entries_.size() - 1;
    }
    void set_attributes(size_t at, dm_attributes_ref attributes) { entries_[at].attributes = std::move(attributes); }
    void shrink() { entries_.shrink_to_fit(); }

private:
    void index() const;

    std::vector<entry> entries_;
    mutable std::vector<uint32_t> slots_; ///< places plus one, by the hash of the name
    mutable size_t indexed_ = 0;          ///< places that have their slots
    mutable std::vector<uint32_t> sorted_;
};

enum class dm_known : uint8_t {
    unknown, ///< nobody has asked for the children; some may be known nevertheless
    assumed, ///< an instance that nobody has asked for: looks as its table says that every instance does
    known,
    refused, ///< the daemon said that it is not there, or not for this user
};

struct dm_node {
    dm_attributes_ref attributes;                ///< null when nothing is known
    std::shared_ptr<const dm_level> level;       ///< null when no child is known
    std::vector<std::shared_ptr<dm_node>> below; ///< by the level's places, as far as more is known than the level says
    std::shared_ptr<const dm_node> pattern;      ///< of a table: what every instance looks like; null when unknown
    /// Of a table: instances that somebody looked at though the daemon never told of them.
    std::map<std::string, std::shared_ptr<dm_node>, std::less<>> strangers;
    dm_known known = dm_known::unknown;
    std::shared_ptr<const std::string> denied; ///< the daemon's words when it denied this user the node, else null

    dm_type type() const { return attributes ? attributes->type : dm_type::object; }
    bool is_object() const { return type() == dm_type::object; }
    bool is_multi() const { return attributes && attributes->multi; }
    bool is_ordered() const { return attributes && attributes->ordered; }
    bool was_asked() const { return known == dm_known::known || known == dm_known::refused; }
    /// The attributes as a new JSON object; null when nothing is known.
    json_ref description() const;

    size_t size() const { return level ? level->size() : 0; }
    const dm_attributes_ref &attributes_of(size_t place) const;
    /// The child or the instance of that name when more is known of it than its level says, else null.
    dm_node *peek(std::string_view name) const;
    /// The child of that name; of a table also an instance that the daemon never told of. Null when there is none.
    std::shared_ptr<dm_node> child(std::string_view name);
    /// What `path` (dots between names, a final one allowed) leads to below this node, or null.
    std::shared_ptr<dm_node> find(std::string_view path);
    /// Takes the children and, when they are there, the attributes of `content` over.
    void become(dm_node &&content, dm_known now);
    /// Of a table: instances came and went. What is new is yet to be asked for.
    void change_instances(const instance_ranges &changes);
};
