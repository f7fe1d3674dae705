#include "event/listener.h"

#include <csignal>
#include <map>
#include <random>

#include "event_stage.h"
#include "interrupts.h"
#include "platform/ve_json.h"
#include "platform/ve_wait.h"

namespace
{

using clock_type = std::chrono::steady_clock;

std::string event_text(int64_t id, const std::string &value)
{
    return R"({"jsonrpc":"2.0","method":"Event","params":{"Id":)" + std::to_string(id) +
           (value.empty() ? "" : ",\"Value\":" + value) + "}}\n";
}

std::string notice_text(int number)
{
    return event_text(4, R"({"Action":"Add","Path":"Device.T.","InstanceNumber":)" + std::to_string(number) +
                             R"(,"Extra":1})");
}

/// A peer that says `text` and then stays silent.
scripted_peer::script saying(const std::string &text)
{
    return [text](peer_link &link) {
        link.send(text);
        link.closed();
    };
}

/// The changes of each table: its path, and "+" or "-" with the first and the last number of each range.
std::string shown(const instance_changes &changes)
{
    std::string text;
    for (const auto &[path, ranges] : changes.tables()) {
        text += path;
        for (const auto &[first, range] : ranges)
            text += (range.added ? " +" : " -") + std::to_string(first) + ".." + std::to_string(range.last);
        text += "\n";
    }
    return text;
}

} // namespace

TEST(Listener, PrintsEventsBetweenHidingAndShowingTheLine)
{
    captured_output output;
    const scripted_peer peer(saying(event_text(12, R"({"a":[1,"x"]})") + event_text(4294967295, R"("text")") +
                                    event_text(13, "") + event_text(14, "null")));
    const context_ref group = make_group_context(peer.destination());
    const running_listener listener(nullptr, group.get());
    ASSERT_TRUE(output.shows("EVENT 14:\nnull\n<show>"));
    EXPECT_EQ(output.text(), "<hide>\nEVENT 12:\n{\n    \"a\": [\n        1,\n        \"x\"\n    ]\n}\n<show>"
                             "<hide>\nEVENT 4294967295:\n\"text\"\n<show>"
                             "<hide>\nEVENT 13:\n<show>"
                             "<hide>\nEVENT 14:\nnull\n<show>");
    EXPECT_TRUE(is_running());
}

TEST(Listener, PassesTextThroughWhereThereIsNoTerminal)
{
    captured_output output;
    const scripted_peer peer(saying(event_text(12, "\"\x7f\xc2\x9b\"")));
    const context_ref group = make_group_context(peer.destination());
    const running_listener listener(nullptr, group.get());
    EXPECT_TRUE(output.shows("EVENT 12:\n\"\x7f\xc2\x9b\"\n<show>"));
}

TEST(Listener, QueuesNoticesOfInstancesWithoutPrintingThem)
{
    captured_output output;
    keep_instance_notices();
    const scripted_peer peer(saying(notice_text(1) + event_text(4, "") + event_text(4, "5") +
                                    event_text(4, R"({"Action":"Add"})") +
                                    event_text(4, R"({"Action":1,"Path":"Device.T.","InstanceNumber":1})") +
                                    event_text(4, R"({"Action":"Add","Path":"Device.T.","InstanceNumber":"1"})") +
                                    notice_text(2) + event_text(99, "")));
    const context_ref group = make_group_context(peer.destination());
    const running_listener listener(nullptr, group.get());
    ASSERT_TRUE(output.shows("EVENT 99:\n<show>"));
    EXPECT_EQ(shown(fetch_instance_queue()), "Device.T. +1..2\n");
    EXPECT_EQ(shown(fetch_instance_queue()), "");
    EXPECT_EQ(output.text(), "<hide>\nEVENT 99:\n<show>");
}

TEST(Listener, TakesAHundredThousandNoticesInARow)
{
    constexpr int notices = 100000;
    captured_output output;
    const scripted_peer peer([](peer_link &link) {
        std::string text;
        for (int i = 1; i <= notices; ++i) {
            text += notice_text(i);
            if (i % 1000 == 0) {
                link.send(text);
                text.clear();
            }
        }
        link.send(event_text(99, ""));
        link.closed();
    });
    keep_instance_notices();
    const context_ref group = make_group_context(peer.destination());
    const running_listener listener(nullptr, group.get());
    ASSERT_TRUE(output.shows("EVENT 99:"));
    EXPECT_EQ(shown(fetch_instance_queue()), "Device.T. +1..100000\n");
}

TEST(Listener, KeepsNoNoticeThatNobodyWants)
{
    captured_output output;
    const scripted_peer peer(saying(notice_text(1) + event_text(99, "")));
    const context_ref group = make_group_context(peer.destination());
    const running_listener listener(nullptr, group.get());
    ASSERT_TRUE(output.shows("EVENT 99:"));
    EXPECT_EQ(shown(fetch_instance_queue()), "");
}

TEST(Listener, LosesNoNoticeToAConsumerThatOnlyTries)
{
    constexpr uint32_t notices = 3000;
    captured_output output;
    const scripted_peer peer([](peer_link &link) {
        for (uint32_t i = 1; i <= notices; ++i)
            link.send(notice_text(static_cast<int>(i)));
        link.closed();
    });
    keep_instance_notices();
    const context_ref group = make_group_context(peer.destination());
    const running_listener listener(nullptr, group.get());
    uint32_t expected = 1;
    EXPECT_TRUE(becomes([&] {
        const instance_changes changes = fetch_instance_queue();
        for (const auto &[path, ranges] : changes.tables()) {
            EXPECT_EQ(ranges.begin()->first, expected);
            expected = ranges.rbegin()->second.last + 1;
        }
        return expected == notices + 1;
    }));
}

TEST(Changes, OfAnInstanceTheLastHolds)
{
    instance_changes changes;
    changes.note("Device.T.", 5, true);
    changes.note("Device.T.", 5, false);
    changes.note("Device.A.", 1, false);
    changes.note("Device.A.", 1, true);
    EXPECT_EQ(shown(changes), "Device.A. +1..1\nDevice.T. -5..5\n");
}

TEST(Changes, AreKeptInRanges)
{
    instance_changes changes;
    for (const uint32_t number : {3U, 1U, 2U, 5U, 4U, 4294967295U})
        changes.note("T.", number, true);
    EXPECT_EQ(shown(changes), "T. +1..5 +4294967295..4294967295\n");
    for (const uint32_t number : {3U, 4294967295U, 7U, 8U})
        changes.note("T.", number, false);
    EXPECT_EQ(shown(changes), "T. +1..2 -3..3 +4..5 -7..8 -4294967295..4294967295\n");
    changes.note("T.", 3, true);
    changes.note("T.", 6, true);
    changes.note("T.", 1, false);
    changes.note("T.", 7, true);
    EXPECT_EQ(shown(changes), "T. -1..1 +2..7 -8..8 -4294967295..4294967295\n");
}

TEST(Changes, AgreeWithAListOfAllNumbers)
{
    std::minstd_rand random(7);
    for (int round = 0; round < 50; ++round) {
        instance_changes changes;
        std::map<uint32_t, bool> all;
        for (int i = 0; i < 200; ++i) {
            const auto number = static_cast<uint32_t>(random() % 30 + 1);
            const bool added = random() % 2 == 0;
            changes.note("T.", number, added);
            all[number] = added;
        }
        std::map<uint32_t, bool> told;
        bool before = false;
        uint32_t behind = 0;
        for (const auto &[first, range] : changes.tables().at("T.")) {
            EXPECT_TRUE(first > behind || range.added != before) << "two ranges are one";
            for (uint32_t number = first; number <= range.last; ++number)
                told[number] = range.added;
            before = range.added;
            behind = range.last + 1;
        }
        EXPECT_EQ(told, all);
    }
}

TEST(Changes, OfTooManyInstancesAreGivenUp)
{
    instance_changes changes;
    for (uint32_t number = 1; number < 4'000'000; number += 2) {
        changes.note("T.", number, true);
        ASSERT_LT(changes.tables().empty() ? 0 : changes.tables().at("T.").size(), 10000U);
    }
    EXPECT_TRUE(changes.too_many());
    EXPECT_TRUE(changes.tables().empty());
}

TEST(Listener, EndsTheRunWhenTheLinkDrops)
{
    captured_output output;
    const scripted_peer peer([](peer_link &link) { link.send(event_text(12, "")); });
    const context_ref group = make_group_context(peer.destination());
    const running_listener listener(nullptr, group.get());
    EXPECT_TRUE(becomes([] { return !is_running(); }));
    ASSERT_TRUE(output.shows("<stop>"));
    EXPECT_EQ(output.text(), "<hide>\nEVENT 12:\n<show><hide>\nConnection dropped\n<stop>");
}

TEST(Listener, EndsTheRunAtOnceWhenThereNeverWasALink)
{
    captured_output output;
    const context_ref group = make_group_context("/nonexistent/socket", false);
    const running_listener listener(nullptr, group.get());
    EXPECT_TRUE(output.shows("<hide>\nConnection dropped\n<stop>"));
    EXPECT_FALSE(is_running());
}

TEST(Listener, StopsAtOnceAndWithoutAWordWhenever)
{
    captured_output output;
    const scripted_peer peer([](peer_link &link) { link.closed(); });
    int slow = 0;
    for (int i = 0; i < 200; ++i) {
        const context_ref group = make_group_context(peer.destination());
        ve_jrpcapi_set_timeout(group.get(), -1);
        const auto start = clock_type::now();
        ASSERT_EQ(start_event_handler(nullptr, group.get()), 0);
        const auto later = clock_type::now() + std::chrono::microseconds(i);
        while (clock_type::now() < later)
            ;
        stop_event_handler();
        slow += milliseconds_since(start) < 900 ? 0 : 1;
        ASSERT_LT(slow, 2) << "the machine may do something else once";
        EXPECT_FALSE(is_running());
        stop_event_handler();
    }
    EXPECT_EQ(output.text(), "");
}

TEST(Listener, LeavesTheLineEditorNothingToWatch)
{
    const scripted_peer peer([](peer_link &link) { link.closed(); });
    const context_ref group = make_group_context(peer.destination());
    {
        const running_listener listener(nullptr, group.get());
        EXPECT_GT(stage_control_fd, STDERR_FILENO);
    }
    EXPECT_EQ(stage_control_fd, -1);
}

TEST(Listener, EndsWhenASignalHandlerEndsTheRun)
{
    captured_output output;
    const scripted_peer peer([](peer_link &link) { link.closed(); });
    const context_ref group = make_group_context(peer.destination());
    ve_jrpcapi_set_timeout(group.get(), -1);
    ve_wait_init();
    struct sigaction action {
    };
    struct sigaction before {
    };
    action.sa_handler = [](int) { end_run(); };
    sigaction(SIGINT, &action, &before);
    const running_listener listener(nullptr, group.get());
    raise(SIGINT);
    EXPECT_TRUE(is_running());
    while (is_running())
        ve_wait_sleep_ms(10);
    stop_event_handler();
    sigaction(SIGINT, &before, nullptr);
    sigset_t interrupt;
    sigemptyset(&interrupt);
    sigaddset(&interrupt, SIGINT);
    pthread_sigmask(SIG_UNBLOCK, &interrupt, nullptr);
    EXPECT_EQ(output.text(), "");
}

TEST(GroupExec, TakesTheAnswerThatTheListenerHandsOver)
{
    captured_output output;
    const scripted_peer peer([](peer_link &link) {
        // An answer that came before anybody asked, one for another request, then the one that is awaited.
        while (const long id = link.request()) {
            link.answer(id + 1);
            link.answer(id, R"({"Own":)" + std::to_string(id) + "}");
            link.answer(id);
        }
    });
    const context_ref group = make_group_context(peer.destination());
    const running_listener listener(nullptr, group.get());
    for (int i = 1; i <= 20; ++i) {
        const msg_ref message(ve_jrpcmsg_create_new("Ask", nullptr));
        ASSERT_EQ(group_exec(message.get(), -1), 0);
        EXPECT_EQ(json_integer_value(json_object_get(ve_jrpcmsg_result(message.get()), "Own")), i);
    }
    EXPECT_EQ(output.text(), "");
}

TEST(GroupExec, ReturnsTheCodeOfAnErrorAnswer)
{
    const scripted_peer peer([](peer_link &link) {
        link.request();
        link.send(R"({"id":1,"error":{"code":9001,"message":"no","data":{"a":"b"}}})"
                  "\n");
        link.closed();
    });
    const context_ref group = make_group_context(peer.destination());
    const running_listener listener(nullptr, group.get());
    const msg_ref message(ve_jrpcmsg_create_new("Ask", nullptr));
    EXPECT_EQ(group_exec(message.get(), -1), 9001);
    EXPECT_STREQ(ve_jrpcmsg_error_message(message.get()), "no");
    EXPECT_EQ(json_object_size(ve_jrpcmsg_error_data(message.get())), 1U);
}

TEST(GroupExec, GivesUpAfterItsPolls)
{
    std::atomic<int> requests{0};
    {
        const scripted_peer peer([&](peer_link &link) {
            while (const long id = link.request()) {
                ++requests;
                if (id == 1)
                    link.answer(id); // comes too late for somebody who does not look
            }
        });
        const context_ref group = make_group_context(peer.destination());
        const running_listener listener(nullptr, group.get());
        const msg_ref message(ve_jrpcmsg_create_new("Ask", nullptr));
        EXPECT_EQ(group_exec(message.get(), 0), -1);
        EXPECT_EQ(ve_jrpcmsg_error_code(message.get()), -32001);
        const msg_ref second(ve_jrpcmsg_create_new("Ask", nullptr));
        EXPECT_EQ(group_exec(second.get(), 5), -1);
        EXPECT_EQ(ve_jrpcmsg_error_code(second.get()), -32001);
        EXPECT_TRUE(becomes([&] { return requests == 2; }));
    }
}

TEST(GroupExec, IsLeftByCtrlC)
{
    captured_output output;
    const interrupts handling([](int) { ve_wait_note_interrupt(); });
    const scripted_peer peer([main = pthread_self()](peer_link &link) {
        link.request();
        pthread_kill(main, SIGINT);
        link.closed();
    });
    const context_ref group = make_group_context(peer.destination());
    const running_listener listener(nullptr, group.get());
    const msg_ref message(ve_jrpcmsg_create_new("Ask", nullptr));
    EXPECT_EQ(group_exec(message.get(), -1), -1);
    EXPECT_EQ(ve_jrpcmsg_error_code(message.get()), ve_jrpc_err_timeout);
}

TEST(GroupExec, EndsWhenTheLinkDoes)
{
    captured_output output;
    const scripted_peer peer([](peer_link &link) { link.request(); });
    const context_ref group = make_group_context(peer.destination());
    const running_listener listener(nullptr, group.get());
    const msg_ref message(ve_jrpcmsg_create_new("Ask", nullptr));
    EXPECT_EQ(group_exec(message.get(), -1), -1);
    EXPECT_EQ(ve_jrpcmsg_error_code(message.get()), -32002);
    EXPECT_EQ(group_exec(message.get(), -1), -1);
}
