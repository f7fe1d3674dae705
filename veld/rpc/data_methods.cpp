#include "veld/model/change.h"
#include "veld/rpc/answer.h"
#include "veld/rpc/service.h"

namespace veld
{

namespace
{

constexpr int64_t event_value_set = 1;
constexpr int64_t event_instances = 4;
constexpr int64_t machine_looked_at_ms = 1000;
constexpr int64_t machine_told_ms = 500;

// What an event says of a parameter that was set; `user` empty: by nobody who has logged in.
json_ref set_event(const std::string &name, const scheme &what, const json_t *value, const std::string &user)
{
    json_ref said{json_object()};
    json_object_set_new(said.get(), "Name", json_string(name.c_str()));
    if (what.secret)
        json_object_set_new(said.get(), "Value", json_string(""));
    else
        json_object_set(said.get(), "Value", const_cast<json_t *>(value));
    json_object_set_new(said.get(), "User", json_stringn(user.data(), user.size()));
    return said;
}
constexpr size_t passwords_at_once = 256;

} // namespace

void service::set_values(client &from, const json_t *params, const ticket &to)
{
    param_reader reader(params);
    const json_t *list = reader.name_values("ParameterList");
    if (reader.problem())
        return answer_fault(to, reader.problem());
    const std::unordered_set<std::string> passwords = passwords_in(list);
    if (passwords.size() > passwords_at_once)
        return answer_fault(to, {code::resources, "too many passwords in one request", ""});
    if (passwords.empty())
        return finish_set(from, list, {}, to);
    if (!admitted(operation_kind::work, from, to))
        return;
    const auto kept = std::make_shared<json_ref>(json_ref::share(const_cast<json_t *>(list)));
    const auto hashes = std::make_shared<ready_hashes>();
    for (const std::string &one : passwords)
        hashes->emplace(one, json_ref{});
    const auto hash = [hashes] {
        for (auto &[password, hashed] : *hashes)
            hashed = password_hash(json_ref{json_stringn(password.data(), password.size())}.get());
    };
    do_held(
        from, to,
        [this, hash, peer = from.link->peer()](errand::done_handler done) {
            passwords_.run(
                hash, [done = std::move(done)] { done({}); }, peer);
        },
        [this, to, kept, hashes](client &asking) {
            begin_request(&asking);
            finish_set(asking, kept->get(), *hashes, to);
        });
}

// The passwords that a request sets.
std::unordered_set<std::string> service::passwords_in(const json_t *list)
{
    std::unordered_set<std::string> found;
    size_t i = 0;
    const json_t *item = nullptr;
    json_array_foreach(list, i, item)
    {
        const json_t *text = json_object_get(item, "Name");
        const json_t *value = json_object_get(item, "Value");
        std::string_view name{json_string_value(text), json_string_length(text)};
        name.remove_suffix(name.ends_with('.') ? 1 : 0); // which may be written behind any name
        if (!json_is_string(value) || password_names_.count(name.substr(name.rfind('.') + 1)) == 0)
            continue;
        const place where = tree_.find(name);
        if (where && where.what->handler_set == "password")
            found.emplace(json_string_value(value), json_string_length(value));
    }
    return found;
}

void service::finish_set(client &from, const json_t *list, const ready_hashes &hashes, const ticket &to)
{
    std::vector<value_change> changes;
    if (const fault problem = change_values(&tree_, from.who.rights, list, &changes, hashes))
        return answer_fault(to, problem);
    const std::string user = from.who.name;
    answer_result(to, status_ok);
    event_batch events;
    bool accounts = false;
    for (const value_change &change : changes) {
        events.add(event_value_set, set_event(change.name, *change.what, change.value.get(), user).get(),
                   change.what->read);
        accounts = accounts || is_of_accounts(change.name);
    }
    deliver(events);
    if (accounts)
        review_logins();
}

void service::value_changed(const std::string &name, const scheme &what, const json_t *value)
{
    event_batch events;
    events.add(event_value_set, set_event(name, what, value, "").get(), what.read);
    deliver(events);
    if (is_of_accounts(name))
        review_logins();
}

void service::send_event(int64_t group, const json_t *value)
{
    event_batch events;
    events.add(group, value, role::anonymous);
    deliver(events);
}

void service::tell_instances(const std::vector<instance_change> &changes)
{
    event_batch events;
    for (const instance_change &one : changes) {
        json_ref value{json_object()};
        json_object_set_new(value.get(), "Action", json_string(one.added ? "Add" : "Delete"));
        json_object_set_new(value.get(), "Path", json_string(one.table.c_str()));
        json_object_set_new(value.get(), "InstanceNumber", json_integer(one.number));
        events.add(event_instances, value.get(), one.least);
    }
    deliver(events);
}

// Rows of the machine come and go whether anybody asks for them or not; who listens hears of those that were looked at,
// and who is no user any more hears nothing.
void service::watch_machine()
{
    loop_.after(machine_looked_at_ms, [this] {
        if (sessions_.heard(event_instances))
            tree_.refresh_known();
        if (live_accounts_)
            review_logins();
        watch_machine();
    });
}

void service::machine_changed(const node *table, uint32_t number, bool added)
{
    machine_changes_.add({tree::name(table), number, added, table->what->reach});
    if (std::exchange(telling_, true))
        return;
    loop_.after(machine_told_ms, [this] {
        telling_ = false;
        tell_instances(machine_changes_.take());
    });
}

void service::add_object(client &from, const json_t *params, const ticket &to)
{
    param_reader reader(params);
    const std::string path = reader.text("ObjectName");
    const int64_t order = reader.integer("Order", 0, 1);
    if (reader.problem())
        return answer_fault(to, reader.problem());
    node *added = nullptr;
    if (const fault problem = change_add(&tree_, from.who.rights, path, static_cast<uint64_t>(order), &added))
        return answer_fault(to, problem);
    answer_result(to, "{\"InstanceNumber\":" + std::to_string(added->number) + ",\"Status\":0}");
    tell_instances({{tree::name(added->parent), added->number, true, added->parent->what->reach}});
}

void service::delete_object(client &from, const json_t *params, const ticket &to)
{
    param_reader reader(params);
    const std::string path = reader.text("ObjectName");
    if (reader.problem())
        return answer_fault(to, reader.problem());
    node *table = nullptr;
    uint32_t number = 0;
    if (const fault problem = change_delete(&tree_, from.who.rights, path, &table, &number))
        return answer_fault(to, problem);
    answer_result(to, status_ok);
    const std::string name = tree::name(table);
    tell_instances({{name, number, false, table->what->reach}});
    if (is_of_accounts(name))
        review_logins();
}

void service::replaced(const node *before)
{
    tell_instances(instance_changes(&tree_, before));
    review_logins();
}

void service::change_order_of(client &from, const json_t *params, const ticket &to)
{
    param_reader reader(params);
    const std::string path = reader.text("ObjectName");
    const int64_t order = reader.integer("Order", 0, 1);
    if (!reader.problem() && order == 0)
        return answer_fault(to, {code::bad_params, "\"Order\" must be an integer", ""});
    if (reader.problem())
        return answer_fault(to, reader.problem());
    if (const fault problem = change_order(&tree_, from.who.rights, path, static_cast<uint64_t>(order)))
        return answer_fault(to, problem);
    answer_result(to, status_ok);
}

} // namespace veld
