// What a reader that takes its time would otherwise miss.
#pragma once

#include "base/json_ref.h"

#include <cstdint>
#include <memory>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace veld
{

struct node;

/// The model as it was when a reader began, as far as it has changed since: what a long answer is made of, in slices
/// with other requests in between. Such an answer tells of one moment, like one that is made in one go. The tree keeps
/// each value, each table's instances and each node here before the first change after the reader began; between its
/// slices nobody is held up, and nobody else sees anything of it.
///
/// A live table is what the machine told when the reader came upon it first: from then on it is kept like the others.
/// What the machine tells of a table that the reader has not come upon is no change to keep.
struct past {
    struct parameter {
        json_ref value; ///< its own; null: the default
        bool changed;
    };
    struct instances {
        std::vector<node *> all; ///< ascending by number
        std::vector<uint32_t> order;
        uint32_t highest;
    };

    std::unordered_map<const node *, parameter> values;
    std::unordered_map<const node *, instances> tables;
    std::vector<std::unique_ptr<node>> removed;
    std::unordered_set<const node *> told; ///< live tables that the reader has come upon

    const parameter *of(const node *one) const
    {
        const auto found = values.find(one);
        return found == values.end() ? nullptr : &found->second;
    }
    const instances *of_table(const node *table) const
    {
        const auto found = tables.find(table);
        return found == tables.end() ? nullptr : &found->second;
    }
};

} // namespace veld
