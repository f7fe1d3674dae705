// What the daemon does with its clients' messages.
#pragma once

#include "veld/base/fair_queue.h"
#include "veld/base/fault.h"
#include "veld/base/worker.h"
#include "veld/device/device.h"
#include "veld/firmware/downloads.h"
#include "veld/model/change.h"
#include "veld/model/query.h"
#include "veld/model/tree.h"
#include "veld/rpc/coalesced.h"
#include "veld/rpc/operations.h"
#include "veld/server/connection.h"
#include "veld/server/listener.h"
#include "veld/session/accounts.h"
#include "veld/session/login_guard.h"
#include "veld/session/sessions.h"

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace veld
{

struct client {
    std::unique_ptr<connection> link;
    login who;
    std::shared_ptr<const std::string> password; ///< of a login that has not been judged yet; gone with the client

    /// How the log calls it.
    const std::string &shown() const { return who.somebody() ? who.name : link->peer(); }
    /// Whose limits count: the user's, or the peer's where nobody has logged in.
    std::string account() const { return who.somebody() ? "user " + who.name : link->peer(); }
    operation_asker asker() const { return {link->id(), account(), who.rights == role::administrator, who.owner}; }
};

/// Events that belong together: who may hear of which.
class event_batch
{
public:
    /// `value` null: none. `least`: the rights that somebody needs to hear of it.
    void add(int64_t group, const json_t *value, role least);
    bool empty() const { return events_.empty(); }
    int64_t group() const { return events_.front().group; }
    /// The lines for somebody of these rights.
    std::string lines(role rights) const;

private:
    struct event {
        int64_t group;
        role least;
        std::string line;
    };
    std::vector<event> events_;
};

/// Where an answer goes: it may come when the client is long gone.
struct ticket {
    uint64_t client;
    std::string id; ///< the request's id as JSON text
};

/// A login with a password. Its client may leave before it is judged.
struct login_attempt {
    ticket to;
    std::string user;
    std::string peer;
};

struct long_line;

/// A query under way, or one that waits for its turn.
struct long_query {
    ticket to;
    std::unique_ptr<query> asked;
    std::vector<std::string> pieces; ///< of the answer's line, as far as it is written
    size_t size = 0;                 ///< theirs together
};

class service : public connection_owner
{
public:
    service(loop &events, tree &model, device &machine, downloads &fetching);
    service(const service &) = delete;
    service &operator=(const service &) = delete;
    ~service() override;

    /// What those may do who have not logged in.
    void let_anonymous(role rights) { nobody_.rights = rights; }

    /// Takes a client that has connected, with its link; or turns it away, where somebody has too many.
    void welcome(arrival who, std::unique_ptr<transport> link);

    /// Tells the clients of a value that the device itself has set.
    void value_changed(const std::string &name, const scheme &what, const json_t *value);
    /// Sends an event of the device's own; `value` null: none.
    void send_event(int64_t group, const json_t *value);

    /// Tells the clients what the device is about to do.
    void announce(const char *action);
    /// Ends every link, after what is queued on it has been written.
    void part_with_all();

    /// The model's nodes are others now than `before`: clients hear which instances have come and gone, and may have
    /// lost their rights.
    void replaced(const node *before);

    void line_received(connection &from, std::string_view line) override;
    void connection_over(connection &which) override;

private:
    using method = void (service::*)(client &from, const json_t *params, const ticket &to);
    struct method_entry {
        std::string_view name;
        method call;
    };
    static const method_entry methods[];

    // service.cpp: messages in, answers and events out
    bool make_room(const arrival &who);
    void give_memory_back_soon();
    bool turn_out(const std::string &peer);
    void message_received(client &from, json_t *message);
    void parse_next();
    void request(client &from, json_t *message, std::string_view name, std::string id);
    void answer_result(const ticket &to, std::string_view result);
    void answer_fault(const ticket &to, const fault &why);
    void answer_object(const ticket &to, json_t *result);
    bool make_room_to_read(const std::string &account, size_t bytes, bool own);
    void send_to(const ticket &to, std::string message);
    void send_to(const ticket &to, std::vector<std::string> pieces);
    client *find(uint64_t id);
    /// Delivers events of one group to the sessions that have joined it.
    void deliver(const event_batch &events);
    /// Begins a request of a client, who may do what he may at that moment.
    void begin_request(client *by);
    /// What somebody who has logged in may do, by the accounts as they are now.
    void review(client *one);
    void review_logins();

    // data_methods.cpp
    void set_values(client &from, const json_t *params, const ticket &to);
    void add_object(client &from, const json_t *params, const ticket &to);
    void delete_object(client &from, const json_t *params, const ticket &to);
    void change_order_of(client &from, const json_t *params, const ticket &to);
    std::unordered_set<std::string> passwords_in(const json_t *list);
    void finish_set(client &from, const json_t *list, const ready_hashes &hashes, const ticket &to);
    void tell_instances(const std::vector<instance_change> &changes);
    void watch_machine();
    void machine_changed(const node *table, uint32_t number, bool added);

    // query_methods.cpp
    void get_names(client &from, const json_t *params, const ticket &to);
    void get_values(client &from, const json_t *params, const ticket &to);
    void get_attributes(client &from, const json_t *params, const ticket &to);
    void answer_query(client &from, const ticket &to, std::unique_ptr<query> asked);
    bool write_slice(long_query *of, bool whole);
    void answer_written(long_query *of);
    void go_on_soon();
    void go_on();
    void end_query();
    void begin_reading();
    void query_over();

    // session_methods.cpp
    void log_in(client &from, const json_t *params, const ticket &to);
    void log_out(client &from, const json_t *params, const ticket &to);
    void join_group(client &from, const json_t *params, const ticket &to);
    void event_received(client &from, const json_t *params);
    void try_password(const login_attempt &of, const std::weak_ptr<const std::string> &password);
    void judge_password(const login_attempt &of, const std::string &hash, bool matches);
    void finish_login(client &asking, const ticket &to, const std::optional<login> &who, const std::string &user);

    // device_methods.cpp
    bool refused(const client &from, role needed, const ticket &to);
    void save_config(client &from, const json_t *params, const ticket &to);
    void factory_reset(client &from, const json_t *params, const ticket &to);
    void reboot(client &from, const json_t *params, const ticket &to);
    void download(client &from, const json_t *params, const ticket &to);
    void execute(client &from, const json_t *params, const ticket &to);
    void run(operation_kind kind, client &from, const ticket &to, std::unique_ptr<job> what,
             std::function<json_ref(job_outcome &)> result);
    bool admitted(operation_kind kind, const client &from, const ticket &to);
    void do_held(client &from, const ticket &to, std::function<void(errand::done_handler)> work,
                 std::function<void(client &)> then);

    loop &loop_;
    tree &tree_;
    device &device_;
    downloads &downloads_;
    operations operations_;
    sessions sessions_;
    login nobody_; // whom a connection belongs to before a login
    login_guard guard_;
    held_memory memory_;
    std::unordered_set<std::string_view> password_names_; // of the parameters that passwords are kept in
    std::array<worker, 4> directory_;                     // what hangs in one of them leaves the others
    worker passwords_;
    worker parser_;
    std::array<fair_queue<std::shared_ptr<long_line>>, 2> long_lines_; // of those who are logged in, and of the others
    bool parsing_ = false;
    // Those of somebody who is gone are still here. None waits where none is under way.
    std::optional<long_query> query_under_way_;
    fair_queue<long_query> queries_waiting_; // by account
    bool going_on_ = false;                  // with the query under way, in a moment
    uint64_t sliced_round_ = 0;              // of the loop, in which answers were last written
    int64_t sliced_us_ = 0;                  // how long that took in it
    coalesced_changes machine_changes_;
    size_t left_ = 0;          // links that ended since memory was last given back
    bool giving_back_ = false; // memory, in a moment
    bool telling_ = false;     // when the machine's changes have been collected for a moment
    bool live_accounts_;       // of what is behind the model, which tells nobody when they change
    size_t most_links_;        // what the descriptors are good for
    size_t links_ = 0;
    std::unordered_map<std::string, size_t> links_of_; // by peer
    uint64_t next_client_ = 1;
    std::unordered_map<uint64_t, client> clients_;
};

/// A request's parameters, checked as they are taken. The first that does not fit makes the fault.
class param_reader
{
public:
    explicit param_reader(const json_t *params) : params_(params) {}

    std::string text(const char *name, bool needed = true);
    int64_t integer(const char *name, int64_t absent, int64_t least);
    bool boolean(const char *name, bool absent);
    /// An array of texts; borrowed.
    const json_t *texts(const char *name);
    /// An array of {"Name", "Value"}; borrowed, null when it is absent and need not be there.
    const json_t *name_values(const char *name, bool needed = true);

    const fault &problem() const { return problem_; }

private:
    void refuse(const char *name, const char *what);

    const json_t *params_;
    fault problem_;
};

} // namespace veld
