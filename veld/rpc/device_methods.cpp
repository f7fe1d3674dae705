#include "base/json_write.h"
#include "veld/model/secret.h"
#include "veld/rpc/answer.h"
#include "veld/rpc/service.h"

namespace veld
{

namespace
{

constexpr int64_t event_device = 2;
constexpr int64_t parting_ms = 500;

} // namespace

bool service::refused(const client &from, role needed, const ticket &to)
{
    if (from.who.rights >= needed)
        return false;
    answer_fault(
        to, {code::denied,
             needed == role::administrator ? "only an administrator may do that" : "only a logged-in user may do that",
             "", true});
    return true;
}

void service::save_config(client &from, const json_t *, const ticket &to)
{
    if (refused(from, role::user, to))
        return;
    from.link->hold();
    device_.save_configuration([this, to](const fault &problem) { answer_held(to, problem); });
}

// The answer to a request that the client's further ones waited for.
void service::answer_held(const ticket &to, const fault &problem)
{
    if (problem)
        answer_fault(to, problem);
    else
        answer_result(to, status_ok);
    if (client *waiting = find(to.client))
        waiting->link->release();
}

void service::factory_reset(client &from, const json_t *, const ticket &to)
{
    if (refused(from, role::administrator, to))
        return;
    from.link->hold();
    device_.factory_reset([this, to](const fault &problem) { answer_held(to, problem); });
}

void service::reboot(client &from, const json_t *params, const ticket &to)
{
    param_reader reader(params);
    const bool force = reader.boolean("Force", false);
    if (reader.problem())
        return answer_fault(to, reader.problem());
    if (refused(from, role::administrator, to))
        return;
    answer_result(to, status_ok);
    device_.reboot("Reboot", force);
}

void service::announce(const char *action)
{
    json_ref value{json_object()};
    json_object_set_new(value.get(), "Action", json_string(action));
    event_batch events;
    events.add(event_device, value.get(), role::anonymous);
    deliver(events);
}

void service::part_with_all()
{
    executions_.end_all();
    downloads_.end_all();
    for (auto &[id, one] : clients_)
        one.link->finish(parting_ms, false);
}

void service::download(client &from, const json_t *params, const ticket &to)
{
    param_reader reader(params);
    download_request wanted;
    wanted.type = reader.text("FileType");
    wanted.url = reader.text("URL", false);
    wanted.md5 = reader.text("MD5", false);
    wanted.target = reader.text("TargetFileName", false);
    wanted.transaction = reader.text("TransactionID", false);
    if (reader.problem())
        return answer_fault(to, reader.problem());
    if (refused(from, role::administrator, to))
        return;
    from.link->expect_answer();
    const download_asker asker{from.link->id(), from.account(), from.who.owner, from.link->uid()};
    downloads_.request(asker, wanted, [this, to](const fault &problem, const std::string &result) {
        if (problem)
            answer_fault(to, problem);
        else
            answer_result(to, result);
        if (client *waiting = find(to.client))
            waiting->link->answer_given();
    });
}

void service::execute(client &from, const json_t *params, const ticket &to)
{
    param_reader reader(params);
    const std::string path = reader.text("Path");
    const json_t *list = reader.name_values("ParameterList", false);
    if (reader.problem())
        return answer_fault(to, reader.problem());
    const place where = tree_.find(path);
    if (!where)
        return answer_fault(to, no_such_node(path));
    const scheme &what = *where.what;
    if (what.kind != node_kind::method)
        return answer_fault(to, {code::bad_name, path + " is not a method", ""});
    if (from.who.rights < what.read || from.who.rights < what.write)
        return answer_fault(to, {code::denied, path + " may not be run by this user", "", true});
    json_ref input;
    if (const fault problem = arguments_check(what, list, &input))
        return answer_fault(to, problem);
    if (!what.runs)
        return answer_fault(to, {code::not_supported, path + " is not implemented", ""});
    const uint64_t id = from.link->id();
    const std::string account = from.account();
    if (!executions_.room_for(account, from.who.rights))
        return answer_fault(to, {code::resources, "too many methods are running", ""});

    const role rights = from.who.rights;
    const auto text_of = [this, rights](std::string_view name) {
        const place found = tree_.find(name);
        std::string text;
        if (found && found.at->what == found.what && found.what->kind == node_kind::parameter &&
            rights >= found.what->read) {
            const json_ref value = readable_value(&tree_, found.at, rights);
            if (json_is_string(value.get()))
                text.assign(json_string_value(value.get()), json_string_length(value.get()));
        }
        return text;
    };
    method_outcome ended;
    std::unique_ptr<method_job> job = tree_.behind()->run(what, tree::name(where.at), input.get(), text_of, &ended);
    if (!job)
        return answer_outcome(to, ended);
    from.link->expect_answer();
    executions_.run(id, account, std::move(job), [this, to](method_outcome &outcome) {
        answer_outcome(to, outcome);
        if (client *waiting = find(to.client))
            waiting->link->answer_given();
    });
}

void service::answer_outcome(const ticket &to, method_outcome &outcome)
{
    if (outcome.code != 0) {
        fault problem{outcome.code, outcome.message, ""};
        if (outcome.data)
            json_write_value(&problem.data, outcome.data.get());
        return answer_fault(to, problem);
    }
    json_ref result{json_object()};
    if (outcome.output)
        json_object_set(result.get(), "ParameterList", outcome.output.get());
    answer_object(to, result.get());
}

} // namespace veld
