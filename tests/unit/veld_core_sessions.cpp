#include "veld/session/login_guard.h"
#include "veld/session/sessions.h"

#include <algorithm>
#include <gtest/gtest.h>

using namespace veld;

namespace
{

std::vector<uint64_t> hearing(const sessions &of, int64_t group)
{
    std::vector<uint64_t> out;
    of.each_in_group(group, [&out](uint64_t hears, const std::vector<uint64_t> &) { out.push_back(hears); });
    std::sort(out.begin(), out.end());
    return out;
}

using ids = std::vector<uint64_t>;

TEST(VeldSessions, AGroupJoinedOnOneLinkIsHeardOnTheReceiver)
{
    sessions of;
    of.join(1, 7, "s", false);
    EXPECT_EQ(hearing(of, 7), ids{1});
    of.join(2, 4, "s", true);
    EXPECT_EQ(hearing(of, 7), ids{2});
    EXPECT_EQ(hearing(of, 4), ids{2});
    EXPECT_EQ(hearing(of, 5), ids{});
}

TEST(VeldSessions, ASessionHearsOnceHoweverOftenItJoined)
{
    sessions of;
    of.join(1, 7, "s", false);
    of.join(1, 7, "s", false);
    of.join(2, 7, "s", true);
    of.join(3, 7, "other", false);
    of.join(4, 7, "", false);
    EXPECT_EQ(hearing(of, 7), (ids{2, 3, 4}));
}

TEST(VeldSessions, MembershipsEndWithTheLinkThatJoined)
{
    sessions of;
    of.join(1, 7, "s", false);
    of.join(2, 8, "s", true);
    of.leave(1);
    EXPECT_EQ(hearing(of, 7), ids{});
    EXPECT_EQ(hearing(of, 8), ids{2});
    of.join(1, 8, "s", false);
    of.leave(2);
    EXPECT_EQ(hearing(of, 8), ids{1});
    of.leave(1);
    of.leave(1);
    EXPECT_EQ(hearing(of, 8), ids{});
}

TEST(VeldSessions, NoTextMeetsALinksOwnSession)
{
    sessions of;
    of.join(1, 7, "", false);
    of.join(2, 7, " 1", true);
    of.join(3, 7, "1", true);
    EXPECT_EQ(hearing(of, 7), (ids{1, 2, 3}));
}

TEST(VeldSessions, CountsTheGroupsOfALink)
{
    sessions of;
    for (int64_t group = 1; group <= 5; ++group)
        of.join(1, group, group % 2 != 0 ? "a" : "b", false);
    of.join(2, 1, "a", false);
    EXPECT_EQ(of.joined(1), 5U);
    EXPECT_EQ(of.joined(2), 1U);
    EXPECT_EQ(of.joined(3), 0U);
}

TEST(VeldLoginGuard, EachFailureMakesTheNextWaitLonger)
{
    login_guard guard;
    int64_t now = 1000;
    int64_t last = 0;
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(guard.admit("eve", "uid 5", now), now);
        const int64_t delay = guard.failed("eve", "uid 5", now);
        EXPECT_GT(delay, last);
        EXPECT_EQ(guard.admit("eve", "uid 5", now), now + delay);
        guard.failed("eve", "uid 5", now);
        now += 2 * delay;
        last = delay;
        if (last == 4000)
            break;
    }
    EXPECT_EQ(last, 4000);
    // Trying another name does not help, being somebody else does.
    guard.failed("eve", "uid 5", now);
    EXPECT_GT(guard.admit("adam", "uid 5", now), now);
    EXPECT_EQ(guard.admit("eve", "uid 6", now), now);
}

TEST(VeldLoginGuard, TheOwnerWaitsAFewSecondsAtMostWhateverOthersDo)
{
    login_guard guard;
    for (int i = 0; i < 200; ++i)
        guard.admit("eve", "uid 5", 1000);
    for (int i = 0; i < 200; ++i)
        guard.failed("eve", "uid 5", 1000 + i);
    EXPECT_LE(guard.admit("eve", "uid 5", 1300), 1300 + 4000);
    EXPECT_LE(guard.admit("eve", "uid 6", 1300), 1300 + 4000);
}

TEST(VeldLoginGuard, AttemptsAtOnceWaitOneBehindTheOther)
{
    login_guard guard;
    int at_once = 0;
    for (int i = 0; i < 50; ++i)
        at_once += guard.admit("eve", "uid 5", 1000) == 1000 ? 1 : 0;
    EXPECT_LE(at_once, 6);
}

TEST(VeldLoginGuard, WhatIsGivenUpCountsNoMore)
{
    login_guard guard;
    guard.given_up("eve", "uid 5"); // of whom nothing is known
    for (int i = 0; i < 200; ++i) {
        EXPECT_EQ(guard.admit("eve", "uid 5", 1000), 1000);
        guard.given_up("eve", "uid 5");
    }
    EXPECT_GT(guard.failed("eve", "uid 5", 1000), 0);
    guard.given_up("eve", "uid 5");
    EXPECT_GT(guard.admit("eve", "uid 5", 1000), 1000);
}

TEST(VeldLoginGuard, ThoseWhoKnowTheirPasswordNeverWait)
{
    login_guard guard;
    for (int i = 0; i < 200; ++i) {
        EXPECT_EQ(guard.admit("adam", "uid 5", 1000), 1000);
        guard.succeeded("adam", "uid 5");
    }
    EXPECT_EQ(guard.admit("adam", "uid 6", 1000), 1000);
    EXPECT_EQ(guard.admit("eve", "uid 5", 1000), 1000);
}

TEST(VeldLoginGuard, OfWhoWasForgottenASuccessSaysNothing)
{
    login_guard guard;
    guard.succeeded("anna", "uid 1");
    EXPECT_EQ(guard.admit("anna", "uid 1", 5), 5);
}

TEST(VeldLoginGuard, AnAccountIsGuardedOverAllAddresses)
{
    login_guard guard;
    for (int i = 0; i < 40; ++i)
        guard.failed("eve", "192.0.2." + std::to_string(i), 1000);
    EXPECT_GT(guard.admit("eve", "192.0.2.200", 1000), 1000);
    EXPECT_EQ(guard.admit("adam", "192.0.2.200", 1000), 1000);
}

TEST(VeldLoginGuard, OnesOwnSuccessForgetsNoFailuresOfOthers)
{
    login_guard guard;
    int64_t longest = 0;
    for (int i = 0; i < 8; ++i) {
        longest = std::max(longest, guard.failed("admin", "uid 5", 1000));
        guard.admit("eve", "uid 5", 1000);
        guard.succeeded("eve", "uid 5");
    }
    EXPECT_EQ(longest, 4000);
    EXPECT_EQ(guard.admit("admin", "uid 5", 1000), 5000);
    EXPECT_EQ(guard.admit("eve", "uid 5", 1000), 5000);
    guard.succeeded("admin", "uid 5");
    EXPECT_EQ(guard.admit("admin", "uid 6", 1000), 1000);
}

TEST(VeldLoginGuard, ManyNamesPushNoRecordOut)
{
    login_guard guard;
    for (int i = 0; i < 6; ++i)
        guard.failed("admin", "uid 5", 1000);
    for (int i = 0; i < 10000; ++i)
        guard.failed("n" + std::to_string(i), "uid 5", 1001);
    EXPECT_GT(guard.admit("admin", "uid 5", 1002), 1002);
}

TEST(VeldLoginGuard, FailuresAreForgottenInTime)
{
    login_guard guard;
    const int64_t first = guard.failed("eve", "uid 5", 1000);
    guard.failed("eve", "uid 5", 2000);
    EXPECT_EQ(guard.failed("eve", "uid 5", 1000000), first);
}

} // namespace
