// What a client context is made of. Two threads may use one: a sender (the main thread) and a receiver (the listener).
// The sender owns the output queue, the receiver the reader; the transport below both is guarded by `lock`, which is
// held for system calls that do not wait and never across a wait point.
#pragma once

#include <deque>
#include <memory>
#include <mutex>
#include <poll.h>
#include <pthread.h>
#include <string>

#include "base/framing.h"
#include "base/name_lookup.h"
#include "platform/ve_jrpcapi.h"
#include "platform/ve_json.h"
#include "vebase/link/socket_impl.h"
#include "vebase/link/tls.h"

/// Bytes on their way out: queued whole messages of which the first ones may be sent in part.
struct ve_jrpcapi_queue {
    std::string bytes;
    size_t sent = 0;
    size_t newest = 0; ///< where the newest message begins

    bool empty() const { return sent == bytes.size(); }
    /// Makes room for a new message at the end.
    void begin_message();
    /// Takes the newest message back, unless some of it is out already.
    void withdraw_newest();
};

struct ve_jrpcapi {
    uint32_t flags = 0;
    int timeout_ms = 5000;
    ve_jrpcapi_slow slow;
    bool has_answered = false; // an exchange, ever
    int64_t silent_since = -1; // when the first exchange began to which there is no answer yet; -1: none
    int64_t slow_at = -1;      // when to tell of the connect or the exchange under way; -1: never, or told
    std::string destination{ve_jrpcapi_default_socket};
    int64_t next_id = 1;
    int64_t reserved_id = 0; // never one of our own; 0 for none

    std::mutex lock;
    ve_socket socket;
    std::unique_ptr<ve_tls> tls;   // under `lock`
    std::string tls_out;           // records not yet sent, under `lock`
    ve_jrpcapi_queue queue;        // under `lock`
    wire_reader reader;            // the receiving thread's
    std::deque<std::string> early; // the receiving thread's: events that came before the answer to an exchange
    size_t early_size = 0;         // of these, in bytes

    // A connect under way.
    std::string host; // the peer's name; "localhost" for a UNIX socket
    std::string tls_error;
    std::unique_ptr<name_lookup> lookup; // of the host, while connecting

    std::atomic<bool> woken{false};
    std::atomic<int> wake_fd{-1}; // made by the first receive that waits

    // The sender's and the receiver's last error apart, so that neither reads the other's.
    std::atomic<pthread_t> receiver{};
    std::atomic<int> receive_error{ve_socket_err_none};
    std::atomic<int> send_error{ve_socket_err_none};

    int64_t failed_at = -1; // when the last failed connect began; -1 when the last one did not fail
    std::string connect_error;
    bool connect_error_lasts = false;
    int pace_ms = 50;            // between failed connects
    bool heard = false;          // the peer has said something without TLS, on some link
    bool closed_unheard = false; // and before that it closed one
};

/// Remembers the outcome of the calling thread's operation.
void ve_jrpcapi_note(ve_jrpcapi *ctx, int error);

/// As ve_wait_poll for one descriptor; says once for the operation under way that it is slow.
int ve_link_wait(ve_jrpcapi *ctx, pollfd *fd, int64_t deadline);
/// Says it, when it is.
void ve_link_tell_slow(ve_jrpcapi *ctx);

// --- the transport; none of these waits ---

/// Sends what is queued. Returns 1 when all is out, 0 when the peer must take some first, -1 when the link is lost.
int ve_link_flush(ve_jrpcapi *ctx);
/// Reads what is there into the reader. Returns 0, or -1 when the link is lost.
int ve_link_fill(ve_jrpcapi *ctx);
/// Gives the link up: the peer sees it closed; the descriptor stays until the disconnect, since another thread may be
/// using it. Always returns -1.
int ve_link_lose(ve_jrpcapi *ctx);
