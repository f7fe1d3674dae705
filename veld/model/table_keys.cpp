#include "veld/model/table_keys.h"

#include "base/json_write.h"

#include <algorithm>

namespace veld
{

json_ref key_check::value_of(node *parameter)
{
    const auto planned = planned_.find(parameter);
    return planned != planned_.end() ? json_ref::share(planned->second) : tree_->value(parameter);
}

// Empty for an instance that the key does not hold for: one that is disabled, or that has had none of the values yet.
std::string key_check::values_of(const node *instance, const table_key &key)
{
    if (key.enable && !json_is_true(value_of(instance->children[*key.enable].get()).get()))
        return "";
    std::string text;
    bool given = false;
    for (const uint32_t at : key.parameters) {
        node *parameter = instance->children[at].get();
        given = given || parameter->value || planned_.count(parameter) != 0;
        json_write_value(&text, value_of(parameter).get());
        text += ',';
    }
    return given ? text : "";
}

const key_check::comparison &key_check::compare(const node *table, size_t key)
{
    const auto [at, fresh] = compared_.try_emplace({table, key});
    if (fresh) {
        for (const auto &one : table->table->instances) {
            std::string values = values_of(one.get(), table->what->keys[key]);
            if (values.empty())
                continue;
            at->second.instances[values].push_back(one->number);
            at->second.values[one->number] = std::move(values);
        }
    }
    return at->second;
}

std::string key_check::problem(const node *parameter)
{
    const node *instance = parameter->parent;
    if (instance == nullptr || !instance->is_instance())
        return "";
    const node *table = instance->parent;
    const int place = instance->what->find(parameter->what->name);
    for (size_t i = 0; i < table->what->keys.size(); ++i) {
        const table_key &key = table->what->keys[i];
        const auto concerned = static_cast<uint32_t>(place);
        if (key.enable != concerned &&
            std::find(key.parameters.begin(), key.parameters.end(), concerned) == key.parameters.end())
            continue;
        const comparison &all = compare(table, i);
        const auto own = all.values.find(instance->number);
        if (own == all.values.end())
            continue;
        for (const uint32_t other : all.instances.at(own->second)) {
            if (other == instance->number)
                continue;
            std::string names;
            for (const uint32_t at : key.parameters)
                names += (names.empty() ? "" : ", ") + instance->what->children[at]->name;
            return "would give the instance the key (" + names + ") of instance " + std::to_string(other);
        }
    }
    return "";
}

} // namespace veld
