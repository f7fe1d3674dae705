// The server's parts on pairs of sockets, without a network.
#include "base/clock.h"
#include "base/endpoint.h"
#include "veld/base/worker.h"
#include "veld/server/connection.h"
#include "veld/server/doors.h"
#include "veld/server/privileges.h"
#include "veld/server/tls.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <future>
#include <sched.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

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
    // Replaces the link by one over another transport.
    void over(std::unique_ptr<transport> by)
    {
        link.reset();
        link = std::make_unique<connection>(events, 2, std::move(by), "uid 0", std::nullopt, owner, memory);
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

TEST_F(VeldConnection, TheMemoryOfALineIsGivenBackWithItsHold)
{
    owner.on_line = [](connection &from) { from.hold(); };
    owner.enough = 1;
    send("one\ntw");
    events.run();
    EXPECT_EQ(memory.input, strlen("one\ntw"));
    link->release();
    EXPECT_EQ(memory.input, strlen("tw"));
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

TEST_F(VeldConnection, MayBeGoneBeforeItsNextLines)
{
    owner.on_line = [this](connection &) {
        if (owner.lines.size() == 1)
            events.post([this] {
                link.reset();
                events.after(0, [this] { events.stop(); });
            });
    };
    std::string many;
    for (int i = 0; i < 1000; ++i)
        many += "x\n";
    send(many);
    events.run();
    EXPECT_FALSE(link);
    EXPECT_LT(owner.lines.size(), 1000U);
}

TEST_F(VeldConnection, AHoldIsWaitedForToo)
{
    link->hold();
    link->finish(1000, true);
    EXPECT_FALSE(owner.over);
    link->release();
    EXPECT_TRUE(owner.over);
}

TEST_F(VeldConnection, WhatIsNotWaitedForMayStillEnd)
{
    events.after(0, [this] { events.stop(); });
    events.run(); // the link is open
    link->expect_answer();
    link->hold();
    link->send(std::string(8 << 20, 'x'));
    link->finish(1000, false);
    EXPECT_FALSE(owner.over) << "it has something to write";
    link->answer_given();
    link->release();
    EXPECT_FALSE(owner.over);
}

TEST_F(VeldConnection, WhoReadsOnIsWaitedForAtItsEnd)
{
    constexpr size_t size = 1 << 20;
    size_t count = 0;
    const std::function<void()> read_on = [&] {
        count += received().size();
        events.after(80, read_on);
    };
    events.after(0, [&] { // the link is open
        link->send(std::string(size, 'x'));
        link->finish(100, false);
        read_on();
    });
    events.run();
    EXPECT_TRUE(owner.over);
    for (size_t last = 1; last > 0; count += last)
        last = received().size();
    EXPECT_EQ(count, size);
}

TEST_F(VeldConnection, WhoReadsNothingIsNotWaitedForLongAtItsEnd)
{
    events.after(0, [this] { // the link is open
        link->send(std::string(8 << 20, 'x'));
        link->finish(10, false);
    });
    events.run();
    EXPECT_TRUE(owner.over);
    EXPECT_LT(received().size(), size_t{8} << 20);
}

TEST_F(VeldConnection, ThatIsOverIsOverOnce)
{
    link->close();
    EXPECT_TRUE(owner.over);
    owner.over = false;
    link->close();
    link->finish(1000, true);
    link->send("late\n");
    link->send_event(std::make_shared<const std::string>("late\n"));
    EXPECT_FALSE(owner.over);
    EXPECT_EQ(received(), "");
    EXPECT_EQ(memory.output, 0U);
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

TEST_F(VeldConnection, WhatManyGetCountsInParts)
{
    auto event = std::make_shared<const std::string>(4 << 20, 'x');
    EXPECT_EQ(link->unread_output(), 0U);
    link->send_event(event);
    EXPECT_EQ(link->unread_output(), size_t{2} << 20); // this test has it, too
    event.reset();
    EXPECT_EQ(link->unread_output(), size_t{4} << 20);
    link->send(std::string(1 << 20, 'x'));
    EXPECT_EQ(link->unread_output(), size_t{5} << 20);
}

TEST_F(VeldConnection, MemoryOfOutputIsGivenBackWithTheLink)
{
    link->send(std::string(2 << 20, 'x') + "\n");
    EXPECT_GT(memory.output, size_t{1} << 20);
    link->close();
    EXPECT_EQ(memory.output, 0U);
    EXPECT_TRUE(owner.over);
}

TEST_F(VeldConnection, WhatCannotBeWatchedIsClosed)
{
    over(std::make_unique<transport>(fd_owner(memfd_create("file", MFD_CLOEXEC))));
    EXPECT_TRUE(owner.over);
    link->send("x\n"); // does nothing any more
    EXPECT_EQ(memory.output, 0U);
}

TEST_F(VeldConnection, WhatAllHoldTogetherIsBoundedButForTheFirstBytes)
{
    memory.input = held_memory::input_limit;
    link->known(true);
    send(std::string(60 << 10, 'x'));
    events.post([this] {
        EXPECT_FALSE(owner.over);
        send(std::string(60 << 10, 'x'));
    });
    events.run();
    EXPECT_TRUE(owner.over);
    EXPECT_EQ(memory.input, held_memory::input_limit);
}

// A transport that does what it is told to, on a descriptor that is always ready.
class told_transport : public transport
{
public:
    struct script {
        std::deque<io_state> greets, reads, writes;
        std::string text; // what a read that is done gives
        int asked_to_write = 0;
    };
    told_transport(fd_owner fd, script *what) : transport(std::move(fd)), script_(what) {}
    io_state greet() override { return next(&script_->greets, io_state::done); }
    io_result read(char *into, size_t) override
    {
        const io_state state = next(&script_->reads, io_state::want_read);
        if (state != io_state::done)
            return {state};
        memcpy(into, script_->text.data(), script_->text.size());
        return {state, script_->text.size()};
    }
    io_result write(const char *, size_t count) override
    {
        ++script_->asked_to_write;
        const io_state state = next(&script_->writes, io_state::done);
        return {state, state == io_state::done ? count : 0};
    }

private:
    static io_state next(std::deque<io_state> *of, io_state otherwise)
    {
        if (of->empty())
            return otherwise;
        const io_state first = of->front();
        of->pop_front();
        return first;
    }
    script *script_;
};

struct VeldTransport : VeldConnection {
    void begin()
    {
        const int fd = fcntl(peer.get(), F_DUPFD_CLOEXEC, 0);
        // Readable and writable, and nobody looks at what is there.
        ASSERT_EQ(write(link_end(), "x", 1), 1);
        over(std::make_unique<told_transport>(fd_owner(fd), &told));
    }
    int link_end() const { return other.get(); }
    void SetUp() override
    {
        VeldConnection::SetUp();
        std::array<int, 2> pair{};
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair.data()), 0);
        peer = fd_owner(pair[0]);
        other = fd_owner(pair[1]);
    }
    void TearDown() override { link.reset(); }
    told_transport::script told;
    fd_owner other;
};

TEST_F(VeldTransport, AHandshakeThatFailsEndsTheLink)
{
    told.greets = {io_state::failed};
    begin();
    EXPECT_TRUE(owner.over);
}

TEST_F(VeldTransport, AHandshakeMayTakeSeveralSteps)
{
    told.greets = {io_state::want_read, io_state::want_write, io_state::want_read, io_state::done};
    told.reads = {io_state::done};
    told.text = "hello\n";
    owner.enough = 1;
    begin();
    events.run();
    EXPECT_EQ(owner.lines, std::vector<std::string>{"hello"});
}

TEST_F(VeldTransport, AReadThatFailsEndsTheLink)
{
    told.reads = {io_state::failed};
    begin();
    events.run();
    EXPECT_TRUE(owner.over);
    EXPECT_TRUE(owner.lines.empty());
}

TEST_F(VeldTransport, AReadMayHaveToWriteFirst)
{
    told.reads = {io_state::want_write, io_state::done};
    told.text = "hello\n";
    owner.enough = 1;
    begin();
    events.run();
    EXPECT_EQ(owner.lines, std::vector<std::string>{"hello"});
}

TEST_F(VeldTransport, AWriteThatFailsEndsTheLinkAndGivesItsMemoryBack)
{
    told.writes = {io_state::want_write, io_state::want_read, io_state::failed};
    begin();
    link->send("answer\n");
    EXPECT_EQ(memory.output, 7U);
    EXPECT_FALSE(owner.over);
    events.run();
    EXPECT_TRUE(owner.over);
    EXPECT_EQ(told.asked_to_write, 3);
    EXPECT_EQ(memory.output, 0U);
}

// --- sockets ---

struct VeldListener : testing::Test {
    ~VeldListener() override { std::filesystem::remove_all(folder); }
    static std::string make_folder()
    {
        std::string name = testing::TempDir() + "veld-XXXXXX";
        return mkdtemp(name.data());
    }
    std::unique_ptr<listener> make(const std::string &address)
    {
        return std::make_unique<listener>(events, address, socket_rights{}, [this](arrival who) {
            ++arrived;
            last = std::move(who);
            events.stop();
        });
    }
    std::string refusal(const std::string &address)
    {
        error.clear();
        return make(address)->open(&error) ? "" : error;
    }
    fd_owner come(const std::string &place) const
    {
        fd_owner fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un address;
        EXPECT_TRUE(unix_address(place, &address));
        if (connect(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
            fd.reset();
        return fd;
    }

    std::string folder = make_folder();
    std::string path = folder + "/s";
    loop events;
    std::string error;
    int arrived = 0;
    arrival last;
};

TEST_F(VeldListener, WhoeverComesIsKnown)
{
    const auto door = make(path);
    ASSERT_TRUE(door->open(&error)) << error;
    const fd_owner client = come(path);
    events.run();
    EXPECT_EQ(arrived, 1);
    ASSERT_TRUE(last.identity);
    EXPECT_EQ(last.identity->uid, getuid());
    EXPECT_EQ(last.peer, "uid " + std::to_string(getuid()));
}

TEST_F(VeldListener, ItsPlaceIsItsOwn)
{
    auto first = make(path);
    ASSERT_TRUE(first->open(&error)) << error;
    EXPECT_EQ(refusal(path), path + ": another daemon listens there");
    EXPECT_TRUE(come(path));
    first.reset();
    EXPECT_TRUE(std::filesystem::is_empty(folder));
    EXPECT_EQ(refusal(path), "");
}

TEST_F(VeldListener, WhatIsInTheWayStays)
{
    std::ofstream(path) << "something";
    EXPECT_EQ(refusal(path), path + ": something that is no socket is there");
    EXPECT_TRUE(std::filesystem::is_regular_file(path));
    std::filesystem::remove(path);
    ASSERT_EQ(mkfifo((path + ".lock").c_str(), 0600), 0);
    EXPECT_EQ(refusal(path), path + ".lock: not a regular file");
}

TEST_F(VeldListener, WhereNothingCanBeThatIsSaid)
{
    EXPECT_EQ(refusal(folder + "/none/s"), folder + "/none/s: " + strerror(ENOENT));
    const std::string longest = folder + "/" + std::string(200, 's');
    EXPECT_EQ(refusal(longest), longest + ": the path is too long for a socket");
    EXPECT_EQ(refusal("tcp://nothing"), "tcp://nothing: an address has the form tcp://HOST:PORT");
}

TEST_F(VeldListener, WhatIsKeptTurnsClientsAwayWhileItIsClosed)
{
    const auto door = make(path);
    ASSERT_TRUE(door->open(&error)) << error;
    door->keep();
    door->close();
    EXPECT_FALSE(door->is_open());
    fd_owner client = come(path);
    ASSERT_TRUE(client);
    events.after(0, [this] { events.post([this] { events.stop(); }); });
    events.run();
    EXPECT_EQ(arrived, 0);
    char byte = 0;
    EXPECT_EQ(read(client.get(), &byte, 1), 0);
    ASSERT_TRUE(door->open(&error)) << error;
    EXPECT_TRUE(door->is_open());
}

TEST_F(VeldListener, OneDoorThatStaysShutIsSaid)
{
    doors entrances(events, {}, [](arrival) {});
    entrances.add(path);
    entrances.add(folder + "/none/s");
    EXPECT_FALSE(entrances.open(&error));
    EXPECT_EQ(error, folder + "/none/s: " + strerror(ENOENT));
    entrances.close();
    EXPECT_FALSE(entrances.listeners()[0]->is_open());
}

TEST_F(VeldListener, ADoorThatIsBlockedIsTriedAgain)
{
    doors entrances(events, {}, [](arrival) {});
    entrances.add(path);
    const auto &door = *entrances.listeners()[0];
    const auto blocked = [&](bool is) {
        entrances.close();
        std::filesystem::remove(path);
        if (is)
            std::ofstream(path) << "something";
        entrances.reopen();
        EXPECT_EQ(door.is_open(), !is);
        std::filesystem::remove(path);
    };
    blocked(false);
    // Closed, it is not tried again.
    blocked(true);
    entrances.close();
    events.after(250, [&] {
        EXPECT_FALSE(door.is_open());
        blocked(true);
    });
    const std::function<void()> look = [&] {
        if (door.is_open())
            events.stop();
        else
            events.after(10, look);
    };
    events.after(260, look);
    events.run();
    EXPECT_TRUE(door.is_open());
}

TEST_F(VeldListener, ACertificateThatIsNoneIsSaid)
{
    std::ofstream(folder + "/cert") << "nothing";
    EXPECT_FALSE(tls_identity::load(folder + "/cert", folder + "/key", &error));
    EXPECT_NE(error, "");
    EXPECT_FALSE(tls_identity::load(folder + "/none", folder + "/key", &error));
    EXPECT_NE(error, "");
}

TEST(VeldPrivileges, UsersAndGroupsThatThereAreNot)
{
    std::string error;
    system_account account;
    gid_t group = 0;
    EXPECT_FALSE(find_account("no such user", &account, &error));
    EXPECT_NE(error.find("no such user"), std::string::npos) << error;
    EXPECT_FALSE(find_group("no such group", &group, &error));
    EXPECT_NE(error.find("no such group"), std::string::npos) << error;
}

TEST(VeldLoop, ATimerThatHasRungMayBeCancelled)
{
    loop events;
    std::string rung;
    const loop::timer_id first = events.after(0, [&] { rung += "first "; });
    events.after(1, [&] {
        events.cancel(first);
        events.cancel(first);
        rung += "second";
        events.stop();
    });
    events.run();
    EXPECT_EQ(rung, "first second");
}

TEST(VeldLoop, ATimerRingsNoSoonerThanTold)
{
    loop events;
    while (monotonic_ns() % 1'000'000 < 900'000)
        ;
    const int64_t began = monotonic_ns();
    const std::function<void()> look = [&] { events.post(look); };
    look();
    events.after(1, [&] { events.stop(); });
    events.run();
    EXPECT_GE(monotonic_ns() - began, 1'000'000);
}

// Runs `body` in a process of its own that is nobody's, where this one is root; its failures are the test's.
void as_nobody(const std::function<void()> &body)
{
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const rlimit none{};
        if (setrlimit(RLIMIT_NPROC, &none) != 0 || (getuid() == 0 && setuid(65534) != 0))
            _exit(77);
        body();
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == 77)
        GTEST_SKIP() << "this process may not be somebody else";
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(VeldPrivileges, WhatIsNotPossibleIsSaid)
{
    std::string error;
    EXPECT_FALSE(give_away("/nowhere/at-all", {"root", 0, 0}, &error));
    EXPECT_EQ(error, std::string("/nowhere/at-all: ") + strerror(ENOENT));
    as_nobody([] {
        std::string why;
        EXPECT_FALSE(become({"root", 0, 0}, &why));
        EXPECT_EQ(why, std::string("cannot become root: ") + strerror(EPERM));
    });
}

TEST(VeldWorker, WithoutAThreadItWorksOnTheLoopsOwn)
{
    as_nobody([] {
        loop events;
        worker thread(events, worker::at_end::finish);
        std::string done;
        thread.run([&] { done += "work, "; }, [&] { done += "after, "; });
        EXPECT_EQ(done, "work, ");
        thread.run([&] { done += "work, "; });
        EXPECT_EQ(thread.waiting(), 2U);
        events.post([&] { events.stop(); });
        events.run();
        EXPECT_EQ(done, "work, work, after, ");
        EXPECT_EQ(thread.waiting(), 0U);
    });
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

TEST(VeldWorker, SeveralAskersTakeTurns)
{
    loop events;
    std::string done;
    std::promise<void> begin;
    {
        worker thread(events, worker::at_end::finish);
        thread.run([may = begin.get_future().share()] { may.wait(); });
        for (const char *asker : {"a", "a", "a", "b", "a", "b", "c"})
            thread.run([&done, asker] { done += asker; }, nullptr, asker);
        begin.set_value();
    }
    EXPECT_EQ(done, "abcabaa");
}

TEST(VeldWorker, WhatIsAbandonedTouchesNothingAnyMore)
{
    // What the work holds belongs to parts of the program that are gone when the thread comes back from it.
    const auto held = std::make_shared<int>(0);
    const auto goes_on = std::make_shared<std::atomic<bool>>(false);
    const auto thread_id = std::make_shared<std::atomic<pid_t>>(0);
    {
        loop events;
        worker thread(events, worker::at_end::abandon);
        thread.run([held, goes_on, thread_id] {
            *thread_id = gettid();
            while (!*goes_on)
                sched_yield();
        });
        while (*thread_id == 0)
            sched_yield();
    }
    *goes_on = true;
    const std::string state = "/proc/self/task/" + std::to_string(*thread_id) + "/stat";
    std::string text = "R";
    while (text.find(") S ") == std::string::npos && !text.empty()) {
        text.clear();
        std::getline(std::ifstream(state), text);
    }
    EXPECT_NE(text, "") << "it has ended";
    EXPECT_EQ(held.use_count(), 2);
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
