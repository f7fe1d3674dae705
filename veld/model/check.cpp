#include "veld/model/check.h"

#include "base/json_write.h"
#include "base/number.h"

#include <algorithm>
#include <cctype>
#include <cmath>

namespace veld
{

namespace
{

std::string_view view(const json_t *text)
{
    return {json_string_value(text), json_string_length(text)};
}

bool all(std::string_view text, int (*test)(int))
{
    for (const char c : text) {
        if (test(static_cast<unsigned char>(c)) == 0)
            return false;
    }
    return true;
}

// "2024-02-29T12:30:00.5Z", with a zone of the form +hh:mm or none; the unknown time is of year 1.
bool is_date_time(std::string_view text)
{
    static constexpr std::string_view shape = "dddd-dd-ddTdd:dd:dd";
    if (text.size() < shape.size())
        return false;
    for (size_t i = 0; i < shape.size(); ++i) {
        const bool digit = isdigit(static_cast<unsigned char>(text[i])) != 0;
        if (shape[i] == 'd' ? !digit : text[i] != shape[i])
            return false;
    }
    const auto number = [&text](size_t at, size_t digits) {
        return number_of<int>(text.substr(at, digits)).value_or(0);
    };
    static constexpr int days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const int year = number(0, 4);
    const int month = number(5, 2);
    const int day = number(8, 2);
    const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    if (month < 1 || month > 12 || day < 1 || day > days[month - 1] + (month == 2 && leap ? 1 : 0) ||
        number(11, 2) > 23 || number(14, 2) > 59 || number(17, 2) > 60)
        return false;
    std::string_view rest = text.substr(shape.size());
    if (rest.size() > 1 && rest[0] == '.') {
        size_t digits = 1;
        while (digits < rest.size() && isdigit(static_cast<unsigned char>(rest[digits])) != 0)
            ++digits;
        if (digits == 1)
            return false;
        rest.remove_prefix(digits);
    }
    if (rest.empty() || rest == "Z")
        return true;
    return rest.size() == 6 && (rest[0] == '+' || rest[0] == '-') && rest[3] == ':' &&
           all(rest.substr(1, 2), isdigit) && all(rest.substr(4, 2), isdigit) && number(text.size() - 5, 2) <= 14 &&
           number(text.size() - 2, 2) <= 59;
}

int is_base64_char(int c)
{
    return static_cast<int>(isalnum(c) != 0 || c == '+' || c == '/');
}

bool is_base64(std::string_view text)
{
    if (text.size() % 4 != 0)
        return false;
    size_t padding = 0;
    while (padding < 2 && padding < text.size() && text[text.size() - 1 - padding] == '=')
        ++padding;
    return all(text.substr(0, text.size() - padding), is_base64_char);
}

int is_path_char(int c)
{
    return static_cast<int>(isalnum(c) != 0 || c == '_' || c == '-' || c == '.');
}

bool is_path(std::string_view text)
{
    if (text.empty())
        return true;
    return text.front() != '.' && isdigit(static_cast<unsigned char>(text.front())) == 0 && all(text, is_path_char) &&
           text.find("..") == std::string_view::npos;
}

std::string form_problem(const scheme &what, std::string_view text)
{
    switch (what.type) {
    case value_type::date_time:
        return is_date_time(text) ? "" : "is not a date and time (like 2024-01-31T23:59:00Z)";
    case value_type::base64:
        return is_base64(text) ? "" : "is not base64";
    case value_type::hex_binary:
        return text.size() % 2 == 0 && all(text, isxdigit) ? "" : "is not an even number of hexadecimal digits";
    case value_type::path:
        return is_path(text) ? "" : "is not a path of the data model";
    default:
        return "";
    }
}

std::string enumeration_problem(const json_t *allowed, const json_t *value)
{
    size_t i = 0;
    json_t *item = nullptr;
    json_array_foreach(allowed, i, item)
    {
        if (json_equal(item, value) != 0)
            return "";
        if (json_is_number(item) && json_is_number(value) && json_number_value(item) == json_number_value(value))
            return "";
    }
    std::string text = "must be one of ";
    json_array_foreach(allowed, i, item)
    {
        if (i > 0)
            text += ", ";
        if (text.size() > 400) {
            text += "...";
            break;
        }
        json_write_value(&text, item);
    }
    return text;
}

// Characters of a text; of encoded data, the bytes behind them.
int64_t measured_length(const scheme &what, std::string_view text)
{
    if (what.type == value_type::hex_binary)
        return static_cast<int64_t>(text.size() / 2);
    if (what.type == value_type::base64) {
        const auto padding = static_cast<int64_t>(text.size() - std::min(text.size(), text.find_last_not_of('=') + 1));
        return static_cast<int64_t>(text.size() / 4 * 3) - padding;
    }
    return static_cast<int64_t>(text_length(text));
}

int64_t count_items(std::string_view text)
{
    return text.empty() ? 0 : 1 + std::count(text.begin(), text.end(), ',');
}

// What lies between a number and the next multiple of `step` below it.
uint64_t beyond_step(int64_t number, int64_t step)
{
    const int64_t left = number % step;
    return static_cast<uint64_t>(left < 0 ? left + step : left);
}

bool holds(const alternative &one, int64_t number)
{
    return (!one.low || number >= *one.low) && (!one.high || number <= *one.high) &&
           beyond_step(number, one.step) == beyond_step(one.low.value_or(0), one.step);
}

// Of a number beyond the signed word, which ends at most there.
bool holds(const alternative &one, uint64_t number)
{
    return !one.high && number % static_cast<uint64_t>(one.step) == beyond_step(one.low.value_or(0), one.step);
}

bool holds(const alternative &one, double number)
{
    const auto low = static_cast<double>(one.low.value_or(0));
    return (!one.low || number >= low) && (!one.high || number <= static_cast<double>(*one.high)) &&
           (one.step == 1 || std::fmod(number - low, static_cast<double>(one.step)) == 0);
}

template <typename number_type> bool one_holds(const alternatives &list, number_type number)
{
    return list.empty() ||
           std::any_of(list.begin(), list.end(), [number](const alternative &one) { return holds(one, number); });
}

bool one_holds(const alternatives &list, const json_t *number)
{
    if (json_is_real(number))
        return one_holds(list, json_real_value(number));
    return json_is_string(number) ? one_holds(list, number_of<uint64_t>(view(number)).value_or(0))
                                  : one_holds(list, static_cast<int64_t>(json_integer_value(number)));
}

// "0, 512 to 1024 in steps of 2, or 4096 and more".
std::string written(const alternatives &list)
{
    std::string out;
    for (size_t i = 0; i < list.size(); ++i) {
        const alternative &one = list[i];
        if (i > 0)
            out += i + 1 < list.size() ? ", " : " or ";
        if (one.low && one.high && *one.low == *one.high)
            out += std::to_string(*one.low);
        else if (one.low && one.high)
            out += std::to_string(*one.low) + " to " + std::to_string(*one.high);
        else if (one.low)
            out += std::to_string(*one.low) + " and more";
        else
            out += one.high ? "up to " + std::to_string(*one.high) : "any";
        if (one.step > 1)
            out += " in steps of " + std::to_string(one.step);
    }
    return out;
}

std::string items_problem(const value_rules &rules, std::string_view text)
{
    if (rules.item_ranges.empty() && rules.item_lengths.empty())
        return "";
    for (const std::string_view item : list_items(text)) {
        if (!rules.item_ranges.empty()) {
            const auto number = number_of<int64_t>(item);
            const auto large = number ? std::nullopt : number_of<uint64_t>(item);
            if (number ? !one_holds(rules.item_ranges, *number) : !large || !one_holds(rules.item_ranges, *large))
                return "must have items of " + written(rules.item_ranges);
        }
        if (!one_holds(rules.item_lengths, static_cast<int64_t>(text_length(item))))
            return "must have items of " + written(rules.item_lengths) + " characters";
    }
    return "";
}

std::string text_problem(const scheme &what, std::string_view text)
{
    std::string form = form_problem(what, text);
    if (!form.empty())
        return form;
    const char *unit =
        what.type == value_type::hex_binary || what.type == value_type::base64 ? " bytes" : " characters";
    const int64_t length = measured_length(what, text);
    if (what.min_length && length < *what.min_length)
        return "must have at least " + std::to_string(*what.min_length) + unit;
    if (what.max_length && length > *what.max_length)
        return "must have at most " + std::to_string(*what.max_length) + unit;
    if (what.rules && !one_holds(what.rules->lengths, length))
        return "must have " + written(what.rules->lengths) + unit;
    if (what.min_count && count_items(text) < *what.min_count)
        return "must have at least " + std::to_string(*what.min_count) + " items";
    if (what.max_count && count_items(text) > *what.max_count)
        return "must have at most " + std::to_string(*what.max_count) + " items";
    if (what.regex && !what.regex->matches(text))
        return "does not match the pattern " + what.regex->expression();
    return what.rules ? items_problem(*what.rules, text) : "";
}

std::string range_problem(const scheme &what, const json_t *value)
{
    bool below = false;
    bool above = false;
    if (json_is_real(value)) {
        const double number = json_real_value(value);
        below = what.min_inclusive && number < static_cast<double>(*what.min_inclusive);
        above = what.max_inclusive && number > static_cast<double>(*what.max_inclusive);
    } else if (json_is_string(value)) { // an unsignedLong beyond the signed word
        above = what.max_inclusive.has_value();
    } else {
        const int64_t number = json_integer_value(value);
        below = what.min_inclusive && number < *what.min_inclusive;
        above = what.max_inclusive && number > *what.max_inclusive;
    }
    if (below)
        return "must be at least " + std::to_string(*what.min_inclusive);
    if (above)
        return "must be at most " + std::to_string(*what.max_inclusive);
    if (what.rules && !one_holds(what.rules->ranges, value))
        return "must be " + written(what.rules->ranges);
    return "";
}

struct span_of_type {
    int64_t low, high;
};

span_of_type span(value_type type)
{
    switch (type) {
    case value_type::int32:
        return {INT32_MIN, INT32_MAX};
    case value_type::uint32:
        return {0, UINT32_MAX};
    case value_type::uint64:
        return {0, INT64_MAX};
    default:
        return {INT64_MIN, INT64_MAX};
    }
}

bool is_integer(value_type type)
{
    return type == value_type::int32 || type == value_type::uint32 || type == value_type::int64 ||
           type == value_type::uint64;
}

const char *expected(value_type type)
{
    if (is_integer(type))
        return "must be an integer";
    if (type == value_type::boolean || type == value_type::toggle)
        return "must be true or false";
    return type == value_type::decimal ? "must be a number" : "must be a text";
}

// A text of digits, for an unsignedLong; null when it is none, or too large.
json_t *from_digits(std::string_view digits)
{
    const auto number = number_of<uint64_t>(digits);
    if (!number)
        return nullptr;
    if (*number <= static_cast<uint64_t>(INT64_MAX))
        return json_integer(static_cast<json_int_t>(*number));
    return json_string(std::to_string(*number).c_str());
}

} // namespace

std::vector<std::string_view> list_items(std::string_view text)
{
    std::vector<std::string_view> items;
    for (bool more = !text.empty(); more;) {
        std::string_view item = text.substr(0, text.find(','));
        more = item.size() < text.size();
        text.remove_prefix(item.size() + (more ? 1 : 0));
        item.remove_prefix(std::min(item.find_first_not_of(' '), item.size()));
        items.push_back(item.substr(0, item.find_last_not_of(' ') + 1));
    }
    return items;
}

size_t text_length(std::string_view text)
{
    size_t length = 0;
    for (const char c : text)
        length += (static_cast<unsigned char>(c) & 0xc0U) != 0x80U ? 1 : 0;
    return length;
}

bool value_fits_type(const scheme &what, json_t *value, json_ref *kept)
{
    bool fits = false;
    switch (what.type) {
    case value_type::boolean:
    case value_type::toggle:
        fits = json_is_boolean(value);
        break;
    case value_type::int32:
    case value_type::uint32:
    case value_type::int64:
    case value_type::uint64:
        if (what.type == value_type::uint64 && json_is_string(value)) {
            kept->reset(from_digits(view(value)));
            return static_cast<bool>(*kept);
        }
        fits = json_is_integer(value);
        break;
    case value_type::decimal:
        if (json_is_integer(value)) {
            kept->reset(json_real(static_cast<double>(json_integer_value(value))));
            return true;
        }
        fits = json_is_real(value);
        break;
    default:
        fits = json_is_string(value);
    }
    if (fits)
        *kept = json_ref::share(value);
    return fits;
}

fault factory_value_check(const scheme &what, json_t *value)
{
    json_ref kept;
    if (what.handler_set == "password" || json_equal(what.initial.get(), value) != 0)
        return {};
    return value_check(what, value, &kept);
}

fault value_check(const scheme &what, json_t *value, json_ref *kept)
{
    if (!value_fits_type(what, value, kept))
        return {code::bad_type, expected(what.type)};
    const json_t *fitting = kept->get();
    if (what.off_value && json_equal(what.off_value.get(), fitting) != 0)
        return {};
    if (is_integer(what.type) && json_is_integer(fitting)) {
        const span_of_type limits = span(what.type);
        const int64_t number = json_integer_value(fitting);
        if (number < limits.low)
            return {code::bad_value, "must be at least " + std::to_string(limits.low)};
        if (number > limits.high)
            return {code::bad_value, "must be at most " + std::to_string(limits.high)};
    }
    if (what.enumeration) {
        std::string problem = enumeration_problem(what.enumeration.get(), fitting);
        if (!problem.empty())
            return {code::bad_value, problem};
    }
    std::string problem;
    if (is_integer(what.type) || what.type == value_type::decimal)
        problem = range_problem(what, fitting);
    else if (json_is_string(fitting) &&
             (what.type == value_type::string || json_equal(what.initial.get(), fitting) == 0))
        problem = text_problem(what, view(fitting));
    if (!problem.empty())
        return {code::bad_value, problem};
    return {};
}

} // namespace veld
