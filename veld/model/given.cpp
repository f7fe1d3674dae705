#include "veld/model/given.h"

#include "base/fd.h"
#include "base/file.h"
#include "veld/model/check.h"
#include "veld/model/password.h"
#include "veld/model/reference.h"
#include "veld/model/table_keys.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>

namespace veld
{

namespace
{

constexpr size_t longest_file = size_t{16} << 20;

bool is_text(value_type type)
{
    return type == value_type::string || type == value_type::date_time || type == value_type::base64 ||
           type == value_type::hex_binary || type == value_type::path;
}

json_ref value_of(const scheme &what, const std::string &text)
{
    if (is_text(what.type))
        return json_ref{json_stringn(text.data(), text.size())};
    json_ref value{json_loadb(text.data(), text.size(), JSON_DECODE_ANY, nullptr)};
    // Beyond the signed word a number is a text of digits.
    return value || what.type != value_type::uint64 ? std::move(value)
                                                    : json_ref{json_stringn(text.data(), text.size())};
}

bool read_whole(const std::string &path, std::string *text, std::string *error)
{
    const fd_owner file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (!file || !read_all(file.get(), longest_file, text)) {
        *error = path + ": " + strerror(errno);
        return false;
    }
    return true;
}

} // namespace

bool given_values::add(const std::string &assignment, std::string *error)
{
    const size_t sign = assignment.find('=');
    if (sign == std::string::npos || sign == 0) {
        *error = "\"" + assignment + "\" is not of the form PATH=VALUE";
        return false;
    }
    entries_.push_back({assignment.substr(0, sign), assignment.substr(sign + 1), {}, false});
    return true;
}

bool given_values::add_file(const std::string &path, std::string *error)
{
    std::string text;
    if (!read_whole(path, &text, error))
        return false;
    if (const size_t first = text.find_first_not_of(" \t\r\n"); first != std::string::npos && text[first] == '{') {
        json_error_t where{};
        const json_ref object{json_loadb(text.data(), text.size(), JSON_REJECT_DUPLICATES, &where)};
        if (!object) {
            *error = path + ":" + std::to_string(where.line) + ":" + std::to_string(where.column) + ": " + where.text;
            return false;
        }
        const char *key = nullptr;
        json_t *value = nullptr;
        json_object_foreach(object.get(), key, value) entries_.push_back({key, "", json_ref::share(value), false});
        return true;
    }
    size_t number = 0;
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size());
        std::string line = text.substr(at, end - at);
        at = end + 1;
        number++;
        if (line.ends_with('\r'))
            line.pop_back();
        if (line.empty() || line[0] == '#')
            continue;
        if (!add(line, error)) {
            *error = path + ":" + std::to_string(number) + ": " + *error;
            return false;
        }
    }
    return true;
}

// What is wrong with a value; empty when it is in its place.
std::string given_values::put(tree *onto, entry *one)
{
    const place where = onto->find(one->path);
    if (!where || where.at->what != where.what || where.what->kind != node_kind::parameter)
        return "no such parameter";
    const scheme &what = *where.what;
    if (what.from != source::stored && what.from != source::live)
        return "has no value of its own";
    if (!one->value) {
        one->value = value_of(what, one->text);
        if (!one->value)
            return "\"" + one->text + "\" is no value of type " + type_name(what.type);
    }
    json_ref kept;
    if (one->hashed) {
        kept = json_ref::share(one->value.get());
    } else {
        if (const fault problem = value_check(what, one->value.get(), &kept))
            return problem.message;
        if (what.handler_set == "password") {
            if (!password_possible(kept.get()))
                return "is not possible as a password";
            kept = password_hash(kept.get());
            one->value = json_ref::share(kept.get());
            one->hashed = true;
        }
    }
    if (std::string problem = reference_problem(onto, role::administrator, where.at, kept.get()); !problem.empty())
        return problem;
    if (const uint32_t other = onto->taken(where.at, kept.get()))
        return "is already used by instance " + std::to_string(other);
    onto->store(where.at, std::move(kept), false);
    where.at->given = true;
    return "";
}

bool given_values::apply(tree *onto, std::string *error)
{
    onto->begin_request();
    for (entry &one : entries_) {
        std::string problem = put(onto, &one);
        if (problem.empty())
            continue;
        *error = one.path + ": " + problem;
        return false;
    }
    // Keys of several parameters hold when all of them are in their places.
    key_check keys(onto);
    for (const entry &one : entries_) {
        const std::string problem = keys.problem(onto->find(one.path).at);
        if (problem.empty())
            continue;
        *error = one.path + ": " + problem;
        return false;
    }
    return true;
}

} // namespace veld
