#include "veld/import/import.h"

#include "base/file.h"
#include "base/json_write.h"
#include "base/visible.h"
#include "veld/import/data_model.h"
#include "veld/import/types.h"
#include "veld/model/scheme.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace veld
{

namespace
{

constexpr std::string_view instance_mark = "{i}.";

struct known_method {
    std::string_view path;
    const char *implementation;
};

// Commands that this daemon implements with the arguments that the standard gives them.
constexpr known_method known_methods[] = {
    {"Device.IP.Diagnostics.IPPing", "IPPing"},
    {"Device.DNS.Diagnostics.NSLookupDiagnostics", "NSLookup"},
};

// What the daemon itself looks at in the models: logins, which are for administrators to change.
constexpr std::string_view users_object = "Users.";
constexpr std::string_view users_table = "Users.User.{i}.";
constexpr std::string_view password_name = "Password";

// What the daemon has at the root itself.
constexpr const char *version_name = "DataModelVersion";
constexpr std::string_view names_version = "is where the version of the model stands";

std::string_view root_of(std::string_view path)
{
    return path.substr(0, path.find('.') + 1);
}

// Whether a path is that one below any root.
bool is_below_root(std::string_view path, std::string_view rest)
{
    return path.substr(root_of(path).size()) == rest;
}

class builder
{
public:
    builder(const data_model &model, import_counts *counts, import_warnings *warnings)
        : model_(model), counts_(counts), warnings_(warnings)
    {
    }
    json_ref build(const std::vector<const model_declaration *> &chosen);

private:
    struct holder {
        json_t *members; // an object's children, or those of a table's template
        int depth;
    };
    // A parameter that leads somewhere, looked at when everything it can lead to is known.
    struct reference {
        json_t *node;
        std::string object;
        std::string parents;
        std::string type;
        bool from_root;
    };
    // A parameter whose values are the items of another one.
    struct enumeration_reference {
        json_t *node;
        std::string object;
        std::string values_of;
        std::optional<std::string> null_value;
        bool list;
        unsigned long line;
        std::string path;
    };

    bool add_model(const model_declaration &model);
    void add_object(const object_declaration &object);
    void add_keys(json_t *node, json_t *members, const object_declaration &object);
    bool add_parameter(json_t *to, const parameter_declaration &parameter, const std::string &path,
                       const std::string &object);
    void add_command(json_t *to, const command_declaration &command, const std::string &path, int depth);
    void add_event(json_t *to, const event_declaration &event, const std::string &path, int depth);
    void add_arguments(json_t *to, json_t *beside, const std::vector<argument_group> &groups, const std::string &path,
                       int depth, size_t *counted);
    void add_targets(const reference &from);
    void add_values(const enumeration_reference &from);
    std::string target(std::string_view relative, const std::string &object, bool from_root) const;
    std::string target_parameter(const std::string &relative, const std::string &object) const;
    json_t *group(json_t *to, const argument_group &of, const std::string &path);
    void warn(unsigned long line, const std::string &where, const std::string &what)
    {
        warnings_->add(line, where, what);
    }

    const data_model &model_;
    import_counts *counts_;
    import_warnings *warnings_;
    json_t *root_ = nullptr;
    std::unordered_map<std::string, holder> objects_;    // by their paths
    std::unordered_map<std::string, std::string> roots_; // to the model that each is of
    std::vector<reference> references_;
    std::vector<enumeration_reference> enumerations_;
};

// A path without its last name, which goes into `*name`; a table's mark is dropped. False when it is no object's path.
bool split_path(std::string_view path, std::string *parent, std::string *name, bool *table)
{
    *table = path.ends_with(instance_mark);
    if (*table)
        path.remove_suffix(instance_mark.size());
    if (!path.ends_with('.'))
        return false;
    path.remove_suffix(1);
    size_t dot = path.rfind('.');
    *parent = dot == std::string_view::npos ? "" : path.substr(0, dot + 1);
    *name = path.substr(dot == std::string_view::npos ? 0 : dot + 1);
    return !name->empty();
}

void set_text(json_t *node, const char *key, const std::string &text)
{
    if (!text.empty())
        json_object_set_new(node, key, json_stringn(text.data(), text.size()));
}

// What people read; the daemon passes it over.
void set_remarks(json_t *node, const remarks &about)
{
    set_text(node, "description", about.description);
    set_text(node, "version", about.version);
    set_text(node, "status", about.status);
    set_text(node, "units", about.units);
}

void builder::add_object(const object_declaration &object)
{
    std::string parent;
    std::string name;
    bool table = false;
    if (!split_path(object.path, &parent, &name, &table))
        return warn(object.line, "\"" + object.path + "\"", "is no path of an object; left out");
    auto above = objects_.find(parent);
    if (above == objects_.end()) // below something that was deleted everything is, marked or not
        return warn(object.line, object.path, "there is no " + parent + "; left out");
    int depth = above->second.depth + (table ? 2 : 1);
    json_t *beside = above->second.members;
    if (!scheme_name_fits(name, false))
        return warn(object.line, object.path, "\"" + name + "\" is no name that can be served; left out");
    if (parent.empty() && name == version_name)
        return warn(object.line, object.path, std::string(names_version) + "; left out");
    if (depth >= scheme_deepest)
        return warn(object.line, object.path, "is nested too deep; left out");
    if (json_object_get(beside, name.c_str()) != nullptr)
        return warn(object.line, object.path, "is declared twice; left out");

    json_t *node = json_object();
    json_object_set_new(beside, name.c_str(), node);
    json_object_set_new(node, "type", json_string("object"));
    json_t *element = node;
    if (table) {
        element = json_object();
        if (object.writable)
            json_object_set_new(node, "access", json_string("readWrite"));
        json_object_set_new(node, "multi", json_true());
        const int64_t least = object.min_entries.value_or(0);
        if (least > object.max_entries.value_or(least) || (least == object.max_entries && least > scheme_most_fixed))
            warn(object.line, object.path, "cannot have " + std::to_string(least) + " instances always; left out");
        else if (least > 0)
            json_object_set_new(node, "minCount", json_integer(least));
        if (object.max_entries)
            json_object_set_new(node, "maxCount", json_integer(*object.max_entries));
        json_object_set_new(node, "template", element);
        json_object_set_new(element, "type", json_string("object"));
        if (object.writable)
            json_object_set_new(element, "access", json_string("readWrite"));
        counts_->tables++;
    }
    if (is_below_root(object.path, users_object) || is_below_root(object.path, users_table))
        json_object_set_new(node, "write", json_string("admin"));
    set_remarks(node, object.about);
    json_t *members = json_object();
    json_object_set_new(element, "children", members);
    objects_[object.path] = {members, depth};
    counts_->objects++;

    if (table && !object.counter.empty()) {
        json_t *counter = json_object_get(beside, object.counter.c_str());
        if (json_is_integer(json_object_get(counter, "default")))
            json_object_set_new(counter, "entries", json_string(name.c_str()));
        else
            warn(object.line, object.path, "there is no number \"" + object.counter + "\" that counts its instances");
    }
    for (const parameter_declaration &parameter : object.parameters)
        counts_->parameters += add_parameter(members, parameter, object.path, object.path) ? 1 : 0;
    if (table)
        add_keys(node, members, object);
    for (const command_declaration &command : object.commands)
        add_command(members, command, object.path, depth + 1);
    for (const event_declaration &event : object.events)
        add_event(element, event, object.path, depth + 1);
    if (json_t *password = json_object_get(members, std::string(password_name).c_str());
        password != nullptr && is_below_root(object.path, users_table)) {
        json_object_set_new(password, "secret", json_true());
        if (json_is_string(json_object_get(password, "default")))
            json_object_set_new(password, "handler_set", json_string("password"));
    }
}

void builder::add_keys(json_t *node, json_t *members, const object_declaration &object)
{
    json_ref several(json_array());
    for (const key_declaration &key : object.keys) {
        json_ref names(json_array());
        for (const std::string &name : key.parameters) {
            if (!json_is_object(json_object_get(json_object_get(members, name.c_str()), "children")) &&
                json_object_get(members, name.c_str()) != nullptr)
                json_array_append_new(names.get(), json_string(name.c_str()));
            else
                warn(key.line, object.path, "there is no \"" + name + "\" for a unique key; the key is left out");
        }
        if (json_array_size(names.get()) != key.parameters.size())
            continue;
        // A text that is empty at first can be unique by itself: new instances can be added beside each other.
        json_t *alone = key.parameters.size() == 1 ? json_object_get(members, key.parameters[0].c_str()) : nullptr;
        const char *initial = json_string_value(json_object_get(alone, "default"));
        if (initial != nullptr && *initial == '\0') {
            json_object_set_new(alone, "unique", json_true());
            continue;
        }
        json_t *one = json_object();
        json_object_set_new(one, "parameters", names.release());
        if (key.functional && json_object_get(members, object.enabler.c_str()) != nullptr)
            json_object_set_new(one, "enable", json_string(object.enabler.c_str()));
        json_array_append_new(several.get(), one);
    }
    if (json_array_size(several.get()) > 0)
        json_object_set_new(node, "keys", several.release());
}

// `path` is what the name stands behind, `object` the object that it is of; empty for what is no parameter of an
// object.
bool builder::add_parameter(json_t *to, const parameter_declaration &parameter, const std::string &path,
                            const std::string &object)
{
    std::string what = path + parameter.name;
    auto refuse = [&](const std::string &why) {
        warn(parameter.line, what, why + "; left out");
        return false;
    };
    if (!scheme_name_fits(parameter.name, object.empty() && !path.empty()))
        return refuse("\"" + parameter.name + "\" is no name that can be served");
    if (path.empty() && parameter.name == version_name)
        return refuse(std::string(names_version));
    if (json_object_get(to, parameter.name.c_str()) != nullptr)
        return refuse("is declared twice");
    resolved_type type;
    std::string problem;
    if (!resolve_type(model_, parameter.form, &type, &problem))
        return refuse(problem);
    auto described = [&](bool declared) {
        json_ref node(json_object());
        describe_type(node.get(), type, parameter.form, declared, [&](const std::string &why) {
            if (declared)
                warn(parameter.line, what, why);
        });
        if (type.path && !type.nested && !object.empty()) // filled in when all that it can lead to is known
            json_object_set_new(node.get(), "targets", json_array());
        return node;
    };
    json_ref node = described(true);
    if (!scheme_node_holds(node.get(), &problem)) {
        if (parameter.form.initial)
            warn(parameter.line, what, problem + "; the default is left out");
        node = described(false);
        if (!scheme_node_holds(node.get(), &problem))
            return refuse(problem);
    }
    if (parameter.writable)
        json_object_set_new(node.get(), "access", json_string("readWrite"));
    if (parameter.mandatory)
        json_object_set_new(node.get(), "mandatory", json_true());
    set_remarks(node.get(), parameter.about);
    if (type.path && !type.nested && !object.empty())
        references_.push_back({node.get(), object, type.target_parents, type.target_type, type.from_root});
    if (!type.values_of.empty() && std::string_view(json_string_value(json_object_get(node.get(), "type"))) != "string")
        warn(parameter.line, what,
             "that its values are those of \"" + type.values_of + "\" is kept of a text only; left out");
    else if (!type.values_of.empty() && !type.nested && !object.empty())
        enumerations_.push_back({node.get(), object, type.values_of, type.null_value, type.list, parameter.line, what});
    json_object_set_new(to, parameter.name.c_str(), node.release());
    return true;
}

// The path that `relative` leads to from an object, "Device.X.{i}."; empty when there is no such object.
std::string builder::target(std::string_view relative, const std::string &object, bool from_root) const
{
    std::string path;
    const bool absolute = roots_.count(std::string(root_of(relative))) != 0;
    if (relative.starts_with('.') ||
        (from_root && !absolute &&
         !relative.starts_with('#'))) { // below the root, or the service that the object is part of
        path = root_of(object);
        path += objects_.count(path) == 0 ? instance_mark : "";
        path += relative.substr(relative.starts_with('.') ? 1 : 0);
    } else if (relative.starts_with('#')) {
        std::string parent = object;
        std::string name;
        bool table = false;
        for (; relative.starts_with('#'); relative.remove_prefix(1))
            if (std::string up; split_path(parent, &up, &name, &table))
                parent = up;
        path = parent + std::string(relative.substr(relative.starts_with('.') ? 1 : 0));
    } else {
        path = (absolute ? "" : object) + std::string(relative);
    }
    if (!path.ends_with('.'))
        path += '.';
    return objects_.count(path) != 0 || objects_.count(path + std::string(instance_mark)) != 0 ? path : "";
}

void builder::add_targets(const reference &from)
{
    json_t *list = json_array();
    std::string_view rest = from.parents;
    while (!rest.empty()) {
        std::string_view one = rest.substr(0, rest.find(' '));
        rest.remove_prefix(std::min(one.size() + 1, rest.size()));
        if (std::string path = target(one, from.object, from.from_root); !path.empty())
            json_array_append_new(list, json_string(path.c_str()));
    }
    json_object_set_new(from.node, "targets", list);
    for (const char *known : {"parameter", "object", "single", "table", "row"})
        if (from.type == known)
            json_object_set_new(from.node, "targetType", json_string(known));
}

// The path of the parameter that `relative` leads to from an object; empty when there is none.
std::string builder::target_parameter(const std::string &relative, const std::string &object) const
{
    const size_t dot = relative.rfind('.');
    const std::string within = dot == std::string::npos ? object : target(relative.substr(0, dot + 1), object, false);
    const std::string name = relative.substr(dot == std::string::npos ? 0 : dot + 1);
    const auto found = objects_.find(within);
    const json_t *node = found == objects_.end() ? nullptr : json_object_get(found->second.members, name.c_str());
    const char *type = json_string_value(json_object_get(node, "type"));
    const bool parameter = type != nullptr && std::string_view(type) != "object" && std::string_view(type) != "method";
    return parameter ? within + name : "";
}

void builder::add_values(const enumeration_reference &from)
{
    const std::string path = target_parameter(from.values_of, from.object);
    if (path.empty())
        return warn(from.line, from.path,
                    "its values are to be those of \"" + from.values_of + "\", which is no parameter; left out");
    json_object_set_new(from.node, from.list ? "itemsOf" : "valuesOf", json_string(path.c_str()));
    if (from.null_value)
        json_object_set_new(from.node, "nullValue", json_string(from.null_value->c_str()));
}

// The object of a group of arguments, "Result.{i}.Address.{i}.": a table is its first instance.
json_t *builder::group(json_t *to, const argument_group &of, const std::string &path)
{
    std::string_view rest = of.path;
    while (!rest.empty()) {
        size_t dot = rest.find('.');
        std::string name(rest.substr(0, dot));
        if (dot == std::string_view::npos || (name != "{i}" && !scheme_name_fits(name, true))) {
            warn(of.line, path + "." + of.path, "is no path of an object; left out");
            return nullptr;
        }
        rest.remove_prefix(dot + 1);
        if (name == "{i}")
            name = "1";
        json_t *node = json_object_get(to, name.c_str());
        if (node == nullptr) {
            node = json_pack("{s:s, s:{}}", "type", "object", "children");
            json_object_set_new(to, name.c_str(), node);
        }
        to = json_object_get(node, "children");
        if (to == nullptr) {
            warn(of.line, path + "." + of.path, "is a parameter and an object; left out");
            return nullptr;
        }
    }
    return to;
}

// The arguments of one direction, which stand `depth` levels below the root. What stands in `beside` already, by the
// same names, is left out.
void builder::add_arguments(json_t *to, json_t *beside, const std::vector<argument_group> &groups,
                            const std::string &path, int depth, size_t *counted)
{
    for (const argument_group &each : groups) {
        if (each.path.empty() && each.parameters.empty())
            continue;
        if (depth + std::count(each.path.begin(), each.path.end(), '.') > scheme_deepest) {
            warn(each.line, path + "." + each.path, "is nested too deep; left out");
            continue;
        }
        json_t *members = group(to, each, path);
        if (members == nullptr)
            continue;
        for (const parameter_declaration &parameter : each.parameters) {
            // What the device tells needs no check.
            if (const auto &type = parameter.form.type; counted == &counts_->inputs && type && !type->values_of.empty())
                warn(parameter.line, path + "." + each.path + parameter.name,
                     "that its values are those of \"" + type->values_of + "\" is not kept of an argument; left out");
            json_t *other = beside;
            std::string_view rest = each.path;
            for (; other != nullptr && !rest.empty(); rest.remove_prefix(rest.find('.') + 1)) {
                std::string name(rest.substr(0, rest.find('.')));
                other = json_object_get(json_object_get(other, name == "{i}" ? "1" : name.c_str()), "children");
            }
            if (json_object_get(other, parameter.name.c_str()) != nullptr ||
                add_parameter(members, parameter, path + "." + each.path, ""))
                (*counted)++;
        }
    }
}

void builder::add_command(json_t *to, const command_declaration &command, const std::string &path, int depth)
{
    std::string what = path + command.name;
    if (!scheme_name_fits(command.name, false))
        return warn(command.line, what, "\"" + command.name + "\" is no name that can be served; left out");
    if (json_object_get(to, command.name.c_str()) != nullptr)
        return warn(command.line, what, "is declared twice; left out");
    json_t *node = json_pack("{s:s, s:{}, s:{}}", "type", "method", "input", "output");
    json_object_set_new(to, command.name.c_str(), node);
    for (const known_method &known : known_methods)
        if (known.path == what)
            json_object_set_new(node, "method", json_string(known.implementation));
    set_remarks(node, command.about);
    counts_->commands++;
    json_t *input = json_object_get(node, "input");
    add_arguments(input, nullptr, command.input, what, depth + 1, &counts_->inputs);
    add_arguments(json_object_get(node, "output"), input, command.output, what, depth + 1, &counts_->outputs);
}

// Events are described, no more: the protocol has no name for them.
void builder::add_event(json_t *to, const event_declaration &event, const std::string &path, int depth)
{
    std::string what = path + event.name + "!";
    if (!scheme_name_fits(event.name, false))
        return warn(event.line, what, "\"" + event.name + "\" is no name of an event; left out");
    json_t *events = json_object_get(to, "events");
    if (events == nullptr) {
        events = json_object();
        json_object_set_new(to, "events", events);
    }
    if (json_object_get(events, event.name.c_str()) != nullptr)
        return warn(event.line, what, "is declared twice; left out");
    json_t *node = json_pack("{s:{}}", "arguments");
    json_object_set_new(events, event.name.c_str(), node);
    set_remarks(node, event.about);
    counts_->events++;
    size_t counted = 0;
    add_arguments(json_object_get(node, "arguments"), nullptr, event.arguments, what, depth, &counted);
}

bool builder::add_model(const model_declaration &model)
{
    for (const object_declaration &object : model.objects) {
        auto taken = roots_.find(std::string(root_of(object.path)));
        if (taken != roots_.end() && taken->second != model.name) {
            warn(model.line, model.name,
                 "its root " + taken->first + " is that of " + taken->second + " already; left out");
            return false;
        }
    }
    for (const object_declaration &object : model.objects)
        roots_[std::string(root_of(object.path))] = model.name;
    for (const parameter_declaration &parameter : model.parameters)
        counts_->parameters += add_parameter(root_, parameter, "", "") ? 1 : 0;
    // What stands above is made first.
    std::vector<const object_declaration *> ordered;
    for (const object_declaration &object : model.objects)
        ordered.push_back(&object);
    auto depth = [](const object_declaration *of) { return std::count(of->path.begin(), of->path.end(), '.'); };
    std::stable_sort(ordered.begin(), ordered.end(), [&](const auto *a, const auto *b) { return depth(a) < depth(b); });
    for (const object_declaration *object : ordered)
        add_object(*object);
    return true;
}

json_ref builder::build(const std::vector<const model_declaration *> &chosen)
{
    json_ref document(json_pack("{s:i, s:{}}", "format", 1, "root"));
    root_ = json_object_get(document.get(), "root");
    objects_[""] = {root_, 0};
    std::vector<const model_declaration *> served;
    for (const model_declaration *model : chosen)
        if (add_model(*model))
            served.push_back(model);
    for (const reference &each : references_)
        add_targets(each);
    for (const enumeration_reference &each : enumerations_)
        add_values(each);
    std::string version;
    for (const model_declaration *model : served)
        version += (version.empty() ? "" : ",") + model->name;
    if (served.size() == 1) {
        size_t colon = version.find(':');
        version.erase(0, colon == std::string::npos ? version.size() : colon + 1);
    }
    json_object_set_new(root_, version_name, json_pack("{s:s, s:s}", "type", "string", "default", version.c_str()));
    return document;
}

// The models that are to be served: all of them, or the one of that name, with or without its version.
std::vector<const model_declaration *> choose(const data_model &from, const std::string &name, std::string *error)
{
    std::vector<const model_declaration *> all;
    std::vector<const model_declaration *> named;
    std::string names;
    for (const model_declaration &model : from.models) {
        all.push_back(&model);
        names += (names.empty() ? "" : ", ") + model.name;
        if (model.name == name)
            return {&model};
        if (model.name.substr(0, model.name.find(':')) == name)
            named.push_back(&model);
    }
    if (name.empty())
        return all;
    if (named.size() == 1)
        return named;
    *error = (named.empty() ? "holds no model \"" : "holds several models \"") + name + "\"; its models are " + names;
    return {};
}

} // namespace

json_ref import_model(const char *path, const std::string &name, import_counts *counts, import_warnings *warnings,
                      std::string *error)
{
    data_model model;
    if (!read_data_model(path, &model, warnings, error))
        return {};
    *counts = {};
    std::vector<const model_declaration *> chosen = choose(model, name, error);
    if (chosen.empty())
        return {};
    json_ref document = builder(model, counts, warnings).build(chosen);
    if (counts->objects == 0) {
        *error = "none of its objects stands at the root";
        return {};
    }
    if (!scheme_load(document.get(), error))
        document.reset();
    return document;
}

int import_run(const char *path, const std::string &name, const std::string &output)
{
    import_counts counts;
    import_warnings warnings;
    std::string error;
    json_ref document = import_model(path, name, &counts, &warnings, &error);
    if (!document) {
        fprintf(stderr, "veld: %s: %s\n", path, error.c_str());
        return EXIT_FAILURE;
    }
    const std::string text = json_written(document.get(), JSON_INDENT(1)) + "\n";
    if (!write_result(output, [&text](int fd) { return write_all(fd, text); })) {
        fprintf(stderr, "veld: %s: %s\n", output.empty() ? "standard output" : output.c_str(), strerror(errno));
        return EXIT_FAILURE;
    }
    for (const std::string &line : warnings.lines())
        fprintf(stderr, "veld: %s: warning: %s\n", path, visible(line).c_str());
    fprintf(stderr,
            "veld: imported %zu objects (%zu of them tables), %zu parameters, %zu commands with %zu input and %zu "
            "output arguments\n",
            counts.objects, counts.tables, counts.parameters, counts.commands, counts.inputs, counts.outputs);
    return EXIT_SUCCESS;
}

} // namespace veld
