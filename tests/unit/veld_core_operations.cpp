// What is done for clients: how it begins, is limited, and ends.
#include "veld/rpc/operations.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace veld;

namespace
{

// Does what it is told to when it is called.
struct told_job : job {
    std::function<void(told_job &)> on_proceed = [](told_job &) {};
    std::function<void()> on_end = [] {};
    bool cuttable = true;

    told_job() = default;
    told_job(int64_t longest_ms, fault too_late) : job(longest_ms, std::move(too_late)) {}
    ~told_job() override { on_end(); }
    bool can_be_cut_off() const override { return cuttable; }
    void proceed() override { on_proceed(*this); }
    using job::fail;
    using job::succeed;
    using job::unwatch;
    using job::wake_in;
    using job::watch;
};

struct VeldJob : testing::Test {
    void begin()
    {
        what->begin(events, [this](job_outcome &ended) {
            outcome = std::move(ended);
            ++ends;
            what.reset();
            events.stop();
        });
    }
    void SetUp() override
    {
        int pair[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair), 0);
        near = fd_owner(pair[0]);
        far = fd_owner(pair[1]);
    }

    loop events;
    std::unique_ptr<told_job> what = std::make_unique<told_job>();
    job_outcome outcome;
    int ends = 0;
    fd_owner near, far;
};

TEST_F(VeldJob, MayEndAtItsBeginning)
{
    what->on_proceed = [](told_job &self) { self.succeed(json_ref{json_integer(7)}); };
    begin();
    EXPECT_EQ(ends, 1);
    EXPECT_EQ(json_integer_value(outcome.output.get()), 7);
}

TEST_F(VeldJob, GoesOnWhenWhatItWaitsForHappens)
{
    int steps = 0;
    what->on_proceed = [&](told_job &self) {
        char byte = 0;
        if (steps++ == 0) {
            ASSERT_TRUE(self.watch(near.get(), EPOLLIN));
        } else if (read(near.get(), &byte, 1) == 1) {
            self.fail(code::bad_value, "told");
        }
    };
    begin();
    EXPECT_EQ(ends, 0);
    ASSERT_EQ(write(far.get(), "x", 1), 1);
    events.run();
    EXPECT_EQ(ends, 1);
    EXPECT_EQ(steps, 2);
    EXPECT_EQ(outcome.problem.code, code::bad_value);
}

TEST_F(VeldJob, OfItsTimersTheLastCounts)
{
    int steps = 0;
    what->on_proceed = [&](told_job &self) {
        if (steps++ == 0) {
            self.wake_in(1000000);
            self.wake_in(1);
        } else {
            self.succeed({});
        }
    };
    begin();
    events.run();
    EXPECT_EQ(steps, 2);
}

TEST_F(VeldJob, IsBounded)
{
    what = std::make_unique<told_job>(1, fault{code::internal, "too long"});
    begin();
    events.run();
    EXPECT_EQ(ends, 1);
    EXPECT_EQ(outcome.problem.message, "too long");
}

TEST_F(VeldJob, ThatIsDestroyedIsNeverCalledAgain)
{
    int steps = 0;
    what->on_proceed = [&](told_job &self) {
        ++steps;
        ASSERT_TRUE(self.watch(near.get(), EPOLLIN));
        self.wake_in(0);
    };
    begin();
    ASSERT_EQ(write(far.get(), "x", 1), 1);
    what.reset();
    events.after(5, [&] { events.stop(); });
    events.run();
    EXPECT_EQ(steps, 1);
    EXPECT_EQ(ends, 0);
}

TEST_F(VeldJob, AClosedDescriptorsNumberMayBelongToSomebodyElse)
{
    what->on_proceed = [&](told_job &self) { ASSERT_TRUE(self.watch(near.get(), EPOLLIN)); };
    begin();
    const int number = near.get();
    near.reset();
    fd_owner other(fcntl(far.get(), F_DUPFD_CLOEXEC, number));
    ASSERT_EQ(other.get(), number);
    bool heard = false;
    EXPECT_NE(events.watch(number, EPOLLHUP,
                           [&](uint32_t) {
                               heard = true;
                               events.stop();
                           }),
              0U);
    what.reset(); // forgets its own watch, not the other's
    events.run();
    EXPECT_TRUE(heard);
}

TEST_F(VeldJob, HearsThatADescriptorCannotBeWatched)
{
    // What is always ready is nothing that epoll takes.
    const fd_owner file(memfd_create("file", MFD_CLOEXEC));
    what->on_proceed = [&](told_job &self) {
        if (!self.watch(file.get(), EPOLLIN))
            self.fail(code::resources, strerror(errno));
    };
    begin();
    EXPECT_EQ(outcome.problem.code, code::resources);
    EXPECT_EQ(outcome.problem.message, strerror(EPERM));
    EXPECT_EQ(events.watch(-1, EPOLLIN, [](uint32_t) {}), 0U);
    EXPECT_FALSE(events.change(file.get(), EPOLLOUT));
}

// --- the table ---

struct VeldOperations : testing::Test {
    static operation_asker asker(uint64_t client, const std::string &account, bool administrator = false,
                                 bool owner = false)
    {
        return {client, account, administrator, owner};
    }
    // How many begin before the table is full.
    size_t fill(operation_kind kind, const operation_asker &who)
    {
        size_t count = 0;
        for (; !table.admits(kind, who) && count < 1000; ++count)
            run(kind, who);
        return count;
    }
    told_job *run(operation_kind kind, const operation_asker &who)
    {
        auto made = std::make_unique<told_job>();
        told_job *const what = made.get();
        table.run(kind, who, std::move(made), [this](job_outcome &outcome) {
            ++ended;
            last = outcome.problem;
        });
        return what;
    }

    loop events;
    operations table{events};
    int ended = 0;
    fault last;
};

TEST_F(VeldOperations, EachAccountHasSoManyOverAllItsConnections)
{
    EXPECT_EQ(fill(operation_kind::method, asker(1, "anna")), 16U);
    EXPECT_EQ(table.admits(operation_kind::method, asker(2, "anna")).message, "too many methods are running");
    EXPECT_EQ(table.admits(operation_kind::work, asker(2, "anna")).code, code::resources);
    EXPECT_EQ(table.admits(operation_kind::transfer, asker(2, "anna")).message, "too many transfers are under way");
    EXPECT_FALSE(table.admits(operation_kind::method, asker(3, "otto")));
    table.end(1);
    EXPECT_EQ(table.size(), 0U);
    EXPECT_FALSE(table.admits(operation_kind::method, asker(2, "anna")));
    EXPECT_EQ(ended, 0);
}

TEST_F(VeldOperations, TheLastOnesAreKeptForThoseToWhomTheDeviceBelongs)
{
    for (int i = 0; i < 20; ++i)
        fill(operation_kind::method, asker(1, "user " + std::to_string(i)));
    EXPECT_EQ(table.size(), 96U);
    EXPECT_TRUE(table.admits(operation_kind::method, asker(1, "another")));
    for (int i = 0; i < 20; ++i)
        fill(operation_kind::method, asker(2, "administrator " + std::to_string(i), true));
    EXPECT_EQ(table.size(), 128U);
    table.end_all();
    for (int i = 0; i < 20; ++i)
        fill(operation_kind::transfer, asker(1, "administrator " + std::to_string(i), true));
    EXPECT_EQ(table.size(), 6U);
    EXPECT_EQ(fill(operation_kind::transfer, asker(2, "root", true, true)), 2U);
    EXPECT_TRUE(table.admits(operation_kind::transfer, asker(2, "other root", true, true)));
    EXPECT_FALSE(table.admits(operation_kind::method, asker(2, "root", true, true)));
}

TEST_F(VeldOperations, WhatEndsIsToldOnceAndGivesItsRoomBack)
{
    told_job *const what = run(operation_kind::method, asker(1, "anna"));
    what->fail(code::denied, "no");
    EXPECT_EQ(ended, 1);
    EXPECT_EQ(last.code, code::denied);
    EXPECT_EQ(table.size(), 0U);
}

TEST_F(VeldOperations, WhatIsCutOffIsGoneAndNobodyHears)
{
    int gone = 0;
    run(operation_kind::method, asker(1, "anna"))->on_end = [&] { ++gone; };
    run(operation_kind::transfer, asker(2, "anna"))->on_end = [&] { ++gone; };
    table.end(1);
    EXPECT_EQ(gone, 1);
    table.end_all();
    EXPECT_EQ(gone, 2);
    EXPECT_EQ(ended, 0);
}

TEST_F(VeldOperations, WhatCannotBeCutOffCountsUntilItHasEnded)
{
    std::vector<errand::done_handler> done;
    for (int i = 0; i < 16; ++i)
        table.run(operation_kind::work, asker(1, "anna"),
                  std::make_unique<errand>([&](errand::done_handler call) { done.push_back(std::move(call)); }),
                  [this](job_outcome &outcome) {
                      ++ended;
                      last = outcome.problem;
                  });
    // Whoever comes again and again does not get another sixteen.
    table.end(1);
    EXPECT_EQ(table.size(), 16U);
    EXPECT_TRUE(table.admits(operation_kind::work, asker(2, "anna")));
    done[0]({code::internal, "the disk is full"});
    EXPECT_EQ(ended, 1);
    EXPECT_EQ(last.message, "the disk is full");
    EXPECT_EQ(table.size(), 15U);
    done[0]({}); // an errand that is gone hears nothing
    EXPECT_EQ(ended, 1);
}

} // namespace
