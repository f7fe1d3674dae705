#include "veld/session/first_users.h"

#include "veld/model/check.h"
#include "veld/model/free_value.h"

#include <algorithm>
#include <limits>

namespace veld
{

namespace
{

std::vector<first_user> users; // written by first_user_add() only

node *parameter(tree *of, node *instance, const char *name)
{
    node *found = of->child(instance, name);
    return found != nullptr && found->what->kind == node_kind::parameter ? found : nullptr;
}

void put(tree *onto, node *instance, const char *name, json_ref value)
{
    json_ref kept;
    node *found = parameter(onto, instance, name);
    if (found != nullptr && value_fits_type(*found->what, value.get(), &kept))
        onto->store(found, std::move(kept), false);
}

node *instance_of(tree *in, node *table, const std::string &name)
{
    for (const auto &one : table->table->instances) {
        node *known = parameter(in, one.get(), "Username");
        const json_ref value = known != nullptr ? in->value(known) : json_ref{};
        if (json_is_string(value.get()) && name == json_string_value(value.get()))
            return one.get();
    }
    return nullptr;
}

void make(tree *onto, node *table, const first_user &who)
{
    node *instance = instance_of(onto, table, who.name);
    if (instance == nullptr) {
        instance = onto->add(table, std::numeric_limits<size_t>::max());
        settle_instance(onto, instance, false);
    }
    put(onto, instance, "Enable", json_ref{json_true()});
    put(onto, instance, "Username", json_ref{json_stringn(who.name.data(), who.name.size())});
    put(onto, instance, "Password", json_ref::share(who.hash.get()));
    put(onto, instance, "X_VELD_Administrator", json_ref{json_boolean(who.rights == role::administrator)});
}

} // namespace

bool first_user_parse(const std::string &text, first_user *out)
{
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0)
        return false;
    out->name = text.substr(0, colon);
    const std::string wanted = text.substr(colon + 1);
    out->rights = wanted == "admin" ? role::administrator : role::user;
    return wanted == "admin" || wanted == "user";
}

void first_user_add(first_user who)
{
    users.push_back(std::move(who));
}

void first_users_apply(tree *onto)
{
    if (users.empty())
        return;
    onto->begin_request();
    for (node *table : user_tables(onto))
        for (const first_user &who : users)
            make(onto, table, who);
}

bool administrator_has_password(tree *of)
{
    const std::vector<node *> tables = user_tables(of);
    const auto is_true = [of](node *instance, const char *name) {
        node *found = parameter(of, instance, name);
        return found != nullptr && json_is_true(of->value(found).get());
    };
    for (node *table : tables) {
        for (const auto &one : table->table->instances) {
            node *password = parameter(of, one.get(), "Password");
            if (password != nullptr && json_string_length(of->value(password).get()) > 0 &&
                is_true(one.get(), "Enable") && is_true(one.get(), "X_VELD_Administrator"))
                return true;
        }
    }
    return tables.empty();
}

const first_user *first_user_find(const std::string &name)
{
    const auto found =
        std::find_if(users.begin(), users.end(), [&](const first_user &who) { return who.name == name; });
    return found == users.end() ? nullptr : &*found;
}

std::vector<node *> user_tables(tree *of)
{
    std::vector<node *> found;
    for (const auto &root : of->root()->children) {
        node *holder = of->child(root.get(), "Users");
        node *table = holder != nullptr ? of->child(holder, "User") : nullptr;
        if (table == nullptr || !table->table)
            continue;
        of->refresh(table);
        found.push_back(table);
    }
    return found;
}

} // namespace veld
