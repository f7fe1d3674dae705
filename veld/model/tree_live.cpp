// Live tables: rows that the machine reports become instances, and keep their numbers while they exist.
#include "veld/model/check.h"
#include "veld/model/tree.h"

#include <limits>
#include <unordered_set>

namespace veld
{

void tree::refresh(node *table)
{
    if (!table->table || table->what->from != source::live || table->table->epoch == epoch_)
        return;
    table->table->epoch = epoch_;
    json_ref rows{live_.rows ? live_.rows(table->what->provider) : nullptr};
    sync_rows(table, rows.get());
}

void tree::sync_rows(node *table, json_t *rows)
{
    table_state &state = *table->table;
    std::unordered_set<std::string> present;
    size_t i = 0;
    json_t *row = nullptr;
    json_array_foreach(rows, i, row)
    {
        json_t *key = json_object_get(row, "#key");
        if (!json_is_string(key))
            continue;
        std::string text(json_string_value(key), json_string_length(key));
        if (!present.insert(text).second)
            continue;
        const auto known = state.rows.find(text);
        node *one = known == state.rows.end() ? nullptr : instance(table, known->second);
        if (one == nullptr) {
            one = add(table, std::numeric_limits<size_t>::max());
            state.rows[text] = one->number;
        }
        sync_fields(one, row);
    }
    for (auto known = state.rows.begin(); known != state.rows.end();) {
        if (present.count(known->first) != 0) {
            ++known;
            continue;
        }
        if (node *gone = instance(table, known->second))
            remove(gone);
        known = state.rows.erase(known);
    }
}

void tree::sync_fields(node *of, json_t *row)
{
    const scheme &what = *of->what;
    if (what.from == source::row_field) {
        json_t *value = json_object_getn(row, what.provider.data(), what.provider.size());
        json_ref kept;
        if (!of->changed && (value == nullptr || value_fits_type(what, value, &kept)))
            store(of, std::move(kept), false);
    } else if (what.from == source::row_table) {
        const std::string rows = "#rows:" + what.provider;
        sync_rows(of, json_object_getn(row, rows.data(), rows.size()));
    }
    if (what.kind == node_kind::object)
        for (const auto &child : of->children)
            sync_fields(child.get(), row);
}

} // namespace veld
