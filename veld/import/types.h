// From the declared types of a data model to what a parameter of the model document says.
#pragma once

#include "base/json_ref.h"
#include "veld/import/data_model.h"

#include <functional>
#include <string>
#include <vector>

namespace veld
{

/// What holds for one value, with all types that it is based on taken together.
struct resolved_type {
    std::string name; ///< as the model document spells it
    std::vector<std::string> enumeration;
    std::vector<interval> ranges; ///< ascending, apart from each other; a value lies in one of them; empty: any value
    std::vector<interval> sizes;  ///< of the value; of a list: of the whole list
    /// All of these hold; each is a list of alternatives.
    std::vector<std::vector<std::string>> patterns;
    bool list =
        false; ///< the value is a text of items separated by commas; enumeration, ranges and patterns are of an item
    bool nested =
        false; ///< the items are lists themselves; what they hold is then not looked at, nor how many there are
    std::vector<interval> item_sizes;
    std::optional<int64_t> min_items, max_items;
    bool path = false;          ///< values, or items, are paths of the data model
    std::string target_parents; ///< as type_use has them
    std::string target_type;
    bool from_root = false;
    std::string values_of; ///< as type_use has them, like the next one
    std::optional<std::string> null_value;
};

/// Says what is wrong with one node, which is known by its line and path.
using complaint = std::function<void(const std::string &what)>;

/// Follows `form` to the type that it is based on in the end. False when a type is not declared, is based on itself or
/// is no type at all; `*error` then says which.
bool resolve_type(const data_model &model, const syntax &form, resolved_type *into, std::string *error);

/// Adds type, constraints and default to `node`. What cannot be kept of them (a pattern that cannot be understood, a
/// default that is no value of the type) is left out, and said. Without `declared` the default is made up.
void describe_type(json_t *node, const resolved_type &type, const syntax &form, bool declared, const complaint &warn);

/// A pattern of XML Schema as a Perl-compatible one that means the same; nothing when it uses what that does not have.
std::optional<std::string> translate_pattern(std::string_view pattern);

} // namespace veld
