#include "veld/rpc/service.h"

#include "base/json_write.h"
#include "veld/base/log.h"
#include "veld/rpc/answer.h"

namespace veld
{

namespace
{

constexpr size_t most_values = size_t{4} << 20;

// A message that is all brackets and commas would take fifty times its length as values.
bool too_many_values(std::string_view line)
{
    if (line.size() < most_values)
        return false;
    size_t values = 0;
    bool in_text = false;
    for (size_t i = 0; i < line.size(); ++i) {
        const char c = line[i];
        if (in_text && c == '\\')
            ++i;
        else if (c == '"')
            in_text = !in_text;
        else if (!in_text && (c == ',' || c == ':' || c == '[' || c == '{'))
            ++values;
    }
    return values > most_values;
}

} // namespace

const service::method_entry service::methods[] = {
    {"GetParameterNames", &service::get_names},
    {"GetParameterValues", &service::get_values},
    {"GetParameterAttributes", &service::get_attributes},
    {"SetParameterValues", &service::set_values},
    {"AddObject", &service::add_object},
    {"DeleteObject", &service::delete_object},
    {"ChangeOrder", &service::change_order_of},
    {"Execute", &service::execute},
    {"SaveConfig", &service::save_config},
    {"FactoryReset", &service::factory_reset},
    {"Reboot", &service::reboot},
    {"Download", &service::download},
    {"Login", &service::log_in},
    {"Logout", &service::log_out},
    {"JoinGroup", &service::join_group},
};

service::service(loop &events, tree &model, device &machine, downloads &fetching)
    : loop_(events), tree_(model), device_(machine), downloads_(fetching), executions_(events)
{
}

void service::welcome(arrival who, std::unique_ptr<transport> link)
{
    const uint64_t id = next_client_++;
    LOG_DEBUG("client %llu from %s", static_cast<unsigned long long>(id), who.peer.c_str());
    client &fresh = clients_[id];
    fresh.link =
        std::make_unique<connection>(loop_, id, std::move(link), std::move(who.peer), who.identity, *this, memory_);
}

void service::connection_over(connection &which)
{
    const uint64_t id = which.id();
    LOG_DEBUG("client %llu is gone", static_cast<unsigned long long>(id));
    sessions_.leave(id);
    executions_.end(id);
    downloads_.end(id);
    // The connection may be in the middle of a call of its own.
    loop_.post([this, id] { clients_.erase(id); });
}

client *service::find(uint64_t id)
{
    const auto found = clients_.find(id);
    return found == clients_.end() || found->second.link == nullptr || found->second.link->over() ? nullptr
                                                                                                  : &found->second;
}

void service::line_received(connection &from, std::string_view line)
{
    if (too_many_values(line)) {
        LOG_WARNING("%s: a message of too many values", from.peer().c_str());
        from.close();
        return;
    }
    json_ref message{wire_decode(line)};
    if (!message) {
        LOG_WARNING("%s: sends what is no message", from.peer().c_str());
        from.close();
        return;
    }
    client *sender = find(from.id());
    if (sender == nullptr)
        return;
    json_t *verb = json_object_get(message.get(), "method");
    json_t *id = json_object_get(message.get(), "id");
    json_t *version = json_object_get(message.get(), "jsonrpc");
    if (verb == nullptr && id != nullptr)
        return; // an answer that nobody waits for
    std::string id_text = "null";
    if (json_is_number(id) || json_is_string(id)) {
        id_text.clear();
        json_write_value(&id_text, id);
    }
    const ticket to{from.id(), id_text};
    const bool good_id = id == nullptr || id_text != "null";
    const bool good_version = version == nullptr || (json_is_string(version) && json_string_length(version) == 3 &&
                                                     std::string_view(json_string_value(version)) == "2.0");
    if (!json_is_string(verb) || !good_id || !good_version) {
        answer_fault(to, {code::invalid_request, "not a request of JSON-RPC 2.0", ""});
        return;
    }
    const std::string_view name{json_string_value(verb), json_string_length(verb)};
    if (id != nullptr)
        request(*sender, message.get(), name, std::move(id_text));
    else if (name == "Event")
        event_received(*sender, json_object_get(message.get(), "params"));
}

void service::request(client &from, json_t *message, std::string_view name, std::string id)
{
    const ticket to{from.link->id(), std::move(id)};
    const json_t *params = json_object_get(message, "params");
    for (const method_entry &known : methods) {
        if (known.name != name)
            continue;
        if (params != nullptr && !json_is_object(params)) {
            answer_fault(to, {code::bad_params, "\"params\" must be an object", ""});
            return;
        }
        tree_.begin_request();
        (this->*known.call)(from, params, to);
        return;
    }
    answer_fault(to, {code::no_method, "unknown method: " + std::string(name.substr(0, 256)), ""});
}

void service::send_to(const ticket &to, std::string message)
{
    if (client *waiting = find(to.client))
        waiting->link->send(std::move(message));
}

void service::answer_result(const ticket &to, std::string_view result)
{
    std::string line = "{\"jsonrpc\":\"2.0\",\"id\":" + to.id + ",\"result\":";
    line += result;
    line += "}\n";
    send_to(to, std::move(line));
}

void service::answer_object(const ticket &to, json_t *result)
{
    std::string text;
    json_write_value(&text, result);
    answer_result(to, text);
}

void service::answer_fault(const ticket &to, const fault &why)
{
    std::string line = "{\"jsonrpc\":\"2.0\",\"id\":" + to.id + ",\"error\":{\"code\":" + std::to_string(why.code);
    line += ",\"message\":";
    const client *asking = find(to.client);
    const bool unknown = why.lacks_rights && asking != nullptr && asking->who.name.empty();
    json_write_string(&line, unknown ? why.message + ": not logged in" : why.message);
    if (!why.data.empty() && line.size() + why.data.size() < wire_line_max - 16)
        line += ",\"data\":" + why.data;
    line += "}}\n";
    // A request can be so long that what is wrong with it does not fit into a message.
    if (line.size() > wire_line_max)
        line = "{\"jsonrpc\":\"2.0\",\"id\":" + to.id + ",\"error\":{\"code\":" + std::to_string(why.code) +
               ",\"message\":\"\"}}\n";
    send_to(to, std::move(line));
}

void service::deliver(int64_t group, json_t *value, role least)
{
    std::string line = "{\"jsonrpc\":\"2.0\",\"method\":\"Event\",\"params\":{\"Id\":" + std::to_string(group);
    if (value != nullptr) {
        line += ",\"Value\":";
        json_write_value(&line, value);
    }
    line += "}}\n";
    if (line.size() > wire_line_max + 1)
        return;
    std::vector<uint64_t> hearing;
    sessions_.each_in_group(group, [&](uint64_t hears, const std::vector<uint64_t> &members) {
        role rights = role::anonymous;
        for (const uint64_t member : members) {
            if (const client *one = find(member))
                rights = std::max(rights, one->who.rights);
        }
        if (rights >= least)
            hearing.push_back(hears);
    });
    // Sending may end a link, which changes the groups.
    for (const uint64_t one : hearing) {
        if (client *listening = find(one))
            listening->link->send_event(line);
    }
}

} // namespace veld
