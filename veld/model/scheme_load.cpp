#include "veld/base/log.h"
#include "veld/model/check.h"
#include "veld/model/scheme.h"
#include "veld/model/scheme_rules.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <iterator>

namespace veld
{

namespace
{

// What a node hands down to the nodes below it.
struct surroundings {
    role read = role::anonymous;
    role write = role::user;
    bool secret = false;
    bool live_row = false; // inside the template of a live table
    bool argument = false;
    bool output = false;
    int depth = 0;
    std::string path;
};

class loader
{
public:
    loader(const device_backend *behind, std::string *error) : behind_(behind), error_(error) {}

    bool known_top(json_t *document);
    bool children(json_t *members, const surroundings &around, scheme *into);
    bool node(json_t *source, const surroundings &around, scheme *into);

private:
    bool fail(const surroundings &around, const std::string &what)
    {
        if (error_->empty())
            *error_ = (around.path.empty() ? std::string("the root") : around.path) + ": " + what;
        return false;
    }
    bool known_keys(json_t *source, const surroundings &around, std::initializer_list<std::string_view> keys);
    bool known_provider(const surroundings &around, const scheme &of, const char *key, backend_use use);
    bool flags(json_t *source, surroundings *around, scheme *into);
    bool values(json_t *source, const surroundings &around, scheme *into);
    bool events(json_t *source, const surroundings &around);
    bool limits(json_t *source, const surroundings &around, scheme *into);
    bool parameter(json_t *source, const surroundings &around, scheme *into);
    bool table(json_t *source, const surroundings &around, scheme *into);
    bool method(json_t *source, const surroundings &around, scheme *into);
    bool boolean(json_t *source, const surroundings &around, const char *key, bool *out);
    bool text(json_t *source, const surroundings &around, const char *key, std::string *out);
    bool integer(json_t *source, const surroundings &around, const char *key, std::optional<int64_t> *out);
    bool level(json_t *source, const surroundings &around, const char *key, role *out);
    bool synthetic(const surroundings &around, scheme *into, const char *name, source from, value_type type,
                   const char *empty);

    const device_backend *behind_; // null: all names are good
    std::string *error_;
};

// What may stand at every node: the last four are for people.
constexpr std::string_view common_keys[] = {"type",        "multi",   "access",      "read",        "write",
                                            "secret",      "runtime", "handler_get", "handler_set", "live",
                                            "description", "version", "status",      "units"};

bool loader::known_keys(json_t *source, const surroundings &around, std::initializer_list<std::string_view> keys)
{
    const char *key = nullptr;
    json_t *value = nullptr;
    json_object_foreach(source, key, value)
    {
        if (std::find(std::begin(common_keys), std::end(common_keys), key) == std::end(common_keys) &&
            std::find(keys.begin(), keys.end(), key) == keys.end())
            return fail(around, "unknown key \"" + std::string(key) + "\"");
    }
    return true;
}

bool loader::known_top(json_t *document)
{
    const char *key = nullptr;
    json_t *value = nullptr;
    json_object_foreach(document, key, value)
    {
        const std::string_view name = key;
        if (name != "format" && name != "root" && name != "description")
            return fail({}, "unknown key \"" + std::string(name) + "\" beside it");
    }
    return true;
}

bool loader::known_provider(const surroundings &around, const scheme &of, const char *key, backend_use use)
{
    return of.provider.empty() || behind_ == nullptr || behind_->knows(use, of.provider) ||
           fail(around, std::string("\"") + key + "\" names an unknown \"" + of.provider + "\"");
}

bool loader::boolean(json_t *source, const surroundings &around, const char *key, bool *out)
{
    json_t *value = json_object_get(source, key);
    if (value == nullptr)
        return true;
    if (!json_is_boolean(value))
        return fail(around, std::string("\"") + key + "\" must be true or false");
    *out = json_is_true(value);
    return true;
}

bool loader::text(json_t *source, const surroundings &around, const char *key, std::string *out)
{
    json_t *value = json_object_get(source, key);
    if (value == nullptr)
        return true;
    if (!json_is_string(value))
        return fail(around, std::string("\"") + key + "\" must be a text");
    out->assign(json_string_value(value), json_string_length(value));
    return true;
}

bool loader::integer(json_t *source, const surroundings &around, const char *key, std::optional<int64_t> *out)
{
    json_t *value = json_object_get(source, key);
    if (value == nullptr)
        return true;
    if (!json_is_integer(value))
        return fail(around, std::string("\"") + key + "\" must be an integer");
    *out = json_integer_value(value);
    return true;
}

bool loader::level(json_t *source, const surroundings &around, const char *key, role *out)
{
    std::string name;
    if (!text(source, around, key, &name))
        return false;
    if (name == "public")
        *out = role::anonymous;
    else if (name == "user")
        *out = role::user;
    else if (name == "admin")
        *out = role::administrator;
    else if (!name.empty())
        return fail(around, std::string("\"") + key + "\" must be \"public\", \"user\" or \"admin\"");
    return true;
}

bool loader::flags(json_t *source, surroundings *around, scheme *into)
{
    std::string access = "readOnly";
    bool ok = text(source, *around, "access", &access) && boolean(source, *around, "ordered", &into->ordered) &&
              boolean(source, *around, "runtime", &into->runtime) &&
              boolean(source, *around, "unique", &into->unique) &&
              boolean(source, *around, "secret", &around->secret) && level(source, *around, "read", &around->read) &&
              level(source, *around, "write", &around->write) && text(source, *around, "live", &into->provider) &&
              text(source, *around, "handler_get", &into->handler_get) &&
              text(source, *around, "handler_set", &into->handler_set);
    if (!ok)
        return false;
    if (access != "readOnly" && access != "readWrite")
        return fail(*around, "\"access\" must be \"readOnly\" or \"readWrite\"");
    into->writable = access == "readWrite";
    into->secret = around->secret;
    into->read = around->read;
    into->write = around->write;
    into->argument = around->argument;
    into->output = around->output;
    return true;
}

bool loader::limits(json_t *source, const surroundings &around, scheme *into)
{
    return integer(source, around, "minInclusive", &into->min_inclusive) &&
           integer(source, around, "maxInclusive", &into->max_inclusive) &&
           integer(source, around, "minLength", &into->min_length) &&
           integer(source, around, "maxLength", &into->max_length) &&
           integer(source, around, "minCount", &into->min_count) &&
           integer(source, around, "maxCount", &into->max_count);
}

// What stands beside a parameter's constraints fulfils them.
bool loader::values(json_t *source, const surroundings &around, scheme *into)
{
    const std::string type = type_name(into->type);
    if (json_t *list = json_object_get(source, "enum")) {
        if (!json_is_array(list))
            return fail(around, "\"enum\" must be an array");
        json_ref allowed{json_array()};
        for (size_t i = 0; i < json_array_size(list); ++i) {
            json_t *const item = json_array_get(list, i);
            json_ref kept;
            if (!value_fits_type(*into, item, &kept))
                return fail(around, "\"enum\" holds what is no " + type);
            // A number in digits is compared as the values are kept.
            json_array_append(allowed.get(), into->type == value_type::uint64 ? kept.get() : item);
        }
        if (json_array_size(list) > 0)
            into->enumeration = std::move(allowed);
    }
    if (json_t *off = json_object_get(source, "offValue"))
        if (!value_fits_type(*into, off, &into->off_value))
            return fail(around, "\"offValue\" is no " + type);

    json_t *initial = json_object_get(source, "default");
    if (initial == nullptr)
        return fail(around, "a parameter must have a \"default\"");
    json_ref kept;
    if (!value_fits_type(*into, initial, &kept))
        return fail(around, "\"default\" is no " + type);
    // Nobody can make up a text that fits a pattern, or a path that leads somewhere: until one is known, it is
    // empty. And it may be a list of one empty item.
    const bool unknown = json_is_string(initial) && json_string_length(initial) == 0 && !into->enumeration &&
                         (into->regex || into->type != value_type::string || (into->rules && into->rules->leads) ||
                          into->min_count == 1);
    if (const fault problem = value_check(*into, initial, &kept); problem && !unknown)
        return fail(around, "\"default\" " + problem.message);
    value_fits_type(*into, initial, &into->initial);
    if (into->handler_set == "password" && !json_is_string(initial))
        return fail(around, "a password must be a text");
    if (json_t *factory = json_object_get(source, "value")) {
        if (!value_fits_type(*into, factory, &into->factory))
            return fail(around, "\"value\" is no " + type);
        if (const fault problem = factory_value_check(*into, factory))
            return fail(around, "\"value\" " + problem.message);
    }
    return true;
}

bool loader::parameter(json_t *source, const surroundings &around, scheme *into)
{
    into->kind = node_kind::parameter;
    if (!known_keys(source, around, {"default",    "value",     "enum",     "minInclusive", "maxInclusive", "minLength",
                                     "maxLength",  "minCount",  "maxCount", "regex",        "offValue",     "unique",
                                     "entries",    "ranges",    "lengths",  "itemRanges",   "itemLengths",  "targets",
                                     "targetType", "mandatory", "valuesOf", "itemsOf",      "nullValue"}))
        return false;
    std::string expression;
    if (!text(source, around, "regex", &expression))
        return false;
    if (!expression.empty()) {
        std::string why;
        into->regex = pattern::compile(expression, &why);
        if (!into->regex)
            return fail(around, "\"regex\": " + why);
    }
    if (const std::string problem = rules_load(source, into); !problem.empty())
        return fail(around, problem);
    if (!values(source, around, into))
        return false;
    std::string counted;
    if (!text(source, around, "entries", &counted))
        return false;
    if (!into->provider.empty()) {
        into->from = around.live_row ? source::row_field : source::live;
        return around.live_row || known_provider(around, *into, "live", backend_use::read);
    }
    if (!counted.empty()) {
        if (!json_is_integer(into->initial.get()))
            return fail(around, "\"entries\" belongs to an integer");
        into->from = source::count;
        into->provider = counted;
    }
    return true;
}

bool loader::synthetic(const surroundings &around, scheme *into, const char *name, enum source from, value_type type,
                       const char *empty)
{
    if (into->find(name) >= 0)
        return fail(around, std::string("\"") + name + "\" is not written down");
    auto made = std::make_unique<scheme>();
    made->name = name;
    made->parent = into;
    made->kind = node_kind::parameter;
    made->type = type;
    made->from = from;
    made->read = into->read;
    made->write = into->write;
    made->reach = into->read;
    made->initial.reset(empty != nullptr ? json_string(empty) : json_integer(0));
    into->children.push_back(std::move(made));
    into->index.emplace(into->children.back()->name, static_cast<uint32_t>(into->children.size() - 1));
    return true;
}

bool loader::table(json_t *source, const surroundings &around, scheme *into)
{
    into->kind = node_kind::table;
    if (!known_keys(source, around,
                    {"template", "instances", "ordered", "order", "minCount", "maxCount", "own", "keys"}))
        return false;
    json_t *element = json_object_get(source, "template");
    if (!json_is_object(element))
        return fail(around, "a multi-instance object must have a \"template\"");
    surroundings below = around;
    below.depth += 1;
    below.path += "{i}.";
    below.live_row = around.live_row || !into->provider.empty();
    if (!into->provider.empty())
        into->from = around.live_row ? source::row_table : source::live;
    if (!around.live_row && !known_provider(around, *into, "live", backend_use::list))
        return false;
    into->element = std::make_unique<scheme>();
    into->element->parent = into;
    if (!node(element, below, into->element.get()))
        return false;
    if (into->element->kind == node_kind::table || into->element->kind == node_kind::method)
        return fail(around, "\"template\" must be an object or a parameter");
    if (const std::string problem = keys_load(source, into); !problem.empty())
        return fail(around, problem);
    into->deletable = into->element->is_object() ? into->element->writable : into->writable;

    if (json_t *own = json_object_get(source, "own")) {
        surroundings beside = around;
        beside.live_row = false;
        if (!json_is_object(own) || !children(own, beside, into))
            return fail(around, "\"own\" must hold parameters");
        for (const auto &child : into->children) {
            if (child->kind != node_kind::parameter)
                return fail(around, "\"own\" must hold parameters");
        }
    }
    if (!synthetic(around, into, "max_instance", source::max_instance, value_type::uint32, nullptr) ||
        (into->ordered && !synthetic(around, into, "order", source::order, value_type::string, "")))
        return false;

    if (json_t *instances = json_object_get(source, "instances")) {
        if (!json_is_object(instances))
            return fail(around, "\"instances\" must be an object");
        into->instances = json_ref::share(instances);
    }
    if (into->min_count == into->max_count && into->min_count.value_or(0) > scheme_most_fixed)
        return fail(around,
                    "a table has at most " + std::to_string(scheme_most_fixed) + " instances from the beginning");
    if (json_t *order = json_object_get(source, "order")) {
        if (!json_is_array(order))
            return fail(around, "\"order\" must be an array");
        into->first_order = json_ref::share(order);
    }
    return true;
}

bool loader::method(json_t *source, const surroundings &around, scheme *into)
{
    into->kind = node_kind::method;
    if (!known_keys(source, around, {"method", "input", "output"}) ||
        !text(source, around, "method", &into->provider) || !known_provider(around, *into, "method", backend_use::run))
        return false;
    for (const char *direction : {"input", "output"}) {
        json_t *arguments = json_object_get(source, direction);
        if (arguments == nullptr)
            continue;
        surroundings below = around;
        below.argument = true;
        below.output = direction[0] == 'o';
        below.live_row = false;
        if (!json_is_object(arguments) || !children(arguments, below, into))
            return fail(around, std::string("\"") + direction + "\" must be an object of arguments");
    }
    return true;
}

// Events are described for people; they have to be described rightly all the same.
bool loader::events(json_t *source, const surroundings &around)
{
    json_t *members = json_object_get(source, "events");
    if (members != nullptr && !json_is_object(members))
        return fail(around, "\"events\" must be an object");
    const char *key = nullptr;
    json_t *value = nullptr;
    json_object_foreach(members, key, value)
    {
        surroundings below = around;
        below.path += std::string(key) + "!";
        below.argument = true;
        json_t *arguments = json_object_get(value, "arguments");
        scheme unserved;
        if (!scheme_name_fits(key, false) || !json_is_object(value))
            return fail(below, "no good event");
        if (!known_keys(value, below, {"arguments"}))
            return false;
        if (arguments != nullptr && (!json_is_object(arguments) || !children(arguments, below, &unserved)))
            return fail(below, "\"arguments\" must be an object of arguments");
    }
    return true;
}

bool loader::node(json_t *source, const surroundings &outer, scheme *into)
{
    surroundings around = outer;
    if (around.depth > scheme_deepest)
        return fail(around, "nested too deep");
    if (!json_is_object(source))
        return fail(around, "a node must be an object");
    std::string type;
    bool multi = false;
    if (!text(source, around, "type", &type) || !boolean(source, around, "multi", &multi))
        return false;
    if (type == "method") {
        if (around.argument)
            return fail(around, "a method cannot be an argument");
        return flags(source, &around, into) && method(source, around, into);
    }
    if (type == "object" || type.empty()) {
        if (!around.path.empty() && around.path.back() != '.')
            around.path += '.';
        if (!flags(source, &around, into) || !limits(source, around, into))
            return false;
        if (multi)
            return around.argument ? fail(around, "an argument cannot be multi-instance") : table(source, around, into);
        if (!known_keys(source, around, {"children", "events"}) || !events(source, around))
            return false;
        json_t *members = json_object_get(source, "children");
        if (members != nullptr && !json_is_object(members))
            return fail(around, "\"children\" must be an object");
        return children(members, around, into);
    }
    for (size_t i = 1; i <= static_cast<size_t>(value_type::toggle); ++i) {
        if (type == type_name(static_cast<value_type>(i)))
            into->type = static_cast<value_type>(i);
    }
    if (into->type == value_type::none)
        return fail(around, "unknown type \"" + type + "\"");
    return flags(source, &around, into) && limits(source, around, into) && parameter(source, around, into);
}

bool loader::children(json_t *members, const surroundings &around, scheme *into)
{
    const char *key = nullptr;
    json_t *value = nullptr;
    json_object_foreach(members, key, value)
    {
        surroundings below = around;
        below.depth += 1;
        below.path += (around.path.empty() || around.path.back() == '.' ? "" : ".") + std::string(key);
        if (!scheme_name_fits(key, around.argument))
            return fail(below, "not a good name for a node");
        if (const int at = into->find(key); at >= 0) {
            // An object of inputs may hold outputs too.
            scheme *present = into->children[static_cast<size_t>(at)].get();
            json_t *more = json_object_get(value, "children");
            if (!around.argument || !present->is_object() || !json_is_object(more))
                return fail(below, "named twice");
            if (!children(more, below, present))
                return false;
            continue;
        }
        auto child = std::make_unique<scheme>();
        child->name = key;
        child->parent = into;
        if (!node(value, below, child.get()))
            return false;
        into->children.push_back(std::move(child));
        into->index.emplace(into->children.back()->name, static_cast<uint32_t>(into->children.size() - 1));
    }
    return true;
}

/// Where a node is described, with "{i}" for what every instance of a table is.
std::string path_of(const scheme *what)
{
    if (what->parent == nullptr)
        return "";
    const std::string above = path_of(what->parent);
    return (above.empty() ? "" : above + ".") + (what->name.empty() ? "{i}" : what->name);
}

// Parameters with "entries" count the instances of the table of that name beside them.
bool connect_counts(scheme *what, std::string *error)
{
    for (const auto &child : what->children) {
        if (child->from != source::count)
            continue;
        const int table = what->find(child->provider);
        if (table < 0 || what->children[static_cast<size_t>(table)]->kind != node_kind::table) {
            *error = path_of(child.get()) + ": \"entries\" names no table beside it";
            return false;
        }
        child->counted = static_cast<size_t>(table);
    }
    return true;
}

bool finish(scheme *what, std::string *error)
{
    if (!connect_counts(what, error))
        return false;
    what->reach = what->read;
    for (const auto &child : what->children) {
        if (!finish(child.get(), error))
            return false;
        what->reach = std::min(what->reach, child->reach);
        what->furnished = what->furnished || child->furnished;
    }
    what->furnished = what->furnished || what->instances || what->fixed_count() > 0;
    if (what->element) {
        if (!finish(what->element.get(), error))
            return false;
        what->reach = std::min(what->reach, what->element->reach);
    }
    return true;
}

} // namespace

// Arguments of methods may be numbered like instances: "Result.1.Status".
bool scheme_name_fits(std::string_view name, bool argument)
{
    if (name.empty() || name.size() > 128)
        return false;
    if (!argument && isalpha(static_cast<unsigned char>(name[0])) == 0 && name[0] != '_')
        return false;
    return std::all_of(name.begin(), name.end(),
                       [](unsigned char c) { return isalnum(c) != 0 || c == '_' || c == '-'; });
}

bool scheme_node_holds(json_t *description, std::string *error)
{
    error->clear();
    scheme made;
    surroundings around;
    around.path = "it";
    if (loader(nullptr, error).node(description, around, &made))
        return true;
    error->erase(0, error->find(": ") + 2);
    return false;
}

std::unique_ptr<scheme> scheme_load(json_t *document, std::string *error, const device_backend *behind)
{
    error->clear();
    json_t *format = json_object_get(document, "format");
    json_t *members = json_object_get(document, "root");
    if (!json_is_integer(format) || json_integer_value(format) != 1) {
        *error = "not a model document of format 1";
        return nullptr;
    }
    if (!json_is_object(members)) {
        *error = "\"root\" must be an object";
        return nullptr;
    }
    auto root = std::make_unique<scheme>();
    loader work(behind, error);
    if (!work.known_top(document) || !work.children(members, {}, root.get()))
        return nullptr;
    if (!finish(root.get(), error))
        return nullptr;
    return root;
}

} // namespace veld
