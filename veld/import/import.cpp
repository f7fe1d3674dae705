#include "veld/import/import.h"

#include "base/fd.h"
#include "base/file.h"
#include "base/json_write.h"
#include "veld/import/data_model.h"
#include "veld/import/types.h"
#include "veld/model/scheme.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <unordered_map>

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

class builder
{
public:
    builder(const data_model &model, import_counts *counts, std::string *warnings, std::string *error)
        : model_(model), counts_(counts), warnings_(warnings), error_(error)
    {
    }
    json_ref build();

private:
    bool add_object(const object_declaration &object);
    bool add_parameter(json_t *to, const parameter_declaration &parameter, const std::string &path);
    bool add_command(json_t *to, const command_declaration &command, const std::string &path);
    bool add_arguments(json_t *to, json_t *beside, const std::vector<argument_group> &groups, const std::string &path,
                       size_t *counted);
    json_t *group(json_t *to, const std::string &relative, unsigned long line);
    bool fail(unsigned long line, const std::string &what)
    {
        *error_ = "line " + std::to_string(line) + ": " + what;
        return false;
    }

    const data_model &model_;
    import_counts *counts_;
    std::string *warnings_;
    std::string *error_;
    json_t *root_ = nullptr;
    std::unordered_map<std::string, json_t *> children_; // of every object so far, by its path
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

bool builder::add_object(const object_declaration &object)
{
    std::string parent;
    std::string name;
    bool table = false;
    if (!split_path(object.path, &parent, &name, &table))
        return fail(object.line, "\"" + object.path + "\" is no path of an object");
    auto above = children_.find(parent);
    if (above == children_.end()) {
        // Below something that was deleted everything is, marked or not.
        *warnings_ += object.path + ": is left out, since there is no " + parent + "\n";
        return true;
    }
    if (json_object_get(above->second, name.c_str()) != nullptr)
        return fail(object.line, object.path + " is declared twice");

    json_t *node = json_object();
    json_object_set_new(above->second, name.c_str(), node);
    json_object_set_new(node, "type", json_string("object"));
    json_t *holder = node;
    if (table) {
        json_t *element = json_object();
        if (object.writable)
            json_object_set_new(node, "access", json_string("readWrite"));
        json_object_set_new(node, "multi", json_true());
        if (object.min_entries.value_or(0) > 0)
            json_object_set_new(node, "minCount", json_integer(*object.min_entries));
        if (object.max_entries)
            json_object_set_new(node, "maxCount", json_integer(*object.max_entries));
        json_object_set_new(node, "template", element);
        json_object_set_new(element, "type", json_string("object"));
        if (object.writable)
            json_object_set_new(element, "access", json_string("readWrite"));
        holder = element;
        counts_->tables++;
    }
    json_t *members = json_object();
    json_object_set_new(holder, "children", members);
    children_[object.path] = members;
    counts_->objects++;

    if (table && !object.counter.empty())
        if (json_t *counter = json_object_get(above->second, object.counter.c_str());
            json_is_integer(json_object_get(counter, "default")))
            json_object_set_new(counter, "entries", json_string(name.c_str()));
    for (const parameter_declaration &parameter : object.parameters) {
        if (!add_parameter(members, parameter, object.path))
            return false;
        counts_->parameters++;
    }
    for (const std::string &key : object.unique) {
        json_t *parameter = json_object_get(members, key.c_str());
        // Instances begin with the default. Where that is not empty, new ones could not be added beside each other.
        const char *initial = json_string_value(json_object_get(parameter, "default"));
        if (table && initial != nullptr && *initial == '\0')
            json_object_set_new(parameter, "unique", json_true());
    }
    for (const command_declaration &command : object.commands)
        if (!add_command(members, command, object.path))
            return false;
    return true;
}

bool builder::add_parameter(json_t *to, const parameter_declaration &parameter, const std::string &path)
{
    std::string what = path + parameter.name;
    if (parameter.name.empty() || parameter.name.find('.') != std::string::npos)
        return fail(parameter.line, "\"" + parameter.name + "\" is no name of a parameter");
    if (json_object_get(to, parameter.name.c_str()) != nullptr)
        return fail(parameter.line, what + " is declared twice");
    resolved_type type;
    std::string problem;
    if (!resolve_type(model_, parameter.form, &type, &problem))
        return fail(parameter.line, what + ": " + problem);
    json_t *node = json_object();
    json_object_set_new(to, parameter.name.c_str(), node);
    describe_type(node, type, parameter.form, what, warnings_);
    if (parameter.writable)
        json_object_set_new(node, "access", json_string("readWrite"));
    return true;
}

// The object of a group of arguments, "Result.{i}.Address.{i}.": a table is its first instance.
json_t *builder::group(json_t *to, const std::string &relative, unsigned long line)
{
    std::string_view rest = relative;
    while (!rest.empty()) {
        size_t dot = rest.find('.');
        std::string name(rest.substr(0, dot));
        if (dot == std::string_view::npos || name.empty()) {
            fail(line, "\"" + relative + "\" is no path of an object");
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
            fail(line, "\"" + relative + "\" is a parameter and an object");
            return nullptr;
        }
    }
    return to;
}

// The arguments of one direction. What stands in `beside` already, by the same names, is left out.
bool builder::add_arguments(json_t *to, json_t *beside, const std::vector<argument_group> &groups,
                            const std::string &path, size_t *counted)
{
    for (const argument_group &each : groups) {
        json_t *members = group(to, each.path, each.line);
        if (members == nullptr)
            return false;
        for (const parameter_declaration &parameter : each.parameters) {
            json_t *other = beside;
            std::string_view rest = each.path;
            for (; other != nullptr && !rest.empty(); rest.remove_prefix(rest.find('.') + 1)) {
                std::string name(rest.substr(0, rest.find('.')));
                other = json_object_get(json_object_get(other, name == "{i}" ? "1" : name.c_str()), "children");
            }
            (*counted)++;
            if (json_object_get(other, parameter.name.c_str()) == nullptr &&
                !add_parameter(members, parameter, path + "." + each.path))
                return false;
        }
    }
    return true;
}

bool builder::add_command(json_t *to, const command_declaration &command, const std::string &path)
{
    std::string what = path + command.name;
    if (json_object_get(to, command.name.c_str()) != nullptr)
        return fail(command.line, what + " is declared twice");
    json_t *node = json_pack("{s:s, s:{}, s:{}}", "type", "method", "input", "output");
    json_object_set_new(to, command.name.c_str(), node);
    for (const known_method &known : known_methods)
        if (known.path == what)
            json_object_set_new(node, "method", json_string(known.implementation));
    counts_->commands++;
    json_t *input = json_object_get(node, "input");
    return add_arguments(input, nullptr, command.input, what, &counts_->inputs) &&
           add_arguments(json_object_get(node, "output"), input, command.output, what, &counts_->outputs);
}

json_ref builder::build()
{
    json_ref document(json_pack("{s:i, s:{}}", "format", 1, "root"));
    root_ = json_object_get(document.get(), "root");
    children_[""] = root_;
    for (const object_declaration &object : model_.objects)
        if (!add_object(object))
            return {};
    if (counts_->objects == 0) {
        *error_ = "none of its objects stands at the root";
        return {};
    }
    size_t colon = model_.name.find(':');
    std::string version = colon == std::string::npos ? "" : model_.name.substr(colon + 1);
    json_object_set_new(root_, "DataModelVersion",
                        json_pack("{s:s, s:s}", "type", "string", "default", version.c_str()));
    return document;
}

// Either the whole file is there afterwards, or what was there before.
bool write_file(const std::string &path, std::string_view text)
{
    struct stat st;
    if (stat(path.c_str(), &st) == 0 && !S_ISREG(st.st_mode)) { // a pipe, a terminal, /dev/null
        fd_owner direct(open(path.c_str(), O_WRONLY | O_CLOEXEC));
        return direct && write_all(direct.get(), text);
    }
    return replace_file(path, text, {.durable = true});
}

} // namespace

json_ref import_model(const char *path, import_counts *counts, std::string *warnings, std::string *error)
{
    data_model model;
    if (!read_data_model(path, &model, error))
        return {};
    *counts = {};
    json_ref document = builder(model, counts, warnings, error).build();
    if (document && !scheme_load(document.get(), error)) // names that only this daemon does not take
        document.reset();
    return document;
}

int import_run(const char *path, const char *output)
{
    import_counts counts;
    std::string warnings;
    std::string error;
    json_ref document = import_model(path, &counts, &warnings, &error);
    if (!document) {
        fprintf(stderr, "veld: %s: %s\n", path, error.c_str());
        return EXIT_FAILURE;
    }
    const std::string text = json_written(document.get(), JSON_INDENT(1)) + "\n";
    if (output != nullptr ? !write_file(output, text) : !write_all(STDOUT_FILENO, text)) {
        fprintf(stderr, "veld: %s: %s\n", output != nullptr ? output : "standard output", strerror(errno));
        return EXIT_FAILURE;
    }
    fprintf(stderr,
            "%sveld: imported %zu objects (%zu of them tables), %zu parameters, %zu commands with %zu input and %zu "
            "output arguments\n",
            warnings.c_str(), counts.objects, counts.tables, counts.parameters, counts.commands, counts.inputs,
            counts.outputs);
    return EXIT_SUCCESS;
}

} // namespace veld
