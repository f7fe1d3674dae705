// Users that the daemon itself brings along, where a model has none: the first administrator.
#pragma once

#include "veld/model/tree.h"

#include <optional>
#include <string>

namespace veld
{

/// A user of the command line. The only ones who write here are at the start of the program.
struct first_user {
    std::string name;
    role rights = role::user;
    json_ref hash; ///< of the password
};

/// Takes "NAME:ROLE", with "user" or "admin" for the role. False when it is not of that form.
bool first_user_parse(const std::string &text, first_user *out);

/// Makes the user one of this daemon's.
void first_user_add(first_user who);

/// Gives a tree in its factory state these users: where a root has a table of users, each has an instance there, which
/// is enabled and has its password.
void first_users_apply(tree *onto);

/// Whether some administrator can log in with a password; true too where a model has no users.
bool administrator_has_password(tree *of);

/// The user of that name; null when there is none.
const first_user *first_user_find(const std::string &name);

/// The tables of users of all roots, "Device.Users.User.", up to date within the request (tree::begin_request).
std::vector<node *> user_tables(tree *of);

} // namespace veld
