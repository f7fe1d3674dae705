// What the model says about its nodes: made once from the model document, shared by every instance.
#pragma once

#include "base/json_ref.h"
#include "veld/backend/backend.h"
#include "veld/model/pattern.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace veld
{

/// What somebody may do; each includes what stands before it.
enum class role : uint8_t { anonymous, user, administrator };

enum class node_kind : uint8_t { object, table, parameter, method };

enum class value_type : uint8_t {
    none, ///< objects, tables and methods
    string,
    boolean,
    int32,
    uint32,
    int64,
    uint64,
    decimal,
    date_time,
    base64,
    hex_binary,
    path,
    toggle ///< "switch": acts when it is set, and reads as its default at all other times
};

/// Where a value, or a table's set of instances, comes from.
enum class source : uint8_t {
    stored,
    live,         ///< a provider of values; on a table, of rows
    row_field,    ///< a field of the live row that the instance stands for
    row_table,    ///< rows nested in the live row that the instance stands for
    max_instance, ///< the highest instance number that the table has given
    order,        ///< the table's instance numbers in order
    count         ///< the number of instances of the sibling table
};

/// The integers from `low` to `high`, every `step`th of them; an end that is left out is open.
struct alternative {
    std::optional<int64_t> low, high;
    int64_t step = 1;
};
using alternatives = std::vector<alternative>; ///< one of them has to hold; none: anything does

/// What few parameters have: constraints beyond two bounds.
struct value_rules {
    alternatives ranges;                    ///< of an integer
    alternatives lengths;                   ///< of a text
    alternatives item_ranges, item_lengths; ///< of the items of a list that is kept as one text
    bool leads = false;               ///< the value, or each item of a list, is a path that must lead to something
    std::vector<std::string> parents; ///< of what it leads to: objects, "Device.X." or "Device.X.{i}."; empty: anything
    std::string target;    ///< what it leads to: "row", "table", "object", "single", "parameter"; empty: anything
    std::string values_of; ///< "Device.X.{i}.Y", whose items are what the value can be; empty: anything
    bool of_items = false; ///< or rather each item of the value, which is a list
    std::optional<std::string> null_value; ///< what it can be beside them
};

/// Parameters of a table's instances whose values together no two instances have.
struct table_key {
    std::vector<uint32_t> parameters; ///< places among the children of the table's element
    std::optional<uint32_t> enable;   ///< a parameter there: the key holds among instances where it is true
};

struct scheme {
    std::string name;
    const scheme *parent = nullptr;
    node_kind kind = node_kind::object;
    value_type type = value_type::none;
    source from = source::stored;
    role read = role::anonymous;
    role write = role::user;
    /// The lowest role that may read anything at or below this node.
    role reach = role::anonymous;
    bool writable = false; ///< access "readWrite": on a table, instances may be added
    bool ordered = false;
    bool runtime = false; ///< not saved
    bool unique = false;
    bool secret = false;    ///< reads as an empty text for everybody but administrators
    bool argument = false;  ///< belongs to a method's arguments
    bool output = false;    ///< an argument that the method gives back
    bool furnished = false; ///< a new node of it comes with instances: tables below it have factory ones
    bool asked = false;     ///< source::live: the backend is asked even when the parameter has been set
    bool acts = false;      ///< a backend acts when the parameter is set
    bool runs = false;      ///< a method that a backend runs
    bool deletable = false; ///< on a table: its instances may be deleted
    std::string provider;   ///< of live values; of a method: what implements it
    size_t counted = 0;     ///< source::count: the index of the sibling table

    json_ref initial;   ///< the default; parameters only
    json_ref factory;   ///< the factory value when it differs from the default, or null
    json_ref instances; ///< factory instances of a table, or null
    json_ref first_order;

    json_ref enumeration;
    std::optional<int64_t> min_inclusive, max_inclusive, min_length, max_length, min_count, max_count;
    std::unique_ptr<pattern> regex;
    json_ref off_value;
    std::string handler_get, handler_set;
    std::unique_ptr<value_rules> rules; ///< null as a rule
    std::vector<table_key> keys;        ///< of a table

    /// An object's children, a table's own parameters, a method's arguments; in the model's order.
    std::vector<std::unique_ptr<scheme>> children;
    /// What an instance of a table looks like; null on anything else.
    std::unique_ptr<scheme> element;
    std::unordered_map<std::string_view, uint32_t> index;

    /// The place of a child in `children`, or -1.
    int find(std::string_view child) const
    {
        const auto found = index.find(child);
        return found == index.end() ? -1 : static_cast<int>(found->second);
    }
    /// How many instances a table has from the beginning that has always as many: its number can neither grow nor
    /// shrink. 0 for any other.
    uint32_t fixed_count() const
    {
        return kind == node_kind::table && from == source::stored && !instances && min_count > 0 &&
                       min_count == max_count
                   ? static_cast<uint32_t>(*min_count)
                   : 0;
    }
    bool is_object() const { return kind == node_kind::object || kind == node_kind::table; }
    /// True when the node and everything else at its place in the model ends in "." when named.
    bool dotted() const { return is_object(); }
};

/// How many levels a model may have.
inline constexpr int scheme_deepest = 64;
/// How many instances a table may have from the beginning that has always as many.
inline constexpr int64_t scheme_most_fixed = 4096;

/// The scheme that a model document describes; null when it is no model document, `*error` then says what and where.
/// `behind` knows the names that it may use of what is behind it; without one, all are good.
std::unique_ptr<scheme> scheme_load(json_t *document, std::string *error, const device_backend *behind = nullptr);

/// Asks what is behind the model which nodes it serves, and marks them.
void scheme_bind(scheme *model, device_backend *behind);

/// Whether a name can be a node's; an argument's may be a number.
bool scheme_name_fits(std::string_view name, bool argument);
/// Whether what a document says of one parameter holds by itself; `*error` says what does not.
bool scheme_node_holds(json_t *description, std::string *error);

/// The name of a type as the protocol spells it.
const char *type_name(value_type type);

/// The attributes of a node as a JSON object, as somebody of that role sees them.
void scheme_attributes(std::string *out, const scheme &what, role who);

/// What somebody of that role may do with the node: "", "r" or "rw".
const char *scheme_perms(const scheme &what, role who);

} // namespace veld
