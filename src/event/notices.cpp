#include "event/notices.h"

#include <iterator>

namespace
{

constexpr size_t size_max = size_t{512} << 10;
constexpr size_t table_size = 160;
constexpr size_t range_size = 64;

void set(instance_ranges &ranges, uint32_t number, bool added)
{
    auto behind = ranges.upper_bound(number);
    const auto before = behind != ranges.begin() ? std::prev(behind) : ranges.end();
    if (before != ranges.end() && before->second.last >= number) {
        // The range that holds the number is cut in two.
        const instance_range whole = before->second;
        if (whole.added == added)
            return;
        if (whole.last > number)
            ranges.emplace(number + 1, whole);
        if (before->first == number)
            ranges.erase(before);
        else
            before->second.last = number - 1;
    }
    // What joins it becomes one range with it.
    uint32_t last = number;
    behind = ranges.upper_bound(number);
    if (behind != ranges.end() && behind->first - 1 == number && behind->second.added == added) {
        last = behind->second.last;
        behind = ranges.erase(behind);
    }
    const auto joined = behind != ranges.begin() ? std::prev(behind) : ranges.end();
    if (joined != ranges.end() && joined->second.last == number - 1 && joined->second.added == added)
        joined->second.last = last;
    else
        ranges.emplace(number, instance_range{last, added});
}

} // namespace

void instance_changes::note(const char *table, uint32_t number, bool added)
{
    if (too_many_)
        return;
    const auto [found, fresh] = tables_.try_emplace(table);
    instance_ranges &ranges = found->second;
    const size_t before = ranges.size();
    set(ranges, number, added);
    size_ += (fresh ? table_size + found->first.size() : 0) + ranges.size() * range_size;
    size_ -= before * range_size;
    if (size_ > size_max) {
        tables_.clear();
        too_many_ = true;
    }
}
