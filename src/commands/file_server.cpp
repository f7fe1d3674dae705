#include "commands/file_server.h"

#include <arpa/inet.h>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <netinet/in.h>

#include "base/clock.h"
#include "base/thread.h"
#include "event/listener.h"
#include "platform/ve_fs.h"
#include "platform/ve_out.h"
#include "platform/ve_wait.h"

namespace
{

constexpr int connection_ms = 10000; // without a connection, or without progress
constexpr int slice_ms = 50;         // how long a cancelled transfer may go unnoticed

std::atomic<int> transfers_under_way{0};

struct socket_deleter {
    void operator()(ve_socket *socket) const { ve_socket_free(socket); }
};
using socket_owner = std::unique_ptr<ve_socket, socket_deleter>;

void say(const char *format, ...) __attribute__((format(printf, 1, 2)));
void say(const char *format, ...)
{
    char line[160];
    va_list args;
    va_start(args, format);
    const int size = vsnprintf(line, sizeof line, format, args);
    va_end(args);
    if (size > 0)
        print_aside(line, static_cast<size_t>(size) < sizeof line ? static_cast<size_t>(size) : sizeof line - 1);
}

/// The IPv4 address of a socket's end, or false.
bool ipv4(int (*get)(const ve_socket *, sockaddr_storage *, socklen_t *), const ve_socket *socket, sockaddr_in *out)
{
    sockaddr_storage address{};
    socklen_t size = sizeof address;
    if (socket == nullptr || get(socket, &address, &size) != 0 || address.ss_family != AF_INET)
        return false;
    *out = *reinterpret_cast<const sockaddr_in *>(&address);
    return true;
}

} // namespace

/// One file on its way to one peer. Shared by the command, which may cancel it, and the thread, which does the rest.
class file_transfer
{
public:
    file_transfer() = default;
    file_transfer(const file_transfer &) = delete;
    file_transfer &operator=(const file_transfer &) = delete;
    ~file_transfer()
    {
        if (data_ != nullptr)
            ve_fs_munmap_file(data_, size_);
    }

    bool open(const char *path, const ve_socket *link, std::string *url);
    void serve();
    void cancel();
    size_t size() const { return size_; }

private:
    bool accept_daemon();
    bool take_peer(socket_owner peer);

    void *data_ = nullptr;
    size_t size_ = 0;
    socket_owner listener_;
    socket_owner peer_;    // changed with peer_lock_ held
    std::mutex peer_lock_; // the command may shut the connection down while the thread sends
    in_addr daemon_{};     // the only address that is served
    std::atomic<bool> cancelled_{false};
};

bool file_transfer::open(const char *path, const ve_socket *link, std::string *url)
{
    sockaddr_in address{};
    sockaddr_in daemon{};
    if (!ipv4(ve_socket_get_addr, link, &address) || !ipv4(ve_socket_get_peer, link, &daemon)) {
        ve_puts("Cannot get local address, aborting.");
        return false;
    }
    daemon_ = daemon.sin_addr;
    address.sin_port = 0;
    listener_.reset(ve_socket_new(ve_socket_tcp_server));
    if (!listener_) {
        ve_puts("Cannot create server socket, aborting.");
        return false;
    }
    if (ve_socket_bind(listener_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        ve_puts("Cannot bind server socket, aborting.");
        return false;
    }
    if (ve_socket_listen(listener_.get(), 1) != 0) {
        ve_puts("Cannot set server socket to LISTEN state, aborting.");
        return false;
    }
    char text[INET_ADDRSTRLEN] = "";
    if (!ipv4(ve_socket_get_addr, listener_.get(), &address) ||
        inet_ntop(AF_INET, &address.sin_addr, text, sizeof text) == nullptr) {
        ve_puts("Cannot get local address, aborting.");
        return false;
    }
    if (ve_fs_mmap_file(path, &data_, &size_) != 0) {
        data_ = nullptr;
        ve_printf("Cannot open file (%s), aborting.\n", ve_visible(path).c_str());
        return false;
    }
    *url = std::string("netcat://") + text + ":" + std::to_string(ntohs(address.sin_port));
    return true;
}

void file_transfer::cancel()
{
    const std::scoped_lock lock(peer_lock_);
    cancelled_ = true;
    if (peer_)
        ve_socket_shutdown(peer_.get());
}

/// False when the transfer was cancelled meanwhile.
bool file_transfer::take_peer(socket_owner peer)
{
    const std::scoped_lock lock(peer_lock_);
    peer_ = std::move(peer);
    return !cancelled_;
}

/// Waits for the daemon's connection; strangers are turned away and take nothing of its time.
bool file_transfer::accept_daemon()
{
    const int64_t deadline = ve_wait_deadline(connection_ms);
    while (!cancelled_) {
        const int64_t left = deadline - monotonic_ms();
        if (left <= 0) {
            say("Waiting timeout, abort.\n");
            return false;
        }
        const int ready = ve_socket_wait(listener_.get(), 1, left < slice_ms ? static_cast<int>(left) : slice_ms);
        if (ready == 0)
            continue;
        sockaddr_storage from{};
        socket_owner peer(ready > 0 ? ve_socket_accept(listener_.get(), &from) : nullptr);
        if (!peer) {
            say("accept() failed, abort.\n");
            return false;
        }
        if (from.ss_family == AF_INET &&
            reinterpret_cast<const sockaddr_in *>(&from)->sin_addr.s_addr == daemon_.s_addr) {
            listener_.reset();
            return take_peer(std::move(peer));
        }
    }
    return false;
}

void file_transfer::serve()
{
    if (accept_daemon()) {
        const ssize_t sent = ve_socket_send(peer_.get(), data_, size_, connection_ms);
        if (sent < 0 || static_cast<size_t>(sent) < size_)
            say("send() failed (expected %zu bytes, transferred %zi bytes), abort.\n", size_, sent);
    }
    listener_.reset();
    take_peer(nullptr);
}

namespace
{

bool start_thread(std::shared_ptr<file_transfer> transfer)
{
    ++transfers_under_way;
    const bool started = thread_start(0, [transfer = std::move(transfer)]() mutable {
        transfer->serve();
        transfer.reset();
        --transfers_under_way;
    });
    if (!started)
        --transfers_under_way;
    return started;
}

} // namespace

std::shared_ptr<file_transfer> file_server_start(const char *path, const ve_socket *link, std::string *url)
{
    auto transfer = std::make_shared<file_transfer>();
    std::string announced;
    if (!transfer->open(path, link, &announced))
        return nullptr;
    if (!start_thread(transfer)) {
        ve_puts("Cannot create server socket, aborting.");
        return nullptr;
    }
    ve_printf("Sending file (%s, %zu bytes) via netcat (%s)...\n", ve_visible(path).c_str(), transfer->size(),
              announced.c_str());
    *url = std::move(announced);
    return transfer;
}

void file_server_cancel(const std::shared_ptr<file_transfer> &transfer)
{
    if (transfer)
        transfer->cancel();
}

void file_server_wait_all()
{
    while (transfers_under_way > 0 && ve_wait_sleep_ms(10) == 0)
        ;
}
