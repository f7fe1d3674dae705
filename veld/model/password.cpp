#include "veld/model/password.h"

#include <crypt.h>
#include <cstring>
#include <memory>
#include <sys/random.h>

namespace veld
{

namespace
{

constexpr size_t salt_bytes = 12;
constexpr std::string_view crypt_letters = "$./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
#ifdef CRYPT_MAX_PASSPHRASE_SIZE
constexpr size_t password_room = CRYPT_MAX_PASSPHRASE_SIZE;
#else
constexpr size_t password_room = 256; // C libraries that hash themselves
#endif

// crypt_data is large, and holds the password afterwards: wiped with its owner.
struct scratch {
    crypt_data data{};
    ~scratch() { explicit_bzero(&data, sizeof data); }
};

bool same(std::string_view a, std::string_view b)
{
    unsigned char difference = a.size() == b.size() ? 0 : 1;
    for (size_t i = 0; i < a.size(); ++i)
        difference |= static_cast<unsigned char>(a[i] ^ (b.empty() ? 0 : b[i % b.size()]));
    return difference == 0;
}

} // namespace

bool password_possible(const json_t *password)
{
    return json_string_length(password) < password_room &&
           json_string_length(password) == strlen(json_string_value(password));
}

json_ref password_hash(const json_t *password)
{
    if (json_string_length(password) == 0)
        return json_ref{json_string("")};
    static constexpr char letters[] = "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
    unsigned char random[salt_bytes];
    if (getrandom(random, sizeof random, 0) != static_cast<ssize_t>(sizeof random))
        return json_ref{json_string("*")};
    std::string setting = "$6$";
    for (const unsigned char byte : random)
        setting += letters[byte & 63];
    const auto work = std::make_unique<scratch>();
    const char *hash = crypt_r(json_string_value(password), setting.c_str(), &work->data);
    return json_ref{json_string(hash != nullptr && hash[0] == '$' ? hash : "*")};
}

bool password_hash_usable(const json_t *hash)
{
    if (!json_is_string(hash) || strlen(json_string_value(hash)) != json_string_length(hash))
        return false;
    const std::string_view text{json_string_value(hash), json_string_length(hash)};
    if (text.empty())
        return true;
    // $KIND$SALT$HASH, where the parts beyond the second may be more; the last is what was computed.
    static constexpr struct {
        std::string_view kind;
        size_t computed;
    } kinds[] = {{"$6$", 86}, {"$5$", 43}, {"$y$j9T$", 43}};
    const size_t last = text.rfind('$') + 1;
    for (const auto &[kind, computed] : kinds) {
        if (!text.starts_with(kind) || last < kind.size() || text.size() - last != computed)
            continue;
        // One that asks for more work than usual would keep the others waiting.
        return text.find("rounds=") == std::string_view::npos && text.size() < CRYPT_OUTPUT_SIZE &&
               text.find_first_not_of(crypt_letters) == std::string_view::npos;
    }
    return false;
}

bool password_matches(const std::string &password, const std::string &hash)
{
    // Work is done for users that do not exist too, so that the time does not tell them apart.
    static const std::string nobody = "$6$000000000000$";
    const bool usable = hash.size() > 3 && hash[0] == '$' && password.find('\0') == std::string::npos;
    const auto work = std::make_unique<scratch>();
    const char *made = crypt_r(password.c_str(), (usable ? hash : nobody).c_str(), &work->data);
    return usable && made != nullptr && made[0] == '$' && same(made, hash);
}

} // namespace veld
