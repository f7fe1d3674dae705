#include "event/listener.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <pthread.h>
#include <string>
#include <string_view>
#include <unistd.h>
#include <utility>

#include "base/json_write.h"
#include "base/thread.h"
#include "base/visible.h"
#include "event/replies.h"
#include "event/request.h"
#include "platform/ve_json.h"
#include "platform/ve_out.h"
#include "platform/ve_rl.h"

namespace
{

constexpr size_t event_instance_changed = 4;
// What is shorter is written in one piece.
constexpr size_t event_piece_size = size_t{64} << 10;

struct {
    std::atomic<int> running{1};
    std::atomic<bool> started{false}; // the thread is there to be joined
    pthread_t thread{};
    int pipe_fds[2] = {-1, -1};
    std::mutex aside_lock; // one text at a time between the editor's stepping aside and its return

    std::atomic<bool> notices_wanted{false};
    std::mutex changes_lock;
    instance_changes changes; // guarded by changes_lock
} listener;

void print_event(const ve_jrpcmsg *event)
{
    std::string text = "\nEVENT " + std::to_string(ve_jrpcmsg_event_id(event)) + ":\n";
    const bool escaped = isatty(STDOUT_FILENO) != 0;
    const json_t *const value = ve_jrpcmsg_event_value(event);
    const std::scoped_lock lock(listener.aside_lock);
    ve_rl_write_control_char(listener.pipe_fds[1], ve_rl_hide);
    ve_out_direct_pieces([&](const auto &put) {
        const auto add = [&](std::string_view piece) {
            if (text.size() > event_piece_size && !put(std::exchange(text, {})))
                return false;
            text += escaped ? visible(piece, "\t\n") : std::string(piece);
            return true;
        };
        if (value != nullptr)
            json_write_pieces(value, JSON_INDENT(4), add);
        put(value != nullptr ? text + "\n" : text);
    });
    ve_rl_write_control_char(listener.pipe_fds[1], ve_rl_show);
}

void queue_instance(const json_t *value)
{
    const char *action = json_string_value(json_object_get(value, "Action"));
    const char *path = json_string_value(json_object_get(value, "Path"));
    // Zero when it is no number.
    const json_int_t number = json_integer_value(json_object_get(value, "InstanceNumber"));
    if (!listener.notices_wanted || action == nullptr || path == nullptr || number < 1 || number > UINT32_MAX)
        return;
    const std::scoped_lock lock(listener.changes_lock);
    listener.changes.note(path, static_cast<uint32_t>(number), strcmp(action, "Add") == 0);
}

void link_dropped()
{
    constexpr std::string_view text = "Connection dropped\n";
    const std::scoped_lock lock(listener.aside_lock);
    if (listener.running.exchange(0) == 0) {
        ve_out_direct_rows(text.data(), text.size());
        return;
    }
    ve_rl_write_control_char(listener.pipe_fds[1], ve_rl_hide);
    // A spinner or a progress bar leaves the cursor behind its picture.
    ve_out_direct_rows(text.data(), text.size());
    ve_rl_write_control_char(listener.pipe_fds[1], ve_rl_stop);
}

void event_thread()
{
    // Who prints for nobody ends.
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_UNBLOCK, &pipe, nullptr);
    while (listener.running != 0) {
        msg_ref message(ve_jrpcapi_recv(group_ctx));
        if (!message) {
            const int error = ve_jrpcapi_get_socket_err(group_ctx);
            if (error == ve_socket_err_timeout || error == ve_socket_err_interrupted)
                continue;
            link_dropped();
            break;
        }
        switch (ve_jrpcmsg_event_id(message.get())) {
        case 0:
            replies_put(message.release());
            break;
        case event_instance_changed:
            queue_instance(ve_jrpcmsg_event_value(message.get()));
            break;
        default:
            print_event(message.get());
        }
    }
}

void close_pipe()
{
    // Whoever still writes, to a terminal that takes nothing perhaps, keeps it to the end of the program.
    const std::unique_lock lock(listener.aside_lock, std::try_to_lock);
    if (!lock.owns_lock())
        return;
    for (int &fd : listener.pipe_fds) {
        if (fd >= 0)
            close(fd);
        fd = -1;
    }
}

/// Joins the thread, which may be stuck in writing to an output that nobody reads.
void join_thread()
{
    timespec limit;
    clock_gettime(CLOCK_REALTIME, &limit);
    limit.tv_sec += 1;
    if (pthread_timedjoin_np(listener.thread, nullptr, &limit) != ETIMEDOUT)
        return;
    ve_out_give_up();
    pthread_join(listener.thread, nullptr);
}

} // namespace

int start_event_handler(ve_jrpcapi *request, ve_jrpcapi *group)
{
    request_ctx = request;
    group_ctx = group;
    listener.running = 1;
    if (pipe2(listener.pipe_fds, O_CLOEXEC | O_NONBLOCK) == 0)
        ve_rl_set_control_fd(listener.pipe_fds[0]);
    listener.started = thread_start_joinable(&listener.thread, 0, event_thread);
    return listener.started ? 0 : -1;
}

void stop_event_handler()
{
    listener.running = 0;
    listener.notices_wanted = false;
    if (!listener.started.exchange(false))
        return;
    ve_jrpcapi_wake(group_ctx);
    join_thread();
    ve_rl_set_control_fd(-1);
    close_pipe();
}

void end_run()
{
    listener.running = 0;
}

bool is_running()
{
    return listener.running != 0;
}

void print_aside(const char *text, size_t size)
{
    const std::scoped_lock lock(listener.aside_lock);
    ve_rl_write_control_char(listener.pipe_fds[1], ve_rl_hide);
    ve_out_direct_rows(text, size);
    ve_rl_write_control_char(listener.pipe_fds[1], ve_rl_show);
}

void keep_instance_notices()
{
    listener.notices_wanted = true;
}

instance_changes fetch_instance_queue()
{
    const std::unique_lock lock(listener.changes_lock, std::try_to_lock);
    return lock.owns_lock() ? std::exchange(listener.changes, {}) : instance_changes();
}
