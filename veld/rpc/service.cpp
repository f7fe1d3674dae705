#include "veld/rpc/service.h"

#include "base/json_bloat.h"
#include "base/json_write.h"
#include "base/utf8.h"
#include "veld/base/log.h"
#include "veld/base/value_size.h"
#include "veld/rpc/answer.h"
#include "veld/rpc/trace.h"

#include <algorithm>
#include <malloc.h>
#include <sys/resource.h>

namespace veld
{

namespace
{

/// Lets the system have what is free; C libraries that keep little of it need no asking.
void give_memory_back()
{
#ifdef __GLIBC__
    malloc_trim(0);
#endif
}

// What is parsed on the spot; anything longer is parsed beside the loop.
constexpr size_t parsed_at_once = size_t{16} << 10;
// Memory goes back to the system when so much was taken.
constexpr size_t worth_giving_back = size_t{1} << 20;
constexpr size_t links_worth_giving_back = 100;
constexpr size_t answer_worth_giving_back = size_t{4} << 20;
constexpr int64_t give_back_after_ms = 1000;
constexpr size_t name_shown = 256;
// What waits for its answer keeps the request's id for as long as it waits.
constexpr size_t id_limit = size_t{64} << 10;

constexpr size_t links_limit = 16384;
constexpr size_t links_kept_for_owners = 32;
constexpr size_t descriptors_for_work = 128; // files, methods, downloads

// How many links there are descriptors for.
size_t links_possible()
{
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const auto descriptors = static_cast<size_t>(std::min<rlim_t>(limit.rlim_cur, links_limit + descriptors_for_work));
    return descriptors - std::min(descriptors_for_work, descriptors / 4);
}

void find_password_names(const scheme &of, std::unordered_set<std::string_view> *found)
{
    if (of.handler_set == "password")
        found->insert(of.name);
    for (const auto &child : of.children)
        find_password_names(*child, found);
    if (of.element)
        find_password_names(*of.element, found);
}

} // namespace

/// A line that is parsed beside the loop; all of it is the thread's while it is there.
struct long_line {
    uint64_t client;
    wire_memory memory;
    std::string_view line;
    json_ref message;
    bool too_many = false;
};

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
    : loop_(events), tree_(model), device_(machine), downloads_(fetching),
      operations_(events), directory_{worker{events, worker::at_end::abandon}, worker{events, worker::at_end::abandon},
                                      worker{events, worker::at_end::abandon}, worker{events, worker::at_end::abandon}},
      passwords_(events, worker::at_end::abandon), parser_(events, worker::at_end::abandon),
      live_accounts_(accounts_are_live(model.model())), most_links_(links_possible())
{
    find_password_names(model.model(), &password_names_);
    tree_.on_live_change(
        [this](const node *table, uint32_t number, bool added) { machine_changed(table, number, added); });
    tree_.on_end_reader([this] { end_query(); });
    watch_machine();
}

service::~service()
{
    tree_.on_live_change(nullptr);
    tree_.on_end_reader(nullptr);
}

// Makes one of a peer's links give way: one that nobody has logged in on, that hears no events if there is such a one,
// and that has been quiet for longest.
bool service::turn_out(const std::string &peer)
{
    connection *quietest = nullptr;
    bool hears = true;
    for (const auto &[id, one] : clients_) {
        if (one.link == nullptr || one.link->over() || one.who.somebody() || one.link->peer() != peer)
            continue;
        const bool joined = sessions_.joined(id) > 0;
        if (quietest == nullptr || (hears && !joined) ||
            (hears == joined && one.link->last_line() < quietest->last_line())) {
            quietest = one.link.get();
            hears = joined;
        }
    }
    if (quietest == nullptr)
        return false;
    LOG_WARNING("%s: too many connections: one that is quiet is closed", peer.c_str());
    quietest->close();
    return true;
}

// No peer has all links, and the last ones are for those to whom the device belongs.
bool service::make_room(const arrival &who)
{
    const bool owner = who.identity && (who.identity->uid == 0 || who.identity->uid == geteuid());
    const size_t kept = std::min(links_kept_for_owners, most_links_ / 8);
    if (const auto own = links_of_.find(who.peer); own != links_of_.end() && own->second >= most_links_ / 4 * 3)
        return turn_out(who.peer);
    if (links_ < most_links_ - (owner ? 0 : kept))
        return true;
    const auto most = std::max_element(links_of_.begin(), links_of_.end(),
                                       [](const auto &a, const auto &b) { return a.second < b.second; });
    return most != links_of_.end() && turn_out(std::string(most->first));
}

void service::welcome(arrival who, std::unique_ptr<transport> link)
{
    if (!make_room(who)) {
        LOG_WARNING("%s: too many connections: turned away", who.peer.c_str());
        return;
    }
    ++links_;
    ++links_of_[who.peer];
    const uint64_t id = next_client_++;
    LOG_DEBUG("client %llu from %s", static_cast<unsigned long long>(id), who.peer.c_str());
    client &fresh = clients_[id];
    fresh.who = nobody_;
    fresh.link =
        std::make_unique<connection>(loop_, id, std::move(link), std::move(who.peer), who.identity, *this, memory_);
}

void service::connection_over(connection &which)
{
    const uint64_t id = which.id();
    LOG_DEBUG("client %llu is gone", static_cast<unsigned long long>(id));
    --links_;
    if (const auto own = links_of_.find(which.peer()); own != links_of_.end() && --own->second == 0)
        links_of_.erase(own);
    sessions_.leave(id);
    operations_.end(id);
    if (++left_ >= links_worth_giving_back)
        give_memory_back_soon();
    // The connection may be in the middle of a call of its own.
    loop_.post([this, id] { clients_.erase(id); });
}

// What a crowd has left behind, or a large answer, goes back to the system, beside the loop.
void service::give_memory_back_soon()
{
    if (std::exchange(giving_back_, true))
        return;
    loop_.after(give_back_after_ms, [this] {
        giving_back_ = false;
        left_ = 0;
        parser_.run([] { give_memory_back(); });
    });
}

client *service::find(uint64_t id)
{
    const auto found = clients_.find(id);
    return found == clients_.end() || found->second.link == nullptr || found->second.link->over() ? nullptr
                                                                                                  : &found->second;
}

void service::line_received(connection &from, std::string_view line)
{
    client &sender = clients_.at(from.id());
    if (line.size() <= parsed_at_once) {
        const json_ref message{wire_decode(line)};
        message_received(sender, message.get());
        return;
    }
    auto work = std::make_shared<long_line>();
    work->client = from.id();
    work->memory = from.take_line(&line);
    work->line = line;
    from.hold();
    long_lines_[sender.who.somebody() ? 0 : 1].push(sender.account(), std::move(work));
    parse_next();
}

// One long line at a time, so that the values of one are there at most; those of users before those of anybody,
// and each in turn.
void service::parse_next()
{
    auto &waiting = long_lines_[long_lines_[0].empty() ? 1 : 0];
    if (parsing_ || waiting.empty())
        return;
    parsing_ = true;
    const std::shared_ptr<long_line> work = waiting.take();
    parser_.run(
        [work] {
            work->too_many = size_as_values(work->line) > values_limit;
            if (!work->too_many)
                work->message.reset(wire_decode(work->line));
        },
        [this, work] {
            if (client *sender = find(work->client)) {
                if (work->too_many) {
                    LOG_WARNING("%s: a message of too many values", sender->link->peer().c_str());
                    sender->link->close();
                } else {
                    message_received(*sender, work->message.get());
                    sender->link->release();
                }
            }
            // What took long to make takes long to free.
            parser_.run(
                [work] {
                    work->message.reset();
                    const bool large = work->line.size() > worth_giving_back;
                    work->memory.reset();
                    if (large)
                        give_memory_back();
                },
                [this] {
                    parsing_ = false;
                    parse_next();
                });
        });
}

void service::message_received(client &from, json_t *message)
{
    if (message == nullptr) {
        LOG_WARNING("%s: sends what is no message", from.link->peer().c_str());
        from.link->close();
        return;
    }
    if (log_shows(log_level::debug))
        LOG_DEBUG("client %llu (%.64s): %s", static_cast<unsigned long long>(from.link->id()), from.shown().c_str(),
                  trace_request(&tree_, message).c_str());
    json_t *verb = json_object_get(message, "method");
    json_t *id = json_object_get(message, "id");
    json_t *version = json_object_get(message, "jsonrpc");
    if (verb == nullptr && id != nullptr)
        return; // an answer that nobody waits for
    std::string id_text = "null";
    if (json_is_number(id) || json_is_string(id)) {
        id_text.clear();
        json_write_value(&id_text, id);
        if (id_text.size() > id_limit)
            id_text = "null";
    }
    const ticket to{from.link->id(), id_text};
    const bool good_id = id == nullptr || id_text != "null";
    const bool good_version = version == nullptr || (json_is_string(version) && json_string_length(version) == 3 &&
                                                     std::string_view(json_string_value(version)) == "2.0");
    if (!json_is_string(verb) || !good_id || !good_version) {
        answer_fault(to, {code::invalid_request, "not a request of JSON-RPC 2.0", ""});
        return;
    }
    const std::string_view name{json_string_value(verb), json_string_length(verb)};
    if (id != nullptr) {
        request(from, message, name, std::move(id_text));
    } else if (name == "Event") {
        begin_request(&from);
        event_received(from, json_object_get(message, "params"));
    }
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
        begin_request(&from);
        (this->*known.call)(from, params, to);
        return;
    }
    answer_fault(to,
                 {code::no_method, "unknown method: " + std::string(name.substr(0, utf8_cut(name, name_shown))), ""});
}

// Makes room for what somebody is to read, at the cost of whoever has most that is not read: of its links, the one with
// most is closed. False when that is the account itself, and its `own` links are to stay.
bool service::make_room_to_read(const std::string &account, size_t bytes, bool own)
{
    struct holding {
        size_t all = 0;
        size_t most = 0;
        connection *where = nullptr;
    };
    while (!memory_.has_room_for(bytes)) {
        std::unordered_map<std::string, holding> held;
        for (const auto &[id, one] : clients_) {
            const size_t unread = one.link == nullptr || one.link->over() ? 0 : one.link->unread_output();
            if (unread == 0)
                continue;
            holding &of = held[one.account()];
            of.all += unread;
            if (unread > of.most) {
                of.most = unread;
                of.where = one.link.get();
            }
        }
        const auto most = std::max_element(held.begin(), held.end(),
                                           [](const auto &a, const auto &b) { return a.second.all < b.second.all; });
        if (most == held.end() || (!own && most->first == account))
            return false;
        LOG_WARNING("%s: too much waits to be read: a connection is closed", most->second.where->peer().c_str());
        most->second.where->close();
    }
    return true;
}

void service::send_to(const ticket &to, std::string message)
{
    client *waiting = find(to.client);
    if (waiting != nullptr && !memory_.has_room_for(message.size()))
        make_room_to_read(waiting->account(), message.size(), true);
    waiting = find(to.client);
    if (waiting == nullptr)
        return;
    if (log_shows(log_level::debug))
        LOG_DEBUG("client %llu (%.64s): answer %s", static_cast<unsigned long long>(to.client),
                  waiting->shown().c_str(), trace_answer(&tree_, message).c_str());
    waiting->link->send(std::move(message));
}

void service::send_to(const ticket &to, std::vector<std::string> pieces)
{
    if (pieces.size() > 1 && log_shows(log_level::debug)) {
        std::string message;
        for (const std::string &piece : pieces)
            message += piece;
        pieces = {std::move(message)};
    }
    size_t size = 0;
    for (const std::string &piece : pieces)
        size += piece.size();
    if (pieces.size() == 1)
        send_to(to, std::move(pieces[0]));
    else if (client *waiting = find(to.client))
        for (std::string &piece : pieces)
            waiting->link->send(std::move(piece));
    if (size > answer_worth_giving_back)
        give_memory_back_soon();
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
    std::string line =
        "{\"jsonrpc\":\"2.0\",\"id\":" + to.id + ",\"error\":{\"code\":" + std::to_string(wire_number(why.code));
    line += ",\"message\":";
    const client *asking = find(to.client);
    const bool unknown = why.lacks_rights && asking != nullptr && asking->who.name.empty();
    json_write_string(&line, unknown ? why.message + ": not logged in" : why.message);
    if (!why.data.empty() && line.size() + why.data.size() < wire_line_max - 16)
        line += ",\"data\":" + why.data;
    line += "}}\n";
    // A request can be so long that what is wrong with it does not fit into a message.
    if (line.size() > wire_line_max)
        line = "{\"jsonrpc\":\"2.0\",\"id\":" + to.id +
               ",\"error\":{\"code\":" + std::to_string(wire_number(why.code)) + ",\"message\":\"\"}}\n";
    send_to(to, std::move(line));
}

void event_batch::add(int64_t group, const json_t *value, role least)
{
    std::string line = "{\"jsonrpc\":\"2.0\",\"method\":\"Event\",\"params\":{\"Id\":" + std::to_string(group);
    if (value != nullptr) {
        line += ",\"Value\":";
        json_write_value(&line, value);
    }
    line += "}}\n";
    // What no client takes would cost all those who listen their links.
    if (line.size() > wire_line_max + 1 || json_text_is_bloated(line))
        LOG_WARNING("an event of group %lld is more than clients take", static_cast<long long>(group));
    else
        events_.push_back({group, least, std::move(line)});
}

std::string event_batch::lines(role rights) const
{
    std::string text;
    for (const event &one : events_) {
        if (rights >= one.least)
            text += one.line;
    }
    return text;
}

void service::deliver(const event_batch &events)
{
    if (events.empty())
        return;
    struct hearing {
        uint64_t client;
        role rights;
    };
    std::vector<hearing> all;
    sessions_.each_in_group(events.group(), [&](uint64_t hears, const std::vector<uint64_t> &members) {
        role rights = role::anonymous;
        for (const uint64_t member : members) {
            if (const client *one = find(member))
                rights = std::max(rights, one->who.rights);
        }
        all.push_back({hears, rights});
    });
    // Everybody of the same rights gets the same text, once in memory however many they are.
    std::array<std::shared_ptr<const std::string>, 3> texts;
    // Sending may end a link, which changes the groups.
    for (const hearing &one : all) {
        auto &text = texts[static_cast<size_t>(one.rights)];
        if (!text) {
            auto *made = new std::string(events.lines(one.rights));
            memory_.output += made->size();
            text.reset(made, [this](const std::string *gone) {
                memory_.output -= gone->size();
                delete gone;
            });
        }
        client *listening = text->empty() ? nullptr : find(one.client);
        if (listening != nullptr)
            listening->link->send_event(text);
    }
}

void service::begin_request(client *by)
{
    tree_.begin_request();
    if (live_accounts_)
        review(by);
}

void service::review(client *one)
{
    if (!one->who.somebody())
        return;
    const login now = login_reviewed(&tree_, one->who);
    if (now.rights != one->who.rights || now.name != one->who.name)
        LOG_INFO("%s: the rights of \"%.64s\" have changed", one->link->peer().c_str(), one->who.name.c_str());
    one->who = now.somebody() ? now : nobody_;
    one->link->known(now.somebody());
}

void service::review_logins()
{
    tree_.begin_request();
    for (auto &[id, one] : clients_)
        review(&one);
}

} // namespace veld
