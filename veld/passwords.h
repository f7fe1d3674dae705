// Passwords of the users on the command line, from a file or from whoever sits before it.
#pragma once

#include "veld/session/first_users.h"

#include <string>
#include <vector>

namespace veld
{

/// Takes a password for each of the users, in their order, and makes them this daemon's: from the lines of a file, or,
/// without one, from the terminal, which does not show what is typed; where standard input is none, from its lines.
/// False when one has none; `*error` says why.
bool passwords_take(std::vector<first_user> users, const std::string &file, std::string *error);

} // namespace veld
