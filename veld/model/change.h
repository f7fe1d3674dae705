// Changes that clients ask for: values, instances and their order. Each is done as a whole or not at all.
#pragma once

#include "veld/base/fault.h"
#include "veld/model/password.h"
#include "veld/model/tree.h"

namespace veld
{

/// A value that was set.
struct value_change {
    std::string name;
    json_ref value; ///< as it was stored, or asked for where nothing is kept
    const scheme *what;
};

/// Sets all the values of `list`, an array of {"Name", "Value"}, or none: the fault's data then names every bad entry.
/// The parameters that were set are appended to `*changes` in their order. `hashes`: of the passwords among the values,
/// which take their time to compute.
fault change_values(tree *in, role who, const json_t *list, std::vector<value_change> *changes,
                    const ready_hashes &hashes = {});

/// The value at a path, as the device itself sees it; null when there is no parameter.
json_ref value_at(tree *in, const std::string &path);

/// Stores a value of the device's own, which fits the model but need not be writable; it is not part of what is saved.
/// Returns what is wrong with it, or an empty text.
std::string value_put(tree *in, const std::string &path, json_t *value, value_change *done);

/// Adds an instance to the table at `path`; `order` counts from 1, 0 is last. `*added` receives the instance,
/// whose unique parameters have values that no other one has.
fault change_add(tree *in, role who, std::string_view path, uint64_t order, node **added);

/// Deletes an instance; `*table` and `*number` say afterwards which it was.
fault change_delete(tree *in, role who, std::string_view path, node **table, uint32_t *number);

/// Moves an instance to another place of its table's order; `order` counts from 1.
fault change_order(tree *in, role who, std::string_view path, uint64_t order);

} // namespace veld
