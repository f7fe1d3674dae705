// What survives a restart: a few small files in one directory, each written as a whole or not at all.
#pragma once

#include "base/fd.h"
#include "base/json_ref.h"

#include <map>
#include <string>
#include <string_view>

namespace veld
{

class state_store
{
public:
    /// Without a directory the store lives in memory: what is saved then survives a reboot, not a restart.
    state_store() = default;

    /// Uses a directory, which is made if it is missing and locked against other daemons. False on failure.
    bool open(const std::string &directory, std::string *error);

    /// Reads the document saved under a name into `*document`, which is null when there is none. False when there is
    /// one that cannot be read or is none: `*error` then says so, and nothing is to be saved under that name.
    bool load(const std::string &name, json_ref *document, std::string *error) const;
    /// Replaces the document under a name. Survives a kill at any moment: either the old one is there or the new one.
    bool save(const std::string &name, const json_t *document, std::string *error);
    bool remove(const std::string &name, std::string *error);
    /// Gives the document that is there a second name, which stays when it is replaced. True when none is there.
    bool keep(const std::string &name, std::string *error);
    /// What messages about the document under a name begin with.
    std::string place(const std::string &name) const { return directory_.empty() ? name : path(name); }

    /// The directory, empty when the store lives in memory.
    const std::string &directory() const { return directory_; }

private:
    std::string path(const std::string &name) const { return directory_ + "/" + name; }

    std::string directory_;
    fd_owner lock_; // the directory itself
    std::map<std::string, json_ref> memory_;
};

/// Makes a directory and those above it. False on failure.
bool make_directories(const std::string &path, std::string *error);

} // namespace veld
