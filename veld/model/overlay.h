// Values laid over a tree: the model's factory instances, the saved state, a configuration that is downloaded.
#pragma once

#include "veld/model/tree.h"

namespace veld
{

/// How strictly an overlay is read.
enum class overlay_kind {
    factory, ///< values of every parameter; what does not fit is an error
    saved,   ///< values that were set; what the model no longer has is passed over with a warning
    strict   ///< as saved, but what the model does not have, or refuses, is an error
};

/// Applies the overlay of one node. Returns false at the first error, `*error` says what and where.
bool overlay_apply(tree *onto, node *of, json_t *overlay, overlay_kind kind, std::string *error);

/// Gives every table of a factory tree its factory instances.
bool factory_check(tree *fresh, std::string *error);

/// The factory instances of the tables at and below a new node.
bool factory_instances(tree *fresh, node *of, std::string *error);

/// What differs from the factory at and below `of`; null when nothing does.
json_ref overlay_of(tree *from, node *of);

} // namespace veld
