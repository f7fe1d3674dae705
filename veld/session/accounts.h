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
    bool of_machine = false; ///< the machine knows the user: the model need not
    bool owner = false;      ///< root, or the user that the daemon runs as

    bool somebody() const { return !name.empty(); }
};

/// The number of a user of the machine. Asks the machine's directory, which may take long; any thread.
std::optional<uid_t> system_user(const std::string &user);

/// A login without a password: the peer's own account, or any known one when the peer is root. `uid`: what
/// system_user() said.
std::optional<login> login_by_peer(tree *model, const std::string &user, const std::optional<peer_identity> &peer,
                                   const std::optional<uid_t> &uid);

/// The hash that a password of this user has to match; empty when the model has no such user, or does not let it in.
std::string login_hash(tree *model, const std::string &user);

/// The login of a user whose password matched `hash`. Nothing when that is no longer the hash.
std::optional<login> login_by_hash(tree *model, const std::string &user, const std::string &hash);

/// Whether what is behind the model says who its users are, or anything of them: that may change unnoticed.
bool accounts_are_live(const scheme &model);

/// What is left of a login, after the users of the model have changed.
login login_reviewed(tree *model, const login &who);

/// Whether a name is of something below which a model keeps its users: "Device.Users.".
bool is_of_accounts(std::string_view name);

} // namespace veld
