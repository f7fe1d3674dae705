// The model as it was, for a reader that takes its time.
#include "veld/model/tree.h"

namespace veld
{

void tree::begin_past()
{
    past_ = std::make_unique<past>();
}

void tree::end_past()
{
    looks_back_ = false;
    past_.reset();
}

void tree::end_reader()
{
    if (past_ && on_end_reader_)
        on_end_reader_();
}

const past::instances *tree::past_of(const node *table) const
{
    return looks_back_ ? past_->of_table(table) : nullptr;
}

void tree::keep(const node *parameter)
{
    if (past_ && keeps_)
        past_->values.try_emplace(parameter,
                                  past::parameter{json_ref::share(parameter->value.get()), parameter->changed});
}

void tree::keep_table(const node *table)
{
    if (!past_ || !keeps_ || past_->tables.count(table) != 0)
        return;
    past::instances &then = past_->tables[table];
    then.all.reserve(table->table->instances.size());
    for (const auto &one : table->table->instances)
        then.all.push_back(one.get());
    then.order = table->table->order;
    then.highest = table->table->highest;
}

} // namespace veld
