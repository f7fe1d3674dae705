#include "base/clock.h"
#include "veld/base/log.h"
#include "veld/model/password.h"
#include "veld/rpc/answer.h"
#include "veld/rpc/service.h"

#include <algorithm>
#include <cstring>

namespace veld
{

namespace
{

constexpr size_t groups_limit = 1024;
constexpr size_t session_text_limit = 256;
constexpr int64_t first_free_event = 10;

} // namespace

void service::log_in(client &from, const json_t *params, const ticket &to)
{
    param_reader reader(params);
    const std::string user = reader.text("User");
    // Wiped when the last holder lets go of it.
    std::shared_ptr<std::string> password(new std::string(reader.text("Password", false)), [](std::string *text) {
        explicit_bzero(text->data(), text->size());
        delete text;
    });
    if (reader.problem())
        return answer_fault(to, reader.problem());
    from.link->hold();
    if (json_object_get(params, "Password") != nullptr) {
        const int64_t now = monotonic_ms();
        const login_attempt of{to, user, from.link->peer()};
        const int64_t when = guard_.admit(of.user, of.peer, now);
        const std::weak_ptr<const std::string> borrowed = password;
        from.password = std::move(password);
        const auto attempt = [this, of, borrowed] { try_password(of, borrowed); };
        if (when > now)
            loop_.after(when - now, attempt);
        else
            attempt();
        return;
    }
    const auto uid = std::make_shared<std::optional<uid_t>>();
    worker &free = *std::min_element(directory_.begin(), directory_.end(),
                                     [](const worker &a, const worker &b) { return a.waiting() < b.waiting(); });
    free.run([uid, user] { *uid = system_user(user); },
             [this, to, user, uid] {
                 if (client *asking = find(to.client)) {
                     tree_.begin_request();
                     finish_login(*asking, to, login_by_peer(&tree_, user, asking->link->identity(), *uid), user);
                     asking->link->release();
                 }
             },
             from.link->peer());
}

// Where the client has left meanwhile nothing is done: who comes and goes would have everybody else's passwords wait.
void service::try_password(const login_attempt &of, const std::weak_ptr<const std::string> &password)
{
    if (password.expired())
        return guard_.given_up(of.user, of.peer);
    tree_.begin_request();
    const std::string hash = login_hash(&tree_, of.user);
    const auto matches = std::make_shared<std::optional<bool>>();
    passwords_.run(
        [password, hash, matches] {
            if (const auto text = password.lock())
                *matches = password_matches(*text, hash);
        },
        [this, of, hash, matches] {
            if (*matches)
                judge_password(of, hash, **matches);
            else
                guard_.given_up(of.user, of.peer);
        },
        of.peer);
}

// An attempt that was looked at counts as what it was although nobody waits for the answer any more.
void service::judge_password(const login_attempt &of, const std::string &hash, bool matches)
{
    if (client *asking = find(of.to.client))
        asking->password.reset();
    // The user may have lost the account, or the password, meanwhile.
    tree_.begin_request();
    const std::optional<login> who = matches ? login_by_hash(&tree_, of.user, hash) : std::nullopt;
    const auto finish = [this, of, who] {
        if (client *asking = find(of.to.client)) {
            finish_login(*asking, of.to, who, of.user);
            asking->link->release();
        }
    };
    if (!who) {
        loop_.after(guard_.failed(of.user, of.peer, monotonic_ms()), finish);
        return;
    }
    guard_.succeeded(of.user, of.peer);
    finish();
}

void service::finish_login(client &asking, const ticket &to, const std::optional<login> &who, const std::string &user)
{
    if (!who) {
        LOG_WARNING("%s: login as \"%.64s\" refused", asking.link->peer().c_str(), user.c_str());
        answer_fault(to, {code::denied, "login refused", ""});
        return;
    }
    LOG_INFO("%s: logged in as \"%.64s\"", asking.link->peer().c_str(), user.c_str());
    asking.who = *who;
    asking.link->known(true);
    answer_result(to, "{}");
}

void service::log_out(client &from, const json_t *, const ticket &to)
{
    from.who = nobody_;
    from.link->known(false);
    answer_result(to, "{}");
}

void service::join_group(client &from, const json_t *params, const ticket &to)
{
    param_reader reader(params);
    const int64_t group = reader.integer("Group", 0, INT64_MIN);
    const std::string session = reader.text("Session", false);
    const bool receiver = reader.boolean("Receiver", false);
    if (!reader.problem() && json_object_get(params, "Group") == nullptr)
        return answer_fault(to, {code::bad_params, "\"Group\" must be an integer", ""});
    if (reader.problem())
        return answer_fault(to, reader.problem());
    if (session.size() > session_text_limit)
        return answer_fault(to, {code::bad_arguments, "\"Session\" is too long", ""});
    if (sessions_.joined(from.link->id()) >= groups_limit)
        return answer_fault(to, {code::resources, "too many groups", ""});
    sessions_.join(from.link->id(), group, session, receiver);
    answer_result(to, "{}");
}

void service::event_received(client &from, const json_t *params)
{
    const json_t *id = json_object_get(params, "Id");
    if (!json_is_integer(id))
        return;
    const int64_t group = json_integer_value(id);
    if (group > 0 && group < first_free_event && from.who.rights != role::administrator) {
        LOG_INFO("%s: event %lld is the daemon's own", from.link->peer().c_str(), static_cast<long long>(group));
        return;
    }
    event_batch events;
    events.add(group, json_object_get(params, "Value"), role::anonymous);
    deliver(events);
}

} // namespace veld
