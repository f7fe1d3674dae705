// Instances that come and go by themselves: what is left of their changes when they are told.
#pragma once

#include "veld/model/difference.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace veld
{

/// Collects changes until they are taken. An instance that came and went meanwhile was never there.
class coalesced_changes
{
public:
    void add(const instance_change &change);
    bool empty() const { return tables_.empty(); }
    /// Everything, by table and number; what went before what came.
    std::vector<instance_change> take();

private:
    struct table_changes {
        role least;
        std::map<uint32_t, bool> added; // by number; false: deleted
    };
    std::map<std::string, table_changes> tables_;
};

} // namespace veld
