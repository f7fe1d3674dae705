// The server's parts on pairs of sockets, without a network.
#include "veld/base/worker.h"
#include "veld/server/connection.h"

#include <gtest/gtest.h>

#include <array>
#include <sys/socket.h>

using namespace veld;

namespace
{

// An owner that keeps what it is told, and ends the loop when it has heard enough.
struct listener_stub : connection_owner {
    explicit listener_stub(loop *of) : events(of) {}
    void line_received(connection &from, std::string_view line) override
    {
        lines.emplace_back(line);
        if (on_line)
            on_line(from);
        if (lines.size() == enough)
            events->stop();
    }
    void connection_over(connection &) override
    {
        over = true;
        events->stop();
    }

    loop *events;
    std::function<void(connection &)> on_line;
    std::vector<std::string> lines;
    size_t enough = SIZE_MAX;
    bool over = false;
};

struct VeldConnection : testing::Test {
    void SetUp() override
    {
        std::array<int, 2> pair{};
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair.data()), 0);
        peer = fd_owner(pair[0]);
        link = std::make_unique<connection>(events, 1, std::make_unique<transport>(fd_owner(pair[1])), "uid 0",
                                            std::nullopt, owner, memory);
    }
    void send(const std::string &text) const
    {
        ASSERT_EQ(write(peer.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    std::string received() const
    {
        std::string text(1 << 20, '\0');
        const ssize_t count = read(peer.get(), text.data(), text.size());
        text.resize(count > 0 ? static_cast<size_t>(count) : 0);
        return text;
    }

    loop events;
    held_memory memory;
    listener_stub owner{&events};
    fd_owner peer;
    std::unique_ptr<connection> link;
};

TEST_F(VeldConnection, LinesBehindAHoldWait)
{
    owner.on_line = [](connection &from) { from.hold(); };
    owner.enough = 1;
    send("one\ntwo\n");
    events.run();
    EXPECT_EQ(owner.lines, std::vector<std::string>{"one"});
    EXPECT_GT(memory.input, 0U);
    EXPECT_EQ(memory.anonymous_input, memory.input);
}

TEST_F(VeldConnection, WhatIsAnsweredLaterIsWaitedForWhenThePeerSendsNoMore)
{
    owner.on_line = [](connection &from) { from.expect_answer(); };
    owner.enough = 1;
    send("one\n");
    shutdown(peer.get(), SHUT_WR);
    events.run();
    link->send("answer\n");
    EXPECT_EQ(received(), "answer\n");
    EXPECT_FALSE(owner.over);
    link->finish(1000, true);
    EXPECT_FALSE(owner.over);
    link->answer_given();
    EXPECT_TRUE(owner.over);
    EXPECT_EQ(memory.input, 0U);
}

TEST_F(VeldConnection, OneLargeEventIsNobodysFault)
{
    const auto large = std::make_shared<const std::string>(std::string(6 << 20, 'x') + "\n");
    link->send_event(large);
    link->send_event(large);
    EXPECT_FALSE(link->over());
    // What many get is accounted for by whoever made it.
    EXPECT_EQ(memory.output, 0U);
}

TEST_F(VeldConnection, WhoDoesNotReadLosesTheLink)
{
    const auto event = std::make_shared<const std::string>(std::string(200000, 'x') + "\n");
    int sent = 0;
    std::function<void()> again = [&] {
        link->send_event(event);
        if (!link->over() && ++sent < 100)
            events.post(again);
        else
            events.stop();
    };
    events.post(again);
    events.run();
    EXPECT_TRUE(owner.over);
    EXPECT_LT(sent, 40);
}

TEST_F(VeldConnection, MemoryOfOutputIsGivenBackWithTheLink)
{
    link->send(std::string(2 << 20, 'x') + "\n");
    EXPECT_GT(memory.output, size_t{1} << 20);
    link->close();
    EXPECT_EQ(memory.output, 0U);
    EXPECT_TRUE(owner.over);
}

TEST(VeldWorker, WhatFollowsIsDoneOnTheLoopInTheOrderGiven)
{
    loop events;
    worker thread(events, worker::at_end::finish);
    const pthread_t own = pthread_self();
    std::vector<int> done;
    for (int i = 0; i < 3; ++i)
        thread.run([own] { EXPECT_FALSE(pthread_equal(own, pthread_self())); },
                   [&, i] {
                       EXPECT_TRUE(pthread_equal(own, pthread_self()));
                       done.push_back(i);
                       if (i == 2)
                           events.stop();
                   });
    EXPECT_EQ(thread.waiting(), 3U);
    events.run();
    EXPECT_EQ(done, (std::vector<int>{0, 1, 2}));
    EXPECT_EQ(thread.waiting(), 0U);
}

TEST(VeldWorker, WhatWasGivenIsFinishedAtTheEnd)
{
    loop events;
    int done = 0;
    {
        worker thread(events, worker::at_end::finish);
        for (int i = 0; i < 5; ++i)
            thread.run([&done] { ++done; });
    }
    EXPECT_EQ(done, 5);
}

} // namespace
