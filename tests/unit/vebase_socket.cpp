#include "platform/ve_socket.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/un.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <thread>

namespace
{

struct socket_free {
    void operator()(ve_socket *socket) const { ve_socket_free(socket); }
};
using socket_ref = std::unique_ptr<ve_socket, socket_free>;

/// A server on a free port of the loopback interface.
socket_ref make_server()
{
    socket_ref server(ve_socket_new(ve_socket_tcp_server));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(ve_socket_bind(server.get(), reinterpret_cast<sockaddr *>(&address), ve_socket_addrsize(server.get())),
              0);
    EXPECT_EQ(ve_socket_listen(server.get(), 1), 0);
    return server;
}

/// A blocking client of the server.
int connect_to(const ve_socket *server)
{
    sockaddr_storage address;
    socklen_t size = 0;
    EXPECT_EQ(ve_socket_get_addr(server, &address, &size), 0);
    EXPECT_NE(reinterpret_cast<sockaddr_in *>(&address)->sin_port, 0);
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&address), size), 0);
    return fd;
}

} // namespace

TEST(Socket, KnowsItsKindAndState)
{
    const socket_ref server = make_server();
    EXPECT_EQ(ve_socket_type(server.get()), ve_socket_tcp_server);
    EXPECT_EQ(ve_socket_state(server.get()), ve_socket_closed);
    EXPECT_EQ(ve_socket_addrsize(server.get()), sizeof(sockaddr_in));
    const socket_ref local(ve_socket_new(ve_socket_unix));
    EXPECT_EQ(ve_socket_addrsize(local.get()), sizeof(sockaddr_un));
    EXPECT_EQ(ve_socket_new(99), nullptr);
    EXPECT_EQ(ve_socket_state(nullptr), ve_socket_closed);
    EXPECT_EQ(ve_socket_type(nullptr), ve_socket_none);
    ve_socket_free(nullptr);
}

TEST(Socket, WhatIsNotThereIsClosed)
{
    sockaddr_storage address;
    socklen_t size = 0;
    EXPECT_LT(ve_socket_get_addr(nullptr, &address, &size), 0);
    EXPECT_LT(ve_socket_get_peer(nullptr, &address, &size), 0);
    EXPECT_EQ(ve_socket_wait(nullptr, 1, -1), ve_socket_err_closed);
    EXPECT_EQ(ve_socket_accept(nullptr, nullptr), nullptr);
}

TEST(Socket, AcceptsAndTellsThePeersAddress)
{
    const socket_ref server = make_server();
    EXPECT_EQ(ve_socket_accept(server.get()), nullptr) << "accept must not wait";
    EXPECT_EQ(ve_socket_wait(server.get(), 1, 20), 0);
    const int client = connect_to(server.get());
    ASSERT_EQ(ve_socket_wait(server.get(), 1, 5000), 1);
    const socket_ref accepted(ve_socket_accept(server.get()));
    ASSERT_TRUE(accepted);
    EXPECT_EQ(ve_socket_state(accepted.get()), ve_socket_connected);
    sockaddr_storage peer;
    sockaddr_storage own;
    socklen_t size = 0;
    socklen_t own_size = sizeof own;
    EXPECT_EQ(ve_socket_get_peer(accepted.get(), &peer, &size), 0);
    EXPECT_EQ(getsockname(client, reinterpret_cast<sockaddr *>(&own), &own_size), 0);
    EXPECT_EQ(reinterpret_cast<sockaddr_in *>(&peer)->sin_port, reinterpret_cast<sockaddr_in *>(&own)->sin_port);
    close(client);
}

TEST(Socket, SendsEverythingToASlowReader)
{
    constexpr size_t size = size_t{4} << 20;
    const socket_ref server = make_server();
    const int client = connect_to(server.get());
    ASSERT_EQ(ve_socket_wait(server.get(), 1, 5000), 1);
    const socket_ref accepted(ve_socket_accept(server.get()));
    size_t received = 0;
    std::thread reader([&] {
        std::string bytes(size_t{64} << 10, '\0');
        ssize_t count;
        while (received < size && (count = read(client, bytes.data(), bytes.size())) > 0) {
            received += static_cast<size_t>(count);
            usleep(1000);
        }
    });
    const std::string data(size, 'x');
    EXPECT_EQ(ve_socket_send(accepted.get(), data.data(), size, 5000), static_cast<ssize_t>(size));
    reader.join();
    EXPECT_EQ(received, size);
    close(client);
}

TEST(Socket, GivesUpOnAReaderThatStalls)
{
    const socket_ref server = make_server();
    const int client = connect_to(server.get());
    ASSERT_EQ(ve_socket_wait(server.get(), 1, 5000), 1);
    const socket_ref accepted(ve_socket_accept(server.get()));
    const std::string data(size_t{64} << 20, 'x');
    const ssize_t sent = ve_socket_send(accepted.get(), data.data(), data.size(), 50);
    EXPECT_GT(sent, 0);
    EXPECT_LT(sent, static_cast<ssize_t>(data.size()));
    close(client);
}

TEST(Socket, SurvivesAReaderThatWentAway)
{
    const socket_ref server = make_server();
    const int client = connect_to(server.get());
    ASSERT_EQ(ve_socket_wait(server.get(), 1, 5000), 1);
    const socket_ref accepted(ve_socket_accept(server.get()));
    close(client);
    const std::string data(size_t{64} << 20, 'x');
    EXPECT_LT(ve_socket_send(accepted.get(), data.data(), data.size(), 5000), static_cast<ssize_t>(data.size()));
    EXPECT_LT(ve_socket_send(nullptr, "x", 1, 0), 0);
}
