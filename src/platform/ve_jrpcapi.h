// Client contexts: a link to the daemon and the exchanges over it. A context is used by one thread at a time, but for
// ve_jrpcapi_wake, and for a thread that receives while another one sends.
#pragma once

#include <cstdint>
#include <string>

#include "platform/ve_jrpcmsg.h"
#include "platform/ve_socket.h"

struct ve_jrpcapi;

/// Context flags.
inline constexpr uint32_t ve_jrpcapi_flag_events = 2; ///< this link reads the session's events
inline constexpr uint32_t ve_jrpcapi_flag_ssl = 8;    ///< a TLS handshake follows the connect

inline constexpr char ve_jrpcapi_default_socket[] = "/var/run/veld.sock";

/// A new context, not connected, for the default endpoint. Opens nothing.
ve_jrpcapi *ve_jrpcapi_init();
/// A new context for the endpoint of `ctx`, with its time-out and its TLS; not connected.
ve_jrpcapi *ve_jrpcapi_like(const ve_jrpcapi *ctx);
/// Closes the link and frees; null is allowed.
void ve_jrpcapi_deinit(ve_jrpcapi *ctx);

uint32_t ve_jrpcapi_get_flags(const ve_jrpcapi *ctx);
void ve_jrpcapi_set_flags(ve_jrpcapi *ctx, uint32_t flags);
/// Where to connect: `unixpath`, else `address` (copied); either may be "tcp://HOST:PORT". `kind` is ve_socket_unix.
void ve_jrpcapi_set_destination(ve_jrpcapi *ctx, const char *address, const char *unixpath, int kind);
/// Bounds a whole exchange or receive, in milliseconds; -1 waits without limit.
void ve_jrpcapi_set_timeout(ve_jrpcapi *ctx, int timeout_ms);

/// Whom to tell that the peer lets one wait.
struct ve_jrpcapi_slow {
    int after_ms = -1; ///< -1: never
    void (*tell)(const ve_jrpcapi *ctx) = nullptr;
    bool until_answered = false; ///< never again once it has answered
};
/// Calls `tell` once in each connect and each exchange that waits longer than that; exchanges that ended without an
/// answer count with the next one. Returns what held before.
ve_jrpcapi_slow ve_jrpcapi_tell_slow(ve_jrpcapi *ctx, ve_jrpcapi_slow slow);
/// Where it connects to, borrowed until the next ve_jrpcapi_set_destination.
const char *ve_jrpcapi_destination(const ve_jrpcapi *ctx);

/// Returns 0, or negative; a failed connect holds no descriptor. After a failed one it begins no sooner than 50 ms
/// after that did; where the reason lasts, twice as late each time, up to 5 s. A wait point.
int ve_jrpcapi_connect(ve_jrpcapi *ctx);
void ve_jrpcapi_disconnect(ve_jrpcapi *ctx);
/// Why the last connect failed, for people; empty when it did not. Borrowed until the next connect.
const char *ve_jrpcapi_connect_error(const ve_jrpcapi *ctx);
/// Why there is no link, or why the last send on it failed, beginning with the address; empty when neither is so.
std::string ve_jrpcapi_link_error(const ve_jrpcapi *ctx);
/// True when the last connect failed for a reason that waiting for the daemon does not cure: a destination that makes
/// no sense, a name nobody knows, a certificate that is not trusted, a right that is missing.
bool ve_jrpcapi_connect_error_lasts(const ve_jrpcapi *ctx);
/// Why this process can have no link with TLS, however often it tries; empty when it can. Loads what TLS needs.
std::string ve_jrpcapi_tls_problem();
/// True when the peer of the two links has closed one of them, or both, and never said a word without TLS.
bool ve_jrpcapi_may_need_tls(const ve_jrpcapi *one, const ve_jrpcapi *other);

/// Keeps the id of a message that the user wrote (null: nothing) for that message: none of our own requests gets it, so
/// that no late answer to one of them can be taken for the answer to his.
void ve_jrpcapi_reserve_id(ve_jrpcapi *ctx, const json_t *id);
/// Sends a request and stores its answer into it. Returns 0 when an answer came (an error answer too), else negative,
/// with the message completed by ve_jrpc_err_timeout or ve_jrpc_err_lost and ve_jrpcapi_get_socket_err telling why.
/// A late answer of an earlier exchange is dropped. A wait point; after an interrupted exchange the link stays usable.
int ve_jrpcapi_exec(ve_jrpcapi *ctx, ve_jrpcmsg *message);
/// Gives a request the id that the next send will use, for those who await the answer elsewhere.
void ve_jrpcapi_prepare(ve_jrpcapi *ctx, ve_jrpcmsg *message);
/// Sends without waiting for an answer. Returns 0 or negative. On a link that another thread reads (flag 2) too.
int ve_jrpcapi_send(ve_jrpcapi *ctx, ve_jrpcmsg *message);
/// Waits at most `timeout_ms` on a link on which nobody asks, and drops what comes. Returns 0, or negative once the
/// link is lost. A wait point.
int ve_jrpcapi_watch(ve_jrpcapi *ctx, int timeout_ms);
/// The next event or answer, owned by the caller; null when none came (ve_jrpcapi_get_socket_err says why).
/// Notifications of no known kind are passed over.
ve_jrpcmsg *ve_jrpcapi_recv(ve_jrpcapi *ctx);
/// Makes the receive under way, or the next one, return null with ve_socket_err_interrupted. Any thread; safe in a
/// signal handler.
void ve_jrpcapi_wake(ve_jrpcapi *ctx);

/// Return 0 when accepted, else negative. `password` null or empty: none is sent. A refusal's code is kept for
/// ve_jrpcapi_get_socket_err's sake only when the link was lost.
int ve_jrpcapi_login(ve_jrpcapi *ctx, const char *user, const char *password);
int ve_jrpcapi_logout(ve_jrpcapi *ctx);

/// Error of the calling thread's last operation on the link (ve_socket_error).
int ve_jrpcapi_get_socket_err(const ve_jrpcapi *ctx);
/// The link's socket, borrowed; null when there is none.
ve_socket *ve_jrpcapi_socket(const ve_jrpcapi *ctx);
/// The 32 hex digits under which both links of this process join groups; drawn once.
const char *ve_jrpcapi_session();
