#include "event/request.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <optional>
#include <vector>

#include "event/reconnect.h"
#include "event/trouble.h"
#include "event_stage.h"
#include "interrupts.h"
#include "platform/ve_json.h"
#include "platform/ve_wait.h"
#include "vebase/link/jrpcapi_impl.h"

namespace
{

using clock_type = std::chrono::steady_clock;

/// The request link with nobody listening on the other one; what start-up hooks in is counted.
class channel
{
public:
    explicit channel(const char *destination, bool connect = true) : request_(make_context(destination, connect))
    {
        reloads = prompts = 0;
        reload_asks = false;
        request_ctx = request_.get();
        request_set_hooks({.prompt_update = [] { ++prompts; }, .reload = reload});
    }
    channel(const channel &) = delete;
    channel &operator=(const channel &) = delete;
    ~channel()
    {
        request_ctx = nullptr;
        request_set_hooks({});
        kest_update_login(nullptr, nullptr);
    }

    static inline int reloads = 0;
    static inline int prompts = 0;
    static inline bool reload_asks = false; ///< the reload sends a request, as the real one does
    static inline int reload_code = 0;

private:
    static void reload()
    {
        ++reloads;
        if (reload_asks) {
            const msg_ref message(ve_jrpcmsg_create_new("Reload", nullptr));
            msg_exec(message.get(), -1);
            reload_code = ve_jrpcmsg_error_code(message.get());
        }
    }

    context_ref request_;
};

/// Sends a request with `timeout_ms` and returns its code, 0 for a success.
int ask(int timeout_ms = -1)
{
    const msg_ref message(ve_jrpcmsg_create_new("Ask", nullptr));
    const int result = msg_exec(message.get(), timeout_ms);
    EXPECT_EQ(result < 0, ve_jrpcmsg_error_code(message.get()) != 0);
    return ve_jrpcmsg_error_code(message.get());
}

/// Plays the scripts with one connection after the other, the last one with all that follow.
scripted_peer::script one_after_the_other(std::vector<scripted_peer::script> scripts)
{
    return [scripts = std::move(scripts), next = size_t{0}](peer_link &link) mutable {
        const size_t index = std::min(next++, scripts.size() - 1);
        scripts[index](link);
    };
}

void hang_up_on_request(peer_link &link)
{
    link.request();
}

void stay_silent(peer_link &link)
{
    while (link.request() != 0)
        ;
}

/// Interrupts this thread again and again until told to stop, but not before `after_ms`.
class nagging
{
public:
    explicit nagging(int after_ms)
        : thread_([this, after_ms, target = pthread_self()] {
              for (int waited = 0; waited < after_ms && !done_; ++waited)
                  usleep(1000);
              for (; !done_; usleep(20000))
                  pthread_kill(target, SIGINT);
          })
    {
    }
    nagging(const nagging &) = delete;
    nagging &operator=(const nagging &) = delete;
    ~nagging()
    {
        done_ = true;
        thread_.join();
    }

private:
    std::atomic<bool> done_{false};
    std::thread thread_;
};

} // namespace

TEST(MsgExec, AnswersWithoutFussWhileTheLinkHolds)
{
    captured_output output;
    const scripted_peer peer(answer_all);
    const channel link(peer.destination());
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(ask(), 0);
    EXPECT_EQ(output.text(), "");
    EXPECT_EQ(peer.accepted(), 1);
}

TEST(MsgExec, LeavesTheUsualTimeOutBehind)
{
    const scripted_peer peer(answer_all);
    const channel link(peer.destination());
    for (const int timeout_ms : {-1, 1000}) {
        const msg_ref message(ve_jrpcmsg_create_new("Ask", nullptr));
        EXPECT_EQ(msg_exec(message.get(), timeout_ms), 0);
        EXPECT_EQ(request_ctx->timeout_ms, 5000);
        EXPECT_EQ(msg_exec_once(message.get(), timeout_ms), 0);
        EXPECT_EQ(request_ctx->timeout_ms, 5000);
    }
}

TEST(MsgExec, ReconnectsOnceAndRepeatsTheRequest)
{
    captured_output output;
    const scripted_peer peer(one_after_the_other({hang_up_on_request, answer_all}));
    const channel link(peer.destination());
    kest_update_login("admin", "secret");
    channel::reload_asks = true;
    EXPECT_EQ(saved_login().user, "admin");
    EXPECT_EQ(ask(), 0);
    EXPECT_EQ(saved_login().user, "");
    EXPECT_EQ(saved_login().password, "");
    EXPECT_EQ(channel::reload_code, 0);
    const std::string text = output.text();
    EXPECT_TRUE(text.starts_with("<spin Reconnecting... >")) << text;
    EXPECT_EQ(text.find('\n'), text.size() - 1) << text;
}

TEST(MsgExec, ReconnectsToADaemonThatWasRestartedInBetween)
{
    captured_output output;
    const scripted_peer peer(one_after_the_other({[](peer_link &link) { link.answer(link.request()); }, answer_all}));
    const channel link(peer.destination());
    EXPECT_EQ(ask(), 0);
    EXPECT_EQ(ask(), 0);
    EXPECT_EQ(peer.accepted(), 2);
    EXPECT_EQ(channel::reloads, 1);
    EXPECT_EQ(channel::prompts, 1);
}

TEST(MsgExec, LeavesItAtOneReconnect)
{
    captured_output output;
    const scripted_peer peer(hang_up_on_request);
    const channel link(peer.destination());
    EXPECT_EQ(ask(), -32002);
    EXPECT_EQ(peer.accepted(), 2);
    const std::string text = output.text();
    EXPECT_TRUE(text.starts_with("<spin Reconnecting... >")) << text;
    EXPECT_EQ(text.find('\n'), text.size() - 1) << text;
}

TEST(MsgExec, NeverReconnectsInsideAReconnect)
{
    captured_output output;
    const scripted_peer peer(hang_up_on_request);
    const channel link(peer.destination());
    channel::reload_asks = true;
    EXPECT_EQ(ask(), -32002);
    EXPECT_EQ(channel::reload_code, -32002);
    EXPECT_EQ(channel::reloads, 1);
    EXPECT_EQ(peer.accepted(), 2);
    EXPECT_EQ(ask(), -32002);
    EXPECT_EQ(channel::reloads, 2);
}

TEST(MsgExec, RepeatsWithTheTimeOutThatTheCallerAskedFor)
{
    captured_output output;
    const scripted_peer peer(one_after_the_other({hang_up_on_request, [](peer_link &link) {
                                                      link.answer(link.request());
                                                      stay_silent(link);
                                                  }}));
    const channel link(peer.destination());
    channel::reload_asks = true;
    const auto start = clock_type::now();
    EXPECT_EQ(ask(100), -32001);
    EXPECT_LT(milliseconds_since(start), 4000);
    EXPECT_EQ(channel::reload_code, 0);
}

TEST(MsgExec, DoesNotReconnectAfterATimeOutOrAnErrorAnswer)
{
    captured_output output;
    const scripted_peer peer([](peer_link &link) {
        link.request();
        const long id = link.request();
        link.send("{\"id\":" + std::to_string(id) + ",\"error\":{\"code\":9001}}\n");
        link.closed();
    });
    const channel link(peer.destination());
    EXPECT_EQ(ask(30), -32001);
    const msg_ref message(ve_jrpcmsg_create_new("Ask", nullptr));
    EXPECT_EQ(msg_exec(message.get(), -1), 0);
    EXPECT_EQ(ve_jrpcmsg_error_code(message.get()), 9001);
    EXPECT_EQ(output.text(), "");
    EXPECT_EQ(peer.accepted(), 1);
}

TEST(MsgExec, CanBeToldNotToReconnect)
{
    captured_output output;
    const scripted_peer peer(hang_up_on_request);
    const channel link(peer.destination());
    EXPECT_TRUE(msg_allow_reconnect(false));
    EXPECT_EQ(ask(), -32002);
    EXPECT_EQ(ask(), -32002);
    EXPECT_FALSE(msg_allow_reconnect(true));
    const msg_ref message(ve_jrpcmsg_create_new("Ask", nullptr));
    EXPECT_LT(msg_exec_once(message.get(), -1), 0);
    EXPECT_EQ(ve_jrpcmsg_error_code(message.get()), -32002);
    EXPECT_EQ(output.text(), "");
    EXPECT_EQ(peer.accepted(), 1);
}

TEST(MsgExec, WaitsForADaemonThatComesBackLater)
{
    captured_output output;
    char name[] = "/tmp/kest-late-XXXXXX";
    const std::string directory = mkdtemp(name);
    const std::string place = directory + "/socket";
    std::optional<scripted_peer> peer;
    const channel link(place.c_str(), false);
    std::thread later([&] {
        EXPECT_TRUE(output.shows("<spin Reconnecting... ><spin Reconnecting... ><spin Reconnecting... >"));
        peer.emplace(answer_all);
        std::filesystem::create_symlink(peer->destination(), place);
    });
    EXPECT_EQ(ask(), 0);
    later.join();
    const std::string text = output.text();
    EXPECT_TRUE(text.starts_with("<spin Reconnecting... ><spin Reconnecting... ><spin Reconnecting... >")) << text;
    EXPECT_EQ(text.find('\n'), text.size() - 1) << text;
    usleep(300000);
    EXPECT_EQ(output.text(), text) << "the spinner was drawn after the line feed that ends it";
    std::filesystem::remove_all(directory);
}

TEST(MsgExec, IsLeftByCtrlCWhileItReconnects)
{
    const interrupts handling([](int) { ve_wait_note_interrupt(); });
    captured_output output;
    const channel link("/nonexistent/socket", false);
    for (int i = 0; i < 3; ++i) {
        const auto start = clock_type::now();
        {
            const nagging ctrl_c(i * 120);
            EXPECT_EQ(ask(), -32002);
            EXPECT_TRUE(ve_wait_interrupted());
            EXPECT_LT(milliseconds_since(start), 5000);
        }
        ve_wait_discard_sigint();
        ve_wait_clear_interrupt();
    }
    const std::string text = output.text();
    EXPECT_EQ(text.find('\n'), std::string::npos);
    usleep(600000);
    EXPECT_EQ(output.text(), text) << "a spinner survived its reconnect";
}

TEST(MsgExec, GivesUpReconnectingWhenCtrlCIsOnlyNoted)
{
    const interrupts handling([](int) { ve_wait_note_interrupt(); });
    captured_output output;
    const channel link("/nonexistent/socket", false);
    const nagging ctrl_c(80);
    EXPECT_EQ(ask(), -32002);
    EXPECT_EQ(channel::reloads, 0);
}

TEST(MsgExec, SaysOnceWhyReconnectingIsInVain)
{
    const interrupts handling([](int) { ve_wait_note_interrupt(); });
    captured_output output;
    const channel link("tcp://nowhere", false);
    testing::internal::CaptureStderr();
    {
        const nagging ctrl_c(250);
        EXPECT_EQ(ask(), -32002);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "kest: tcp://nowhere: not of the form tcp://HOST:PORT\n");
}

TEST(MsgExec, SaysFirstWhyTheConnectAtStartUpFailed)
{
    const interrupts handling([](int) { ve_wait_note_interrupt(); });
    captured_output output;
    const channel link("tcp://nowhere", false);
    EXPECT_LT(ve_jrpcapi_connect(request_ctx), 0);
    testing::internal::CaptureStderr();
    {
        const nagging ctrl_c(250);
        EXPECT_EQ(ask(), -32002);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "kest: tcp://nowhere: not of the form tcp://HOST:PORT\n");
}

TEST(MsgExec, SaysWhyWaitingForARebootIsInVainAndNothingElse)
{
    const interrupts handling([](int) { ve_wait_note_interrupt(); });
    captured_output output;
    for (const char *place : {"tcp://nowhere", "/nonexistent/socket"}) {
        const channel link(place, false);
        testing::internal::CaptureStderr();
        {
            const nagging ctrl_c(150);
            server_reconnect("Rebooting... ", true);
        }
        ve_wait_discard_sigint();
        ve_wait_clear_interrupt();
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  place[0] == '/' ? "" : "kest: tcp://nowhere: not of the form tcp://HOST:PORT\n");
    }
}

TEST(Trouble, OfALinkThatHoldsIsNoneToTell)
{
    const scripted_peer peer(answer_all);
    const channel link(peer.destination());
    testing::internal::CaptureStderr();
    trouble_tell(request_ctx);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(UpdateLogin, CopiesBeforeItFrees)
{
    const scripted_peer peer(answer_all);
    const channel link(peer.destination());
    kest_update_login("admin", nullptr);
    EXPECT_EQ(saved_login().user, "admin");
    EXPECT_EQ(saved_login().password, "");
    kest_update_login("admin", "secret");
    kest_update_login(saved_login().user.c_str(), saved_login().password.c_str());
    EXPECT_EQ(saved_login().user, "admin");
    EXPECT_EQ(saved_login().password, "secret");
    kest_update_login("", "");
    EXPECT_EQ(saved_login().user, "");
    EXPECT_EQ(saved_login().password, "");
    EXPECT_EQ(channel::prompts, 4);
    EXPECT_EQ(channel::reloads, 4);
}

TEST(Requests, AreRefusedBeforeThereIsALink)
{
    ASSERT_EQ(request_ctx, nullptr);
    EXPECT_EQ(ask(), -32002);
    EXPECT_LT(msg_login("admin", nullptr), 0);
    EXPECT_LT(msg_logout(), 0);
    const auto refuses = [](int (*send)(ve_jrpcmsg *)) {
        const msg_ref message(ve_jrpcmsg_create_new("Ask", nullptr));
        EXPECT_LT(send(message.get()), 0);
        EXPECT_EQ(ve_jrpcmsg_error_code(message.get()), -32002);
    };
    refuses([](ve_jrpcmsg *message) { return msg_exec_once(message, 1); });
    refuses([](ve_jrpcmsg *message) { return group_exec(message, 1); });
    refuses(msg_send);
    refuses(msg_post);
    refuses(group_send);
}
