#include "main/start.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/clock.h"
#include "cdpath/cdpath.h"
#include "cline/cline.h"
#include "commands/file_server.h"
#include "dispatch/table.h"
#include "event/groups.h"
#include "event/listener.h"
#include "event/request.h"
#include "event/trouble.h"
#include "lua/lua_mode.h"
#include "main/config.h"
#include "main/modes.h"
#include "main/script.h"
#include "platform/ve_log.h"
#include "platform/ve_out.h"
#include "platform/ve_wait.h"
#include "shell/completion.h"
#include "shell/shell.h"
#include "state/editor.h"
#include "state/prompt.h"
#include "state/scheme.h"

namespace
{

constexpr int request_timeout_ms = 5000;
constexpr int group_timeout_ms = 100;
/// The daemon's notices of added and deleted instances.
constexpr uint32_t instance_group = 4;

/// A descriptor that was closed by whoever started the program must not become a link to the daemon.
void fill_standard_descriptors()
{
    for (int fd = open("/dev/null", O_RDWR); fd >= 0; fd = open("/dev/null", O_RDWR)) {
        if (fd > STDERR_FILENO) {
            close(fd);
            return;
        }
    }
}

/// How long the daemon may still be silent before that is said, when it has been so since `begun`.
ve_jrpcapi_slow patience_left(int64_t begun)
{
    const int64_t left = begun + trouble_slow_ms - monotonic_ms();
    return {.after_ms = left > 0 ? static_cast<int>(left) : 0, .tell = trouble_tell_slow, .until_answered = true};
}

bool is_open(const ve_jrpcapi *ctx)
{
    return ve_socket_state(ve_jrpcapi_socket(ctx)) == ve_socket_connected;
}

/// Opens both links, joins the groups and starts the listener. A daemon that is not there shows later; one that takes
/// links and answers nothing is told of when that has lasted. Returns 0, or -1 without a listener.
int open_links(const cline_options &options, ve_jrpcapi *request, ve_jrpcapi *group)
{
    ve_jrpcapi *const both[] = {request, group};
    if (options.ssl != 0) {
        for (ve_jrpcapi *ctx : both)
            ve_jrpcapi_set_flags(ctx, ve_jrpcapi_get_flags(ctx) | ve_jrpcapi_flag_ssl);
    }
    if (options.address != nullptr || options.unixpath != nullptr) {
        for (ve_jrpcapi *ctx : both)
            ve_jrpcapi_set_destination(ctx, options.address, options.unixpath, ve_socket_unix);
    }
    ve_jrpcapi_set_timeout(request, request_timeout_ms);
    ve_jrpcapi_set_timeout(group, group_timeout_ms);
    for (ve_jrpcapi *ctx : both) {
        ve_jrpcapi_tell_slow(ctx, trouble_slow);
        ve_jrpcapi_connect(ctx);
        ve_jrpcapi_tell_slow(ctx, {});
    }
    ve_jrpcapi_set_flags(group, ve_jrpcapi_get_flags(request) | ve_jrpcapi_flag_events);
    const int64_t begun = monotonic_ms();
    const bool silent = group_join(group, instance_group) < 0 && is_open(group);
    if (silent)
        ve_jrpcapi_tell_slow(request, patience_left(begun));
    const bool answers =
        groups_join(request, {reinterpret_cast<const uint32_t *>(options.groups), options.groups_count});
    if (!answers && silent && options.mode == mode_listen)
        trouble_tell_slow(group); // nothing more is asked
    if (start_event_handler(request, group) == 0)
        return 0;
    fprintf(stderr, "Cannot start the event listener.\n");
    return -1;
}

int enter_mode(const cline_options &options, bool listens)
{
    switch (options.mode) {
    case mode_raw:
        return mode_run_raw(options.params);
    case mode_listen:
        return listens ? mode_run_listen() : -1;
    case mode_request:
        return exec_request(options.name, options.params);
    case mode_notify:
        ve_puts("Unsupported :(");
        return 0;
    case mode_event:
        return mode_run_event(options.event, options.params);
    case mode_script:
        return run_script(options.script != nullptr ? options.script : arg_text(options.params, 0), 0);
    case mode_lua_script:
        return run_lua_script(options.script, options.params);
    default:
        return shell_loop();
    }
}

/// What lower floors call on upper ones.
void connect_units()
{
    request_set_hooks({prompt_update_path, reload_dm});
    kest_readline_set_callbacks({shell_autocomplete, shell_hint});
}

} // namespace

int kest_main(int argc, char **argv)
{
    ve_wait_init();
    signal(SIGXFSZ, SIG_IGN); // a file that may not grow is an error like any, and leaves nothing half done
    signal(SIGCHLD, SIG_DFL); // children are waited for, whatever the one who started the program ignores
    ve_log_allocations_are_fatal();
    fill_standard_descriptors();
    connect_units();

    ve_jrpcapi *const request = ve_jrpcapi_init();
    ve_jrpcapi *const group = ve_jrpcapi_init();
    cline_options options = {};

    int result;
    const int parsed = cline_parse(argc, argv, &options);
    const std::string no_tls = parsed == 0 && options.ssl != 0 ? ve_jrpcapi_tls_problem() : "";
    if (!no_tls.empty()) {
        fprintf(stderr, "--ssl: %s.\n", no_tls.c_str());
        result = EXIT_FAILURE;
    } else if (parsed == 0) {
        if (options.mode == mode_raw)
            mode_reserve_raw_id(request, options.params);
        const bool listens = open_links(options, request, group) == 0;
        run_config(options.config);
        result = enter_mode(options, listens);
        ve_out_flush();
        if (options.mode != mode_interactive)
            file_server_wait_all();
        stop_event_handler();
        if (ve_jrpcapi_may_need_tls(request, group))
            trouble_tell_tls();
    } else {
        result = parsed == 1 ? EXIT_SUCCESS : EXIT_FAILURE;
        if (fflush(stdout) != 0)
            ve_out_fail(errno);
    }
    ve_jrpcapi_deinit(request);
    ve_jrpcapi_deinit(group);
    return ve_out_end_status(result) & 0xff;
}
