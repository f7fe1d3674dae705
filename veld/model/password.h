// Salted password hashes, as crypt(3) makes them.
#pragma once

#include "base/json_ref.h"

#include <string>
#include <string_view>
#include <unordered_map>

namespace veld
{

/// False for what no hash can be made of: a text with a NUL in it, or one that is far too long.
bool password_possible(const json_t *password);

/// The hash to keep for a new password; an empty password stays empty, which lets nobody in.
json_ref password_hash(const json_t *password);

/// True when the password is the one that was hashed. Takes equally long whatever differs.
bool password_matches(const std::string &password, const std::string &hash);

/// Hashes that were computed before they are needed, by the passwords.
using ready_hashes = std::unordered_map<std::string, json_ref>;

/// Whether a text that comes from outside is the hash of a password, or empty: of a kind that is still good, and cheap
/// enough to be compared with.
bool password_hash_usable(const json_t *hash);

} // namespace veld
