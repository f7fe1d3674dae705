#include "veld/import/types.h"

#include "base/number.h"
#include "veld/import/xml_names.h"
#include "veld/model/pattern.h"

#include <algorithm>
#include <limits>
#include <string_view>

namespace veld
{

namespace
{

constexpr size_t longest_chain = 64;
constexpr int64_t most_enumerated = 64; // values of a range with gaps that are listed one by one

int64_t low_of(const interval &of)
{
    return of.low.value_or(std::numeric_limits<int64_t>::min());
}
int64_t high_of(const interval &of)
{
    return of.high.value_or(std::numeric_limits<int64_t>::max());
}

// Ascending, with what touches or overlaps made one.
std::vector<interval> tidy(std::vector<interval> list)
{
    list.erase(
        std::remove_if(list.begin(), list.end(), [](const interval &each) { return low_of(each) > high_of(each); }),
        list.end());
    std::sort(list.begin(), list.end(), [](const interval &a, const interval &b) { return low_of(a) < low_of(b); });
    std::vector<interval> out;
    for (const interval &each : list) {
        if (out.empty() || each.step > 1 || out.back().step > 1 ||
            (high_of(out.back()) != std::numeric_limits<int64_t>::max() && low_of(each) > high_of(out.back()) + 1))
            out.push_back(each);
        else if (high_of(each) > high_of(out.back()))
            out.back().high = each.high;
    }
    if (out.size() == 1 && !out[0].low && !out[0].high && out[0].step == 1)
        out.clear();
    return out;
}

// What lies in one of each: the bounds of a type and of the type that it is based on.
std::vector<interval> intersect(const std::vector<interval> &base, const std::vector<interval> &own)
{
    if (base.empty() || own.empty())
        return base.empty() ? own : base;
    std::vector<interval> out;
    for (const interval &a : base)
        for (const interval &b : own) {
            interval both = {low_of(a) > low_of(b) ? a.low : b.low, high_of(a) < high_of(b) ? a.high : b.high,
                             std::max(a.step, b.step)};
            if (low_of(both) <= high_of(both))
                out.push_back(both);
        }
    return out.empty() ? own : tidy(out);
}

void restrict(resolved_type *into, const type_use &own)
{
    std::vector<interval> ranges = tidy(own.ranges);
    std::vector<interval> sizes = tidy(own.sizes);
    into->ranges = intersect(into->ranges, ranges);
    if (into->list)
        into->item_sizes = intersect(into->item_sizes, sizes);
    else
        into->sizes = intersect(into->sizes, sizes);
    if (!own.enumeration.empty())
        into->enumeration = own.enumeration;
    if (!own.patterns.empty())
        into->patterns.push_back(own.patterns);
    if (own.path && into->name == "string") {
        into->path = true;
        into->name = "path";
        into->target_parents = own.target_parents;
        into->target_type = own.target_type;
        into->from_root = own.from_root;
    }
    if (!own.values_of.empty()) {
        into->values_of = own.values_of;
        into->null_value = own.null_value;
    }
}

void make_list(resolved_type *into, const syntax &form)
{
    if (into->list) { // a list of lists, each of which is written in brackets
        into->nested = true;
        into->min_items = into->max_items = std::nullopt;
        into->item_sizes = std::move(into->sizes);
        into->sizes.clear();
    } else {
        into->item_sizes = std::move(into->sizes);
        into->sizes.clear();
        into->list = true;
    }
    into->sizes = intersect(into->sizes, tidy(form.list_sizes));
    if (!into->nested) {
        into->min_items = form.min_items;
        into->max_items = form.max_items;
    }
}

// --- patterns ---

std::string escaped(std::string_view text)
{
    std::string out;
    for (char c : text) {
        if (std::string_view("\\^$.|?*+()[]{}").find(c) != std::string_view::npos)
            out += '\\';
        out += c;
    }
    return out;
}

std::string alternatives(const std::vector<std::string> &list)
{
    if (list.size() == 1 && list[0].find('|') == std::string::npos)
        return list[0];
    std::string out = "(?:";
    for (const std::string &each : list)
        out += (out.size() > 3 ? "|" : "") + each;
    if (list.size() > 1 && list[0].empty()) { // the first one is the empty text
        out = "(?:";
        for (size_t i = 1; i < list.size(); i++)
            out += "|" + list[i];
    }
    return out + ")";
}

// All patterns that hold for one value, as one expression without anchors; empty when none does.
std::string value_expression(const resolved_type &type, const complaint &warn)
{
    std::vector<std::string> parts;
    for (const std::vector<std::string> &step : type.patterns) {
        std::vector<std::string> translated;
        for (const std::string &each : step) {
            std::optional<std::string> one = translate_pattern(each);
            std::string why;
            if (!one || !pattern::compile(*one, &why)) {
                warn("the pattern \"" + each + "\" cannot be understood; left out");
                translated.clear();
                break;
            }
            translated.push_back(*one);
        }
        if (!translated.empty())
            parts.push_back(alternatives(translated));
    }
    std::string out;
    for (size_t i = 0; i < parts.size(); i++)
        out += i + 1 < parts.size() ? "(?=" + parts[i] + (type.list ? " *(?:,|$))" : "$)") : parts[i];
    return out;
}

// Texts of any of these sizes, made of `characters`; empty when that is more than an expression can count.
std::string size_expression(const std::vector<interval> &sizes, const std::string &characters, int64_t each_takes)
{
    std::vector<std::string> list;
    for (const interval &each : sizes) {
        int64_t low = std::clamp<int64_t>(low_of(each), 0, 65536) * each_takes;
        int64_t high = each.high ? std::min<int64_t>(*each.high, 65536) * each_takes : 0;
        if (low > 65535 || high > 65535)
            return "";
        list.push_back(each.high == 0 ? ""
                                      : characters + "{" + std::to_string(low) +
                                            (!each.high    ? ",}"
                                             : low == high ? "}"
                                                           : "," + std::to_string(high) + "}"));
    }
    return alternatives(list);
}

// Sizes with gaps between them, for which two limits say too little.
std::string size_expression(const resolved_type &type)
{
    if (type.sizes.size() < 2 || type.name == "base64")
        return "";
    return type.name == "hexBinary" ? size_expression(type.sizes, "[0-9A-Fa-f]", 2)
                                    : size_expression(type.sizes, "[\\s\\S]", 1);
}

// What the sizes of an item of a list make of it; empty when that cannot be said by an expression.
std::string sized_item(const resolved_type &type)
{
    const std::vector<interval> &sizes = type.item_sizes;
    if (sizes.empty() || (sizes.size() == 1 && low_of(sizes[0]) <= 0 && !sizes[0].high))
        return "";
    if (sizes.size() == 1) {
        int64_t low = std::max<int64_t>(low_of(sizes[0]), 0);
        if (low > 65535 || sizes[0].high > 65535)
            return "";
        return "[^,]{" + std::to_string(low) + "," + (sizes[0].high ? std::to_string(*sizes[0].high) : "") + "}";
    }
    return size_expression(sizes, "[^,]", 1);
}

// What one item of a list looks like; `*sized` says whether that holds its sizes.
std::string item_expression(const resolved_type &type, bool *sized, const complaint &warn)
{
    *sized = type.item_sizes.empty() || !type.enumeration.empty();
    if (!type.enumeration.empty()) {
        std::vector<std::string> list;
        for (const std::string &each : type.enumeration)
            list.push_back(escaped(each));
        return alternatives(list);
    }
    if (std::string out = value_expression(type, warn); !out.empty())
        return out;
    if (type.name == "boolean" || type.name == "switch")
        return "(?:true|false|0|1)";
    if (type.name == "int" || type.name == "long")
        return type.ranges.empty() || low_of(type.ranges[0]) < 0 ? "-?[0-9]+" : "[0-9]+";
    if (type.name == "unsignedInt" || type.name == "unsignedLong")
        return "[0-9]+";
    if (type.name == "decimal")
        return "-?[0-9]+(?:\\.[0-9]+)?";
    if (type.name == "hexBinary") {
        std::string bytes = type.item_sizes.empty() ? "" : size_expression(type.item_sizes, "(?:[0-9A-Fa-f]{2})", 1);
        *sized = *sized || !bytes.empty();
        return bytes.empty() ? "(?:[0-9A-Fa-f]{2})*" : bytes;
    }
    std::string out = type.name == "base64" ? "" : sized_item(type);
    *sized = *sized || !out.empty();
    return out;
}

std::string whole_expression(const resolved_type &type, bool *sized, const complaint &warn)
{
    if (!type.list) {
        std::string out = value_expression(type, warn);
        std::string size = out.empty() ? size_expression(type) : "";
        *sized = type.sizes.size() < 2 || !size.empty();
        return out.empty() ? size : out;
    }
    *sized = true; // what is in lists of lists is not looked at
    std::string item = type.nested ? "" : item_expression(type, sized, warn);
    if (item.empty())
        return "";
    // A list can have thousands of items: none is given back that was matched up to its comma, so that none is
    // remembered.
    std::string list = item + "(?: *, *" + item + "(?= *,|$))*+";
    return type.min_items.value_or(0) > 0 ? list : "(?:|" + list + ")";
}

// The expression of a value; `*sized` says whether it holds the alternatives of its sizes, or its items' sizes.
std::string expression_of(const resolved_type &type, bool *sized, const complaint &warn)
{
    std::string out = whole_expression(type, sized, warn);
    std::string why;
    if (out.empty() || pattern::compile(out, &why))
        return out;
    warn("what it may be is too much for an expression; left out");
    *sized = type.list ? type.item_sizes.empty() : type.sizes.size() < 2;
    return "";
}

bool fits(const std::string &expression, const std::string &text)
{
    std::string why;
    return expression.empty() || pattern::compile(expression, &why)->matches(text);
}

// --- defaults ---

bool is_integer(const std::string &type)
{
    return type == "int" || type == "unsignedInt" || type == "long" || type == "unsignedLong";
}

interval span_of(const std::string &type)
{
    if (type == "int")
        return {INT32_MIN, INT32_MAX};
    if (type == "unsignedInt")
        return {0, UINT32_MAX};
    if (type == "unsignedLong")
        return {0, std::nullopt};
    return {};
}

// Which may be wider than a signed word.
uint64_t distance(int64_t a, int64_t b)
{
    return static_cast<uint64_t>(std::max(a, b)) - static_cast<uint64_t>(std::min(a, b));
}

bool within(const std::vector<interval> &list, int64_t number)
{
    return list.empty() || std::any_of(list.begin(), list.end(), [&](const interval &each) {
               return low_of(each) <= number && number <= high_of(each) &&
                      (each.step == 1 ||
                       distance(number, each.low.value_or(0)) % static_cast<uint64_t>(each.step) == 0);
           });
}

template <class number_type> std::optional<number_type> declared_number(std::string_view text)
{
    return number_of<number_type>(text.substr(text.starts_with('+') ? 1 : 0));
}

// The declared default as a value of the type; null when it is none.
json_t *declared_default(const std::string &type, const std::string &declared)
{
    // Blanks around what is no text say nothing.
    const std::string text = type == "string" || type == "path" ? declared : xml_token(declared);
    if (type == "boolean" || type == "switch") {
        bool truth = text == "true" || text == "1";
        return truth || text == "false" || text == "0" ? json_boolean(truth) : nullptr;
    }
    if (is_integer(type)) {
        std::optional<int64_t> number = declared_number<int64_t>(text);
        if (!number && type == "unsignedLong" && declared_number<uint64_t>(text))
            return json_string(std::to_string(*declared_number<uint64_t>(text)).c_str());
        return number && within({span_of(type)}, *number) ? json_integer(*number) : nullptr;
    }
    if (type == "decimal") {
        std::optional<double> number = declared_number<double>(text);
        return number ? json_real(*number) : nullptr;
    }
    return json_string(text.c_str());
}

// The first value of an enumeration; null when there is none.
json_t *first_enumerated(const resolved_type &type)
{
    for (const std::string &each : type.enumeration)
        if (json_t *first = declared_default(type.name, each))
            return first;
    return nullptr;
}

// The number in the first of the ranges that is nearest to nothing at all.
int64_t made_number(const std::vector<interval> &ranges)
{
    if (within(ranges, 0))
        return 0;
    const interval &first = ranges[0];
    if (first.low)
        return *first.low;
    // Without a beginning the steps are counted from nothing, on which this end may not lie.
    const auto beyond = static_cast<int64_t>((distance(*first.high, 0) - 1) % static_cast<uint64_t>(first.step));
    int64_t made = 0;
    return __builtin_sub_overflow(*first.high, first.step - 1 - beyond, &made) ? *first.high : made;
}

json_t *made_integer(const resolved_type &type)
{
    json_t *first = first_enumerated(type);
    return first != nullptr ? first : json_integer(made_number(type.ranges));
}

// A text of one item, or of a value that is no list.
std::string made_text(const resolved_type &type, const std::vector<interval> &sizes)
{
    if (!type.enumeration.empty())
        return type.enumeration[0];
    if (type.name == "dateTime")
        return "0001-01-01T00:00:00Z";
    int64_t least = sizes.empty() ? 0 : std::clamp<int64_t>(low_of(sizes[0]), 0, 4096);
    if (type.name == "hexBinary")
        return std::string(size_t(least) * 2, '0');
    if (type.name == "base64") {
        static constexpr std::string_view rest[] = {"", "AA==", "AAA="};
        return std::string(size_t(least) / 3 * 4, 'A') + std::string(rest[least % 3]);
    }
    return type.name == "path" ? "" : std::string(size_t(least), '0');
}

std::string made_list(const resolved_type &type)
{
    std::string item = made_text(type, type.item_sizes);
    if (is_integer(type.name)) {
        json_ref number(made_integer(type));
        item = std::to_string(json_integer_value(number.get()));
    } else if (type.enumeration.empty() && (type.name == "boolean" || type.name == "switch")) {
        item = "false";
    } else if (type.enumeration.empty() && type.name == "decimal") {
        item = "0";
    }
    std::string list;
    for (int64_t i = 0; i < std::clamp<int64_t>(type.min_items.value_or(0), 0, 4096); i++)
        list += (i > 0 ? "," : "") + item;
    return list;
}

json_t *made_default(const resolved_type &type, const std::string &expression)
{
    const bool truth = type.name == "boolean" || type.name == "switch";
    if (!type.list && is_integer(type.name))
        return made_integer(type);
    if (json_t *first = !type.list && (truth || type.name == "decimal") ? first_enumerated(type) : nullptr)
        return first;
    if (!type.list && truth)
        return json_false();
    if (!type.list && type.name == "decimal")
        return json_real(static_cast<double>(made_number(type.ranges)));
    // No text is made up to fit a pattern.
    std::string text = type.list ? made_list(type) : made_text(type, type.sizes);
    return json_string(type.patterns.empty() || fits(expression, text) ? text.c_str() : "");
}

// Lists are written "[A,B]".
std::string without_brackets(const std::string &text)
{
    return text.size() >= 2 && text.front() == '[' && text.back() == ']' ? text.substr(1, text.size() - 2) : text;
}

// --- constraints ---

void set_bounds(json_t *node, const char *low_key, const char *high_key, const std::vector<interval> &list)
{
    if (list.empty())
        return;
    if (list.front().low)
        json_object_set_new(node, low_key, json_integer(*list.front().low));
    if (list.back().high)
        json_object_set_new(node, high_key, json_integer(*list.back().high));
}

// A range with gaps as its values one by one; null when they are too many.
json_t *enumerated(const std::vector<interval> &ranges)
{
    int64_t count = 0;
    for (const interval &each : ranges) {
        if (!each.low || !each.high || each.step > 1 || distance(*each.low, *each.high) >= most_enumerated)
            return nullptr;
        count += *each.high - *each.low + 1;
    }
    if (count > most_enumerated)
        return nullptr;
    json_t *list = json_array();
    for (const interval &each : ranges)
        for (int64_t number = *each.low; number <= *each.high; number++)
            json_array_append_new(list, json_integer(number));
    return list;
}

void set_enumeration(json_t *node, const resolved_type &type, const complaint &warn)
{
    json_ref list(json_array());
    for (const std::string &each : type.enumeration)
        if (json_t *value = declared_default(type.name, each))
            json_array_append_new(list.get(), value);
        else
            warn("\"" + each + "\" is no value of type " + type.name + "; left out of the enumeration");
    if (json_array_size(list.get()) > 0)
        json_object_set_new(node, "enum", list.release());
}

// Alternatives that two bounds cannot say: [low, high] or [low, high, step], null where an end is open.
void set_alternatives(json_t *node, const char *key, const std::vector<interval> &list)
{
    json_t *all = json_array();
    for (const interval &each : list) {
        json_t *one = json_array();
        json_array_append_new(one, each.low ? json_integer(*each.low) : json_null());
        json_array_append_new(one, each.high ? json_integer(*each.high) : json_null());
        if (each.step > 1)
            json_array_append_new(one, json_integer(each.step));
        json_array_append_new(all, one);
    }
    json_object_set_new(node, key, all);
}

bool has_gaps(const std::vector<interval> &list)
{
    return list.size() > 1 || (!list.empty() && list[0].step > 1);
}

// The sizes of an item as they count in a list, where what is encoded counts as it is written.
std::vector<interval> item_characters(const resolved_type &type)
{
    std::vector<interval> sizes = type.item_sizes;
    auto written = [&](std::optional<int64_t> bytes) {
        constexpr int64_t largest = int64_t{1} << 40;
        const int64_t count = std::clamp<int64_t>(bytes.value_or(0), 0, largest);
        return bytes ? std::optional(type.name == "base64" ? (count + 2) / 3 * 4 : count * 2) : std::nullopt;
    };
    if (type.name == "base64" || type.name == "hexBinary")
        for (interval &each : sizes)
            each = {written(each.low), written(each.high)};
    return sizes;
}

void set_list(json_t *node, const resolved_type &type, bool sized, const complaint &warn)
{
    if (type.min_items)
        json_object_set_new(node, "minCount", json_integer(*type.min_items));
    if (type.max_items)
        json_object_set_new(node, "maxCount", json_integer(*type.max_items));
    if (!type.nested && !type.ranges.empty() && is_integer(type.name))
        set_alternatives(node, "itemRanges", type.ranges);
    else if (!type.nested && !type.ranges.empty())
        warn("the range of the items of a list is kept of integers only; left out");
    if (!sized)
        set_alternatives(node, "itemLengths", item_characters(type));
}

} // namespace

std::optional<std::string> translate_pattern(std::string_view from)
{
    std::string out;
    bool in_class = false;
    for (size_t i = 0; i < from.size(); i++) {
        char c = from[i];
        char next = i + 1 < from.size() ? from[i + 1] : '\0';
        if (c == '\\') {
            i++;
            // Names of XML, and blocks of characters, exist there only.
            if (std::string_view("nrt\\|.?*+(){}-[]^$sSdDwWpP").find(next) == std::string_view::npos || next == '\0' ||
                ((next == 'p' || next == 'P') && from.substr(i + 1).starts_with("{Is")))
                return std::nullopt;
            (out += '\\') += next;
        } else if (in_class) {
            if (c == '[') // takes one class away from another
                return std::nullopt;
            in_class = c != ']';
            out += c;
        } else if (c == '^' || c == '$') { // stand for themselves
            (out += '\\') += c;
        } else if (c == '(' && (next == '?' || next == '*')) {
            return std::nullopt;
        } else {
            in_class = c == '[';
            out += c;
            if (in_class && next == '^') {
                out += '^';
                i++;
            }
        }
    }
    return in_class ? std::nullopt : std::optional(out);
}

bool resolve_type(const data_model &model, const syntax &form, resolved_type *into, std::string *error)
{
    // From the form down to what everything is based on, then back up, each step restricting what stands below it.
    std::vector<const syntax *> chain{&form};
    std::vector<std::string> names;
    while (true) {
        const syntax &last = *chain.back();
        if (!last.type) {
            *error = names.empty() ? "no type" : "the data type \"" + names.back() + "\" has no type";
            return false;
        }
        if (last.type->name != "dataType")
            break;
        const std::string &name = last.type->own_type;
        bool seen = std::find(names.begin(), names.end(), name) != names.end();
        names.push_back(name);
        if (seen || names.size() > longest_chain) {
            *error = "a data type is based on itself:";
            for (auto at = std::find(names.begin(), names.end(), name); at != names.end(); ++at)
                *error += (*error).back() == ':' ? " " + *at : " -> " + *at;
            return false;
        }
        auto found = model.types.find(name);
        if (found == model.types.end()) {
            *error = "there is no data type \"" + name + "\"";
            return false;
        }
        chain.push_back(&found->second.body);
    }
    *into = {};
    into->name = chain.back()->type->name;
    for (auto step = chain.rbegin(); step != chain.rend(); ++step) {
        restrict(into, *(*step)->type);
        if ((*step)->list)
            make_list(into, **step);
    }
    // What the type's own width says anyway is no constraint.
    if (is_integer(into->name) && !into->ranges.empty()) {
        into->ranges = intersect({span_of(into->name)}, into->ranges);
        interval &first = into->ranges.front();
        interval &last = into->ranges.back();
        if (into->name != "long" && first.low == span_of(into->name).low)
            first.low = std::nullopt;
        if (span_of(into->name).high && last.high == span_of(into->name).high)
            last.high = std::nullopt;
        into->ranges = tidy(into->ranges);
    }
    return true;
}

void describe_type(json_t *node, const resolved_type &type, const syntax &form, bool declared, const complaint &warn)
{
    std::string name = type.list ? "string" : form.triggers && type.name == "boolean" ? "switch" : type.name;
    bool sized = true;
    std::string expression = expression_of(type, &sized, warn);
    json_object_set_new(node, "type", json_string(name.c_str()));

    json_t *initial = nullptr;
    if (form.initial && declared) {
        initial =
            type.list ? json_string(without_brackets(*form.initial).c_str()) : declared_default(name, *form.initial);
        if (initial == nullptr)
            warn("the default \"" + *form.initial + "\" is no value of type " + name + "; left out");
    }
    json_object_set_new(node, "default", initial != nullptr ? initial : made_default(type, expression));

    json_t *values = nullptr;
    if (type.list) {
        set_list(node, type, sized, warn);
    } else if (!type.enumeration.empty()) {
        set_enumeration(node, type, warn);
    } else if (is_integer(type.name) && type.ranges.size() > 1 && (values = enumerated(type.ranges)) != nullptr) {
        json_object_set_new(node, "enum", values);
    } else {
        set_bounds(node, "minInclusive", "maxInclusive", type.ranges);
        if (has_gaps(type.ranges))
            set_alternatives(node, "ranges", type.ranges);
    }
    set_bounds(node, "minLength", "maxLength", type.sizes);
    if (has_gaps(type.sizes) && (type.list || !sized))
        set_alternatives(node, "lengths", type.sizes);
    if (!expression.empty())
        json_object_set_new(node, "regex", json_string(("^" + expression + "$").c_str()));
    if (form.secured && json_is_string(json_object_get(node, "default")))
        json_object_set_new(node, "secret", json_true());
}

} // namespace veld
