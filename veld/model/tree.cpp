#include "veld/model/tree.h"

#include "base/json_write.h"
#include "base/number.h"
#include "veld/base/log.h"
#include "veld/model/check.h"
#include "veld/model/overlay.h"

#include <algorithm>

namespace veld
{

namespace
{

bool is_empty_text(const json_t *value)
{
    return json_is_string(value) && json_string_length(value) == 0;
}

uint32_t instance_number(std::string_view name)
{
    return name.starts_with('0') ? 0 : number_of<uint32_t>(name).value_or(0);
}

bool before(const std::unique_ptr<node> &instance, uint32_t number)
{
    return instance->number < number;
}

} // namespace

std::unique_ptr<tree> tree::make(std::unique_ptr<scheme> model, device_backend *behind, std::string *error)
{
    std::unique_ptr<tree> made(new tree);
    made->model_ = std::move(model);
    made->behind_ = behind;
    made->root_ = made->make_node(*made->model_, nullptr);
    if (!factory_check(made.get(), error))
        return nullptr;
    return made;
}

void tree::reset()
{
    end_reader();
    root_ = make_node(*model_, nullptr);
    std::string error;
    factory_check(this, &error);
    if (on_reset_)
        on_reset_();
}

tree::snapshot tree::take()
{
    end_reader();
    return std::move(root_);
}

std::unique_ptr<node> tree::make_node(const scheme &what, node *parent)
{
    auto made = std::make_unique<node>();
    made->what = &what;
    made->parent = parent;
    if (what.kind == node_kind::table)
        made->table = std::make_unique<table_state>();
    if (what.factory)
        made->value = json_ref::share(what.factory.get());
    if (what.is_object()) {
        made->children.reserve(what.children.size());
        for (const auto &child : what.children)
            made->children.push_back(make_node(*child, made.get()));
    }
    return made;
}

node *tree::instance(node *table, uint32_t number)
{
    if (const past::instances *then = past_of(table)) {
        const auto found = std::lower_bound(then->all.begin(), then->all.end(), number,
                                            [](const node *one, uint32_t wanted) { return one->number < wanted; });
        return found != then->all.end() && (*found)->number == number ? *found : nullptr;
    }
    auto &instances = table->table->instances;
    const auto found = std::lower_bound(instances.begin(), instances.end(), number, before);
    return found != instances.end() && (*found)->number == number ? found->get() : nullptr;
}

node *tree::child(node *of, std::string_view name)
{
    if (name.empty() || !of->what->is_object())
        return nullptr;
    if (of->table && name[0] >= '0' && name[0] <= '9') {
        refresh(of);
        const uint32_t number = instance_number(name);
        return number == 0 ? nullptr : instance(of, number);
    }
    const int at = of->what->find(name);
    return at < 0 ? nullptr : of->children[static_cast<size_t>(at)].get();
}

place tree::find(std::string_view name)
{
    if (name.ends_with('.'))
        name.remove_suffix(1);
    place here{root_.get(), &model()};
    if (name.empty())
        return here;
    while (true) {
        const size_t dot = name.find('.');
        const std::string_view part = name.substr(0, dot);
        if (here.what->argument || here.what->kind == node_kind::method) {
            const int at = here.what->find(part);
            here.what = at < 0 ? nullptr : here.what->children[static_cast<size_t>(at)].get();
        } else {
            here.at = child(here.at, part);
            here.what = here.at != nullptr ? here.at->what : nullptr;
        }
        if (here.what == nullptr)
            return {};
        if (dot == std::string_view::npos)
            return here;
        name.remove_prefix(dot + 1);
    }
}

std::string tree::name(const node *of)
{
    if (of->parent == nullptr)
        return of->what->is_object() ? "" : of->what->name;
    std::string out = name(of->parent);
    out += of->is_instance() ? std::to_string(of->number) : of->what->name;
    if (of->what->dotted())
        out += '.';
    return out;
}

json_ref tree::value(node *parameter)
{
    const scheme &what = *parameter->what;
    const past::parameter *then = looks_back_ ? past_->of(parameter) : nullptr;
    switch (what.from) {
    case source::live: {
        if (!what.asked && ((then != nullptr ? then->changed : parameter->changed) || parameter->given))
            break;
        json_ref live = behind_ != nullptr ? behind_->read(what, name(parameter)) : json_ref{};
        json_ref kept;
        return live && value_fits_type(what, live.get(), &kept) ? std::move(kept) : json_ref::share(what.initial.get());
    }
    case source::max_instance:
        refresh(parameter->parent);
        if (const past::instances *instances = past_of(parameter->parent))
            return json_ref{json_integer(instances->highest)};
        return json_ref{json_integer(parameter->parent->table->highest)};
    case source::count: {
        node *table = parameter->parent->children[what.counted].get();
        refresh(table);
        const past::instances *instances = past_of(table);
        const size_t count = instances != nullptr ? instances->all.size() : table->table->instances.size();
        return json_ref{json_integer(static_cast<json_int_t>(count))};
    }
    case source::order: {
        refresh(parameter->parent);
        const past::instances *instances = past_of(parameter->parent);
        std::string text;
        for (const uint32_t number : instances != nullptr ? instances->order : parameter->parent->table->order) {
            if (!text.empty())
                text += ',';
            text += std::to_string(number);
        }
        return json_ref{json_stringn_nocheck(text.data(), text.size())};
    }
    default:
        break;
    }
    json_t *own = then != nullptr ? then->value.get() : parameter->value.get();
    return json_ref::share(own != nullptr ? own : what.initial.get());
}

node *enclosing_table(const node *of)
{
    while (of != nullptr && !of->is_instance())
        of = of->parent;
    return of == nullptr ? nullptr : of->parent;
}

namespace
{

uint32_t enclosing_number(const node *of)
{
    while (!of->is_instance())
        of = of->parent;
    return of->number;
}

std::string unique_key(const json_t *value)
{
    std::string key;
    json_write_value(&key, value);
    return key;
}

} // namespace

void tree::index_value(node *parameter, bool adding)
{
    node *table = enclosing_table(parameter);
    if (!parameter->what->unique || table == nullptr)
        return;
    const json_t *value = parameter->value ? parameter->value.get() : parameter->what->initial.get();
    if (is_empty_text(value))
        return;
    unique_values &values = table->table->unique[parameter->what];
    if (adding) {
        values.emplace(unique_key(value), enclosing_number(parameter));
        return;
    }
    const auto found = values.find(unique_key(value));
    if (found != values.end() && found->second == enclosing_number(parameter))
        values.erase(found);
}

void tree::index_subtree(node *of, bool adding)
{
    if (of->what->kind == node_kind::parameter)
        index_value(of, adding);
    else if (of->what->kind == node_kind::object)
        for (const auto &child : of->children)
            index_subtree(child.get(), adding);
}

uint32_t tree::taken(node *parameter, const json_t *value)
{
    node *table = enclosing_table(parameter);
    if (!parameter->what->unique || table == nullptr || is_empty_text(value))
        return 0;
    const unique_values &values = table->table->unique[parameter->what];
    const auto found = values.find(unique_key(value));
    return found == values.end() || found->second == enclosing_number(parameter) ? 0 : found->second;
}

void tree::store(node *parameter, json_ref value, bool changed)
{
    keep(parameter);
    index_value(parameter, false);
    parameter->value = std::move(value);
    parameter->changed = parameter->changed || changed;
    index_value(parameter, true);
}

node *tree::add(node *table, size_t at)
{
    return add_numbered(table, table->table->highest + 1, at);
}

node *tree::add_numbered(node *table, uint32_t number, size_t at)
{
    keep_table(table);
    table_state &state = *table->table;
    auto made = make_node(*table->what->element, table);
    made->number = number;
    node *borrowed = made.get();
    state.instances.insert(std::lower_bound(state.instances.begin(), state.instances.end(), number, before),
                           std::move(made));
    state.highest = std::max(state.highest, number);
    if (table->what->ordered)
        state.order.insert(state.order.begin() + static_cast<ptrdiff_t>(std::min(at, state.order.size())), number);
    index_subtree(borrowed, true);
    std::string error;
    if (borrowed->what->furnished && !factory_instances(this, borrowed, &error))
        LOG_ERROR("model: %s", error.c_str());
    return borrowed;
}

void tree::remove(node *instance)
{
    keep_table(instance->parent);
    table_state &state = *instance->parent->table;
    index_subtree(instance, false);
    std::erase(state.order, instance->number);
    const auto found = std::lower_bound(state.instances.begin(), state.instances.end(), instance->number, before);
    if (past_)
        past_->removed.push_back(std::move(*found));
    state.instances.erase(found);
}

void tree::move(node *instance, size_t to)
{
    keep_table(instance->parent);
    std::vector<uint32_t> &order = instance->parent->table->order;
    std::erase(order, instance->number);
    order.insert(order.begin() + static_cast<ptrdiff_t>(std::min(to, order.size())), instance->number);
}

std::vector<node *> tree::listed(node *table)
{
    refresh(table);
    const past::instances *then = past_of(table);
    if (then != nullptr && !table->what->ordered)
        return then->all;
    table_state &state = *table->table;
    std::vector<node *> out;
    out.reserve(state.instances.size());
    if (table->what->ordered) {
        for (const uint32_t number : then != nullptr ? then->order : state.order)
            out.push_back(instance(table, number));
    } else {
        for (const auto &one : state.instances)
            out.push_back(one.get());
    }
    return out;
}

} // namespace veld
