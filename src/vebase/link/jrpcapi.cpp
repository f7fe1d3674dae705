#include "base/hex.h"
#include "platform/ve_jrpcapi.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <sys/eventfd.h>
#include <unistd.h>
#include <utility>

#include "platform/ve_wait.h"
#include "vebase/link/jrpcapi_impl.h"
#include "vebase/link/jrpcmsg_impl.h"

namespace
{

// How long a receive waits at a time when no wake-up descriptor could be had.
constexpr int blind_wait_ms = 100;
constexpr int code_too_large = 9004;
// Events kept while an exchange waits; a flood of them must not fill the memory.
constexpr size_t early_max = 1024;
constexpr size_t early_size_max = size_t{16} << 20;
constexpr size_t long_line = size_t{4} << 20;

/// Ends an exchange without an answer. Always returns -1.
int fail(ve_jrpcapi *ctx, ve_jrpcmsg *message, int error)
{
    if (error == ve_socket_err_closed) {
        ve_link_lose(ctx);
        ctx->silent_since = -1;
        ve_jrpcmsg_set_error(message, ve_jrpc_err_lost, "the daemon closed the link", nullptr);
    } else {
        const std::scoped_lock lock(ctx->lock);
        ctx->queue.withdraw_newest();
        ve_jrpcmsg_set_error(message, ve_jrpc_err_timeout, "no answer from the daemon in time", nullptr);
    }
    ve_jrpcapi_note(ctx, error);
    return -1;
}

/// Queues `message` behind what is still on its way. Returns 0, or -1 when it is too large.
int enqueue(ve_jrpcapi *ctx, ve_jrpcmsg *message)
{
    ve_jrpcapi_prepare(ctx, message);
    message->id_ready = false;
    const std::scoped_lock lock(ctx->lock);
    // An exchange that Ctrl-C left before its request began to go out never asked anything.
    ctx->queue.withdraw_newest();
    ctx->queue.begin_message();
    if (ve_jrpcmsg_encode(message, &ctx->queue.bytes) == 0)
        return 0;
    ve_jrpcmsg_set_error(message, code_too_large, "the request is longer than a message may be", nullptr);
    ve_jrpcapi_note(ctx, ve_socket_err_none);
    return -1;
}

enum class taken { found, nothing, garbage };

/// The next object that came in.
taken take_object(ve_jrpcapi *ctx, json_ref *object)
{
    std::string_view line;
    const auto state = ctx->reader.next(&line);
    if (state == wire_reader::state::more)
        return taken::nothing;
    object->reset(state == wire_reader::state::line && !json_text_is_bloated(line) ? wire_decode(line) : nullptr);
    return *object ? taken::found : taken::garbage;
}

/// Keeps an event for the receives on a link that reads them.
void keep_early(ve_jrpcapi *ctx, std::string_view event)
{
    if ((ctx->flags & ve_jrpcapi_flag_events) == 0 || ctx->early.size() >= early_max ||
        ctx->early_size + event.size() > early_size_max)
        return;
    ctx->early.emplace_back(event);
    ctx->early_size += event.size();
}

/// Looks for the answer to `message` among what came in. Events are kept for the receives on a link that reads them;
/// what is nobody's is dropped.
taken take_answer(ve_jrpcapi *ctx, ve_jrpcmsg *message)
{
    for (;;) {
        std::string_view line;
        const auto state = ctx->reader.next(&line);
        if (state == wire_reader::state::more)
            return taken::nothing;
        json_piece object;
        if (state == wire_reader::state::line && json_text_check(line))
            object = json_piece(line);
        if (!object.is_object())
            return taken::garbage;
        // That took its time. Nobody awaits the answer any more when Ctrl-C came meanwhile.
        if (line.size() > long_line) {
            ve_wait_checkpoint();
            if (ve_wait_interrupted())
                continue;
        }
        const ve_jrpc_parts parts(object);
        if (parts.method) {
            keep_early(ctx, object.text());
        } else if (message != nullptr && ve_jrpcmsg_is_answered_by(message, parts)) {
            const char *const place = line.data();
            wire_memory memory = ctx->reader.release(&line);
            ve_jrpcmsg_take_answer(message, line.data() == place ? parts : ve_jrpc_parts(json_piece(line)),
                                   std::move(memory));
            return taken::found;
        }
    }
}

/// Takes in what there is, which nobody waits for. False when the peer is gone or talks nonsense.
bool drop_input(ve_jrpcapi *ctx)
{
    return ve_link_fill(ctx) >= 0 && take_answer(ctx, nullptr) != taken::garbage;
}

bool is_over(int64_t deadline)
{
    return deadline >= 0 && ve_wait_deadline(0) >= deadline;
}

void drain_wake(const ve_jrpcapi *ctx)
{
    uint64_t count = 0;
    if (const int fd = ctx->wake_fd.load(); fd >= 0) [[maybe_unused]]
        const ssize_t ignored = read(fd, &count, sizeof count);
}

/// Whether a wake-up came since the last one was taken; takes it.
bool take_wake(ve_jrpcapi *ctx)
{
    if (!ctx->woken.exchange(false))
        return false;
    drain_wake(ctx);
    return true;
}

/// The next message that a receive hands out, or null; `*broken` says that the peer talks nonsense.
ve_jrpcmsg *take_message(ve_jrpcapi *ctx, bool *broken)
{
    for (;;) {
        json_ref object;
        if (!ctx->early.empty()) {
            object.reset(json_piece(ctx->early.front()).load());
            ctx->early_size -= ctx->early.front().size();
            ctx->early.pop_front();
        } else if (const taken got = take_object(ctx, &object); got != taken::found) {
            *broken = got == taken::garbage;
            return nullptr;
        }
        ve_jrpcmsg *message = ve_jrpcmsg_parse_json(object.get());
        if (message != nullptr &&
            (message->kind == ve_jrpcmsg_answer || (message->kind == ve_jrpcmsg_event && message->event_id != 0)))
            return message;
        ve_jrpcmsg_free(message);
    }
}

ve_jrpcmsg *nothing_received(ve_jrpcapi *ctx, int error)
{
    if (error == ve_socket_err_closed)
        ve_link_lose(ctx);
    ve_jrpcapi_note(ctx, error);
    return nullptr;
}

} // namespace

ve_jrpcapi *ve_jrpcapi_init()
{
    return new ve_jrpcapi;
}

ve_jrpcapi *ve_jrpcapi_like(const ve_jrpcapi *ctx)
{
    auto *other = new ve_jrpcapi;
    other->flags = ctx->flags & ve_jrpcapi_flag_ssl;
    other->timeout_ms = ctx->timeout_ms;
    other->destination = ctx->destination;
    return other;
}

void ve_jrpcapi_deinit(ve_jrpcapi *ctx)
{
    if (ctx == nullptr)
        return;
    ve_jrpcapi_disconnect(ctx);
    if (const int fd = ctx->wake_fd.load(); fd >= 0)
        close(fd);
    delete ctx;
}

uint32_t ve_jrpcapi_get_flags(const ve_jrpcapi *ctx)
{
    return ctx->flags;
}

void ve_jrpcapi_set_flags(ve_jrpcapi *ctx, uint32_t flags)
{
    ctx->flags = flags;
}

void ve_jrpcapi_set_timeout(ve_jrpcapi *ctx, int timeout_ms)
{
    ctx->timeout_ms = timeout_ms;
}

ve_jrpcapi_slow ve_jrpcapi_tell_slow(ve_jrpcapi *ctx, ve_jrpcapi_slow slow)
{
    ctx->silent_since = -1;
    return std::exchange(ctx->slow, slow.until_answered && ctx->has_answered ? ve_jrpcapi_slow{} : slow);
}

void ve_link_tell_slow(ve_jrpcapi *ctx)
{
    if (ctx->slow_at < 0 || ve_wait_deadline(0) < ctx->slow_at)
        return;
    ctx->slow_at = -1;
    ctx->silent_since = -1;
    ctx->slow.tell(ctx);
}

int ve_link_wait(ve_jrpcapi *ctx, pollfd *fd, int64_t deadline)
{
    if (ctx->slow_at >= 0 && (deadline < 0 || ctx->slow_at < deadline)) {
        if (const int ready = ve_wait_poll(fd, 1, ctx->slow_at); ready != 0)
            return ready;
        ve_link_tell_slow(ctx);
    }
    return ve_wait_poll(fd, 1, deadline);
}

void ve_jrpcapi_note(ve_jrpcapi *ctx, int error)
{
    (ctx->receiver == pthread_self() ? ctx->receive_error : ctx->send_error) = error;
}

int ve_jrpcapi_get_socket_err(const ve_jrpcapi *ctx)
{
    return ctx->receiver == pthread_self() ? ctx->receive_error : ctx->send_error;
}

ve_socket *ve_jrpcapi_socket(const ve_jrpcapi *ctx)
{
    return ctx->socket.fd < 0 ? nullptr : const_cast<ve_socket *>(&ctx->socket);
}

void ve_jrpcapi_prepare(ve_jrpcapi *ctx, ve_jrpcmsg *message)
{
    if (message->kind != ve_jrpcmsg_request || message->id_ready)
        return;
    if (message->keeps_id) {
        // Our own ids go on behind one that the user chose, so that no answer can be taken for another.
        const json_int_t chosen = json_integer_value(message->id.get());
        if (chosen >= ctx->next_id && chosen < INT64_MAX)
            ctx->next_id = chosen + 1;
        return;
    }
    if (ctx->next_id == ctx->reserved_id)
        ++ctx->next_id;
    if (ctx->next_id == INT64_MAX)
        ctx->next_id = ctx->reserved_id == 1 ? 2 : 1;
    message->id.reset(json_integer(ctx->next_id++));
    message->id_ready = true;
}

void ve_jrpcapi_reserve_id(ve_jrpcapi *ctx, const json_t *id)
{
    const json_int_t number = json_integer_value(id);
    ctx->reserved_id = number < INT64_MAX ? number : 0;
}

int ve_jrpcapi_exec(ve_jrpcapi *ctx, ve_jrpcmsg *message)
{
    ve_jrpcmsg_set_result_new(message, nullptr);
    const int64_t deadline = ve_wait_deadline(ctx->timeout_ms);
    if (ve_wait_interrupted())
        return fail(ctx, message, ve_socket_err_interrupted);
    if (ctx->socket.state != ve_socket_connected)
        return fail(ctx, message, ve_socket_err_closed);
    if (enqueue(ctx, message) < 0)
        return -1;
    if (ctx->silent_since < 0)
        ctx->silent_since = ve_wait_deadline(0);
    ctx->slow_at = ctx->slow.after_ms < 0 ? -1 : ctx->silent_since + ctx->slow.after_ms;
    int flushed = ve_link_flush(ctx);
    for (bool first = true;; first = false) {
        // An answer counts even when the link went right behind it.
        const taken found = take_answer(ctx, message);
        if (found == taken::found) {
            if (flushed < 0)
                ve_link_lose(ctx);
            ctx->silent_since = -1;
            ctx->has_answered = true;
            if (ctx->slow.until_answered)
                ctx->slow = {};
            ve_jrpcapi_note(ctx, ve_socket_err_none);
            return 0;
        }
        if (found == taken::garbage || flushed < 0)
            return fail(ctx, message, ve_socket_err_closed);
        if (!first) {
            // A peer that keeps sending never lets the wait below end otherwise.
            if (is_over(deadline))
                return fail(ctx, message, ve_socket_err_timeout);
            ve_wait_checkpoint();
        }
        pollfd fd{
            .fd = ctx->socket.fd, .events = static_cast<short>(flushed == 0 ? POLLIN | POLLOUT : POLLIN), .revents = 0};
        const int ready = ve_link_wait(ctx, &fd, deadline);
        if (ready <= 0)
            return fail(ctx, message, ready == 0 ? ve_socket_err_timeout : ve_socket_err_interrupted);
        if ((fd.revents & ~POLLOUT) != 0 && ve_link_fill(ctx) < 0)
            flushed = -1;
        else if ((fd.revents & POLLOUT) != 0)
            flushed = ve_link_flush(ctx);
    }
}

int ve_jrpcapi_send(ve_jrpcapi *ctx, ve_jrpcmsg *message)
{
    const int64_t deadline = ve_wait_deadline(ctx->timeout_ms);
    // On a link whose events a thread reads, that thread takes what comes in.
    const bool reads = (ctx->flags & ve_jrpcapi_flag_events) == 0;
    if (ve_wait_interrupted())
        return fail(ctx, message, ve_socket_err_interrupted);
    // TCP takes a message for a peer that has hung up; only reading tells.
    if (ctx->socket.state != ve_socket_connected || (reads && !drop_input(ctx)))
        return fail(ctx, message, ve_socket_err_closed);
    if (enqueue(ctx, message) < 0)
        return -1;
    for (int flushed = ve_link_flush(ctx);;) {
        if (flushed < 0)
            return fail(ctx, message, ve_socket_err_closed);
        if (flushed > 0)
            break;
        if (is_over(deadline))
            return fail(ctx, message, ve_socket_err_timeout);
        pollfd fd{.fd = ctx->socket.fd, .events = static_cast<short>(reads ? POLLIN | POLLOUT : POLLOUT), .revents = 0};
        const int ready = ve_wait_poll(&fd, 1, deadline);
        if (ready <= 0)
            return fail(ctx, message, ready == 0 ? ve_socket_err_timeout : ve_socket_err_interrupted);
        if (reads && (fd.revents & POLLIN) != 0 && !drop_input(ctx))
            flushed = -1;
        else
            flushed = ve_link_flush(ctx);
    }
    ve_jrpcapi_note(ctx, ve_socket_err_none);
    return 0;
}

int ve_jrpcapi_watch(ve_jrpcapi *ctx, int timeout_ms)
{
    if (ctx->socket.state != ve_socket_connected)
        return -1;
    pollfd fd{.fd = ctx->socket.fd, .events = POLLIN, .revents = 0};
    if (ve_wait_poll(&fd, 1, ve_wait_deadline(timeout_ms)) <= 0 || drop_input(ctx))
        return 0;
    ve_jrpcapi_note(ctx, ve_socket_err_closed);
    return ve_link_lose(ctx);
}

ve_jrpcmsg *ve_jrpcapi_recv(ve_jrpcapi *ctx)
{
    ctx->receiver = pthread_self();
    const int64_t deadline = ve_wait_deadline(ctx->timeout_ms);
    for (bool first = true;; first = false) {
        if (take_wake(ctx))
            return nothing_received(ctx, ve_socket_err_interrupted);
        bool broken = false;
        if (ve_jrpcmsg *message = take_message(ctx, &broken)) {
            ve_jrpcapi_note(ctx, ve_socket_err_none);
            return message;
        }
        if (broken || ctx->socket.state != ve_socket_connected)
            return nothing_received(ctx, ve_socket_err_closed);
        if (!first) {
            if (is_over(deadline))
                return nothing_received(ctx, ve_socket_err_timeout);
            ve_wait_checkpoint();
        }
        int wake_fd = ctx->wake_fd.load();
        if (wake_fd < 0) {
            wake_fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
            ctx->wake_fd.store(wake_fd);
            // A wake-up that found no descriptor has set the flag before; one that comes now finds it.
            if (take_wake(ctx))
                return nothing_received(ctx, ve_socket_err_interrupted);
        }
        pollfd fds[] = {{.fd = ctx->socket.fd, .events = POLLIN, .revents = 0},
                        {.fd = wake_fd, .events = POLLIN, .revents = 0}};
        int64_t until = deadline;
        if (wake_fd < 0) {
            const int64_t soon = ve_wait_deadline(blind_wait_ms);
            until = deadline < 0 ? soon : std::min(deadline, soon);
        }
        if (ve_wait_poll(fds, std::size(fds), until) < 0)
            return nothing_received(ctx, ve_socket_err_interrupted);
        if (fds[1].revents != 0 && !ctx->woken)
            drain_wake(ctx);
        if (fds[0].revents != 0 && ve_link_fill(ctx) < 0)
            ve_link_lose(ctx);
    }
}

void ve_jrpcapi_wake(ve_jrpcapi *ctx)
{
    ctx->woken = true;
    const uint64_t one = 1;
    if (const int fd = ctx->wake_fd.load(); fd >= 0) [[maybe_unused]]
        const ssize_t ignored = write(fd, &one, sizeof one);
}

int ve_jrpcapi_login(ve_jrpcapi *ctx, const char *user, const char *password)
{
    json_t *params = json_object();
    json_object_set_new(params, "User", json_string(user));
    if (password != nullptr && password[0] != '\0')
        json_object_set_new(params, "Password", json_string(password));
    const msg_ref message(ve_jrpcmsg_create_new("Login", params));
    return ve_jrpcapi_exec(ctx, message.get()) == 0 && ve_jrpcmsg_error_code(message.get()) == 0 ? 0 : -1;
}

int ve_jrpcapi_logout(ve_jrpcapi *ctx)
{
    const msg_ref message(ve_jrpcmsg_create_new("Logout", nullptr));
    return ve_jrpcapi_exec(ctx, message.get()) == 0 && ve_jrpcmsg_error_code(message.get()) == 0 ? 0 : -1;
}

const char *ve_jrpcapi_session()
{
    static const std::string digits = random_hex(16);
    if (digits.empty())
        abort();
    return digits.c_str();
}
