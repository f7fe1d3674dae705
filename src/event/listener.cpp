#include "event/listener.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
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

std::atomic<int> running{1};
std::atomic<bool> started{false}; // the thread is there to be joined
pthread_t thread_id;
int pipe_fds[2] = {-1, -1};
std::mutex aside_lock; // one text at a time between the editor's stepping aside and its return

std::mutex add_del_queue_lock;
json_t *add_del_queue = nullptr; // guarded by add_del_queue_lock

void print_event(const ve_jrpcmsg *event)
{
    char header[64];
    snprintf(header, sizeof header, "\nEVENT %zu:\n", ve_jrpcmsg_event_id(event));
    std::string text = header;
    if (const json_t *value = ve_jrpcmsg_event_value(event))
        text += json_written(value, JSON_INDENT(4)) + "\n";
    if (isatty(STDOUT_FILENO) != 0)
        text = visible(text, "\t\n");
    const std::scoped_lock lock(aside_lock);
    ve_rl_write_control_char(pipe_fds[1], ve_rl_hide);
    ve_out_direct(text.data(), text.size());
    ve_rl_write_control_char(pipe_fds[1], ve_rl_show);
}

void queue_instance(const json_t *value)
{
    json_t *action = json_object_get(value, "Action");
    json_t *path = json_object_get(value, "Path");
    json_t *number = json_object_get(value, "InstanceNumber");
    if (!json_is_string(action) || !json_is_string(path) || !json_is_integer(number))
        return;
    json_t *notice = json_pack("{s:O, s:O, s:O}", "Action", action, "Path", path, "InstanceNumber", number);
    const std::scoped_lock lock(add_del_queue_lock);
    if (add_del_queue == nullptr)
        add_del_queue = json_array();
    json_array_append_new(add_del_queue, notice);
}

void link_dropped()
{
    constexpr std::string_view text = "Connection dropped\n";
    const std::scoped_lock lock(aside_lock);
    if (running.exchange(0) == 0) {
        ve_out_direct_rows(text.data(), text.size());
        return;
    }
    ve_rl_write_control_char(pipe_fds[1], ve_rl_hide);
    // A spinner or a progress bar leaves the cursor behind its picture.
    ve_out_direct_rows(text.data(), text.size());
    ve_rl_write_control_char(pipe_fds[1], ve_rl_stop);
}

void event_thread()
{
    // Who prints for nobody ends.
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_UNBLOCK, &pipe, nullptr);
    while (running != 0) {
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
    const std::unique_lock lock(aside_lock, std::try_to_lock);
    if (!lock.owns_lock())
        return;
    for (int &fd : pipe_fds) {
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
    if (pthread_timedjoin_np(thread_id, nullptr, &limit) != ETIMEDOUT)
        return;
    ve_out_give_up();
    pthread_join(thread_id, nullptr);
}

} // namespace

int start_event_handler(ve_jrpcapi *request, ve_jrpcapi *group)
{
    request_ctx = request;
    group_ctx = group;
    running = 1;
    if (pipe2(pipe_fds, O_CLOEXEC | O_NONBLOCK) == 0)
        ve_rl_set_control_fd(pipe_fds[0]);
    started = thread_start_joinable(&thread_id, 0, event_thread);
    return started ? 0 : -1;
}

void stop_event_handler()
{
    running = 0;
    if (!started.exchange(false))
        return;
    ve_jrpcapi_wake(group_ctx);
    join_thread();
    ve_rl_set_control_fd(-1);
    close_pipe();
}

void end_run()
{
    running = 0;
}

bool is_running()
{
    return running != 0;
}

void print_aside(const char *text, size_t size)
{
    const std::scoped_lock lock(aside_lock);
    ve_rl_write_control_char(pipe_fds[1], ve_rl_hide);
    ve_out_direct_rows(text, size);
    ve_rl_write_control_char(pipe_fds[1], ve_rl_show);
}

json_t *fetch_instance_queue()
{
    const std::unique_lock lock(add_del_queue_lock, std::try_to_lock);
    return lock.owns_lock() ? std::exchange(add_del_queue, nullptr) : nullptr;
}
