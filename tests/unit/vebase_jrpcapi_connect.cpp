// Connects that find a peer who lets them wait.
#include "platform/ve_jrpcapi.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <vector>

#include "base/fd.h"
#include "interrupts.h"
#include "leaping_clock.h"
#include "vebase_scripted_peer.h"

namespace
{

struct deinit {
    void operator()(ve_jrpcapi *ctx) const { ve_jrpcapi_deinit(ctx); }
};
using context = std::unique_ptr<ve_jrpcapi, deinit>;

context context_for(const std::string &destination)
{
    context ctx(ve_jrpcapi_init());
    ve_jrpcapi_set_destination(ctx.get(), destination.c_str(), nullptr, ve_socket_unix);
    return ctx;
}

/// A listening socket that takes nobody in, with as many in its queue as there is room for.
class full_queue
{
public:
    explicit full_queue(int family) : listener_(socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        char name[] = "/tmp/kest-queue-XXXXXX";
        directory_ = mkdtemp(name);
        sockaddr_storage address{};
        socklen_t size = sizeof address;
        address.ss_family = static_cast<sa_family_t>(family);
        if (family == AF_UNIX) {
            destination = directory_ + "/socket";
            destination.copy(reinterpret_cast<sockaddr_un *>(&address)->sun_path, destination.size());
            size = sizeof(sockaddr_un);
        } else {
            reinterpret_cast<sockaddr_in *>(&address)->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            size = sizeof(sockaddr_in);
        }
        auto *const plain = reinterpret_cast<sockaddr *>(&address);
        EXPECT_EQ(bind(listener_.get(), plain, size), 0);
        EXPECT_EQ(listen(listener_.get(), 0), 0);
        EXPECT_EQ(getsockname(listener_.get(), plain, &size), 0);
        if (family == AF_INET)
            destination =
                "tcp://127.0.0.1:" + std::to_string(ntohs(reinterpret_cast<sockaddr_in *>(&address)->sin_port));
        pollfd through{.fd = -1, .events = POLLOUT, .revents = 0};
        do {
            others_.emplace_back(socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
            through.fd = others_.back().get();
        } while (connect(through.fd, plain, size) == 0 || (errno == EINPROGRESS && poll(&through, 1, 100) > 0));
    }
    full_queue(const full_queue &) = delete;
    full_queue &operator=(const full_queue &) = delete;
    ~full_queue() { std::filesystem::remove_all(directory_); }

    /// Takes the first one in.
    void advance() { others_.emplace_back(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC)); }

    std::string destination;

private:
    std::string directory_;
    fd_owner listener_;
    std::vector<fd_owner> others_;
};

full_queue *queue; // whose turn comes when the connect is slow
int told;

} // namespace

TEST(JrpcApiConnect, GoesToTheUsualSocketWhenNoneIsNamed)
{
    const context ctx = context_for("/elsewhere");
    ve_jrpcapi_set_destination(ctx.get(), "", nullptr, ve_socket_unix);
    EXPECT_STREQ(ve_jrpcapi_destination(ctx.get()), "/var/run/veld.sock");
}

TEST(JrpcApiConnect, GivesUpWhenItsTimeIsUp)
{
    for (const int family : {AF_UNIX, AF_INET}) {
        const full_queue full(family);
        const context ctx = context_for(full.destination);
        const leaping_clock clock(3);
        EXPECT_LT(ve_jrpcapi_connect(ctx.get()), 0);
        EXPECT_EQ(ve_jrpcapi_get_socket_err(ctx.get()), ve_socket_err_closed);
        EXPECT_EQ(ve_jrpcapi_connect_error(ctx.get()), full.destination + ": " + strerror(ETIMEDOUT));
        EXPECT_FALSE(ve_jrpcapi_connect_error_lasts(ctx.get()));
    }
}

TEST(JrpcApiConnect, WaitsForItsTurnAndSaysSoOnce)
{
    full_queue full(AF_UNIX);
    queue = &full;
    told = 0;
    const context ctx = context_for(full.destination);
    ve_jrpcapi_tell_slow(ctx.get(), {.after_ms = 0, .tell = [](const ve_jrpcapi *) {
                                         ++told;
                                         queue->advance();
                                     }});
    EXPECT_EQ(ve_jrpcapi_connect(ctx.get()), 0) << ve_jrpcapi_connect_error(ctx.get());
    EXPECT_EQ(told, 1);
}

TEST(JrpcApiConnect, IsLeftByCtrlCWhereverItWaits)
{
    const interrupts handling([](int) { ve_wait_note_interrupt(); });
    const full_queue local(AF_UNIX);
    const full_queue remote(AF_INET);
    const std::string port = remote.destination.substr(remote.destination.rfind(':'));
    for (const std::string &destination : {local.destination, remote.destination, "tcp://localhost" + port}) {
        const context ctx = context_for(destination);
        ve_wait_note_interrupt();
        EXPECT_LT(ve_jrpcapi_connect(ctx.get()), 0) << destination;
        EXPECT_EQ(ve_jrpcapi_get_socket_err(ctx.get()), ve_socket_err_interrupted) << destination;
        EXPECT_STREQ(ve_jrpcapi_connect_error(ctx.get()), "") << destination;
        EXPECT_EQ(ve_jrpcapi_socket(ctx.get()), nullptr) << destination;
        ve_wait_clear_interrupt();
    }
}
