#include "base/clock.h"
#include "veld/model/secret.h"
#include "veld/rpc/answer.h"
#include "veld/rpc/arguments.h"
#include "veld/rpc/service.h"

namespace veld
{

namespace
{

constexpr int64_t event_device = 2;
constexpr int64_t parting_ms = 500;
constexpr int64_t answering_ms = 2000; // what was asked before is answered, as far as that goes

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

// Whether one more may begin for this client; otherwise it has been answered.
bool service::admitted(operation_kind kind, const client &from, const ticket &to)
{
    const fault full = operations_.admits(kind, from.asker());
    if (full)
        answer_fault(to, full);
    return !full;
}

// Runs a job whose outcome is the answer; `result` makes the result of it.
void service::run(operation_kind kind, client &from, const ticket &to, std::unique_ptr<job> what,
                  std::function<json_ref(job_outcome &)> result)
{
    from.link->expect_answer();
    operations_.run(kind, from.asker(), std::move(what), [this, to, result = std::move(result)](job_outcome &outcome) {
        if (outcome.problem)
            answer_fault(to, outcome.problem);
        else
            answer_object(to, result(outcome).get());
        if (client *waiting = find(to.client))
            waiting->link->answer_given();
    });
}

// Work that the client's further requests wait for; `then` answers when it has succeeded.
void service::do_held(client &from, const ticket &to, std::function<void(errand::done_handler)> work,
                      std::function<void(client &)> then)
{
    from.link->hold();
    operations_.run(operation_kind::work, from.asker(), std::make_unique<errand>(std::move(work)),
                    [this, to, then = std::move(then)](job_outcome &outcome) {
                        client *waiting = find(to.client);
                        if (waiting == nullptr)
                            return;
                        if (outcome.problem)
                            answer_fault(to, outcome.problem);
                        else
                            then(*waiting);
                        waiting->link->release();
                    });
}

void service::save_config(client &from, const json_t *, const ticket &to)
{
    if (refused(from, role::user, to) || !admitted(operation_kind::work, from, to))
        return;
    do_held(
        from, to, [this](errand::done_handler done) { device_.save_configuration(std::move(done)); },
        [this, to](client &) { answer_result(to, status_ok); });
}

void service::factory_reset(client &from, const json_t *, const ticket &to)
{
    if (refused(from, role::administrator, to) || !admitted(operation_kind::work, from, to))
        return;
    do_held(
        from, to, [this](errand::done_handler done) { device_.factory_reset(std::move(done)); },
        [this, to](client &) { answer_result(to, status_ok); });
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
    // Those who have many such questions do not keep the device from going.
    const int64_t until = monotonic_ms() + answering_ms;
    while (query_under_way_ && monotonic_ms() < until)
        end_query();
    query_under_way_.reset();
    queries_waiting_.clear();
    operations_.end_all();
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
    wanted.reader = from.link->uid();
    job_outcome ended;
    std::unique_ptr<job> transfer = downloads_.request(wanted, &ended);
    if (!transfer && ended.problem)
        return answer_fault(to, ended.problem);
    if (!transfer)
        return answer_object(to, ended.output.get());
    if (!admitted(operation_kind::transfer, from, to))
        return;
    run(operation_kind::transfer, from, to, std::move(transfer),
        [](job_outcome &outcome) { return std::move(outcome.output); });
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
    if (!admitted(operation_kind::method, from, to))
        return;

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
    job_outcome ended;
    std::unique_ptr<job> call = tree_.behind()->run(what, tree::name(where.at), input.get(), text_of, &ended);
    if (!call)
        return answer_fault(to, ended.problem);
    run(operation_kind::method, from, to, std::move(call), [](job_outcome &outcome) {
        json_ref whole{json_object()};
        if (outcome.output)
            json_object_set(whole.get(), "ParameterList", outcome.output.get());
        return whole;
    });
}

} // namespace veld
