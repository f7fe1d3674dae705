// Giving up root's rights for those of a user.
#pragma once

#include <string>
#include <sys/types.h>

namespace veld
{

struct system_account {
    std::string name;
    uid_t user = 0;
    gid_t group = 0;
};

/// Finds a user of the machine by name or number, with its main group. False when there is none.
bool find_account(const std::string &name, system_account *found, std::string *error);
/// Finds a group by name or number.
bool find_group(const std::string &name, gid_t *found, std::string *error);

/// Makes what stands in a directory, and the directory itself, that user's. Links are not followed.
bool give_away(const std::string &directory, const system_account &to, std::string *error);

/// Becomes that user for good. Only while the process has one thread.
bool become(const system_account &who, std::string *error);

} // namespace veld
