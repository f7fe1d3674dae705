#include "commands/listing.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "base/json_ref.h"
#include "event/request.h"
#include "platform/ve_colors.h"
#include "platform/ve_out.h"
#include "platform/ve_rl.h"
#include "platform/ve_wait.h"
#include "utils/colorscheme.h"
#include "utils/columns.h"
#include "utils/json_util.h"

namespace
{

struct row {
    std::string type;
    std::string access;
    std::string perms;
    std::string flags;
    std::string name;
};

/// "%d" of the bound, as far as 32 bits hold it; empty without one.
std::string bound(const json_t *attributes, const char *key)
{
    const json_t *value = json_object_get(attributes, key);
    return value != nullptr ? std::to_string(static_cast<int32_t>(json_integer_value(value))) : std::string();
}

/// "[0:100]", "[1:]", "[:100]", or nothing.
std::string value_range(const json_t *attributes)
{
    const std::string low = bound(attributes, "minInclusive");
    const std::string high = bound(attributes, "maxInclusive");
    return low.empty() && high.empty() ? "" : "[" + low + ":" + high + "]";
}

/// "(1:64)", "(8)" for either bound alone, or nothing.
std::string length_range(const json_t *attributes)
{
    const std::string low = bound(attributes, "minLength");
    const std::string high = bound(attributes, "maxLength");
    if (low.empty() && high.empty())
        return "";
    return "(" + low + (!low.empty() && !high.empty() ? ":" : "") + high + ")";
}

std::string flag_letters(const json_t *attributes)
{
    static constexpr struct {
        const char *key;
        char letter;
    } flags[] = {{"multi", 'M'}, {"ordered", 'O'}, {"runtime", 'R'}, {"unique", 'U'}};
    const char *type = json_text(attributes, "type");
    std::string letters;
    if (type != nullptr && strcmp(type, "object") == 0)
        letters += 'O'; // "ordered" has the same letter
    for (const auto &flag : flags) {
        if (json_is_true(json_object_get(attributes, flag.key)))
            letters += flag.letter;
    }
    return letters.empty() ? "-" : letters;
}

std::string shown_text(const json_t *attributes, const char *key, const char *otherwise)
{
    const char *text = json_text(attributes, key);
    return text != nullptr ? ve_visible(text) : otherwise;
}

row make_row(std::string_view name, const json_t *attributes)
{
    const json_t *access = json_object_get(attributes, "access");
    const char *access_text = json_string_value(access);
    row made;
    made.type = shown_text(attributes, "type", "-") + value_range(attributes) + length_range(attributes);
    made.access = access == nullptr                                                ? "-"
                  : access_text != nullptr && strcmp(access_text, "readOnly") == 0 ? "RO"
                                                                                   : "RW";
    made.perms = shown_text(attributes, "perms", "");
    made.flags = flag_letters(attributes);
    made.name = name;
    return made;
}

std::vector<row> make_rows(ve_parameters list, const dm_path &path)
{
    std::vector<row> rows;
    ve_wait_loop loop;
    for (ve_parameter entry; list.next(&entry) && !loop.interrupted();) {
        if (!entry.name || !entry.attributes)
            continue;
        const std::string_view name = entry.name->substr(0, entry.name->find('\0'));
        const json_ref attributes(entry.attributes.load());
        if (!path.is(name)) {
            rows.push_back(make_row(path.relative(name), attributes.get()));
            continue;
        }
        const char *type = json_text(attributes.get(), "type");
        if (type != nullptr && strcmp(type, "object") != 0)
            return {make_row(name, attributes.get())}; // a parameter or a method stands for itself
    }
    std::stable_sort(rows.begin(), rows.end(), [](const row &a, const row &b) {
        const bool a_first = a.type == "object";
        const bool b_first = b.type == "object";
        return a_first != b_first ? a_first : a.name < b.name;
    });
    return rows;
}

size_t width_of(const std::vector<row> &rows, std::string row::*member, size_t least)
{
    column texts(least);
    for (const row &each : rows)
        texts.add(each.*member);
    return texts.width() + 1;
}

/// `text` and blanks up to the next column.
void print_column(const std::string &text, size_t width)
{
    ve_out_write(text.data(), text.size());
    const size_t taken = ve_rl_width(text);
    const std::string blanks(width > taken ? width - taken + 1 : 1, ' ');
    ve_out_write(blanks.data(), blanks.size());
}

void print_rows(const std::vector<row> &rows)
{
    const size_t type = width_of(rows, &row::type, 4);
    const size_t access = width_of(rows, &row::access, 6);
    const size_t perms = width_of(rows, &row::perms, 5);
    const size_t flags = width_of(rows, &row::flags, 5);
    const auto print_columns = [&](const row &each) {
        print_column(each.type, type);
        print_column(each.access, access);
        print_column(each.perms, perms);
        print_column(each.flags, flags);
    };
    print_columns({"Type", "Access", "Perms", "Flags", {}});
    ve_puts("Name");
    for (const row &each : rows) {
        print_columns(each);
        ve_colors_set_hsv2(kest_colorscheme_get().autocomplete);
        ve_puts(ve_visible(each.name).c_str());
        ve_colors_reset();
        if (ve_out_relieve() < 0)
            break;
    }
}

} // namespace

void list_long(const dm_path &path)
{
    msg_ref message(ve_jrpcmsg_cmd_get_parameter_attributes_new(nullptr));
    ve_jrpcmsg_cmd_get_parameter_values_add(message.get(), path.as_object().c_str());
    json_object_set_new(ve_jrpcmsg_params(message.get()), "Depth", json_integer(1));
    msg_exec(message.get(), 1000);
    print_rows(make_rows(ve_jrpcmsg_parameters(message.get()), path));
}
