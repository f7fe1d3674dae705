#include "platform/ve_jrpcapi.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <vector>

#include "base/json_ref.h"
#include "interrupts.h"
#include "platform/ve_wait.h"
#include "vebase/link/jrpcapi_impl.h"
#include "vebase_scripted_peer.h"

namespace
{

using clock_type = std::chrono::steady_clock;

struct deinit {
    void operator()(ve_jrpcapi *ctx) const { ve_jrpcapi_deinit(ctx); }
};
using context = std::unique_ptr<ve_jrpcapi, deinit>;

context context_for(const char *destination)
{
    context ctx(ve_jrpcapi_init());
    ve_jrpcapi_set_destination(ctx.get(), nullptr, destination, ve_socket_unix);
    return ctx;
}

context connected_to(const scripted_peer &peer)
{
    context ctx = context_for(peer.destination());
    EXPECT_EQ(ve_jrpcapi_connect(ctx.get()), 0) << ve_jrpcapi_connect_error(ctx.get());
    return ctx;
}

int milliseconds_since(clock_type::time_point start)
{
    return static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(clock_type::now() - start).count());
}

size_t open_descriptors()
{
    size_t count = 0;
    for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator("/proc/self/fd"))
        ++count;
    return count;
}

/// Sends a request and returns its code, 0 for a success.
int ask(const context &ctx, const char *method = "Ask")
{
    const msg_ref message(ve_jrpcmsg_create_new(method, nullptr));
    ve_jrpcapi_exec(ctx.get(), message.get());
    return ve_jrpcmsg_error_code(message.get());
}

bool is_connected(const context &ctx)
{
    return ve_socket_state(ve_jrpcapi_socket(ctx.get())) == ve_socket_connected;
}

/// Answers every request.
void answer_all(peer_link &link)
{
    while (const long id = link.request())
        link.answer(id);
}

/// The ids of a raw request with the last number but one and of two requests behind it, where `reserved` is kept for
/// another raw one.
std::string ids_behind_the_last_number(json_int_t reserved)
{
    std::string seen;
    {
        const scripted_peer peer([&](peer_link &link) {
            for (int i = 0; i < 3; ++i) {
                const std::string line = link.line();
                const json_ref request(json_loads(line.c_str(), 0, nullptr));
                const json_int_t id = json_integer_value(json_object_get(request.get(), "id"));
                seen += std::to_string(id) + " ";
                link.send("{\"id\":" + std::to_string(id) + ",\"result\":{}}\n");
            }
            link.closed();
        });
        const context ctx = connected_to(peer);
        ve_jrpcapi_reserve_id(ctx.get(), json_ref(json_integer(reserved)).get());
        const json_ref raw(json_loads(R"({"id":9223372036854775806,"method":"Raw"})", 0, nullptr));
        const msg_ref message(ve_jrpcmsg_parse_json(raw.get()));
        EXPECT_EQ(ve_jrpcapi_exec(ctx.get(), message.get()), 0);
        EXPECT_EQ(ask(ctx), 0);
        EXPECT_EQ(ask(ctx), 0);
    }
    return seen;
}

} // namespace

TEST(JrpcApi, StoresTheAnswerThatComesByteByByte)
{
    const scripted_peer peer([](peer_link &link) {
        const long id = link.request();
        for (const char byte : "\n\r\n" + peer_link::answer_text(id, R"({"ParameterList":["a"]})"))
            link.send(std::string(1, byte));
        link.closed();
    });
    const context ctx = connected_to(peer);
    const msg_ref message(ve_jrpcmsg_create_new("Ask", nullptr));
    ASSERT_EQ(ve_jrpcapi_exec(ctx.get(), message.get()), 0);
    EXPECT_EQ(ve_jrpcapi_get_socket_err(ctx.get()), ve_socket_err_none);
    EXPECT_STREQ(json_string_value(json_array_get(ve_jrpcmsg_parameter_list(message.get()), 0)), "a");
}

TEST(JrpcApi, SendsNewIdsFromOneUpAndKeepsTheOneThatAUserGave)
{
    std::string seen;
    {
        const scripted_peer peer([&](peer_link &link) {
            for (int i = 0; i < 4; ++i) {
                const std::string line = link.line();
                seen += line + "\n";
                const json_ref request(json_loads(line.c_str(), 0, nullptr));
                const json_ref answer(json_pack("{s:O,s:{}}", "id", json_object_get(request.get(), "id"), "result"));
                char *text = json_dumps(answer.get(), JSON_COMPACT);
                link.send(std::string(text) + "\n");
                free(text);
            }
            link.closed();
        });
        const context ctx = connected_to(peer);
        EXPECT_EQ(ask(ctx), 0);
        const json_ref raw(json_loads(R"({"id":"mine","method":"Raw","extra":1})", 0, nullptr));
        const msg_ref message(ve_jrpcmsg_parse_json(raw.get()));
        EXPECT_EQ(ve_jrpcapi_exec(ctx.get(), message.get()), 0);
        const msg_ref again(ve_jrpcmsg_create_new("Twice", nullptr));
        EXPECT_EQ(ve_jrpcapi_exec(ctx.get(), again.get()), 0);
        EXPECT_EQ(ve_jrpcapi_exec(ctx.get(), again.get()), 0);
    }
    EXPECT_EQ(seen, "{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"Ask\"}\n"
                    "{\"id\":\"mine\",\"method\":\"Raw\",\"extra\":1}\n"
                    "{\"jsonrpc\":\"2.0\",\"id\":2,\"method\":\"Twice\"}\n"
                    "{\"jsonrpc\":\"2.0\",\"id\":3,\"method\":\"Twice\"}\n");
}

TEST(JrpcApi, CountsFromOneAgainBehindTheLastNumber)
{
    EXPECT_EQ(ids_behind_the_last_number(0), "9223372036854775806 1 2 ");
    EXPECT_EQ(ids_behind_the_last_number(INT64_MAX), "9223372036854775806 1 2 ");
    EXPECT_EQ(ids_behind_the_last_number(1), "9223372036854775806 2 3 ");
    EXPECT_EQ(ids_behind_the_last_number(2), "9223372036854775806 1 3 ");
}

TEST(JrpcApi, DropsEventsAndAnswersThatNobodyAwaits)
{
    const scripted_peer peer([](peer_link &link) {
        while (const long id = link.request())
            link.send(peer_link::answer_text(id + 100) + R"({"method":"Event","params":{"Id":12}})" + "\n" +
                      R"({"method":"Other"})" + "\n" + R"({"id":1,"method":"AskBack"})" + "\n{}\n" + R"({"id":")" +
                      std::to_string(id) + R"(","error":{"code":9001}})" + "\n" + peer_link::answer_text(id) +
                      peer_link::answer_text(id) + peer_link::answer_text(id - 1));
    });
    const context ctx = connected_to(peer);
    for (int i = 0; i < 100; ++i)
        ASSERT_EQ(ask(ctx), 0);
}

TEST(JrpcApi, StaysUsableAfterATimeOutAndDropsTheLateAnswer)
{
    const scripted_peer peer([](peer_link &link) {
        const long late = link.request();
        const long next = link.request();
        link.send(peer_link::answer_text(late, R"({"Which":"late"})") +
                  peer_link::answer_text(next, R"({"Which":"next"})"));
        link.closed();
    });
    const context ctx = connected_to(peer);
    ve_jrpcapi_set_timeout(ctx.get(), 50);
    const msg_ref first(ve_jrpcmsg_create_new("Ask", nullptr));
    EXPECT_LT(ve_jrpcapi_exec(ctx.get(), first.get()), 0);
    EXPECT_EQ(ve_jrpcapi_get_socket_err(ctx.get()), ve_socket_err_timeout);
    EXPECT_EQ(ve_jrpcmsg_error_code(first.get()), -32001);
    EXPECT_STREQ(ve_jrpcmsg_error_title(first.get()), "Timed out");
    EXPECT_STREQ(ve_jrpcmsg_error_message(first.get()), "no answer from the daemon in time");
    ve_jrpcapi_set_timeout(ctx.get(), -1);
    const msg_ref second(ve_jrpcmsg_create_new("Ask", nullptr));
    ASSERT_EQ(ve_jrpcapi_exec(ctx.get(), second.get()), 0);
    EXPECT_STREQ(json_string_value(json_object_get(ve_jrpcmsg_result(second.get()), "Which")), "next");
}

TEST(JrpcApi, AnAnswerStaysWhatItIsWhileTheLinkGoesOn)
{
    const std::string large(size_t{1} << 20, 'x');
    const std::string sizes[] = {"small", large, "short", large};
    const scripted_peer peer([&](peer_link &link) {
        // Behind a small answer stands a large message, behind a large answer a small one.
        for (const std::string &text : sizes) {
            const std::string behind = text == large ? "y" : large;
            const long id = link.request();
            link.send(peer_link::answer_text(id, R"({"ParameterList":[{"Name":")" + text + R"("}]})") +
                      R"({"method":"Other","params":{"Text":")" + behind + "\"}}\n");
        }
        link.closed();
    });
    const context ctx = connected_to(peer);
    std::vector<msg_ref> messages;
    for (size_t i = 0; i < std::size(sizes); ++i) {
        messages.emplace_back(ve_jrpcmsg_create_new("Ask", nullptr));
        ASSERT_EQ(ve_jrpcapi_exec(ctx.get(), messages.back().get()), 0);
    }
    for (size_t i = 0; i < std::size(sizes); ++i) {
        ve_parameter entry;
        ASSERT_TRUE(ve_jrpcmsg_has_result(messages[i].get()));
        ASSERT_TRUE(ve_jrpcmsg_parameters(messages[i].get()).next(&entry));
        EXPECT_TRUE(entry.name == sizes[i]) << i;
    }
}

TEST(JrpcApi, AListOfEmptyEntriesCostsLittleMoreThanItsLine)
{
    constexpr size_t count = (size_t{8} << 20) / 3;
    const auto peak_bytes = [] {
        rusage usage;
        getrusage(RUSAGE_SELF, &usage);
        return static_cast<size_t>(usage.ru_maxrss) << 10;
    };
    std::string list = "{}";
    list.reserve(3 * count);
    while (list.size() < 3 * (count - 1))
        list += ",{}";
    const scripted_peer peer([&](peer_link &link) {
        link.answer(link.request(), R"({"ParameterList":[)" + list + "]}");
        link.closed();
    });
    const context ctx = connected_to(peer);
    const msg_ref message(ve_jrpcmsg_create_new("Ask", nullptr));
    const size_t before = peak_bytes();
    ASSERT_EQ(ve_jrpcapi_exec(ctx.get(), message.get()), 0);
    size_t found = 0;
    ve_parameter entry;
    for (ve_parameters entries = ve_jrpcmsg_parameters(message.get()); entries.next(&entry);)
        ++found;
    EXPECT_EQ(found, count);
#if !defined(__SANITIZE_THREAD__) && !defined(__SANITIZE_ADDRESS__)
    // The peer in this process holds the line several times, too. What the sanitizers keep beside it is not measured.
    EXPECT_LT(peak_bytes() - before, size_t{96} << 20);
#else
    (void)before;
#endif
}

TEST(JrpcApi, BoundsTheWholeExchangeAgainstAPeerThatNeverStopsSending)
{
    for (const char *drip : {" ", "\n", "{\"method\":\"Event\",\"params\":{\"Id\":5}}\n"}) {
        const scripted_peer peer([drip](peer_link &link) {
            const std::string burst = strlen(drip) > 1 ? [drip] {
                std::string many;
                for (int i = 0; i < 1000; ++i)
                    many += drip;
                return many;
            }()
                                                       : drip;
            while (link.send(burst))
                if (burst.size() == 1)
                    usleep(2000);
        });
        const context ctx = connected_to(peer);
        ve_jrpcapi_set_timeout(ctx.get(), 150);
        const auto start = clock_type::now();
        EXPECT_EQ(ask(ctx), -32001);
        EXPECT_GE(milliseconds_since(start), 149);
        EXPECT_LT(milliseconds_since(start), 3000);
        EXPECT_TRUE(is_connected(ctx));
    }
}

TEST(JrpcApi, EndsALinkThatTalksNonsense)
{
    for (const char *line : {"garbage\n", "[]\n", "12\n", "{\"a\":\"\xff\"}\n", "{\"a\":\n"}) {
        std::atomic<bool> closed{false};
        {
            const scripted_peer peer([&](peer_link &link) {
                link.request();
                link.send(line);
                closed = link.closed();
            });
            const context ctx = connected_to(peer);
            ve_jrpcapi_set_timeout(ctx.get(), -1);
            EXPECT_EQ(ask(ctx), -32002) << line;
            EXPECT_EQ(ve_jrpcapi_get_socket_err(ctx.get()), ve_socket_err_closed);
            EXPECT_FALSE(is_connected(ctx));
        }
        EXPECT_TRUE(closed) << line;
    }
}

TEST(JrpcApi, EndsALinkWhoseLineHasNoEnd)
{
    std::atomic<bool> refused{false};
    {
        const scripted_peer peer([&](peer_link &link) {
            link.request();
            const std::string piece(size_t{1} << 20, 'x');
            for (int i = 0; i < 80 && !refused; ++i)
                refused = !link.send(piece);
        });
        const context ctx = connected_to(peer);
        ve_jrpcapi_set_timeout(ctx.get(), -1);
        EXPECT_EQ(ask(ctx), -32002);
        EXPECT_EQ(ve_jrpcapi_get_socket_err(ctx.get()), ve_socket_err_closed);
    }
    EXPECT_TRUE(refused);
}

TEST(JrpcApi, ReportsALinkThatEndsInTheMiddleOfAnAnswer)
{
    const scripted_peer peer([](peer_link &link) {
        const long id = link.request();
        const std::string answer = peer_link::answer_text(id);
        link.send(answer.substr(0, answer.size() / 2));
    });
    const context ctx = connected_to(peer);
    const msg_ref message(ve_jrpcmsg_create_new("Ask", nullptr));
    EXPECT_LT(ve_jrpcapi_exec(ctx.get(), message.get()), 0);
    EXPECT_EQ(ve_jrpcapi_get_socket_err(ctx.get()), ve_socket_err_closed);
    EXPECT_EQ(ve_jrpcmsg_error_code(message.get()), -32002);
    EXPECT_STREQ(ve_jrpcmsg_error_title(message.get()), "Connection lost");
    EXPECT_STREQ(ve_jrpcmsg_error_message(message.get()), "the daemon closed the link");
    EXPECT_EQ(ve_jrpcapi_connect(ctx.get()), 0);
    EXPECT_TRUE(is_connected(ctx));
}

TEST(JrpcApi, AcceptsAnAnswerRightBeforeTheEnd)
{
    const scripted_peer peer([](peer_link &link) { link.answer(link.request()); });
    const context ctx = connected_to(peer);
    EXPECT_EQ(ask(ctx), 0);
    EXPECT_EQ(ask(ctx), -32002);
}

TEST(JrpcApi, RefusesAtOnceWithoutALink)
{
    const context ctx = context_for("/nonexistent/socket");
    ve_jrpcapi_set_timeout(ctx.get(), -1);
    EXPECT_EQ(ve_jrpcapi_socket(ctx.get()), nullptr);
    EXPECT_EQ(ask(ctx), -32002);
    EXPECT_EQ(ve_jrpcapi_get_socket_err(ctx.get()), ve_socket_err_closed);
    const msg_ref event(ve_jrpcmsg_create_event_new(12, nullptr));
    EXPECT_LT(ve_jrpcapi_send(ctx.get(), event.get()), 0);
    EXPECT_EQ(ve_jrpcapi_recv(ctx.get()), nullptr);
    EXPECT_EQ(ve_jrpcapi_get_socket_err(ctx.get()), ve_socket_err_closed);
    EXPECT_LT(ve_jrpcapi_login(ctx.get(), "admin", nullptr), 0);
    EXPECT_LT(ve_jrpcapi_logout(ctx.get()), 0);
}

TEST(JrpcApi, PacesFailedConnectsButNotTheFirstOneAndHoldsNoDescriptor)
{
    // The machine may do something else for a moment, but not every time.
    int best = INT_MAX;
    for (int i = 0; i < 5; ++i) {
        const context other = context_for("/nonexistent/socket");
        const auto start = clock_type::now();
        EXPECT_LT(ve_jrpcapi_connect(other.get()), 0);
        best = std::min(best, milliseconds_since(start));
    }
    EXPECT_LT(best, 45);
    const context ctx = context_for("/nonexistent/socket");
    const size_t before = open_descriptors();
    EXPECT_LT(ve_jrpcapi_connect(ctx.get()), 0);
    EXPECT_STRNE(ve_jrpcapi_connect_error(ctx.get()), "");
    EXPECT_FALSE(ve_jrpcapi_connect_error_lasts(ctx.get()));
    const auto start = clock_type::now();
    for (int i = 0; i < 4; ++i)
        EXPECT_LT(ve_jrpcapi_connect(ctx.get()), 0);
    EXPECT_GE(milliseconds_since(start), 4 * 50 - 50);
    EXPECT_EQ(open_descriptors(), before);
}

TEST(JrpcApi, PacesFailuresThatLastEverMoreSlowly)
{
    const context ctx = context_for("tcp://nowhere");
    const auto start = clock_type::now();
    for (int i = 0; i < 4; ++i)
        EXPECT_LT(ve_jrpcapi_connect(ctx.get()), 0);
    EXPECT_TRUE(ve_jrpcapi_connect_error_lasts(ctx.get()));
    EXPECT_GE(milliseconds_since(start), 50 + 100 + 200 - 10);
}

TEST(JrpcApi, ClosesItsDescriptorsOnExecAndAtTheEnd)
{
    std::atomic<int> left = 0;
    const scripted_peer peer([&left](peer_link &link) {
        link.closed();
        ++left;
    });
    const size_t before = open_descriptors();
    {
        const context ctx = connected_to(peer);
        ve_jrpcapi_set_timeout(ctx.get(), 1);
        EXPECT_EQ(ve_jrpcapi_recv(ctx.get()), nullptr);
        EXPECT_EQ(ve_jrpcapi_get_socket_err(ctx.get()), ve_socket_err_timeout);
        sockaddr_storage name;
        for (int fd = 3; fd < 64; ++fd) {
            socklen_t size = sizeof name;
            if (getpeername(fd, reinterpret_cast<sockaddr *>(&name), &size) == 0) {
                EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
            }
        }
        ASSERT_EQ(ve_jrpcapi_connect(ctx.get()), 0);
    }
    // The peer, which lives in this process too, takes the second link and closes its ends a little later.
    const auto start = clock_type::now();
    while ((left < 2 || open_descriptors() != before) && milliseconds_since(start) < 5000)
        usleep(1000);
    EXPECT_EQ(left, 2);
    EXPECT_EQ(open_descriptors(), before);
}

TEST(JrpcApi, ConnectsOverTcpByAddressAndByName)
{
    const scripted_peer four(answer_all, AF_INET);
    ASSERT_TRUE(four.usable());
    EXPECT_EQ(ask(connected_to(four)), 0);
    context named(ve_jrpcapi_init());
    const std::string name = "tcp://localhost:" + std::to_string(four.port());
    ve_jrpcapi_set_destination(named.get(), name.c_str(), nullptr, ve_socket_unix);
    ASSERT_EQ(ve_jrpcapi_connect(named.get()), 0) << ve_jrpcapi_connect_error(named.get());
    EXPECT_EQ(ve_socket_type(ve_jrpcapi_socket(named.get())), ve_socket_tcp);
    EXPECT_EQ(ask(named), 0);
    named.reset();
    const scripted_peer six(answer_all, AF_INET6);
    if (six.usable()) {
        EXPECT_EQ(ask(connected_to(six)), 0);
    }
}

TEST(JrpcApi, SaysWhyADestinationMakesNoSense)
{
    for (const char *destination :
         {"tcp://", "tcp://host", "tcp://host:", "tcp://:80", "tcp://host:0", "tcp://host:65536", "tcp://host:8x",
          "tcp://::1:80", "tcp://[::1]", "tcp://[]:80", "tcp://[::1:80"}) {
        const context ctx = context_for(destination);
        EXPECT_LT(ve_jrpcapi_connect(ctx.get()), 0) << destination;
        EXPECT_STREQ(ve_jrpcapi_connect_error(ctx.get()),
                     (std::string(destination) + ": not of the form tcp://HOST:PORT").c_str());
        EXPECT_TRUE(ve_jrpcapi_connect_error_lasts(ctx.get()));
    }
    const context ctx = context_for(("/" + std::string(200, 'x')).c_str());
    EXPECT_LT(ve_jrpcapi_connect(ctx.get()), 0);
    EXPECT_NE(strstr(ve_jrpcapi_connect_error(ctx.get()), "1 to 107 bytes"), nullptr);
}

TEST(JrpcApi, FinishesAHalfSentRequestBeforeTheNext)
{
    std::atomic<bool> go{false};
    std::string lines[2];
    {
        const scripted_peer peer([&](peer_link &link) {
            while (!go)
                usleep(1000);
            link.request() == 1 ? lines[0] = "whole" : lines[0] = "torn";
            lines[1] = link.line();
            link.answer(2);
            link.closed();
        });
        const context ctx = connected_to(peer);
        ve_jrpcapi_set_timeout(ctx.get(), 50);
        json_t *params = json_pack("{s:s}", "Text", std::string(size_t{4} << 20, 'x').c_str());
        const msg_ref large(ve_jrpcmsg_create_new("Large", params));
        EXPECT_LT(ve_jrpcapi_exec(ctx.get(), large.get()), 0);
        EXPECT_EQ(ve_jrpcmsg_error_code(large.get()), -32001);
        go = true;
        ve_jrpcapi_set_timeout(ctx.get(), peer_patience_s * 1000);
        EXPECT_EQ(ask(ctx, "Small"), 0);
    }
    EXPECT_EQ(lines[0], "whole");
    EXPECT_EQ(lines[1], R"({"jsonrpc":"2.0","id":2,"method":"Small"})");
}

TEST(JrpcApi, NeverSendsARequestThatTimedOutBeforeItBeganToGoOut)
{
    std::atomic<bool> go{false};
    std::vector<std::string> lines;
    {
        const scripted_peer peer([&](peer_link &link) {
            while (!go)
                usleep(1000);
            while (lines.empty() || lines.back().find("Last") == std::string::npos) {
                lines.push_back(link.line());
                if (lines.back().empty())
                    break;
            }
            link.answer(4);
            link.closed();
        });
        const context ctx = connected_to(peer);
        ve_jrpcapi_set_timeout(ctx.get(), 50);
        json_t *params = json_pack("{s:s}", "Text", std::string(size_t{4} << 20, 'x').c_str());
        const msg_ref large(ve_jrpcmsg_create_new("Large", params));
        EXPECT_LT(ve_jrpcapi_exec(ctx.get(), large.get()), 0);
        EXPECT_EQ(ask(ctx, "Second"), -32001);
        const msg_ref third(ve_jrpcmsg_create_new("Third", nullptr));
        EXPECT_LT(ve_jrpcapi_send(ctx.get(), third.get()), 0);
        go = true;
        ve_jrpcapi_set_timeout(ctx.get(), peer_patience_s * 1000);
        EXPECT_EQ(ask(ctx, "Last"), 0);
    }
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_NE(lines[0].find("Large"), std::string::npos);
    EXPECT_NE(lines[1].find("Last"), std::string::npos);
}

TEST(JrpcApi, RefusesARequestLongerThanALine)
{
    const scripted_peer peer(answer_all);
    const context ctx = connected_to(peer);
    json_t *params = json_pack("{s:s}", "Text", std::string(size_t{64} << 20, 'x').c_str());
    const msg_ref large(ve_jrpcmsg_create_new("Large", params));
    EXPECT_LT(ve_jrpcapi_exec(ctx.get(), large.get()), 0);
    EXPECT_EQ(ve_jrpcmsg_error_code(large.get()), 9004);
    EXPECT_LT(ve_jrpcapi_send(ctx.get(), large.get()), 0);
    EXPECT_EQ(ve_jrpcmsg_error_code(large.get()), 9004);
    EXPECT_EQ(ask(ctx), 0);
}

TEST(JrpcApi, AMessageShowsTheIdThatItWasSentWith)
{
    const scripted_peer peer(answer_all);
    const context ctx = connected_to(peer);
    const msg_ref message(ve_jrpcmsg_create_new("Ask", nullptr));
    ASSERT_EQ(ve_jrpcapi_send(ctx.get(), message.get()), 0);
    const json_ref json(ve_jrpcmsg_json(message.get()));
    EXPECT_EQ(json_integer_value(json_object_get(json.get(), "id")), 1);
}

TEST(JrpcApi, SendsAMessageThatThePeerTakesLate)
{
    std::atomic<bool> go{false};
    std::atomic<size_t> size{0};
    const std::string text(size_t{4} << 20, 'x');
    {
        const scripted_peer peer([&](peer_link &link) {
            while (!go)
                usleep(1000);
            size = link.line().size();
        });
        const context ctx = connected_to(peer);
        ve_jrpcapi_set_timeout(ctx.get(), 0);
        const msg_ref event(ve_jrpcmsg_create_event_new(12, json_string(text.c_str())));
        EXPECT_LT(ve_jrpcapi_send(ctx.get(), event.get()), 0);
        EXPECT_EQ(ve_jrpcapi_get_socket_err(ctx.get()), ve_socket_err_timeout);
        EXPECT_EQ(ve_jrpcapi_link_error(ctx.get()),
                  std::string(peer.destination()) + ": the daemon does not read what is sent");
        ve_jrpcapi_disconnect(ctx.get());
        go = true;
        ASSERT_EQ(ve_jrpcapi_connect(ctx.get()), 0);
        ve_jrpcapi_set_timeout(ctx.get(), peer_patience_s * 1000);
        EXPECT_EQ(ve_jrpcapi_send(ctx.get(), event.get()), 0);
        EXPECT_EQ(ve_jrpcapi_link_error(ctx.get()), "");
    }
    EXPECT_GT(size, text.size());
}

TEST(JrpcApi, NoticesNonsenseWhileItSends)
{
    const scripted_peer peer([](peer_link &link) {
        pollfd begun{.fd = link.fd(), .events = POLLIN, .revents = 0};
        poll(&begun, 1, peer_patience_s * 1000);
        link.send("nonsense\n");
        pollfd gone{.fd = link.fd(), .events = POLLRDHUP, .revents = 0};
        poll(&gone, 1, peer_patience_s * 1000);
    });
    const context ctx = connected_to(peer);
    ve_jrpcapi_set_timeout(ctx.get(), peer_patience_s * 1000);
    const msg_ref event(ve_jrpcmsg_create_event_new(12, json_string(std::string(size_t{4} << 20, 'x').c_str())));
    EXPECT_LT(ve_jrpcapi_send(ctx.get(), event.get()), 0);
    EXPECT_EQ(ve_jrpcmsg_error_code(event.get()), -32002);
    EXPECT_FALSE(is_connected(ctx));
}

TEST(JrpcApi, SurvivesSignalsDuringAnExchange)
{
    const scripted_peer peer([main = pthread_self()](peer_link &link) {
        const long id = link.request();
        for (int i = 0; i < 20; ++i) {
            pthread_kill(main, SIGUSR1);
            usleep(2000);
        }
        link.answer(id);
        link.closed();
    });
    struct sigaction action {
    };
    struct sigaction before {
    };
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, &before);
    EXPECT_EQ(ask(connected_to(peer)), 0);
    sigaction(SIGUSR1, &before, nullptr);
}

TEST(JrpcApi, LogsInAndOut)
{
    std::string seen;
    {
        const scripted_peer peer([&](peer_link &link) {
            for (int i = 1; i <= 3; ++i) {
                seen += link.line() + "\n";
                if (i == 2)
                    link.send("{\"id\":2,\"error\":{\"code\":9001,\"message\":\"no\"}}\n");
                else
                    link.answer(i);
            }
            link.closed();
        });
        const context ctx = connected_to(peer);
        EXPECT_EQ(ve_jrpcapi_login(ctx.get(), "admin", ""), 0);
        EXPECT_LT(ve_jrpcapi_login(ctx.get(), "admin", "secret"), 0);
        EXPECT_EQ(ve_jrpcapi_logout(ctx.get()), 0);
    }
    EXPECT_EQ(
        seen,
        "{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"Login\",\"params\":{\"User\":\"admin\"}}\n"
        "{\"jsonrpc\":\"2.0\",\"id\":2,\"method\":\"Login\",\"params\":{\"User\":\"admin\",\"Password\":\"secret\"}}\n"
        "{\"jsonrpc\":\"2.0\",\"id\":3,\"method\":\"Logout\"}\n");
}

TEST(JrpcApi, ReceivesEventsAndAnswersAndPassesOverTheRest)
{
    const scripted_peer peer([](peer_link &link) {
        link.send(R"({"method":"Other"})"
                  "\n"
                  R"({"id":4,"method":"AskBack"})"
                  "\n"
                  R"({"method":"Event","params":{"Id":0}})"
                  "\n{}\n"
                  R"({"method":"Event","params":{"Id":12,"Value":"v"}})"
                  "\n"
                  R"({"id":5,"result":{}})"
                  "\n");
        usleep(20000);
    });
    const context ctx = connected_to(peer);
    ve_jrpcapi_set_timeout(ctx.get(), peer_patience_s * 1000);
    const msg_ref event(ve_jrpcapi_recv(ctx.get()));
    ASSERT_TRUE(event);
    EXPECT_EQ(ve_jrpcmsg_event_id(event.get()), 12U);
    const msg_ref answer(ve_jrpcapi_recv(ctx.get()));
    ASSERT_TRUE(answer);
    EXPECT_EQ(ve_jrpcmsg_typeof(answer.get()), ve_jrpcmsg_answer);
    EXPECT_EQ(ve_jrpcmsg_event_id(answer.get()), 0U);
    EXPECT_EQ(ve_jrpcapi_recv(ctx.get()), nullptr);
    EXPECT_EQ(ve_jrpcapi_get_socket_err(ctx.get()), ve_socket_err_closed);
}

TEST(JrpcApi, KeepsTheEventsThatComeBeforeAnAnswerOnALinkThatReadsThem)
{
    const scripted_peer peer([](peer_link &link) {
        while (const long id = link.request())
            link.send(R"({"method":"Event","params":{"Id":12,"Value":1}})"
                      "\n"
                      R"({"method":"Other"})"
                      "\n" +
                      peer_link::answer_text(id + 100) + R"({"method":"Event","params":{"Id":13}})" + "\n" +
                      peer_link::answer_text(id) + R"({"method":"Event","params":{"Id":14}})" + "\n");
    });
    const context ctx = connected_to(peer);
    ve_jrpcapi_set_flags(ctx.get(), ve_jrpcapi_flag_events);
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(ask(ctx), 0);
        for (const size_t id : {12U, 13U, 14U}) {
            const msg_ref event(ve_jrpcapi_recv(ctx.get()));
            ASSERT_TRUE(event);
            EXPECT_EQ(ve_jrpcmsg_event_id(event.get()), id);
        }
    }
    // A lost link takes along what was kept.
    ASSERT_EQ(ask(ctx), 0);
    ve_jrpcapi_disconnect(ctx.get());
    EXPECT_EQ(ve_jrpcapi_recv(ctx.get()), nullptr);
    EXPECT_EQ(ve_jrpcapi_get_socket_err(ctx.get()), ve_socket_err_closed);
}

TEST(JrpcApi, AWakeUpEndsTheReceiveUnderWayOrTheNextAndNoOther)
{
    const scripted_peer peer([](peer_link &link) { link.closed(); });
    const context ctx = connected_to(peer);
    ve_jrpcapi_set_timeout(ctx.get(), -1);
    ve_jrpcapi_wake(ctx.get());
    EXPECT_EQ(ve_jrpcapi_recv(ctx.get()), nullptr);
    EXPECT_EQ(ve_jrpcapi_get_socket_err(ctx.get()), ve_socket_err_interrupted);
    ve_jrpcapi_set_timeout(ctx.get(), 20);
    EXPECT_EQ(ve_jrpcapi_recv(ctx.get()), nullptr);
    EXPECT_EQ(ve_jrpcapi_get_socket_err(ctx.get()), ve_socket_err_timeout);
    ve_jrpcapi_wake(ctx.get());
    ve_jrpcapi_wake(ctx.get());
    EXPECT_EQ(ve_jrpcapi_recv(ctx.get()), nullptr);
    EXPECT_EQ(ve_jrpcapi_get_socket_err(ctx.get()), ve_socket_err_interrupted);
    EXPECT_EQ(ve_jrpcapi_recv(ctx.get()), nullptr);
    EXPECT_EQ(ve_jrpcapi_get_socket_err(ctx.get()), ve_socket_err_timeout);
    EXPECT_TRUE(is_connected(ctx));
}

TEST(JrpcApi, NoWakeUpIsLostHoweverItFalls)
{
    const scripted_peer peer([](peer_link &link) { link.closed(); });
    const context ctx = connected_to(peer);
    ve_jrpcapi_set_timeout(ctx.get(), -1);
    for (int i = 0; i < 500; ++i) {
        std::thread receiver([&] {
            EXPECT_EQ(ve_jrpcapi_recv(ctx.get()), nullptr);
            EXPECT_EQ(ve_jrpcapi_get_socket_err(ctx.get()), ve_socket_err_interrupted);
        });
        const auto later = clock_type::now() + std::chrono::nanoseconds(i * 200);
        while (clock_type::now() < later)
            ;
        ve_jrpcapi_wake(ctx.get());
        receiver.join();
    }
}

TEST(JrpcApi, SendsWhileAnotherThreadReceives)
{
    constexpr int rounds = 300;
    const scripted_peer peer([](peer_link &link) {
        while (const long id = link.request())
            link.send(R"({"method":"Event","params":{"Id":12}})"
                      "\n" +
                      peer_link::answer_text(id));
    });
    const context ctx = connected_to(peer);
    ve_jrpcapi_set_flags(ctx.get(), ve_jrpcapi_flag_events);
    ve_jrpcapi_set_timeout(ctx.get(), peer_patience_s * 1000);
    int events = 0;
    int answers = 0;
    std::thread receiver([&] {
        while (events + answers < 2 * rounds) {
            const msg_ref message(ve_jrpcapi_recv(ctx.get()));
            if (!message)
                break;
            ++(ve_jrpcmsg_event_id(message.get()) == 12 ? events : answers);
        }
    });
    for (int i = 0; i < rounds; ++i) {
        const msg_ref message(ve_jrpcmsg_create_new("Ask", nullptr));
        EXPECT_EQ(ve_jrpcapi_send(ctx.get(), message.get()), 0);
        EXPECT_EQ(ve_jrpcapi_get_socket_err(ctx.get()), ve_socket_err_none);
    }
    receiver.join();
    EXPECT_EQ(events, rounds);
    EXPECT_EQ(answers, rounds);
}

TEST(JrpcApi, ALinkThatAnotherThreadHasLostTakesAndGivesNothing)
{
    const scripted_peer peer([](peer_link &link) { link.closed(); });
    const context ctx = connected_to(peer);
    EXPECT_EQ(ve_link_flush(ctx.get()), 1);
    EXPECT_EQ(ve_link_fill(ctx.get()), 0);
    ve_link_lose(ctx.get());
    EXPECT_EQ(ve_link_flush(ctx.get()), -1);
    EXPECT_EQ(ve_link_fill(ctx.get()), -1);
}

TEST(JrpcApi, ThereNeedBeNoneToFree)
{
    ve_jrpcapi_deinit(nullptr);
}

TEST(JrpcApi, DrawsItsSessionOnce)
{
    const std::string session = ve_jrpcapi_session();
    EXPECT_EQ(session.size(), 32U);
    EXPECT_EQ(session.find_first_not_of("0123456789abcdef"), std::string::npos);
    EXPECT_EQ(ve_jrpcapi_session(), session);
}

TEST(JrpcApi, StaysUsableWhenAnExchangeIsInterrupted)
{
    const interrupts handling([](int) { ve_wait_note_interrupt(); });
    const scripted_peer peer([main = pthread_self()](peer_link &link) {
        const long id = link.request();
        const std::string answer = peer_link::answer_text(id);
        link.send(answer.substr(0, 10));
        pthread_kill(main, SIGINT);
        const long next = link.request();
        link.send(answer.substr(10));
        link.answer(next);
        link.closed();
    });
    const context ctx = connected_to(peer);
    ve_jrpcapi_set_timeout(ctx.get(), -1);
    EXPECT_EQ(ask(ctx), -32001);
    EXPECT_EQ(ve_jrpcapi_get_socket_err(ctx.get()), ve_socket_err_interrupted);
    ve_wait_clear_interrupt();
    EXPECT_EQ(ask(ctx), 0);
}

TEST(JrpcApi, ALongAnswerThatComesWithCtrlCIsNobodysAnyMore)
{
    constexpr std::string_view end = "\"}}\n";
    const interrupts handling([](int) { ve_wait_note_interrupt(); });
    std::atomic<int> sent{0};
    std::atomic<bool> go{false};
    const scripted_peer peer([&](peer_link &link) {
        std::string answer = peer_link::answer_text(1, R"({"Text":")" + std::string(size_t{5} << 20, 'x') + "\"}");
        answer.resize(answer.size() - end.size());
        link.send(answer);
        sent = 1;
        while (!go)
            usleep(1000);
        link.send(std::string(end));
        sent = 2;
        link.request();
        link.answer(link.request());
        link.closed();
    });
    const context ctx = connected_to(peer);
    const auto waiting = [&] {
        int count = 0;
        ioctl(ve_jrpcapi_socket(ctx.get())->fd, FIONREAD, &count);
        return count;
    };
    while (sent == 0 || waiting() > 0)
        ASSERT_EQ(ve_jrpcapi_watch(ctx.get(), 10), 0);
    go = true;
    while (sent == 1)
        usleep(1000);
    ASSERT_EQ(waiting(), static_cast<int>(end.size()));
    raise(SIGINT);
    EXPECT_EQ(ask(ctx), -32001);
    EXPECT_EQ(ve_jrpcapi_get_socket_err(ctx.get()), ve_socket_err_interrupted);
    ve_wait_clear_interrupt();
    EXPECT_EQ(ask(ctx), 0);
}

TEST(JrpcApi, StaysUsableWhenCtrlCEndsOneExchangeAfterTheOther)
{
    constexpr int interruptions = 50;
    const interrupts handling([](int) { ve_wait_note_interrupt(); });
    std::atomic<int> received{0};
    {
        const scripted_peer peer([&, main = pthread_self()](peer_link &link) {
            for (int i = 0; i < interruptions; ++i) {
                const long id = link.request();
                ++received;
                // Cut the answer at another place each time.
                const std::string answer = peer_link::answer_text(id);
                const size_t cut = static_cast<size_t>(i) % answer.size();
                link.send(answer.substr(0, cut));
                pthread_kill(main, SIGINT);
                const long next = link.request();
                if (next != id + 1)
                    break;
                link.send(answer.substr(cut) + peer_link::answer_text(next));
            }
            link.closed();
        });
        const context ctx = connected_to(peer);
        ve_jrpcapi_set_timeout(ctx.get(), -1);
        for (int i = 0; i < interruptions; ++i) {
            const msg_ref message(ve_jrpcmsg_create_new("Left", nullptr));
            EXPECT_LT(ve_jrpcapi_exec(ctx.get(), message.get()), 0) << "the exchange was not left";
            ve_wait_clear_interrupt();
            ASSERT_EQ(ask(ctx), 0) << "after interruption " << i;
        }
    }
    EXPECT_EQ(received, interruptions);
}

TEST(JrpcApi, SendsNothingOnceCtrlCIsNoted)
{
    std::atomic<int> received{0};
    {
        const scripted_peer peer([&](peer_link &link) {
            while (const long id = link.request()) {
                ++received;
                link.answer(id);
            }
        });
        const context ctx = connected_to(peer);
        ve_wait_note_interrupt();
        EXPECT_EQ(ask(ctx), -32001);
        const msg_ref event(ve_jrpcmsg_create_event_new(12, nullptr));
        EXPECT_LT(ve_jrpcapi_send(ctx.get(), event.get()), 0);
        EXPECT_EQ(ve_jrpcapi_get_socket_err(ctx.get()), ve_socket_err_interrupted);
        ve_wait_clear_interrupt();
        EXPECT_EQ(ask(ctx), 0);
    }
    EXPECT_EQ(received, 1);
}

TEST(JrpcApi, CanBeLeftWhileItConnects)
{
    const interrupts handling([](int) { ve_wait_note_interrupt(); });
    const context ctx = context_for("/nonexistent/socket");
    EXPECT_LT(ve_jrpcapi_connect(ctx.get()), 0);
    int best = INT_MAX;
    for (int i = 0; i < 5; ++i) {
        raise(SIGINT);
        const auto start = clock_type::now();
        EXPECT_LT(ve_jrpcapi_connect(ctx.get()), 0);
        EXPECT_EQ(ve_jrpcapi_get_socket_err(ctx.get()), ve_socket_err_interrupted);
        best = std::min(best, milliseconds_since(start));
        ve_wait_clear_interrupt();
    }
    EXPECT_LT(best, 45);
}
