// One client's link: cuts lines out of what arrives, queues what goes out, and stays within bounds.
#pragma once

#include "base/framing.h"
#include "veld/base/loop.h"
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

/// What all connections hold together, so that many clients cannot fill the memory where one could not. Who has not
/// logged in gets the smallest part of it.
struct held_memory {
    size_t input = 0;           ///< bytes of lines that have not arrived whole, or are not worked on yet
    size_t anonymous_input = 0; ///< the part of it of those who have not logged in
    size_t output = 0;          ///< bytes that are not yet written

    bool output_full() const { return output > output_limit; }
    bool has_room_for(size_t more) const { return output + more <= output_limit; }

    static constexpr size_t input_limit = size_t{256} << 20;
    static constexpr size_t anonymous_input_limit = size_t{128} << 20;
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
    /// The peer's user on this machine; nothing for one that comes over the network.
    std::optional<uid_t> uid() const { return identity_ ? std::optional(identity_->uid) : std::nullopt; }

    /// Whether somebody has logged in here.
    void known(bool known);
    /// When the last line arrived, on the clock of monotonic_ms().
    int64_t last_line() const { return last_line_; }

    /// Queues an answer. No limit: whoever does not read its answers is not read either.
    void send(std::string message);
    /// Queues what was not asked for. A client that lets too much of it pile up without reading loses its link; how
    /// much comes at once is not its fault.
    void send_event(const std::shared_ptr<const std::string> &message);
    /// The bytes that wait to be read here; of what many get, a part.
    size_t unread_output() const;

    /// Of the line that was received just now: gives its memory away, `*line` then stands in what is returned. It
    /// counts as held until the next line is taken, which a hold puts off.
    wire_memory take_line(std::string_view *line) { return reader_.release(line); }

    /// While held, lines that have arrived wait, and no more are read. Holds count.
    void hold() { ++holds_; }
    void release();

    /// Says that an answer is still to come: the link then stays although the peer sends no more. Counts.
    void expect_answer() { ++expected_; }
    void answer_given();

    /// Ends the link as soon as what is queued is written, or the time is over; that begins anew, some times, for a
    /// peer that reads on. Nothing more is read. `waiting`: not before the answers that are still to come.
    void finish(int64_t within_ms, bool waiting);
    /// Ends the link now.
    void close();
    bool over() const { return state_ == state::over; }

private:
    /// What becomes of a link, in this order; a state may be left out.
    enum class state {
        greeting,  ///< the handshake is under way
        open,      ///< lines come and answers go
        finishing, ///< nothing more is read; the link ends with the last answer
        over
    };

    // A message that waits to be written: its own, or one that many get.
    struct outgoing {
        std::string own;
        std::shared_ptr<const std::string> shared;
        const std::string &text() const { return shared ? *shared : own; }
    };

    void ready(uint32_t events);
    void receive();
    void account_input(size_t bytes);
    bool take_input(size_t bytes);
    void take_lines();
    void flush();
    void enqueue(outgoing message);
    void update_watch();
    void unwatchable();
    void resume_later();
    void greet();
    void limit_parting(int64_t span_ms, int spans);
    bool reads() const { return state_ == state::open && holds_ == 0 && queued_ <= high_water; }
    bool blocked() const { return holds_ > 0 || state_ >= state::finishing || queued_ > high_water; }
    bool all_answered() const { return output_.empty() && holds_ == 0 && expected_ == 0; }

    static constexpr size_t high_water = size_t{256} << 10;
    static constexpr int parting_spans = 10;

    loop &loop_;
    uint64_t id_;
    std::unique_ptr<transport> link_;
    std::string peer_;
    std::optional<peer_identity> identity_;
    connection_owner &owner_;
    held_memory &memory_;
    wire_reader reader_;
    std::deque<outgoing> output_;
    state state_ = state::greeting;
    bool known_ = false;
    int64_t last_line_;
    size_t unfinished_ = 0; // bytes of input that no line has been taken from yet
    size_t held_line_ = 0;  // of them, the line that is worked on during a hold
    size_t written_ = 0;    // of the first queued message
    size_t queued_ = 0;     // bytes not yet written
    uint64_t sent_ = 0;     // bytes that were
    size_t unread_ = 0;     // of events, what piled up since the peer last read, see send_event()
    uint64_t round_ = 0;    // of the loop: when an event was last queued
    size_t this_round_ = 0; // of `unread_`, what was added in it
    loop::watch_id watch_ = 0;
    uint32_t watching_ = 0; // for which of epoll's events
    int holds_ = 0;
    int expected_ = 0;
    bool resuming_ = false;
    bool read_wants_write_ = false;
    bool write_wants_read_ = false;
    std::shared_ptr<connection *> self_; // what a posted call sees; null inside once the connection is gone
    loop::timer_id deadline_ = 0;
};

} // namespace veld
