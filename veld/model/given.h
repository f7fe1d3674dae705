// Values that one instance of the device has from its factory: a serial number of its own and the like.
#pragma once

#include "veld/model/tree.h"

#include <string>
#include <vector>

namespace veld
{

class given_values
{
public:
    /// Takes "PATH=VALUE": a text as it stands, anything else as JSON. False when it is not of that form.
    bool add(const std::string &assignment, std::string *error);
    /// Takes a file of such lines, where empty lines and those that begin with "#" say nothing, or of one JSON object
    /// from paths to values. False when it cannot be read; `*error` says where.
    bool add_file(const std::string &path, std::string *error);

    /// Lays the values over a tree in its factory state, in the order in which they were added; a parameter need not be
    /// writable. False at the first that does not fit; `*error` names it.
    bool apply(tree *onto, std::string *error);

private:
    struct entry {
        std::string path;
        std::string text; // where `value` is null
        json_ref value;
        bool hashed; // a password's value is its hash by now
    };

    static std::string put(tree *onto, entry *one);

    std::vector<entry> entries_;
};

} // namespace veld
