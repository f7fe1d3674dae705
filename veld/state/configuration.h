// The configuration as a document: what differs from the factory, as it is saved and as it can be downloaded.
#pragma once

#include "veld/model/tree.h"

namespace veld
{

/// The document that holds what differs from the factory: {"veld-config": 1, "config": {...}}. New reference.
json_ref configuration_of(tree *from);

/// Whether the value is a configuration document of a kind that this daemon reads; `*error` says why not.
bool configuration_readable(const json_t *document, std::string *error);

/// Puts the tree into its factory state and lays a saved configuration (null for none) over it. False when it is
/// damaged: the tree is then in the factory state.
bool configuration_restore(tree *into, const json_t *document, std::string *error);

/// Whether a document from outside fits the model to its last value; the tree stays as it is. `*whole` receives what is
/// to be saved then.
bool configuration_check(tree *in, const json_t *document, json_ref *whole, std::string *error);

/// Replaces the tree's configuration by such a document; `*before` receives the nodes from before. False when it does
/// not fit: the tree is then as it was.
bool configuration_replace(tree *in, const json_t *document, tree::snapshot *before, std::string *error);

} // namespace veld
