// Salted password hashes, as crypt(3) makes them.
#pragma once

#include "base/json_ref.h"

#include <string>
#include <string_view>

namespace veld
{

/// False for what no hash can be made of: a text with a NUL in it, or one that is far too long.
bool password_possible(const json_t *password);

/// The hash to keep for a new password; an empty password stays empty, which lets nobody in.
json_ref password_hash(const json_t *password);

/// True when the password is the one that was hashed. Takes equally long whatever differs.
bool password_matches(const std::string &password, const std::string &hash);

} // namespace veld
