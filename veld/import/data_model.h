// What a data-model XML document declares, as it stands there.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace veld
{

/// The integers from `low` to `high`; an end that is left out is open.
struct interval {
    std::optional<int64_t> low;
    std::optional<int64_t> high;
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
};

/// A type element, perhaps as the items of a list.
struct syntax {
    bool list = false;
    std::optional<int64_t> min_items, max_items;
    std::vector<interval> list_sizes; ///< of the whole list, in characters
    std::optional<type_use> type;
    std::optional<std::string> initial;
    bool secured = false;
    bool triggers = false; ///< setting it makes the device do something
};

struct data_type {
    syntax body; ///< its type is the type that it is based on
    unsigned long line;
};

struct parameter_declaration {
    std::string name;
    bool writable = false;
    syntax form;
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
    unsigned long line;
};

struct object_declaration {
    std::string path; ///< with its final "."; a table's ends in "{i}."
    bool writable = false;
    std::optional<int64_t> min_entries, max_entries; ///< of a table; no upper bound: unbounded
    std::string counter;                             ///< the parameter beside a table that counts its instances
    std::vector<std::string> unique;                 ///< parameters each of which alone is a key
    std::vector<parameter_declaration> parameters;
    std::vector<command_declaration> commands;
    unsigned long line;
};

/// What is marked as deleted, and what stands below it, is not here.
struct data_model {
    std::string name; ///< as "Device:2.19"
    std::unordered_map<std::string, data_type> types;
    std::vector<object_declaration> objects; ///< in the document's order
};

/// Reads a document. False when it cannot be read or is no data model; `*error` then says why, with the line.
bool read_data_model(const char *path, data_model *into, std::string *error);

} // namespace veld
