// Making nodes of what the daemon lists. Main thread only.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "cdpath/dm_node.h"
#include "cdpath/dm_path.h"
#include "platform/ve_json_text.h"

/// Makes a node, and what stands below it, of the entries of one or more lists. Neighbours that look alike share their
/// levels as soon as the next begins.
class dm_builder
{
public:
    /// For the node at `base`: what lies elsewhere is passed over.
    explicit dm_builder(const dm_path &base) : dm_builder(base, depth_max, cost_allowed) {}

    /// Adds an entry of a ParameterList: its attributes and, for a table, its pattern. One that does not fit is passed
    /// over.
    void add(const ve_parameter &entry);
    /// Adds the entries of a whole list; Ctrl-C ends it early.
    void add(ve_parameters list);
    /// Says how much of a list comes entry by entry: what is made of it may cost so many times more.
    void expect(const ve_parameters &list);
    /// Whether nodes are missing because so many of them can be had of so little only by malice.
    bool is_exhausted() const { return left_ < 0; }
    /// A child of the node that is passed over from here on.
    void leave_out(std::string_view name) { left_out_ = name; }
    /// From here on the entries say all of the node's children that they tell of.
    void tell_all() { tells_all_ = true; }
    /// The node; the builder is done with then.
    dm_node take();

private:
    // Deeper names are passed over: a typed path cannot lead there, and nodes are released recursively.
    static constexpr size_t depth_max = 512;

    /// A node whose level is being made.
    struct step {
        std::string name;
        dm_node *node;
        std::shared_ptr<dm_level> level;
        std::shared_ptr<const dm_level> alike; ///< of the last child that was closed
    };

    dm_builder(const dm_path &base, size_t room, int64_t left);
    bool fits(std::string_view *name, size_t *depth) const;
    void add_entry(std::string_view name, size_t depth, const ve_parameter &entry);
    void enter(size_t depth, std::string_view name);
    void close(size_t depth);
    size_t place_of(step &above, std::string_view name);
    dm_node *node_at(step &above, size_t place);

    dm_path base_;
    size_t room_;
    int64_t left_; // of what the nodes may cost
    std::string left_out_;
    bool tells_all_ = false;
    dm_node root_;
    std::vector<step> open_; // from the node down to where the last entry stood
};
