#include "veld/model/overlay.h"

#include "base/number.h"
#include "veld/base/log.h"
#include "veld/model/check.h"
#include "veld/model/free_value.h"
#include "veld/model/password.h"
#include "veld/model/table_keys.h"

#include <algorithm>
#include <limits>
#include <unordered_set>

namespace veld
{

namespace
{

constexpr size_t last = std::numeric_limits<size_t>::max();

class applier
{
public:
    applier(tree *onto, overlay_kind kind, std::string *error) : tree_(onto), kind_(kind), error_(error) {}

    bool any(node *of, json_t *overlay);
    /// Unique values are compared when everything is in its place: they may have changed places.
    bool unique_values_hold();
    /// The same for keys of several parameters, but for a saved state, whose values were set under them.
    bool keys_hold();

private:
    bool object(node *of, json_t *overlay);
    bool table(node *of, json_t *overlay);
    bool instances(node *of, json_t *numbered);
    bool ordering(node *of, json_t *numbers);
    bool parameter(node *of, json_t *value);
    bool fail(const node *of, const std::string &what)
    {
        *error_ = tree::name(of) + ": " + what;
        return false;
    }
    // What a saved state may hold although the model does not take it any more.
    bool outdated(const node *of, const std::string &what)
    {
        if (kind_ != overlay_kind::saved)
            return fail(of, what);
        LOG_WARNING("saved state: %s: %s; left out", tree::name(of).c_str(), what.c_str());
        return true;
    }

    tree *tree_;
    overlay_kind kind_;
    std::string *error_;
    struct put_value {
        node *parameter;
        json_ref before;
        bool changed_before;
    };
    std::vector<put_value> unique_;
    std::vector<const node *> keyed_;       // parameters that a key may be made of
    std::vector<node *> added_;             // instances
    std::unordered_set<const node *> told_; // tables whose instances were given
};

bool applier::unique_values_hold()
{
    for (const put_value &one : unique_)
        tree_->reindex(one.parameter);
    for (put_value &one : unique_) {
        node *const parameter = one.parameter;
        const json_ref value = tree_->value(parameter);
        const uint32_t other = tree_->taken(parameter, value.get());
        if (other == 0)
            continue;
        if (!outdated(parameter, "the value is already used by instance " + std::to_string(other)))
            return false;
        if (one.before && tree_->taken(parameter, one.before.get()) != 0)
            one.before.reset();
        tree_->store(parameter, std::move(one.before), false);
        parameter->changed = one.changed_before;
        if (!parameter->value)
            settle_instance(tree_, parameter, true);
    }
    // What nobody has given a value begins with a free one.
    for (node *one : added_) {
        const std::string same = settle_instance(tree_, one, kind_ != overlay_kind::factory);
        if (!same.empty() && !outdated(one, "no value is left for " + same))
            return false;
    }
    return true;
}

bool applier::keys_hold()
{
    key_check keys(tree_);
    for (const node *one : keyed_)
        if (const std::string problem = keys.problem(one); !problem.empty())
            return fail(one, problem);
    return true;
}

bool applier::parameter(node *of, json_t *value)
{
    const scheme &what = *of->what;
    if (what.from != source::stored &&
        !(what.writable && (what.from == source::live || what.from == source::row_field)))
        return outdated(of, "has no value of its own");
    json_ref kept;
    if (kind_ == overlay_kind::factory) {
        if (!value_fits_type(what, value, &kept))
            return fail(of, std::string("the value is no ") + type_name(what.type));
        if (const fault problem = factory_value_check(what, value))
            return fail(of, "the value " + problem.message);
    } else {
        // What is kept of a password is not what the constraints are about.
        const bool fits = what.handler_set == "password" && value_fits_type(what, value, &kept);
        if (const fault problem = fits ? fault{} : value_check(what, value, &kept))
            return outdated(of, problem.message);
        if (kind_ == overlay_kind::strict && what.handler_set == "password" && !password_hash_usable(kept.get()))
            return fail(of, "is not the hash of a password");
        // A unique parameter may have got its value when the instance was added.
        if (what.runtime || (!what.writable && !what.unique && !of->is_instance()))
            return outdated(of, "is not part of the configuration");
    }
    if (what.unique)
        unique_.push_back({of, json_ref::share(of->value.get()), of->changed});
    if (kind_ != overlay_kind::saved && of->parent->is_instance() && !of->parent->parent->what->keys.empty())
        keyed_.push_back(of);
    tree_->store(of, std::move(kept), kind_ != overlay_kind::factory);
    return true;
}

bool applier::ordering(node *of, json_t *numbers)
{
    if (!of->what->ordered || !json_is_array(numbers))
        return fail(of, "a bad \"order\"");
    std::vector<uint32_t> order;
    size_t i = 0;
    json_t *number = nullptr;
    bool numbered = true;
    json_array_foreach(numbers, i, number)
    {
        numbered = numbered && json_integer_value(number) > 0 && json_integer_value(number) <= UINT32_MAX;
        order.push_back(static_cast<uint32_t>(json_integer_value(number)));
    }
    std::vector<uint32_t> sorted = order;
    std::sort(sorted.begin(), sorted.end());
    std::vector<uint32_t> present = of->table->order;
    std::sort(present.begin(), present.end());
    if (!numbered || sorted != present)
        return fail(of, "\"order\" does not name every instance once");
    of->table->order = std::move(order);
    return true;
}

bool applier::instances(node *of, json_t *numbered)
{
    struct entry {
        uint32_t number;
        json_t *overlay;
    };
    std::vector<entry> entries;
    const char *key = nullptr;
    json_t *value = nullptr;
    json_object_foreach(numbered, key, value)
    {
        const std::string_view text = key;
        const uint32_t number = text.starts_with('0') ? 0 : number_of<uint32_t>(text).value_or(0);
        if (number == 0)
            return fail(of, "\"" + std::string(text) + "\" is no instance number");
        entries.push_back({number, value});
    }
    std::sort(entries.begin(), entries.end(), [](const entry &a, const entry &b) { return a.number < b.number; });

    // Instances that the overlay does not name are gone; those that it names anew are made.
    std::vector<std::unique_ptr<node>> &present = of->table->instances;
    std::vector<uint32_t> gone;
    for (const auto &one : present) {
        const auto named = std::lower_bound(entries.begin(), entries.end(), one->number,
                                            [](const entry &a, uint32_t number) { return a.number < number; });
        if (named == entries.end() || named->number != one->number)
            gone.push_back(one->number);
    }
    for (const uint32_t number : gone)
        tree_->remove(tree_->instance(of, number));
    for (const entry &one : entries) {
        node *instance = tree_->instance(of, one.number);
        if (instance == nullptr) {
            instance = tree_->add_numbered(of, one.number, last);
            added_.push_back(instance);
        }
        if (!any(instance, one.overlay))
            return false;
    }
    return true;
}

bool applier::table(node *of, json_t *overlay)
{
    if (!json_is_object(overlay))
        return fail(of, "must be an object");
    const char *key = nullptr;
    json_t *value = nullptr;
    json_t *numbered = json_object_get(overlay, "instances");
    const bool saved = kind_ != overlay_kind::factory;
    if (numbered != nullptr) {
        if (!json_is_object(numbered) || (saved && of->what->from != source::stored))
            return fail(of, "bad \"instances\"");
        if (!told_.insert(of).second)
            return fail(of, "its instances are given twice");
        const json_t *highest = json_object_get(overlay, "max_instance");
        if (!instances(of, numbered))
            return false;
        if (saved && json_is_integer(highest) && json_integer_value(highest) <= UINT32_MAX)
            of->table->highest = std::max(of->table->highest,
                                          static_cast<uint32_t>(std::max<json_int_t>(json_integer_value(highest), 0)));
        const auto count = static_cast<int64_t>(of->table->instances.size());
        if (kind_ == overlay_kind::strict && ((of->what->max_count && count > *of->what->max_count) ||
                                              (of->what->min_count && count < *of->what->min_count)))
            return fail(of, "a wrong number of instances");
        of->changed = of->changed || saved;
    }
    if (json_t *order = json_object_get(overlay, "order")) {
        if (!ordering(of, order))
            return false;
        of->changed = of->changed || saved;
    }
    json_object_foreach(overlay, key, value)
    {
        const std::string_view name = key;
        if (name == "instances" || name == "order" || name == "max_instance")
            continue;
        const int at = of->what->find(name);
        if (at < 0 ? !outdated(of, "has no \"" + std::string(name) + "\"")
                   : !any(of->children[static_cast<size_t>(at)].get(), value))
            return false;
    }
    return true;
}

bool applier::object(node *of, json_t *overlay)
{
    if (!json_is_object(overlay))
        return fail(of, "must be an object");
    const char *key = nullptr;
    json_t *value = nullptr;
    json_object_foreach(overlay, key, value)
    {
        // A name may lead down several levels at once: "Stats.Resets".
        node *target = of;
        std::string_view rest = key;
        while (target != nullptr && !rest.empty() && !target->table) {
            const size_t dot = rest.find('.');
            const int at = target->what->is_object() ? target->what->find(rest.substr(0, dot)) : -1;
            target = at < 0 ? nullptr : target->children[static_cast<size_t>(at)].get();
            rest = dot == std::string_view::npos ? std::string_view{} : rest.substr(dot + 1);
        }
        if (target == nullptr || !rest.empty() ? !outdated(of, std::string("has no \"") + key + "\"")
                                               : !any(target, value))
            return false;
    }
    return true;
}

bool applier::any(node *of, json_t *overlay)
{
    switch (of->what->kind) {
    case node_kind::object:
        return object(of, overlay);
    case node_kind::table:
        return table(of, overlay);
    case node_kind::parameter:
        return parameter(of, overlay);
    default:
        return outdated(of, "is a method");
    }
}

json_ref overlay_of_table(tree *from, node *of)
{
    const table_state &state = *of->table;
    json_ref own{json_object()};
    for (const auto &child : of->children) {
        json_ref part = overlay_of(from, child.get());
        if (part)
            json_object_set_new(own.get(), child->what->name.c_str(), part.release());
    }
    // Rows of the machine come back by themselves.
    if (of->what->from == source::stored && !of->what->runtime) {
        bool changed = of->changed;
        json_ref numbered{json_object()};
        for (const auto &one : state.instances) {
            json_ref part = overlay_of(from, one.get());
            changed = changed || part;
            if (!part && one->what->is_object())
                part.reset(json_object());
            else if (!part)
                part = from->value(one.get());
            json_object_set_new(numbered.get(), std::to_string(one->number).c_str(), part.release());
        }
        if (changed) {
            json_object_set_new(own.get(), "instances", numbered.release());
            json_object_set_new(own.get(), "max_instance", json_integer(state.highest));
            if (of->what->ordered) {
                json_t *order = json_array();
                for (const uint32_t number : state.order)
                    json_array_append_new(order, json_integer(number));
                json_object_set_new(own.get(), "order", order);
            }
        }
    }
    return json_object_size(own.get()) > 0 ? std::move(own) : json_ref{};
}

} // namespace

bool overlay_apply(tree *onto, node *of, json_t *overlay, overlay_kind kind, std::string *error)
{
    applier work(onto, kind, error);
    return work.any(of, overlay) && work.unique_values_hold() && work.keys_hold();
}

bool factory_instances(tree *fresh, node *of, std::string *error)
{
    if (of->table) {
        for (uint32_t i = of->what->fixed_count(); i > 0; --i) {
            node *added = fresh->add(of, last);
            if (const std::string same = settle_instance(fresh, added, false); !same.empty()) {
                *error = tree::name(added) + ": no value is left for " + same;
                return false;
            }
        }
        json_ref overlay{json_object()};
        if (of->what->instances)
            json_object_set(overlay.get(), "instances", of->what->instances.get());
        if (of->what->first_order)
            json_object_set(overlay.get(), "order", of->what->first_order.get());
        return overlay_apply(fresh, of, overlay.get(), overlay_kind::factory, error);
    }
    for (const auto &child : of->children) {
        if (child->what->is_object() && !factory_instances(fresh, child.get(), error))
            return false;
    }
    return true;
}

bool factory_check(tree *fresh, std::string *error)
{
    return factory_instances(fresh, fresh->root(), error);
}

json_ref overlay_of(tree *from, node *of)
{
    switch (of->what->kind) {
    case node_kind::parameter:
        return of->changed && !of->what->runtime && of->value ? json_ref::share(of->value.get()) : json_ref{};
    case node_kind::table:
        return overlay_of_table(from, of);
    case node_kind::object: {
        json_ref out{json_object()};
        for (const auto &child : of->children) {
            json_ref part = overlay_of(from, child.get());
            if (part)
                json_object_set_new(out.get(), child->what->name.c_str(), part.release());
        }
        return json_object_size(out.get()) > 0 ? std::move(out) : json_ref{};
    }
    default:
        return {};
    }
}

} // namespace veld
