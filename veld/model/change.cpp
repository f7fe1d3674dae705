#include "veld/model/change.h"

#include "base/json_write.h"
#include "veld/model/check.h"
#include "veld/model/free_value.h"
#include "veld/model/password.h"
#include "veld/model/reference.h"
#include "veld/model/table_keys.h"

#include <algorithm>
#include <limits>
#include <unordered_map>
#include <unordered_set>

namespace veld
{

namespace
{

// What a table takes from clients where its model sets no limit.
constexpr int64_t instances_without_limit = 65535;
constexpr std::string_view refused_role = "may not be written by this user";

struct pending {
    node *parameter;
    json_ref value;
    std::string name;
};

// The bad entries of one request: the code of the answer is theirs when they agree.
class problem_list
{
public:
    void add(std::string_view name, const fault &what)
    {
        lacks_rights_ = lacks_rights_ || what.lacks_rights;
        code_ = code_ == code::none || code_ == what.code ? what.code : code::bad_arguments;
        if (!named_.insert(std::string(name)).second)
            return;
        data_ += data_.empty() ? "{" : ",";
        json_write_string(&data_, name);
        data_ += ':';
        json_write_string(&data_, what.message);
    }
    bool empty() const { return data_.empty(); }
    fault finish() { return {code_, "nothing was set", data_ + "}", lacks_rights_}; }

private:
    code code_ = code::none;
    bool lacks_rights_ = false;
    std::string data_;
    std::unordered_set<std::string> named_;
};

bool settable_source(const scheme &what)
{
    return what.from == source::stored || what.from == source::live || what.from == source::row_field;
}

// Values of unique parameters are compared as they will be after the whole request.
class unique_check
{
public:
    void plan(tree *in, const std::vector<pending> &entries)
    {
        for (const pending &entry : entries) {
            if (!entry.parameter->what->unique)
                continue;
            moving_.insert(entry.parameter);
            wanted_[key(entry)] += 1;
        }
        tree_ = in;
    }
    /// The instance that keeps the value, or 0; `*twice` when two entries of the request want it.
    uint32_t conflict(const pending &entry, bool *twice)
    {
        if (!entry.parameter->what->unique || enclosing_table(entry.parameter) == nullptr ||
            (json_is_string(entry.value.get()) && json_string_length(entry.value.get()) == 0))
            return 0;
        *twice = wanted_[key(entry)] > 1;
        const uint32_t holder = tree_->taken(entry.parameter, entry.value.get());
        if (holder == 0)
            return 0;
        // The holder gives its value up when the same request sets it to something else.
        node *other = same_place(entry.parameter, holder);
        return other != nullptr && moving_.count(other) != 0 ? 0 : holder;
    }

private:
    static std::string key(const pending &entry)
    {
        const node *table = enclosing_table(entry.parameter);
        std::string text = std::to_string(reinterpret_cast<uintptr_t>(table)) + "/" +
                           std::to_string(reinterpret_cast<uintptr_t>(entry.parameter->what)) + "/";
        json_write_value(&text, entry.value.get());
        return text;
    }
    node *same_place(const node *parameter, uint32_t number)
    {
        std::vector<const scheme *> down;
        const node *at = parameter;
        for (; !at->is_instance(); at = at->parent)
            down.push_back(at->what);
        node *here = tree_->instance(at->parent, number);
        while (here != nullptr && !down.empty()) {
            here = tree_->child(here, down.back()->name);
            down.pop_back();
        }
        return here;
    }

    tree *tree_ = nullptr;
    std::unordered_set<const node *> moving_;
    std::unordered_map<std::string, int> wanted_;
};

// What is behind the model acts on the values that concern it, on all or none.
void act(tree *in, const std::vector<pending> &entries, problem_list *problems)
{
    std::vector<backend_change> changes;
    std::vector<json_ref> before;
    for (const pending &entry : entries) {
        if (!entry.parameter->what->acts)
            continue;
        before.push_back(in->value(entry.parameter));
        changes.push_back({entry.parameter->what, &entry.name, entry.value.get(), before.back().get()});
    }
    size_t which = 0;
    if (changes.empty())
        return;
    in->end_reader();
    if (const fault refusal = in->behind()->apply(changes, &which))
        problems->add(*changes[which].path, refusal);
}

fault settable(const place &where, role who)
{
    if (!where)
        return {code::bad_name, "no such parameter"};
    if (where.at->what != where.what || where.what->kind != node_kind::parameter)
        return {code::bad_name, "is not a parameter"};
    if (!where.what->writable || !settable_source(*where.what))
        return {code::not_writable, "is not writable"};
    if (who < where.what->write || who < where.what->read)
        return {code::denied, std::string(refused_role), "", true};
    return {};
}

fault denied(std::string_view name, std::string_view why)
{
    return {code::denied, std::string(name) + " " + std::string(why), ""};
}

fault not_for(std::string_view name)
{
    return {code::denied, std::string(name) + " may not be changed by this user", "", true};
}

json_ref hash_of(const ready_hashes &hashes, const json_t *password)
{
    const auto ready = hashes.find({json_string_value(password), json_string_length(password)});
    return ready == hashes.end() ? password_hash(password) : json_ref::share(ready->second.get());
}

// A place of an order, which clients count from 1, however far behind the last one it is.
size_t place_of(uint64_t order)
{
    return static_cast<size_t>(std::min<uint64_t>(order - 1, std::numeric_limits<size_t>::max()));
}

// An instance number that a client names, or the fault that says why it may not be touched.
fault find_instance(tree *in, role who, std::string_view path, node **found)
{
    const place where = in->find(path);
    if (!where)
        return no_such_node(path);
    if (where.at->what != where.what || !where.at->is_instance())
        return {code::bad_name, std::string(path) + " is not an instance", ""};
    if (who < where.at->parent->what->write || who < where.at->parent->what->read)
        return not_for(path);
    *found = where.at;
    return {};
}

} // namespace

fault change_values(tree *in, role who, const json_t *list, std::vector<value_change> *changes,
                    const ready_hashes &hashes)
{
    problem_list problems;
    std::vector<pending> entries;
    std::unordered_set<const node *> named;
    size_t i = 0;
    const json_t *item = nullptr;
    json_array_foreach(list, i, item)
    {
        const json_t *text = json_object_get(item, "Name");
        const std::string_view name{json_string_value(text), json_string_length(text)};
        const place where = in->find(name);
        fault problem = settable(where, who);
        pending entry{where.at, {}, {}};
        if (!problem)
            problem = value_check(*where.what, json_object_get(item, "Value"), &entry.value);
        if (!problem) {
            std::string leads = reference_problem(in, who, where.at, entry.value.get());
            if (!leads.empty())
                problem = {code::bad_value, std::move(leads)};
        }
        if (!problem && where.what->handler_set == "password" && !password_possible(entry.value.get()))
            problem = {code::bad_value, "is not possible as a password"};
        if (!problem && !named.insert(where.at).second)
            problem = {code::bad_arguments, "is named more than once"};
        if (problem) {
            problems.add(name, problem);
            continue;
        }
        entry.name = tree::name(where.at);
        entries.push_back(std::move(entry));
    }
    unique_check unique;
    unique.plan(in, entries);
    key_check keys(in);
    for (const pending &entry : entries)
        keys.plan(entry.parameter, entry.value.get());
    for (const pending &entry : entries) {
        bool twice = false;
        const uint32_t holder = unique.conflict(entry, &twice);
        if (holder != 0)
            problems.add(entry.name, {code::bad_value, "is already used by instance " + std::to_string(holder)});
        else if (twice)
            problems.add(entry.name, {code::bad_value, "would be used by two instances"});
        else if (const std::string same = keys.problem(entry.parameter); !same.empty())
            problems.add(entry.name, {code::bad_value, same});
    }
    if (problems.empty())
        act(in, entries, &problems);
    if (!problems.empty())
        return problems.finish();

    for (pending &entry : entries) {
        changes->push_back({entry.name, json_ref::share(entry.value.get()), entry.parameter->what});
        if (entry.parameter->what->type == value_type::toggle)
            continue; // it acts, and reads as before
        if (entry.parameter->what->handler_set == "password")
            entry.value = hash_of(hashes, entry.value.get());
        in->store(entry.parameter, std::move(entry.value), true);
    }
    for (const pending &entry : entries)
        in->reindex(entry.parameter);
    return {};
}

json_ref value_at(tree *in, const std::string &path)
{
    const place where = in->find(path);
    const bool there = where && where.at->what == where.what && where.what->kind == node_kind::parameter;
    return there ? in->value(where.at) : json_ref{};
}

std::string value_put(tree *in, const std::string &path, json_t *value, value_change *done)
{
    const place where = in->find(path);
    if (!where || where.at->what != where.what || where.what->kind != node_kind::parameter)
        return "no such parameter";
    if (where.what->from != source::stored && where.what->from != source::live)
        return "has no value of its own";
    if (where.what->handler_set == "password")
        return "is a password";
    json_ref kept;
    if (const fault problem = value_check(*where.what, value, &kept))
        return problem.message;
    if (const uint32_t other = in->taken(where.at, kept.get()))
        return "is already used by instance " + std::to_string(other);
    key_check keys(in);
    keys.plan(where.at, kept.get());
    if (std::string same = keys.problem(where.at); !same.empty())
        return same;
    *done = {tree::name(where.at), json_ref::share(kept.get()), where.what};
    in->store(where.at, std::move(kept), false);
    return "";
}

fault change_add(tree *in, role who, std::string_view path, uint64_t order, node **added)
{
    const place where = in->find(path);
    if (!where)
        return no_such_node(path);
    if (where.at->what != where.what || !where.at->table)
        return {code::bad_name, std::string(path) + " is not a multi-instance object", ""};
    node *table = where.at;
    const scheme &what = *table->what;
    if (!what.writable)
        return denied(path, "takes no new instances");
    if (who < what.write || who < what.read)
        return not_for(path);
    if (order != 0 && !what.ordered)
        return {code::bad_arguments, std::string(path) + " is not ordered", ""};
    in->refresh(table);
    const auto count = static_cast<int64_t>(table->table->instances.size());
    if (const int64_t most = what.max_count.value_or(instances_without_limit); count >= most)
        return {code::resources, std::string(path) + " takes at most " + std::to_string(most) + " instances", ""};
    if (table->table->highest == std::numeric_limits<uint32_t>::max())
        return {code::resources, std::string(path) + " has no instance numbers left", ""};
    const uint32_t highest = table->table->highest;
    *added = in->add(table, order == 0 ? std::numeric_limits<size_t>::max() : place_of(order));
    if (const std::string same = settle_instance(in, *added, true); !same.empty()) {
        in->remove(*added);
        *added = nullptr;
        table->table->highest = highest;
        return {code::resources, std::string(path) + " has no value left for a new instance's " + same, ""};
    }
    table->changed = true;
    return {};
}

fault change_delete(tree *in, role who, std::string_view path, node **table, uint32_t *number)
{
    node *instance = nullptr;
    if (fault problem = find_instance(in, who, path, &instance))
        return problem;
    node *parent = instance->parent;
    if (!parent->what->deletable)
        return denied(path, "cannot be deleted");
    const auto count = static_cast<int64_t>(parent->table->instances.size());
    if (parent->what->min_count && count <= *parent->what->min_count)
        return denied(path,
                      "must stay: at least " + std::to_string(*parent->what->min_count) + " instances are needed");
    *table = parent;
    *number = instance->number;
    in->remove(instance);
    parent->changed = true;
    return {};
}

fault change_order(tree *in, role who, std::string_view path, uint64_t order)
{
    node *instance = nullptr;
    if (fault problem = find_instance(in, who, path, &instance))
        return problem;
    node *table = instance->parent;
    if (!table->what->ordered)
        return {code::bad_arguments, tree::name(table) + " is not ordered", ""};
    if (!table->what->writable)
        return denied(path, "cannot be moved");
    in->move(instance, place_of(order));
    table->changed = true;
    return {};
}

} // namespace veld
