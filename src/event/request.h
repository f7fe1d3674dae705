// The request channel: the one way by which the client asks the daemon. Main thread only.
#pragma once

#include <string>

#include "platform/ve_jrpcapi.h"

/// The current login, kept for the prompt and the shell's start; both empty for none. Written by kest_update_login
/// alone.
struct login_words {
    std::string user;
    std::string password;
};
const login_words &saved_login();

/// How long an exchange on the request link may take, in milliseconds, where nobody says otherwise.
constexpr int usual_timeout_ms = 5000;

/// The two links; set by start_event_handler.
extern ve_jrpcapi *request_ctx;
extern ve_jrpcapi *group_ctx;

/// What a change of login does to the parts of the client above: filled by start-up.
struct request_hooks {
    void (*prompt_update)(); ///< rebuilds the prompt
    void (*reload)();        ///< reloads the scheme cache
};
void request_set_hooks(const request_hooks &hooks);

/// Sends `msg` (borrowed) on the request link and waits for its answer, which is stored into it. `timeout_ms` -1 waits
/// without limit. Returns 0 when an answer came (an error answer too), else negative with the message completed. A lost
/// link is re-established once, which replaces the scheme cache and ends the login, and the request repeated.
int msg_exec(ve_jrpcmsg *msg, int timeout_ms);
/// The same without reconnecting: a lost link ends the request with ve_jrpc_err_lost. For polls that wait for the loss.
int msg_exec_once(ve_jrpcmsg *msg, int timeout_ms);
/// Sends without waiting for an answer. Returns 0 or negative.
int msg_send(ve_jrpcmsg *msg);
/// The same, but a lost link is re-established once, as msg_exec does, and the message sent on the new one.
int msg_post(ve_jrpcmsg *msg);
/// 0 = accepted.
int msg_login(const char *user, const char *password);
int msg_logout();

/// Whether msg_exec and msg_post may reconnect (they may at first). Switched off around the line editor's callbacks.
/// Returns what held.
bool msg_allow_reconnect(bool allowed);

/// Re-establishes the request link, showing `text` and a spinner until the daemon accepts; the groups are joined again
/// then, the client is anonymous and the cache reloaded. Standard error is told why the daemon does not accept; of a
/// daemon that said it would go away (`announced`) only what waiting does not cure. Ctrl-C leaves the link lost.
void server_reconnect(const char *text, bool announced = false);

/// Remembers login and password (null or empty: none), rebuilds the prompt and reloads the scheme cache.
void kest_update_login(const char *login, const char *password);

int group_send(ve_jrpcmsg *msg);
/// Sends on the group link and waits for the answer that the listener hands over, at most `polls` passes of 1 ms (-1 no
/// limit). Returns the answer's code, or -1.
int group_exec(ve_jrpcmsg *msg, int polls);
