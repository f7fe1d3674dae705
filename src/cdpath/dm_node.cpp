#include "cdpath/dm_node.h"

#include <algorithm>
#include <bit>
#include <functional>
#include <numeric>
#include <unordered_map>
#include <utility>

#include "cdpath/dm_path.h"
#include "platform/ve_json_text.h"

namespace
{

constexpr size_t few_names = 16;

/// All attributes there are, by their texts. Never destroyed: nodes may outlive everything.
std::unordered_map<std::string_view, std::weak_ptr<const dm_attributes>> &all_attributes()
{
    static auto &all = *new std::unordered_map<std::string_view, std::weak_ptr<const dm_attributes>>;
    return all;
}

struct forget_attributes {
    void operator()(const dm_attributes *attributes) const
    {
        all_attributes().erase(attributes->text);
        delete attributes;
    }
};

dm_type type_named(const json_t *name)
{
    static constexpr std::pair<std::string_view, dm_type> types[] = {
        {"object", dm_type::object}, {"method", dm_type::method}, {"boolean", dm_type::boolean},
        {"path", dm_type::path},     {"switch", dm_type::toggle},
    };
    if (!json_is_string(name))
        return dm_type::object;
    const std::string_view text(json_string_value(name), json_string_length(name));
    const auto *found =
        std::find_if(std::begin(types), std::end(types), [&](const auto &t) { return t.first == text; });
    return found != std::end(types) ? found->second : dm_type::other;
}

size_t hash_of(std::string_view name)
{
    return std::hash<std::string_view>()(name);
}

} // namespace

dm_attributes_ref dm_attributes_of(std::string_view text)
{
    auto &all = all_attributes();
    if (const auto found = all.find(text); found != all.end())
        return found->second.lock();
    const json_ref object(json_text_is_bloated(text) ? nullptr
                                                     : json_loadb(text.data(), text.size(), JSON_ALLOW_NUL, nullptr));
    if (!json_is_object(object.get()))
        return nullptr;
    dm_attributes_ref made(new dm_attributes{.text = std::string(text),
                                             .type = type_named(json_object_get(object.get(), "type")),
                                             .multi = json_is_true(json_object_get(object.get(), "multi")),
                                             .ordered = json_is_true(json_object_get(object.get(), "ordered"))},
                           forget_attributes());
    all.emplace(made->text, made);
    return made;
}

size_t dm_level::find(std::string_view name) const
{
    if (entries_.size() <= few_names) {
        const auto found =
            std::find_if(entries_.begin(), entries_.end(), [&](const entry &e) { return e.name == name; });
        return found != entries_.end() ? static_cast<size_t>(found - entries_.begin()) : none;
    }
    index();
    for (size_t slot = hash_of(name);; ++slot) {
        const uint32_t place = slots_[slot & (slots_.size() - 1)];
        if (place == 0)
            return none;
        if (entries_[place - 1].name == name)
            return place - 1;
    }
}

/// Gives a slot to every name that has none yet.
void dm_level::index() const
{
    if (slots_.size() < 2 * entries_.size()) {
        slots_.assign(std::bit_ceil(4 * entries_.size()), 0);
        indexed_ = 0;
    }
    for (; indexed_ < entries_.size(); ++indexed_) {
        size_t slot = hash_of(entries_[indexed_].name);
        while (slots_[slot & (slots_.size() - 1)] != 0)
            ++slot;
        slots_[slot & (slots_.size() - 1)] = static_cast<uint32_t>(indexed_ + 1);
    }
}

const std::vector<uint32_t> &dm_level::sorted() const
{
    if (sorted_.size() != entries_.size()) {
        sorted_.resize(entries_.size());
        std::iota(sorted_.begin(), sorted_.end(), 0U);
        std::sort(sorted_.begin(), sorted_.end(),
                  [this](uint32_t a, uint32_t b) { return entries_[a].name < entries_[b].name; });
    }
    return sorted_;
}

json_ref dm_node::description() const
{
    return json_ref(attributes ? json_loadb(attributes->text.data(), attributes->text.size(), JSON_ALLOW_NUL, nullptr)
                               : nullptr);
}

const dm_attributes_ref &dm_node::attributes_of(size_t place) const
{
    return place < below.size() && below[place] ? below[place]->attributes : (*level)[place].attributes;
}

dm_node *dm_node::peek(std::string_view name) const
{
    if (const size_t place = level ? level->find(name) : dm_level::none; place != dm_level::none)
        return place < below.size() ? below[place].get() : nullptr;
    const auto stranger = strangers.find(name);
    return stranger != strangers.end() ? stranger->second.get() : nullptr;
}

std::shared_ptr<dm_node> dm_node::child(std::string_view name)
{
    if (const size_t place = level ? level->find(name) : dm_level::none; place != dm_level::none) {
        below.resize(size());
        if (!below[place]) {
            below[place] = std::make_shared<dm_node>();
            below[place]->attributes = (*level)[place].attributes;
        }
        return below[place];
    }
    if (!pattern || !dm_path::is_instance(name))
        return nullptr;
    std::shared_ptr<dm_node> &stranger = strangers[std::string(name)];
    if (!stranger) {
        stranger = std::make_shared<dm_node>();
        stranger->attributes = pattern->attributes;
        stranger->level = pattern->level;
        stranger->known = dm_known::assumed;
    }
    return stranger;
}

std::shared_ptr<dm_node> dm_node::find(std::string_view path)
{
    std::shared_ptr<dm_node> node;
    std::string_view rest = dm_path::without_dot(path);
    if (rest.ends_with('.'))
        return nullptr;
    while (!rest.empty()) {
        dm_node *above = node ? node.get() : this;
        node = above->child(dm_path::cut_name(&rest));
        if (!node)
            return nullptr;
    }
    return node;
}

void dm_node::become(dm_node &&content, dm_known now)
{
    if (content.attributes)
        attributes = std::move(content.attributes);
    level = std::move(content.level);
    below = std::move(content.below);
    pattern = std::move(content.pattern);
    strangers = std::move(content.strangers);
    known = now;
    denied.reset();
}

void dm_node::change_instances(const instance_ranges &changes)
{
    // A table that has instances is there, whatever was said before.
    if (known != dm_known::known) {
        known = known == dm_known::refused ? dm_known::unknown : known;
        return;
    }
    const auto changed = [&](std::string_view name) {
        if (!dm_path::is_instance(name))
            return false;
        const auto number = static_cast<uint32_t>(std::stoul(std::string(name)));
        const auto behind = changes.upper_bound(number);
        return behind != changes.begin() && std::prev(behind)->second.last >= number;
    };
    const auto now = std::make_shared<dm_level>();
    std::vector<std::shared_ptr<dm_node>> below_now;
    for (size_t place = 0; place < size(); ++place) {
        if (changed((*level)[place].name))
            continue;
        now->append((*level)[place].name, (*level)[place].attributes);
        below_now.push_back(place < below.size() ? std::move(below[place]) : nullptr);
    }
    for (const auto &[first, range] : changes) {
        for (uint64_t number = first; range.added && number <= range.last; ++number)
            now->append(std::to_string(number), pattern ? pattern->attributes : nullptr);
    }
    level = now;
    below = std::move(below_now);
    std::erase_if(strangers, [&](const auto &each) { return changed(each.first); });
}
