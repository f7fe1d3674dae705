// One client's link: cuts lines out of what arrives, queues what goes out, and stays within bounds.
#pragma once

#include "base/framing.h"
#include "veld/server/loop.h"
#include "veld/server/transport.h"

#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>

namespace veld
{

/// Who is at the other end of a UNIX socket.
struct peer_identity {
    uid_t uid;
    pid_t pid;
};

class connection;

/// What all connections hold together, so that many clients cannot fill the memory where one could not.
struct held_memory {
    size_t input = 0;  ///< bytes of lines that have not arrived whole
    size_t output = 0; ///< bytes that are not yet written

    bool output_full() const { return output > output_limit; }

    static constexpr size_t input_limit = size_t{256} << 20;
    static constexpr size_t output_limit = size_t{512} << 20;
};

/// What the connection's owner does with what happens on it.
class connection_owner
{
public:
    virtual ~connection_owner() = default;
    /// A line arrived. Must not destroy the connection.
    virtual void line_received(connection &from, std::string_view line) = 0;
    /// The link is over; the owner destroys the connection, not before the next round of the loop.
    virtual void connection_over(connection &which) = 0;
};

class connection
{
public:
    connection(loop &events, uint64_t id, std::unique_ptr<transport> link, std::string peer,
               std::optional<peer_identity> identity, connection_owner &owner, held_memory &memory);
    connection(const connection &) = delete;
    connection &operator=(const connection &) = delete;
    ~connection();

    uint64_t id() const { return id_; }
    /// Text for the log and for counting failures: "uid 1000", "192.0.2.7".
    const std::string &peer() const { return peer_; }
    const std::optional<peer_identity> &identity() const { return identity_; }

    /// Queues an answer. No limit: whoever does not read its answers is not read either.
    void send(std::string message);
    /// Queues what was not asked for. A client that lets too much of it pile up loses its link.
    void send_event(const std::string &message);

    /// While held, lines that have arrived wait, and no more are read. Holds count.
    void hold() { ++holds_; }
    void release();

    /// Says that an answer is still to come: the link then stays although the peer sends no more. Counts.
    void expect_answer() { ++expected_; }
    void answer_given();

    /// Ends the link as soon as what is queued is written, or the time is over. Nothing more is read. `waiting`: not
    /// before the answers that are still to come.
    void finish(int64_t within_ms, bool waiting);
    /// Ends the link now.
    void close();
    bool over() const { return over_; }

private:
    void ready(uint32_t events);
    void receive();
    void account_input(size_t bytes);
    bool take_input(size_t bytes);
    void take_lines();
    void flush();
    void enqueue(std::string message);
    void update_watch();
    void resume_later();
    void greet();
    bool blocked() const { return holds_ > 0 || finishing_ || queued_ > high_water; }

    static constexpr size_t high_water = size_t{256} << 10;

    loop &loop_;
    uint64_t id_;
    std::unique_ptr<transport> link_;
    std::string peer_;
    std::optional<peer_identity> identity_;
    connection_owner &owner_;
    held_memory &memory_;
    wire_reader reader_;
    std::deque<std::string> output_;
    size_t unfinished_ = 0;     // bytes of input that no line has been taken from yet
    size_t written_ = 0;        // of the first queued message
    size_t queued_ = 0;         // bytes not yet written
    size_t queued_answers_ = 0; // bytes of answers queued since the queue was last empty
    uint32_t watching_ = 0;
    int holds_ = 0;
    int expected_ = 0;
    bool greeted_ = false;
    bool ended_ = false; // the peer sends no more
    bool finishing_ = false;
    bool over_ = false;
    bool resuming_ = false;
    bool read_wants_write_ = false;
    bool write_wants_read_ = false;
    std::shared_ptr<connection *> self_; // what a posted call sees; null inside once the connection is gone
    loop::timer_id deadline_ = 0;
};

} // namespace veld
