// The three questions about a model: which names, which values, which attributes.
#pragma once

#include "veld/base/fault.h"
#include "veld/model/tree.h"

namespace veld
{

/// Where an answer is written, and how long it may get in all.
struct answer_text {
    std::string *out;
    size_t limit;

    bool full() const { return out->size() > limit; }
};

/// Each appends the result object, {"ParameterList":[...]}. On a fault what was appended is to be thrown away.
fault query_names(tree *from, role who, std::string_view path, bool next_level, answer_text answer);
fault query_values(tree *from, role who, const json_t *names, answer_text answer);
/// `depth` negative: not given.
fault query_attributes(tree *from, role who, const json_t *names, int64_t depth, answer_text answer);

} // namespace veld
