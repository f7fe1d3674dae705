// The transport of a context: bytes in and out, in clear or through TLS.
#include <algorithm>
#include <cerrno>
#include <string_view>

#include "vebase/link/jrpcapi_impl.h"

namespace
{

constexpr size_t kept_capacity = size_t{256} << 10;
constexpr size_t tls_chunk = size_t{16} << 10;

void reset(std::string *bytes)
{
    bytes->clear();
    if (bytes->capacity() > kept_capacity)
        bytes->shrink_to_fit();
}

/// One send. Returns the bytes taken, 0 when the peer must read first, -1 when the link is lost.
ssize_t send_some(int fd, const char *data, size_t size)
{
    for (;;) {
        const ssize_t count = send(fd, data, size, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count >= 0)
            return count;
        if (errno != EINTR)
            return errno == EAGAIN ? 0 : -1;
    }
}

/// One receive. Returns the bytes read, 0 when there are none now, -1 when the link is lost.
ssize_t receive_some(int fd, char *data, size_t room)
{
    for (;;) {
        const ssize_t count = recv(fd, data, room, MSG_DONTWAIT);
        if (count > 0)
            return count;
        if (count == 0)
            return -1;
        if (errno != EINTR)
            return errno == EAGAIN ? 0 : -1;
    }
}

/// What a TLS server says to a peer that speaks without.
bool is_tls_alert(std::string_view bytes)
{
    constexpr std::string_view alert = "\x15\x03";
    return bytes.starts_with(alert);
}

/// Sends the records that TLS has made. As ve_link_flush.
int flush_records(ve_jrpcapi *ctx)
{
    ctx->tls->take_output(&ctx->tls_out);
    size_t sent = 0;
    int outcome = 1;
    while (sent < ctx->tls_out.size()) {
        const ssize_t count = send_some(ctx->socket.fd, ctx->tls_out.data() + sent, ctx->tls_out.size() - sent);
        if (count <= 0) {
            outcome = count == 0 ? 0 : -1;
            break;
        }
        sent += static_cast<size_t>(count);
    }
    ctx->tls_out.erase(0, sent);
    return outcome;
}

int flush_tls(ve_jrpcapi *ctx)
{
    for (;;) {
        if (const int outcome = flush_records(ctx); outcome <= 0)
            return outcome;
        ve_jrpcapi_queue &queue = ctx->queue;
        if (queue.empty())
            return 1;
        const ssize_t taken =
            ctx->tls->write(queue.bytes.data() + queue.sent, std::min(queue.bytes.size() - queue.sent, tls_chunk));
        if (taken < 0)
            return -1;
        queue.sent += static_cast<size_t>(taken);
    }
}

int flush_plain(ve_jrpcapi *ctx)
{
    ve_jrpcapi_queue &queue = ctx->queue;
    while (!queue.empty()) {
        const ssize_t count =
            send_some(ctx->socket.fd, queue.bytes.data() + queue.sent, queue.bytes.size() - queue.sent);
        if (count <= 0)
            return count == 0 ? 0 : -1;
        queue.sent += static_cast<size_t>(count);
    }
    return 1;
}

int fill_tls(ve_jrpcapi *ctx)
{
    char records[tls_chunk];
    const ssize_t count = receive_some(ctx->socket.fd, records, sizeof records);
    if (count > 0)
        ctx->tls->feed(records, static_cast<size_t>(count));
    for (;;) {
        size_t room = 0;
        char *place = ctx->reader.prepare(&room);
        const ssize_t read = ctx->tls->read(place, room);
        if (read > 0)
            ctx->reader.commit(static_cast<size_t>(read));
        else if (read < 0)
            return -1;
        else
            break;
    }
    // What TLS answers by itself goes out along with it.
    return count < 0 || flush_records(ctx) < 0 ? -1 : 0;
}

} // namespace

void ve_jrpcapi_queue::begin_message()
{
    if (empty()) {
        reset(&bytes);
        sent = 0;
    }
    newest = bytes.size();
}

void ve_jrpcapi_queue::withdraw_newest()
{
    if (sent <= newest)
        bytes.resize(newest);
}

int ve_link_flush(ve_jrpcapi *ctx)
{
    const std::scoped_lock lock(ctx->lock);
    if (ctx->socket.state != ve_socket_connected)
        return -1;
    return ctx->tls ? flush_tls(ctx) : flush_plain(ctx);
}

int ve_link_fill(ve_jrpcapi *ctx)
{
    if (ctx->socket.state != ve_socket_connected)
        return -1;
    if (ctx->tls) {
        const std::scoped_lock lock(ctx->lock);
        return fill_tls(ctx);
    }
    size_t room = 0;
    char *place = ctx->reader.prepare(&room);
    const ssize_t count = receive_some(ctx->socket.fd, place, room);
    if (count > 0) {
        ctx->heard = !is_tls_alert({place, static_cast<size_t>(count)});
        ctx->reader.commit(static_cast<size_t>(count));
    }
    if (count >= 0)
        return 0;
    ctx->closed_unheard = !ctx->heard;
    return -1;
}

int ve_link_lose(ve_jrpcapi *ctx)
{
    const std::scoped_lock lock(ctx->lock);
    if (ctx->socket.fd >= 0)
        shutdown(ctx->socket.fd, SHUT_RDWR);
    ctx->socket.state = ve_socket_closed;
    return -1;
}
