// The configuration as a document: what differs from the factory, as it is saved and as it can be downloaded.
#pragma once

#include "veld/model/tree.h"

#include <functional>

namespace veld
{

/// The document that holds what differs from the factory: {"veld-config": 1, "config": {...}}. New reference.
json_ref configuration_of(tree *from);

/// Whether the value is a configuration document of a kind that this daemon reads; `*error` says why not.
bool configuration_readable(const json_t *document, std::string *error);

/// Puts the tree into its factory state and lays a saved configuration (null for none) over it. False when it is
/// damaged: the tree is then in the factory state.
bool configuration_restore(tree *into, const json_t *document, std::string *error);

/// Replaces the tree's configuration by a document from outside, which must fit the model to its last value. False
/// when it does not, or when `keep`, called with the new configuration in place, does not want it: the tree is then as
/// it was.
bool configuration_replace(tree *in, const json_t *document, std::string *error,
                           const std::function<bool()> &keep = nullptr);

} // namespace veld
