// A peer for link tests: a listening socket in a private directory and a thread that plays a script with each
// connection it accepts.
#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <utility>

/// A limit on every wait, so that a broken test ends: far beyond what an emulated machine takes to write a long line.
constexpr int peer_patience_s = 200;

/// One accepted connection, blocking.
class peer_link
{
public:
    explicit peer_link(int fd) : fd_(fd)
    {
        const timeval limit{.tv_sec = peer_patience_s, .tv_usec = 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    }
    peer_link(const peer_link &) = delete;
    peer_link &operator=(const peer_link &) = delete;
    ~peer_link() { close(fd_); }

    /// The next line without its line feed; empty at the end.
    std::string line()
    {
        for (;;) {
            const size_t feed = held_.find('\n');
            if (feed != std::string::npos) {
                std::string found = held_.substr(0, feed);
                held_.erase(0, feed + 1);
                return found;
            }
            char bytes[65536];
            const ssize_t count = recv(fd_, bytes, sizeof bytes, 0);
            if (count <= 0)
                return {};
            held_.append(bytes, static_cast<size_t>(count));
        }
    }
    /// The id of the next request, 0 at the end.
    long request()
    {
        const std::string text = line();
        const size_t at = text.find("\"id\":");
        return at == std::string::npos ? 0 : strtol(text.c_str() + at + 5, nullptr, 10);
    }
    bool send(const std::string &text)
    {
        size_t sent = 0;
        while (sent < text.size()) {
            const ssize_t count = ::send(fd_, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
            if (count <= 0)
                return false;
            sent += static_cast<size_t>(count);
        }
        return true;
    }
    bool answer(long id, const std::string &result = "{}") { return send(answer_text(id, result)); }
    static std::string answer_text(long id, const std::string &result = "{}")
    {
        return "{\"jsonrpc\":\"2.0\",\"id\":" + std::to_string(id) + ",\"result\":" + result + "}\n";
    }
    /// Waits until the other side has closed; false when it did not in time.
    bool closed()
    {
        char byte;
        ssize_t count;
        while ((count = recv(fd_, &byte, 1, 0)) > 0)
            ;
        return count == 0 || errno == ECONNRESET;
    }
    int fd() const { return fd_; }

private:
    int fd_;
    std::string held_;
};

class scripted_peer
{
public:
    using script = std::function<void(peer_link &)>;

    /// Plays `play` with each connection, one after the other.
    explicit scripted_peer(script play, int family = AF_UNIX) : play_(std::move(play))
    {
        char name[] = "/tmp/kest-peer-XXXXXX";
        directory_ = mkdtemp(name);
        listener_ = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_storage address{};
        socklen_t size = sizeof address;
        if (family == AF_UNIX) {
            auto *local = reinterpret_cast<sockaddr_un *>(&address);
            destination_ = directory_ + "/socket";
            local->sun_family = AF_UNIX;
            destination_.copy(local->sun_path, sizeof local->sun_path - 1);
            size = sizeof *local;
        } else if (family == AF_INET) {
            auto *local = reinterpret_cast<sockaddr_in *>(&address);
            local->sin_family = AF_INET;
            local->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            size = sizeof *local;
        } else {
            auto *local = reinterpret_cast<sockaddr_in6 *>(&address);
            local->sin6_family = AF_INET6;
            local->sin6_addr = in6addr_loopback;
            size = sizeof *local;
        }
        usable_ = bind(listener_, reinterpret_cast<sockaddr *>(&address), size) == 0 && listen(listener_, 16) == 0;
        if (usable_ && family != AF_UNIX) {
            getsockname(listener_, reinterpret_cast<sockaddr *>(&address), &size);
            port_ = ntohs(family == AF_INET ? reinterpret_cast<sockaddr_in *>(&address)->sin_port
                                            : reinterpret_cast<sockaddr_in6 *>(&address)->sin6_port);
            destination_ = (family == AF_INET ? "tcp://127.0.0.1:" : "tcp://[::1]:") + std::to_string(port_);
        }
        if (pipe(stop_) != 0)
            abort();
        thread_ = std::thread([this] { run(); });
    }
    scripted_peer(const scripted_peer &) = delete;
    scripted_peer &operator=(const scripted_peer &) = delete;
    ~scripted_peer()
    {
        close(stop_[1]);
        thread_.join();
        close(stop_[0]);
        close(listener_);
        std::filesystem::remove_all(directory_);
    }

    const char *destination() const { return destination_.c_str(); }
    int port() const { return port_; }
    bool usable() const { return usable_; }
    int accepted() const { return accepted_; }

private:
    void run()
    {
        for (;;) {
            pollfd fds[] = {{.fd = listener_, .events = POLLIN, .revents = 0},
                            {.fd = stop_[0], .events = POLLIN, .revents = 0}};
            if (poll(fds, 2, peer_patience_s * 1000) <= 0 || fds[1].revents != 0)
                return;
            const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0)
                return;
            ++accepted_;
            peer_link link(fd);
            play_(link);
        }
    }

    script play_;
    std::string directory_;
    std::string destination_;
    int port_ = 0;
    int listener_ = -1;
    int stop_[2] = {-1, -1};
    bool usable_ = false;
    std::atomic<int> accepted_{0};
    std::thread thread_;
};
