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
std::unique_ptr<tree> document_tree(json_t *document, live_source live, std::string *error);

} // namespace veld
