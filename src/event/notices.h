// What the daemon's notices of added and deleted instances come to.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

/// Instances from one number to another that came, or went.
struct instance_range {
    uint32_t last;
    bool added;
};
/// By the first number. No two of them overlap.
using instance_ranges = std::map<uint32_t, instance_range>;

/// What has become of instances: of each the last that was said. One thread at a time.
class instance_changes
{
public:
    void note(const char *table, uint32_t number, bool added);
    /// By the paths of the tables, as the daemon spells them.
    const std::map<std::string, instance_ranges> &tables() const { return tables_; }
    /// More became of them than is worth keeping: any table may have changed.
    bool too_many() const { return too_many_; }

private:
    std::map<std::string, instance_ranges> tables_;
    size_t size_ = 0; ///< bytes, roughly
    bool too_many_ = false;
};
