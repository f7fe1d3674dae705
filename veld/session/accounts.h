// Who may log in, and as what.
#pragma once

#include "veld/model/tree.h"
#include "veld/server/connection.h"

#include <optional>
#include <string>

namespace veld
{

/// A login: the anonymous user has no name.
struct login {
    std::string name;
    role rights = role::anonymous;
};

/// A login without a password: the peer's own account, or any known one when the peer is root.
std::optional<login> login_by_peer(tree *model, const std::string &user, const std::optional<peer_identity> &peer);

/// A login with a password, against the model's users. Costs some milliseconds of computing.
std::optional<login> login_by_password(tree *model, const std::string &user, const std::string &password);

} // namespace veld
