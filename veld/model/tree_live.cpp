// Live tables: rows that the machine reports become instances, and keep their numbers while they exist.
#include "veld/model/check.h"
#include "veld/model/free_value.h"
#include "veld/model/tree.h"

#include <limits>
#include <unordered_set>
#include <utility>

namespace veld
{

void tree::refresh(node *table)
{
    if (!table->table || table->what->from != source::live)
        return;
    if (looks_back_ ? !past_->told.insert(table).second : table->table->epoch == epoch_)
        return;
    const bool back = std::exchange(looks_back_, false);
    const bool kept = std::exchange(keeps_, past_ != nullptr && !back && past_->told.count(table) != 0);
    const bool known = std::exchange(table->table->epoch, epoch_) != 0;
    if (!known)
        live_tables_.insert(name(table));
    json_ref rows = behind_ != nullptr ? behind_->rows(*table->what, name(table)) : json_ref{};
    if (rows) // what cannot be told now is as it was
        sync_rows(table, rows.get(), known);
    keeps_ = kept;
    looks_back_ = back;
}

void tree::refresh_known()
{
    begin_request();
    // Looking for one may find others.
    const std::vector<std::string> names(live_tables_.begin(), live_tables_.end());
    for (const std::string &one : names) {
        const place where = find(one);
        if (where && where.at->table && where.at->what == where.what)
            refresh(where.at);
        else
            live_tables_.erase(one);
    }
}

void tree::sync_rows(node *table, json_t *rows, bool tells)
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
        const bool is_new = one == nullptr;
        if (is_new) {
            one = add(table, std::numeric_limits<size_t>::max());
            state.rows[text] = one->number;
        }
        sync_fields(one, row, tells && !is_new);
        if (is_new)
            settle_instance(this, one, false);
        if (is_new && tells && on_live_change_)
            on_live_change_(table, one->number, true);
    }
    for (auto known = state.rows.begin(); known != state.rows.end();) {
        if (present.count(known->first) != 0) {
            ++known;
            continue;
        }
        if (node *gone = instance(table, known->second)) {
            remove(gone);
            if (tells && on_live_change_)
                on_live_change_(table, known->second, false);
        }
        known = state.rows.erase(known);
    }
}

void tree::sync_fields(node *of, json_t *row, bool tells)
{
    const scheme &what = *of->what;
    if (what.from == source::row_field) {
        json_t *value = json_object_getn(row, what.provider.data(), what.provider.size());
        json_ref kept;
        if (!of->changed && (value == nullptr || value_fits_type(what, value, &kept)))
            store(of, std::move(kept), false);
    } else if (what.from == source::row_table) {
        const std::string rows = "#rows:" + what.provider;
        sync_rows(of, json_object_getn(row, rows.data(), rows.size()), tells);
    }
    if (what.kind == node_kind::object)
        for (const auto &child : of->children)
            sync_fields(child.get(), row, tells);
}

} // namespace veld
