// Trees drawn with box glyphs.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/ve_json_text.h"

/// A tree to be drawn, grown from its root. Children stand in byte order, those of a "multi" node in numeric order;
/// equals in the order in which they were added.
class drawn_tree
{
public:
    using node = uint32_t;
    static constexpr node root = 0;

    explicit drawn_tree(std::string_view name) { make(root, name); }
    /// The child `name` (copied) of `parent`, made where it is missing; costs the same however many there are.
    node child(node parent, std::string_view name);
    std::string_view name(node of) const { return {&names_[nodes_[of].name], nodes_[of].name_size}; }
    /// The bytes that it takes, by and large.
    size_t cost() const { return nodes_.size() * item_cost + names_.size(); }
    void set_multi(node of) { nodes_[of].multi = true; }
    /// The value's text must outlive the tree.
    void set_value(node of, json_piece value) { nodes_[of].value = value; }
    /// Prints the tree. A wait point; Ctrl-C ends it early.
    void draw() const;

private:
    // With room to grow, its place among its neighbours, and one in the index.
    static constexpr size_t item_cost = 128;

    struct item {
        uint32_t name; // in names_, with a NUL behind it
        uint32_t name_size;
        node parent;
        node first_child = root; // the root for none
        node last_child = root;
        node next = root;
        uint32_t children = 0;
        bool multi = false;
        json_piece value;
    };
    struct slot {
        uint32_t hash = 0;
        node found = root; // the root in an empty slot
    };
    /// Children on the way down, and how far they are drawn.
    struct level {
        std::vector<std::pair<int, node>> children; // behind their numbers, in the order to draw
        size_t next = 0;
        size_t name_width = 0;
        size_t indentation = 0; // of its rows, in bytes

        bool more() const { return next < children.size(); }
    };

    node make(node parent, std::string_view name);
    bool is_child(node each, node parent, std::string_view name) const;
    /// Where the child stands in `index_`, or would stand.
    slot &slot_of(node parent, std::string_view name);
    void index_child(node of);
    level level_of(node of) const;
    void draw_line(std::string *row, node of, size_t name_width) const;

    std::vector<item> nodes_;
    std::string names_;
    std::vector<slot> index_; // an open hash table, by parent and name, of the children of those that have many
    size_t indexed_ = 0;
};
