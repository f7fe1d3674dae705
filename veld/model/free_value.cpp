#include "veld/model/free_value.h"

#include "base/number.h"
#include "veld/model/check.h"

#include <cctype>
#include <functional>

namespace veld
{

namespace
{

/// Looks for a value of one parameter that fits its model and that no other instance has.
class search
{
public:
    search(tree *in, node *parameter) : tree_(in), parameter_(parameter), what_(*parameter->what)
    {
        const node *instance = parameter;
        while (!instance->is_instance())
            instance = instance->parent;
        number_ = instance->number;
        most_ = instance->parent->table->instances.size();
    }
    /// The value, or null.
    json_ref result(const json_t *begin);

private:
    /// Makes the candidate of that place in a row of them; null behind the last one.
    using candidate = std::function<json_t *(uint64_t place)>;

    bool tried(json_ref value);
    /// Whether one of a row is free. It ends where a candidate does not fit.
    bool row(const candidate &make);
    bool enumerated();
    bool numbers(int64_t begin);
    bool numbers_from(int64_t from, int64_t step, uint64_t first);
    bool texts(std::string_view begin);

    tree *tree_;
    node *parameter_;
    const scheme &what_;
    uint32_t number_; // of the instance
    size_t most_;     // so many values can be taken
    json_ref found_;
    bool fits_ = true; // the candidate that was tried last
};

bool search::tried(json_ref value)
{
    json_ref kept;
    fits_ = value && !value_check(what_, value.get(), &kept);
    if (!fits_ || tree_->taken(parameter_, kept.get()) != 0)
        return false;
    found_ = std::move(kept);
    return true;
}

bool search::row(const candidate &make)
{
    fits_ = true;
    for (uint64_t place = 0; fits_ && place <= most_; ++place) {
        if (tried(json_ref{make(place)}))
            return true;
    }
    return false;
}

bool search::enumerated()
{
    size_t i = 0;
    json_t *item = nullptr;
    json_array_foreach(what_.enumeration.get(), i, item)
    {
        if (tried(json_ref::share(item)))
            return true;
    }
    return false;
}

bool search::numbers_from(int64_t from, int64_t step, uint64_t first)
{
    return row([=](uint64_t place) -> json_t * {
        int64_t ahead = 0;
        int64_t number = 0;
        if (__builtin_mul_overflow(first + place, step, &ahead) || __builtin_add_overflow(from, ahead, &number))
            return nullptr;
        return json_integer(number);
    });
}

bool search::numbers(int64_t begin)
{
    static const alternatives none;
    const alternatives &ranges = what_.rules ? what_.rules->ranges : none;
    const int64_t step = ranges.size() == 1 ? ranges[0].step : 1;
    // Instance numbers never come back, so that the value which belongs to this one is free as a rule.
    if (numbers_from(begin, step, number_ - 1) || numbers_from(begin, step, 0) ||
        (what_.min_inclusive && numbers_from(*what_.min_inclusive, step, 0)))
        return true;
    for (const alternative &one : ranges) {
        if (one.low && numbers_from(*one.low, one.step, 0))
            return true;
    }
    return false;
}

// A number in the text goes on counting ("Port1", "192.168.1.1"); a text without one gets one.
bool search::texts(std::string_view begin)
{
    const std::string text(begin);
    size_t end = text.size();
    if (what_.type != value_type::string)
        while (end > 0 && isdigit(static_cast<unsigned char>(text[end - 1])) == 0)
            --end;
    size_t digits = end;
    while (digits > 0 && isdigit(static_cast<unsigned char>(text[digits - 1])) != 0)
        --digits;
    if (const auto counted = number_of<uint64_t>(std::string_view(text).substr(digits, end - digits))) {
        const auto count_from = [&](uint64_t first) {
            return row([&, first](uint64_t place) -> json_t * {
                uint64_t number = 0;
                if (__builtin_add_overflow(*counted, first + place, &number))
                    return nullptr;
                std::string written = std::to_string(number);
                if (written.size() < end - digits)
                    written.insert(0, end - digits - written.size(), '0');
                const std::string made = text.substr(0, digits) + written + text.substr(end);
                return json_stringn(made.data(), made.size());
            });
        };
        if (count_from(number_ - 1) || count_from(0))
            return true;
    }
    for (const char *between : {"-", ""}) {
        const bool free = row([&](uint64_t place) {
            const std::string made = text + between + std::to_string(number_ + place);
            return json_stringn(made.data(), made.size());
        });
        if (free)
            return true;
    }
    return false;
}

json_ref search::result(const json_t *begin)
{
    if (what_.enumeration)
        enumerated();
    else if (json_is_boolean(begin))
        tried(json_ref{json_boolean(!json_is_true(begin))});
    else if (json_is_integer(begin))
        numbers(json_integer_value(begin));
    else if (json_is_real(begin))
        row([&](uint64_t place) {
            return json_real(json_real_value(begin) + static_cast<double>(number_ - 1 + place));
        });
    // What leads to something, or is one of what another parameter lists, is not made up.
    else if (!what_.rules || (!what_.rules->leads && what_.rules->values_of.empty()))
        texts({json_string_value(begin), json_string_length(begin)});
    if (!found_ && json_is_string(begin))
        tried(json_ref{json_string("")}); // which any number of them may have
    return std::move(found_);
}

} // namespace

std::string settle_instance(tree *in, node *of, bool changed)
{
    if (of->what->kind == node_kind::object) {
        for (const auto &child : of->children) {
            if (std::string same = settle_instance(in, child.get(), changed); !same.empty())
                return same;
        }
        return "";
    }
    if (of->what->kind != node_kind::parameter || !of->what->unique || of->what->from != source::stored)
        return "";
    const json_t *begin = of->value ? of->value.get() : of->what->initial.get();
    if (in->taken(of, begin) == 0)
        return "";
    json_ref value = search(in, of).result(begin);
    if (!value)
        return of->what->name;
    in->store(of, std::move(value), changed);
    return "";
}

} // namespace veld
