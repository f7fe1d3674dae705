#include "event_stage.h"

#include <cstdio>
#include <fcntl.h>

#include "platform/ve_out.h"
#include "platform/ve_rl.h"

// The line editor as the listener sees it: marks in the output instead of a prompt.
int stage_control_fd = -1;

void ve_rl_set_control_fd(int fd)
{
    stage_control_fd = fd;
}

void ve_rl_write_control_char(int, unsigned code)
{
    const std::string mark = code == ve_rl_hide   ? "<hide>"
                             : code == ve_rl_show ? "<show>"
                             : is_running()       ? "<stop while running>"
                                                  : "<stop>";
    ve_out_direct(mark.data(), mark.size());
}

void ve_rl_draw_circle_progress(const char *text)
{
    const std::string mark = "<spin " + std::string(text) + ">";
    ve_out_direct(mark.data(), mark.size());
}

captured_output::captured_output()
{
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0)
        abort();
    fcntl(fds[0], F_SETFL, O_NONBLOCK);
    fcntl(fds[1], F_SETPIPE_SZ, 1 << 20);
    fflush(stdout);
    saved_ = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 10);
    dup2(fds[1], STDOUT_FILENO);
    close(fds[1]);
    read_fd_ = fds[0];
    ve_out_reopened();
}

captured_output::~captured_output()
{
    fflush(stdout);
    text();
    dup2(saved_, STDOUT_FILENO);
    close(saved_);
    close(read_fd_);
    ve_out_reopened();
    // Reports of failures went into the pipe as well.
    if (testing::Test::HasFailure())
        fputs(text_.c_str(), stdout);
}

std::string captured_output::text()
{
    char bytes[4096];
    ssize_t count;
    while ((count = read(read_fd_, bytes, sizeof bytes)) > 0)
        text_.append(bytes, static_cast<size_t>(count));
    return text_;
}

bool captured_output::shows(const std::string &part)
{
    return becomes([&] { return text().find(part) != std::string::npos; });
}

context_ref make_context(const char *destination, bool connect)
{
    context_ref ctx(ve_jrpcapi_init());
    ve_jrpcapi_set_destination(ctx.get(), nullptr, destination, ve_socket_unix);
    if (connect) {
        EXPECT_EQ(ve_jrpcapi_connect(ctx.get()), 0);
    }
    return ctx;
}

context_ref make_group_context(const char *destination, bool connect)
{
    context_ref ctx = make_context(destination, connect);
    ve_jrpcapi_set_flags(ctx.get(), ve_jrpcapi_get_flags(ctx.get()) | ve_jrpcapi_flag_events);
    return ctx;
}
