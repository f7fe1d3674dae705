// The model's nodes as they are at the moment: objects, instances, values.
#pragma once

#include "veld/model/past.h"
#include "veld/model/scheme.h"

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace veld
{

struct node;

/// The instances of a table that have one value of one unique parameter: the value's text to the instance's number.
using unique_values = std::unordered_map<std::string, uint32_t>;

/// What a table has beyond other nodes.
struct table_state {
    std::vector<std::unique_ptr<node>> instances;   ///< ascending by number
    std::vector<uint32_t> order;                    ///< of an ordered table: all instance numbers
    uint32_t highest = 0;                           ///< the highest number given so far
    uint64_t epoch = 0;                             ///< of a live table: the request it was last brought up to date in
    std::unordered_map<std::string, uint32_t> rows; ///< of a live table: the row's key to the instance's number
    std::unordered_map<const scheme *, unique_values> unique;
};

struct node {
    const scheme *what = nullptr;
    node *parent = nullptr; ///< null for the root
    json_ref value;         ///< a parameter's own value; null: the default
    /// An object's children or a table's own parameters, in the order of the scheme's children.
    std::vector<std::unique_ptr<node>> children;
    std::unique_ptr<table_state> table;
    uint32_t number = 0;  ///< of an instance, else 0
    bool changed = false; ///< set since the factory: goes into the saved state
    bool given = false;   ///< has a factory value of its own, which stands before a live one

    bool is_instance() const { return number != 0; }
};

/// A place that a name leads to: a node, or an argument of the method that `at` is then.
struct place {
    node *at = nullptr;
    const scheme *what = nullptr;

    explicit operator bool() const { return what != nullptr; }
};

class tree
{
public:
    /// The tree in its factory state. Null when factory values do not fit the model; `*error` says where.
    static std::unique_ptr<tree> make(std::unique_ptr<scheme> model, device_backend *behind, std::string *error);

    node *root() { return root_.get(); }
    const scheme &model() const { return *model_; }
    device_backend *behind() { return behind_; }

    /// Begins a request: within one, live tables are brought up to date once.
    void begin_request() { ++epoch_; }

    /// The place of a name, with or without its final "."; the root is "." or "". No place when there is none.
    place find(std::string_view name);
    /// A child of an object or an instance of a table by its name; null when there is none.
    node *child(node *of, std::string_view name);
    node *instance(node *table, uint32_t number);

    /// The parameter's value at the moment: a new reference, never null.
    json_ref value(node *parameter);
    /// Stores a value that has been checked; keeps the indexes of unique values.
    void store(node *parameter, json_ref value, bool changed);

    /// Enters the value of a unique parameter into its index, after several have changed places.
    void reindex(node *parameter) { index_value(parameter, true); }

    /// Makes the next instance of a table, at that place of the order (from 0; beyond the end: last).
    node *add(node *table, size_t at);
    /// As add(), with a given number that no instance of the table has.
    node *add_numbered(node *table, uint32_t number, size_t at);
    void remove(node *instance);
    /// Moves an instance of an ordered table to that place (from 0; beyond the end: last).
    void move(node *instance, size_t to);
    /// The number of the other instance that has this value of a unique parameter, or 0.
    uint32_t taken(node *parameter, const json_t *value);

    /// Brings a live table up to date; harmless on every other node.
    void refresh(node *table);
    /// The instances of a table in the order in which answers name them.
    std::vector<node *> listed(node *table);

    /// Begins to keep the model as it is now for one reader, until end_past().
    void begin_past();
    void end_past();
    bool has_past() const { return past_ != nullptr; }
    /// Whether what is asked is what that reader sees, its past, or the model as it is.
    void look_back(bool back) { looks_back_ = back; }
    /// Called when a reader under way has to end now, because something is about to happen that cannot be kept from it:
    /// all nodes are replaced, or what is behind the model acts, which shows in live values.
    void on_end_reader(std::function<void()> call) { on_end_reader_ = std::move(call); }
    void end_reader();

    /// The whole tree back to the factory state; no node from before is valid afterwards.
    void reset();
    /// All nodes as they are, taken out; reset() or put_back() must follow.
    using snapshot = std::unique_ptr<node>;
    snapshot take();
    void put_back(snapshot nodes) { root_ = std::move(nodes); }
    /// Called by reset() when the factory instances have been made: what else belongs to a fresh device.
    void on_reset(std::function<void()> call) { on_reset_ = std::move(call); }

    /// Called when the machine has added or deleted a row of a live table that somebody has looked at before.
    using live_change_handler = std::function<void(const node *table, uint32_t number, bool added)>;
    void on_live_change(live_change_handler call) { on_live_change_ = std::move(call); }
    /// Brings the live tables up to date that somebody has looked at.
    void refresh_known();

    /// The full name of a place as answers spell it.
    static std::string name(const node *of);

private:
    tree() = default;

    std::unique_ptr<node> make_node(const scheme &what, node *parent);
    // `tells`: what comes and goes is a change.
    void sync_rows(node *table, json_t *rows, bool tells);
    void sync_fields(node *of, json_t *row, bool tells);
    const past::instances *past_of(const node *table) const;
    void keep(const node *parameter);
    void keep_table(const node *table);
    void index_value(node *parameter, bool add);
    void index_subtree(node *of, bool add);

    std::unique_ptr<scheme> model_;
    std::unique_ptr<node> root_;
    device_backend *behind_ = nullptr; // null: nothing
    std::function<void()> on_reset_;
    uint64_t epoch_ = 1;
    live_change_handler on_live_change_;
    std::unordered_set<std::string> live_tables_; // names of those that were looked at
    std::unique_ptr<past> past_;                  // of a reader under way
    bool looks_back_ = false;
    bool keeps_ = true; // what changes goes into the past; not what is the reader's own news
    std::function<void()> on_end_reader_;
};

/// The table whose instance `of` stands in (or is), and nothing when it stands in none.
node *enclosing_table(const node *of);

} // namespace veld
