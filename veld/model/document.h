// Model documents on disk.
#pragma once

#include "veld/model/tree.h"

#include <memory>
#include <string>

namespace veld
{

/// Reads a model document: a path, with or without ".json", or the name of an installed one. New reference; null when
/// there is none, `*error` then says why.
json_ref document_read(const std::string &name, std::string *error);

/// The tree in its factory state that a document describes; null when it is no model, `*error` then says why.
/// `behind` is what stands behind it, borrowed; null: nothing.
std::unique_ptr<tree> document_tree(json_t *document, device_backend *behind, std::string *error);

} // namespace veld
