// Getting a lost request link back, with a spinner.
#include "event/reconnect.h"

#include <atomic>
#include <climits>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <string>

#include "base/thread.h"
#include "event/groups.h"
#include "event/request.h"
#include "event/trouble.h"
#include "platform/ve_out.h"
#include "platform/ve_rl.h"
#include "platform/ve_wait.h"

namespace
{

constexpr int logout_timeout_ms = 1000;
constexpr long spinner_pause_ns = 250'000'000;
constexpr size_t spinner_stack_size = size_t{128} << 10;

struct {
    bool under_way = false;
    unsigned last_spinner = 0; ///< the number given out last
    /// The spinner that may draw, 0 for none. A thread that was left behind finds another number here and ends.
    std::atomic<unsigned> active_spinner{0};
    std::atomic<bool> continued{false}; ///< after a stop: the picture's row is far above, the cursor somewhere else
    std::mutex draw_lock; ///< held while drawing; the main thread never waits with it, nor for it but at wait points
} reconnect;

struct reconnect_scope {
    reconnect_scope() { reconnect.under_way = true; }
    reconnect_scope(const reconnect_scope &) = delete;
    reconnect_scope &operator=(const reconnect_scope &) = delete;
    ~reconnect_scope() { reconnect.under_way = false; }
};

void reconnect_progress(const std::string &text, unsigned number)
{
    for (;;) {
        const timespec pause{.tv_sec = 0, .tv_nsec = spinner_pause_ns};
        nanosleep(&pause, nullptr);
        const std::scoped_lock lock(reconnect.draw_lock);
        if (reconnect.active_spinner != number)
            return;
        if (reconnect.continued.exchange(false))
            ve_out_row_ended();
        ve_rl_draw_circle_progress(text.c_str());
    }
}

/// Has SIGCONT noted, where nobody else looks after it.
class continue_noted
{
public:
    continue_noted()
    {
        sigaction(SIGCONT, nullptr, &before_);
        if (before_.sa_handler != SIG_DFL)
            return;
        reconnect.continued = false;
        struct sigaction action = {};
        action.sa_handler = [](int) { reconnect.continued = true; };
        action.sa_flags = SA_RESTART;
        sigaction(SIGCONT, &action, nullptr);
    }
    continue_noted(const continue_noted &) = delete;
    continue_noted &operator=(const continue_noted &) = delete;
    ~continue_noted()
    {
        if (before_.sa_handler == SIG_DFL)
            sigaction(SIGCONT, &before_, nullptr);
    }

private:
    struct sigaction before_ = {};
};

/// Draws the first picture and starts the thread that draws the others.
void spinner_start(const char *text)
{
    reconnect.last_spinner = reconnect.last_spinner % UINT_MAX + 1;
    ve_rl_draw_circle_progress(text);
    reconnect.active_spinner = reconnect.last_spinner;
    // Without a thread the first picture stays.
    (void)thread_start(spinner_stack_size, [text = std::string(text), number = reconnect.last_spinner] {
        reconnect_progress(text, number);
    });
}

/// Returns once the spinner draws no more, after Ctrl-C once it draws no picture but the one under way. A wait point.
void spinner_stop()
{
    reconnect.active_spinner = 0;
    while (!reconnect.draw_lock.try_lock())
        if (ve_wait_sleep_ms(1) < 0)
            return;
    reconnect.draw_lock.unlock();
}

} // namespace

bool reconnect_under_way()
{
    return reconnect.under_way;
}

void server_reconnect(const char *text, bool announced)
{
    if (ve_wait_interrupted())
        return;
    const reconnect_scope scope;
    void (*const tell)(const ve_jrpcapi *) = announced ? trouble_tell_lasting : trouble_tell;
    if (ve_jrpcapi_connect_error(request_ctx)[0] != '\0')
        tell(request_ctx);
    ve_jrpcapi_set_timeout(request_ctx, logout_timeout_ms);
    ve_jrpcapi_logout(request_ctx);
    ve_jrpcapi_set_timeout(request_ctx, usual_timeout_ms);
    ve_out_flush();
    const continue_noted noted;
    spinner_start(text);
    ve_jrpcapi_disconnect(request_ctx);
    const ve_jrpcapi_slow before = ve_jrpcapi_tell_slow(request_ctx, announced ? ve_jrpcapi_slow{} : trouble_slow);
    while (ve_socket_state(ve_jrpcapi_socket(request_ctx)) != ve_socket_connected) {
        if (ve_jrpcapi_connect(request_ctx) == 0)
            continue;
        if (ve_wait_interrupted())
            break;
        tell(request_ctx);
    }
    ve_jrpcapi_tell_slow(request_ctx, before);
    spinner_stop();
    trouble_over();
    if (ve_wait_interrupted()) {
        ve_jrpcapi_disconnect(request_ctx); // the login that is remembered was the lost link's
        return;
    }
    ve_puts("");
    ve_out_flush();
    groups_join_again(request_ctx);
    ve_jrpcapi_set_timeout(request_ctx, usual_timeout_ms);
    if (ve_wait_interrupted()) {
        ve_jrpcapi_disconnect(request_ctx); // without all of its groups it is no link
        return;
    }
    kest_update_login(nullptr, nullptr);
}
