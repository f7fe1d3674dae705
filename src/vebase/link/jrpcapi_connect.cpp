// Getting a context its link: the destination, the connect, the handshake.
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/un.h>

#include "platform/ve_wait.h"
#include "vebase/link/jrpcapi_impl.h"

namespace
{

// A failed connect returns no sooner than this after the last failed one began.
constexpr int pace_ms = 50;
// How long a connect may take, whatever the context's time-out for exchanges is.
constexpr int connect_limit_ms = 10000;
// A UNIX socket whose queue is full says so at once instead of connecting later.
constexpr int full_queue_pause_ms = 10;

constexpr std::string_view tcp_scheme = "tcp://";

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
    char text[128];
    return failed(ctx, ctx->destination + ": " + strerror_r(number, text, sizeof text), false);
}

outcome timed_out(ve_jrpcapi *ctx)
{
    return failed_errno(ctx, ETIMEDOUT);
}

/// Waits for the socket under way. A wait point.
outcome wait_for(ve_jrpcapi *ctx, short events, int64_t deadline)
{
    pollfd fd{.fd = ctx->socket.fd, .events = events, .revents = 0};
    const int ready = ve_wait_poll(&fd, 1, deadline);
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
            if (deadline <= ve_wait_deadline(0))
                return timed_out(ctx);
            if (ve_wait_sleep_ms(full_queue_pause_ms) < 0)
                return outcome::interrupted;
            continue;
        }
        if (errno != EINPROGRESS && errno != EINTR && errno != EALREADY)
            return failed_errno(ctx, errno);
        if (const outcome waited = wait_for(ctx, POLLOUT, deadline); waited != outcome::done)
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
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string &path = ctx->destination;
    if (path.empty() || path.size() >= sizeof address.sun_path)
        return failed(
            ctx, path + ": the path of a socket has 1 to " + std::to_string(sizeof address.sun_path - 1) + " bytes",
            true);
    path.copy(address.sun_path, path.size());
    return connect_to(ctx, reinterpret_cast<const sockaddr *>(&address), sizeof address, deadline);
}

/// Splits "tcp://HOST:PORT" and "tcp://[HOST]:PORT".
bool split_tcp(ve_jrpcapi *ctx)
{
    const std::string_view destination = std::string_view(ctx->destination).substr(tcp_scheme.size());
    const size_t colon = destination.rfind(':');
    if (colon == std::string_view::npos)
        return false;
    std::string_view name = destination.substr(0, colon);
    const std::string_view digits = destination.substr(colon + 1);
    uint16_t number = 0;
    const auto parsed = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    if (parsed.ec != std::errc{} || parsed.ptr != digits.data() + digits.size() || number == 0)
        return false;
    if (name.size() > 2 && name.front() == '[' && name.back() == ']')
        name = name.substr(1, name.size() - 2);
    else if (name.find_first_of("[]:") != std::string_view::npos)
        return false;
    ctx->host = name;
    ctx->port = digits;
    return !name.empty();
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

outcome connect_tcp(ve_jrpcapi *ctx, int64_t deadline)
{
    ctx->resolving = std::make_unique<ve_resolve>(ctx->host, ctx->port);
    const int resolved = ctx->resolving->wait(deadline);
    if (resolved < 0)
        return outcome::interrupted;
    if (resolved == 0)
        return timed_out(ctx);
    if (ctx->resolving->addresses() == nullptr)
        return failed(ctx, ctx->host + ": " + ctx->resolving->error(), true);
    outcome last = outcome::failed;
    for (const addrinfo *entry = ctx->resolving->addresses(); entry != nullptr; entry = entry->ai_next) {
        // An address that swallows everything must leave time for the next one.
        const int64_t now = ve_wait_deadline(0);
        const int64_t until = entry->ai_next != nullptr ? now + (deadline - now) / 2 : deadline;
        last = connect_to(ctx, entry->ai_addr, entry->ai_addrlen, until);
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
        else if (const outcome waited = wait_for(ctx, POLLOUT, deadline); waited != outcome::done)
            return waited;
    }
    return outcome::done;
}

outcome shake_hands(ve_jrpcapi *ctx, int64_t deadline)
{
    ctx->tls = ve_tls::make(ctx->host, &ctx->tls_error);
    if (!ctx->tls)
        return failed(ctx, "TLS: " + ctx->tls_error, true);
    for (;;) {
        const ve_tls::step step = ctx->tls->handshake(&ctx->tls_error);
        // An alert that says why we refuse the peer goes out too.
        if (const outcome moved = move_records(ctx, deadline); moved != outcome::done && step != ve_tls::step::failed)
            return moved;
        if (step == ve_tls::step::failed)
            return failed(ctx, "TLS: " + ctx->tls_error, true);
        if (step == ve_tls::step::done)
            return outcome::done;
        if (const outcome waited = wait_for(ctx, POLLIN, deadline); waited != outcome::done)
            return waited;
        char records[4096];
        const ssize_t count = recv(ctx->socket.fd, records, sizeof records, 0);
        if (count == 0 || (count < 0 && errno == ECONNRESET))
            return failed(ctx, "TLS: the peer closed the link during the handshake", true);
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
        if (!split_tcp(ctx))
            return failed(ctx, ctx->destination + ": not of the form tcp://HOST:PORT", true);
        opened = connect_tcp(ctx, deadline);
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
        const int64_t left = ctx->failed_at + pace_ms - ve_wait_deadline(0);
        if (left > 0 && ve_wait_sleep_ms(static_cast<int>(left)) < 0) {
            ve_jrpcapi_note(ctx, ve_socket_err_interrupted);
            return -1;
        }
    }
    ctx->connect_error.clear();
    ctx->connect_error_lasts = false;
    // Counts as failed until it succeeds, so that one which Ctrl-C leaves is paced too.
    ctx->failed_at = ve_wait_deadline(0);
    const outcome opened = open_link(ctx);
    ctx->resolving.reset();
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
    ctx->resolving.reset();
    ctx->tls.reset();
    ctx->tls_out.clear();
    ctx->queue = {};
    ctx->reader.clear();
    ctx->early.clear();
}

const char *ve_jrpcapi_connect_error(const ve_jrpcapi *ctx)
{
    return ctx->connect_error.c_str();
}

bool ve_jrpcapi_connect_error_lasts(const ve_jrpcapi *ctx)
{
    return ctx->connect_error_lasts;
}
