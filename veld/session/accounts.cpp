#include "veld/session/accounts.h"

#include "veld/model/password.h"
#include "veld/session/first_users.h"

#include <algorithm>
#include <pwd.h>
#include <unistd.h>

namespace veld
{

namespace
{

struct account {
    bool enabled = false;
    bool administrator = false;
    std::string hash;
};

json_ref member(tree *model, node *of, std::string_view name)
{
    node *found = model->child(of, name);
    return found != nullptr && found->what->kind == node_kind::parameter ? model->value(found) : json_ref{};
}

std::string text(const json_ref &value)
{
    return {json_string_value(value.get()), json_string_length(value.get())};
}

account account_of(tree *model, node *instance, const std::string &user)
{
    account found;
    found.enabled = json_is_true(member(model, instance, "Enable").get());
    const json_ref administrator = member(model, instance, "X_VELD_Administrator");
    const first_user *brought = first_user_find(user);
    // Where the model has no say in who administers the device, the command line has.
    found.administrator = administrator ? json_is_true(administrator.get())
                                        : brought != nullptr && brought->rights == role::administrator;
    const json_ref hash = member(model, instance, "Password");
    if (json_is_string(hash.get()))
        found.hash = text(hash);
    return found;
}

std::optional<account> find_account(tree *model, const std::string &user)
{
    if (user.empty())
        return {};
    const std::vector<node *> tables = user_tables(model);
    for (node *table : tables)
        for (const auto &one : table->table->instances)
            if (const json_ref name = member(model, one.get(), "Username");
                json_is_string(name.get()) && text(name) == user)
                return account_of(model, one.get(), user);
    // A model without users may have those of the command line all the same.
    const first_user *brought = tables.empty() ? first_user_find(user) : nullptr;
    if (brought == nullptr)
        return {};
    return account{true, brought->rights == role::administrator, json_string_value(brought->hash.get())};
}

role rights_of(const account &known)
{
    return known.administrator ? role::administrator : role::user;
}

} // namespace

std::optional<uid_t> system_user(const std::string &user)
{
    if (user.empty() || user.find('\0') != std::string::npos)
        return {};
    char buffer[4096];
    passwd entry{};
    passwd *found = nullptr;
    if (getpwnam_r(user.c_str(), &entry, buffer, sizeof buffer, &found) != 0 || found == nullptr)
        return {};
    return found->pw_uid;
}

std::optional<login> login_by_peer(tree *model, const std::string &user, const std::optional<peer_identity> &peer,
                                   const std::optional<uid_t> &uid)
{
    if (!peer)
        return {};
    const std::optional<account> known = find_account(model, user);
    const bool own = uid && *uid == peer->uid;
    const bool by_root = peer->uid == 0 && (uid || (known && known->enabled));
    if (!own && !by_root)
        return {};
    if (uid && (*uid == 0 || *uid == geteuid()))
        return login{user, role::administrator, true, true};
    if (known && !known->enabled)
        return {};
    return login{user, known ? rights_of(*known) : role::user, uid.has_value(), false};
}

std::string login_hash(tree *model, const std::string &user)
{
    const std::optional<account> known = find_account(model, user);
    return known && known->enabled ? known->hash : "";
}

std::optional<login> login_by_hash(tree *model, const std::string &user, const std::string &hash)
{
    const std::optional<account> known = find_account(model, user);
    if (!known || !known->enabled || known->hash != hash || hash.empty())
        return {};
    return login{user, rights_of(*known), false, false};
}

bool is_of_accounts(std::string_view name)
{
    name.remove_prefix(std::min(name.find('.'), name.size()));
    return name.starts_with(".Users.");
}

bool accounts_are_live(const scheme &model)
{
    const auto child = [](const scheme *of, std::string_view name) {
        const int at = of != nullptr ? of->find(name) : -1;
        return at < 0 ? nullptr : of->children[static_cast<size_t>(at)].get();
    };
    return std::any_of(model.children.begin(), model.children.end(), [&](const auto &root) {
        const scheme *table = child(child(root.get(), "Users"), "User");
        if (table == nullptr || !table->element)
            return false;
        const auto &members = table->element->children;
        return table->from == source::live ||
               std::any_of(members.begin(), members.end(), [](const auto &one) { return one->from == source::live; });
    });
}

login login_reviewed(tree *model, const login &who)
{
    if (!who.somebody() || who.owner)
        return who;
    const std::optional<account> known = find_account(model, who.name);
    if (known ? !known->enabled : !who.of_machine)
        return {};
    login now = who;
    now.rights = known ? rights_of(*known) : role::user;
    return now;
}

} // namespace veld
