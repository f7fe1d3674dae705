// What a data-model XML document declares, as it stands there.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace veld
{

/// The integers from `low` to `high`, every `step`th of them; an end that is left out is open.
struct interval {
    std::optional<int64_t> low;
    std::optional<int64_t> high;
    int64_t step = 1;
};

/// A type element with what restricts it.
struct type_use {
    std::string name;     ///< "string", "unsignedInt" …; "dataType" for one of the document's own
    std::string own_type; ///< the name of that own type
    std::vector<std::string> enumeration;
    std::vector<std::string> patterns;
    std::vector<interval> ranges;
    std::vector<interval> sizes;
    bool path = false; ///< its values are paths of the data model
    std::string
        target_parents;      ///< of a path: what it may lead below, relative paths separated by blanks; empty: anywhere
    std::string target_type; ///< "row", "parameter" …; empty: any
    bool from_root = false;  ///< these paths are relative to the root, not to the object
    std::string values_of;   ///< the parameter whose items are the values, as a relative path; empty: none
    std::optional<std::string> null_value; ///< that is a value beside them
};

/// A type element, perhaps as the items of a list.
struct syntax {
    bool list = false;
    std::optional<int64_t> min_items, max_items;
    std::vector<interval> list_sizes; ///< of the whole list, in characters
    std::optional<type_use> type;
    std::optional<std::string> initial;
    bool secured = false;  ///< reads as nothing
    bool triggers = false; ///< setting it makes the device do something
};

struct data_type {
    syntax body; ///< its type is the type that it is based on
    unsigned long line;
};

/// What is said about a node for people to read.
struct remarks {
    std::string description; ///< its text as it stands there, without the common indentation
    std::string version;     ///< of the model that had the node first
    std::string status;      ///< "deprecated" or "obsoleted"; empty: current
    std::string units;
};

struct parameter_declaration {
    std::string name;
    bool writable = false;
    bool mandatory = false; ///< an argument that has to be given
    syntax form;
    remarks about;
    unsigned long line;
};

/// Arguments: parameters directly, or in objects whose names are relative to the command.
struct argument_group {
    std::string path; ///< empty, or as "Result.{i}."
    std::vector<parameter_declaration> parameters;
    unsigned long line;
};

struct command_declaration {
    std::string name; ///< without its "()"
    std::vector<argument_group> input, output;
    remarks about;
    unsigned long line;
};

struct event_declaration {
    std::string name; ///< without its "!"
    std::vector<argument_group> arguments;
    remarks about;
    unsigned long line;
};

/// Parameters whose values together no two instances of a table have.
struct key_declaration {
    std::vector<std::string> parameters;
    bool functional = true; ///< holds among the enabled instances only
    unsigned long line;
};

struct object_declaration {
    std::string path; ///< with its final "."; a table's ends in "{i}."
    bool writable = false;
    std::optional<int64_t> min_entries, max_entries; ///< of a table; no upper bound: unbounded
    std::string counter;                             ///< the parameter beside a table that counts its instances
    std::string enabler;                             ///< the parameter of a table's instance that enables it
    std::vector<key_declaration> keys;
    std::vector<parameter_declaration> parameters;
    std::vector<command_declaration> commands;
    std::vector<event_declaration> events;
    remarks about;
    unsigned long line;
};

struct model_declaration {
    std::string name;                              ///< as "Device:2.19"
    std::vector<parameter_declaration> parameters; ///< beside the roots
    std::vector<object_declaration> objects;       ///< in the document's order
    unsigned long line;
};

/// What is marked as deleted is not here. Names are trimmed.
struct data_model {
    std::unordered_map<std::string, data_type> types;
    std::vector<model_declaration> models; ///< one at least, with an object among them
};

/// What had to be left out of a document.
class import_warnings
{
public:
    void add(unsigned long line, const std::string &where, const std::string &what)
    {
        lines_.push_back("line " + std::to_string(line) + ": " + where + ": " + what);
    }
    const std::vector<std::string> &lines() const { return lines_; }

private:
    std::vector<std::string> lines_;
};

/// Reads a document, which may be compressed with gzip. What is wrong with a part of it becomes a warning, and the part
/// is left out. False when the document cannot be read to its end or is no data model; `*error` then says why, with the
/// line.
bool read_data_model(const char *path, data_model *into, import_warnings *warnings, std::string *error);

} // namespace veld
