// Keys of several parameters: no two instances of a table have the same values of all of them.
#pragma once

#include "veld/model/tree.h"

#include <map>
#include <string>
#include <unordered_map>
#include <vector>

namespace veld
{

/// Compares the instances as they will be when some values have been set.
class key_check
{
public:
    explicit key_check(tree *in) : tree_(in) {}

    /// A value that is to be set; borrowed. All of them before the first question.
    void plan(const node *parameter, json_t *value) { planned_[parameter] = value; }
    /// What is wrong with one of them; empty when nothing is.
    std::string problem(const node *parameter);

private:
    struct comparison {
        std::unordered_map<std::string, std::vector<uint32_t>> instances; // by their values
        std::unordered_map<uint32_t, std::string> values;
    };

    const comparison &compare(const node *table, size_t key);
    std::string values_of(const node *instance, const table_key &key);
    json_ref value_of(node *parameter);

    tree *tree_;
    std::unordered_map<const node *, json_t *> planned_;
    std::map<std::pair<const node *, size_t>, comparison> compared_;
};

} // namespace veld
