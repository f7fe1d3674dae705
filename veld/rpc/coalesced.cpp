#include "veld/rpc/coalesced.h"

namespace veld
{

void coalesced_changes::add(const instance_change &change)
{
    table_changes &table = tables_.try_emplace(change.table, table_changes{change.least, {}}).first->second;
    const auto known = table.added.find(change.number);
    if (known == table.added.end())
        table.added.emplace(change.number, change.added);
    else if (known->second != change.added)
        table.added.erase(known);
    if (table.added.empty())
        tables_.erase(change.table);
}

std::vector<instance_change> coalesced_changes::take()
{
    std::vector<instance_change> out;
    for (const auto &[name, table] : tables_) {
        for (const bool added : {false, true})
            for (const auto &[number, came] : table.added)
                if (came == added)
                    out.push_back({name, number, came, table.least});
    }
    tables_.clear();
    return out;
}

} // namespace veld
