// Getting a context its link: the destination, the connect, the handshake.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <vector>

#include "base/clock.h"
#include "base/endpoint.h"
#include "platform/ve_wait.h"
#include "vebase/link/jrpcapi_impl.h"

namespace
{

// A failed connect returns no sooner than this after the last failed one began; where the reason lasts, twice as long
// with each failure.
constexpr int pace_ms = 50;
constexpr int slowest_pace_ms = 5000;
// How long a connect may take, whatever the context's time-out for exchanges is.
constexpr int connect_limit_ms = 10000;
// A UNIX socket whose queue is full says so at once instead of connecting later.
constexpr int full_queue_pause_ms = 10;

/// The outcome of one step of a connect.
enum class outcome { done, failed, interrupted };

outcome failed(ve_jrpcapi *ctx, std::string reason, bool lasts)
{
    ctx->connect_error = std::move(reason);
    ctx->connect_error_lasts = lasts;
    return outcome::failed;
}

outcome failed_errno(ve_jrpcapi *ctx, int number)
{
    const bool lasts = number == EACCES || number == EPERM;
    return failed(ctx, ctx->destination + ": " + strerror(number), lasts);
}

outcome timed_out(ve_jrpcapi *ctx)
{
    return failed_errno(ctx, ETIMEDOUT);
}

/// A wait point.
outcome wait_for(ve_jrpcapi *ctx, int descriptor, short events, int64_t deadline)
{
    pollfd fd{.fd = descriptor, .events = events, .revents = 0};
    const int ready = ve_link_wait(ctx, &fd, deadline);
    return ready > 0 ? outcome::done : ready == 0 ? timed_out(ctx) : outcome::interrupted;
}

/// Connects a new socket to `address`. `*number` receives the error of a failed try.
outcome connect_to(ve_jrpcapi *ctx, const sockaddr *address, socklen_t size, int64_t deadline)
{
    ve_socket_close(&ctx->socket);
    ctx->socket.kind = address->sa_family == AF_UNIX ? ve_socket_unix : ve_socket_tcp;
    ctx->socket.fd = ve_socket_open(address->sa_family);
    if (ctx->socket.fd < 0)
        return failed_errno(ctx, errno);
    ctx->socket.state = ve_socket_connecting;
    while (connect(ctx->socket.fd, address, size) < 0) {
        if (errno == EISCONN)
            break;
        if (errno == EAGAIN && address->sa_family == AF_UNIX) {
            if (deadline <= monotonic_ms())
                return timed_out(ctx);
            if (ve_wait_sleep_ms(full_queue_pause_ms) < 0)
                return outcome::interrupted;
            ve_link_tell_slow(ctx);
            continue;
        }
        if (errno != EINPROGRESS && errno != EINTR && errno != EALREADY)
            return failed_errno(ctx, errno);
        if (const outcome waited = wait_for(ctx, ctx->socket.fd, POLLOUT, deadline); waited != outcome::done)
            return waited;
        int error = 0;
        socklen_t length = sizeof error;
        if (getsockopt(ctx->socket.fd, SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error == 0)
            break;
        return failed_errno(ctx, error);
    }
    return outcome::done;
}

outcome connect_unix(ve_jrpcapi *ctx, int64_t deadline)
{
    sockaddr_un address;
    if (!unix_address(ctx->destination, &address))
        return failed(ctx,
                      ctx->destination + ": the path of a socket has 1 to " + std::to_string(unix_path_max) + " bytes",
                      true);
    return connect_to(ctx, reinterpret_cast<const sockaddr *>(&address), sizeof address, deadline);
}

void tune_tcp(int fd)
{
    // Requests are small and each waits for its answer. A peer that vanished without a word is noticed in two minutes.
    const int on = 1;
    const int idle_s = 60;
    const int interval_s = 10;
    const int probes = 6;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    setsockopt(fd, IPPROTO_TCP, TCP_KEEPIDLE, &idle_s, sizeof idle_s);
    setsockopt(fd, IPPROTO_TCP, TCP_KEEPINTVL, &interval_s, sizeof interval_s);
    setsockopt(fd, IPPROTO_TCP, TCP_KEEPCNT, &probes, sizeof probes);
}

/// The addresses of a host. A wait point.
outcome resolve(ve_jrpcapi *ctx, const std::string &host, int64_t deadline, std::vector<host_address> *found)
{
    host_address plain;
    if (address_parse(host, AF_UNSPEC, &plain)) {
        found->push_back(plain);
        return outcome::done;
    }
    ctx->lookup = name_lookup::start(host, AF_UNSPEC);
    if (!ctx->lookup)
        return failed(ctx, ctx->destination + ": " + gai_strerror(EAI_AGAIN), true);
    if (const outcome waited = wait_for(ctx, ctx->lookup->fd(), POLLIN, deadline); waited != outcome::done)
        return waited;
    *found = ctx->lookup->found();
    return found->empty() ? failed(ctx, ctx->destination + ": " + ctx->lookup->error(), true) : outcome::done;
}

outcome connect_tcp(ve_jrpcapi *ctx, const host_port &place, int64_t deadline)
{
    std::vector<host_address> addresses;
    outcome last = resolve(ctx, place.host, deadline, &addresses);
    if (last != outcome::done)
        return last;
    for (size_t i = 0; i < addresses.size(); ++i) {
        addresses[i].set_port(place.port);
        // An address that swallows everything must leave time for the next one.
        const int64_t now = monotonic_ms();
        const int64_t until = i + 1 < addresses.size() ? now + (deadline - now) / 2 : deadline;
        last = connect_to(ctx, addresses[i].get(), addresses[i].length, until);
        if (last != outcome::failed)
            break;
    }
    if (last == outcome::done)
        tune_tcp(ctx->socket.fd);
    return last;
}

/// One step of the handshake: what there is goes out, what comes in is taken.
outcome move_records(ve_jrpcapi *ctx, int64_t deadline)
{
    const int fd = ctx->socket.fd;
    ctx->tls->take_output(&ctx->tls_out);
    while (!ctx->tls_out.empty()) {
        const ssize_t count = send(fd, ctx->tls_out.data(), ctx->tls_out.size(), MSG_NOSIGNAL);
        if (count >= 0)
            ctx->tls_out.erase(0, static_cast<size_t>(count));
        else if (errno == EPIPE || errno == ECONNRESET)
            break; // what the peer said before it left is still to be read
        else if (errno != EINTR && errno != EAGAIN)
            return failed_errno(ctx, errno);
        else if (const outcome waited = wait_for(ctx, ctx->socket.fd, POLLOUT, deadline); waited != outcome::done)
            return waited;
    }
    return outcome::done;
}

outcome shake_hands(ve_jrpcapi *ctx, int64_t deadline)
{
    ctx->tls = ve_tls::make(ctx->host, &ctx->tls_error);
    if (!ctx->tls)
        return failed(ctx, ctx->destination + ": TLS: " + ctx->tls_error, true);
    for (;;) {
        const ve_tls::step step = ctx->tls->handshake(&ctx->tls_error);
        // An alert that says why we refuse the peer goes out too.
        if (const outcome moved = move_records(ctx, deadline); moved != outcome::done && step != ve_tls::step::failed)
            return moved;
        if (step == ve_tls::step::failed)
            return failed(ctx, ctx->destination + ": TLS: " + ctx->tls_error, true);
        if (step == ve_tls::step::done)
            return outcome::done;
        if (const outcome waited = wait_for(ctx, ctx->socket.fd, POLLIN, deadline); waited != outcome::done)
            return waited;
        char records[4096];
        const ssize_t count = recv(ctx->socket.fd, records, sizeof records, 0);
        if (count == 0 || (count < 0 && errno == ECONNRESET))
            return failed(ctx, ctx->destination + ": TLS: the peer closed the link during the handshake", true);
        if (count > 0)
            ctx->tls->feed(records, static_cast<size_t>(count));
        else if (errno != EINTR && errno != EAGAIN)
            return failed_errno(ctx, errno);
    }
}

outcome open_link(ve_jrpcapi *ctx)
{
    const int64_t deadline = ve_wait_deadline(connect_limit_ms);
    outcome opened;
    if (ctx->destination.starts_with(tcp_scheme)) {
        const auto place = host_port_parse(std::string_view(ctx->destination).substr(tcp_scheme.size()));
        if (!place || place->port == 0)
            return failed(ctx, ctx->destination + ": not of the form tcp://HOST:PORT", true);
        ctx->host = place->host;
        opened = connect_tcp(ctx, *place, deadline);
    } else {
        ctx->host = "localhost";
        opened = connect_unix(ctx, deadline);
    }
    if (opened == outcome::done && (ctx->flags & ve_jrpcapi_flag_ssl) != 0)
        opened = shake_hands(ctx, deadline);
    return opened;
}

} // namespace

void ve_jrpcapi_set_destination(ve_jrpcapi *ctx, const char *address, const char *unixpath, int /*kind*/)
{
    for (const char *place : {unixpath, address}) {
        if (place != nullptr && place[0] != '\0') {
            ctx->destination = place;
            return;
        }
    }
    ctx->destination = ve_jrpcapi_default_socket;
}

int ve_jrpcapi_connect(ve_jrpcapi *ctx)
{
    ve_jrpcapi_disconnect(ctx);
    if (ctx->failed_at >= 0) {
        const int64_t left = ctx->failed_at + ctx->pace_ms - monotonic_ms();
        if (left > 0 && ve_wait_sleep_ms(static_cast<int>(left)) < 0) {
            ve_jrpcapi_note(ctx, ve_socket_err_interrupted);
            return -1;
        }
    }
    ctx->pace_ms = ctx->connect_error_lasts ? std::min(2 * ctx->pace_ms, slowest_pace_ms) : pace_ms;
    ctx->connect_error.clear();
    ctx->connect_error_lasts = false;
    // Counts as failed until it succeeds, so that one which Ctrl-C leaves is paced too.
    ctx->failed_at = monotonic_ms();
    ctx->slow_at = ve_wait_deadline(ctx->slow.after_ms);
    const outcome opened = open_link(ctx);
    ctx->lookup.reset();
    if (opened != outcome::done) {
        ve_jrpcapi_disconnect(ctx);
        ve_jrpcapi_note(ctx, opened == outcome::interrupted ? ve_socket_err_interrupted : ve_socket_err_closed);
        return -1;
    }
    ctx->failed_at = -1;
    ctx->socket.state = ve_socket_connected;
    ve_jrpcapi_note(ctx, ve_socket_err_none);
    // The peer may have sent something right behind the handshake.
    if (ctx->tls && ve_link_fill(ctx) < 0)
        ve_link_lose(ctx);
    return 0;
}

std::string ve_jrpcapi_tls_problem()
{
    return ve_tls::problem();
}

bool ve_jrpcapi_may_need_tls(const ve_jrpcapi *one, const ve_jrpcapi *other)
{
    return (one->closed_unheard || other->closed_unheard) && !one->heard && !other->heard;
}

void ve_jrpcapi_disconnect(ve_jrpcapi *ctx)
{
    const std::scoped_lock lock(ctx->lock);
    if (ctx->tls && ctx->socket.state == ve_socket_connected && ctx->tls_out.empty()) {
        ctx->tls->finish();
        ctx->tls->take_output(&ctx->tls_out);
        [[maybe_unused]] const ssize_t ignored =
            send(ctx->socket.fd, ctx->tls_out.data(), ctx->tls_out.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    }
    ve_socket_close(&ctx->socket);
    ctx->tls.reset();
    ctx->tls_out.clear();
    ctx->queue = {};
    ctx->reader.clear();
    ctx->early.clear();
    ctx->early_size = 0;
}

const char *ve_jrpcapi_destination(const ve_jrpcapi *ctx)
{
    return ctx->destination.c_str();
}

const char *ve_jrpcapi_connect_error(const ve_jrpcapi *ctx)
{
    return ctx->connect_error.c_str();
}

std::string ve_jrpcapi_link_error(const ve_jrpcapi *ctx)
{
    if (!ctx->connect_error.empty())
        return ctx->connect_error;
    if (ve_jrpcapi_get_socket_err(ctx) == ve_socket_err_timeout)
        return ctx->destination + ": the daemon does not read what is sent";
    return ctx->socket.state != ve_socket_connected ? ctx->destination + ": the daemon closed the link" : std::string();
}

bool ve_jrpcapi_connect_error_lasts(const ve_jrpcapi *ctx)
{
    return ctx->connect_error_lasts;
}
