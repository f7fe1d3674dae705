#include "shell/shell.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "cdpath/cdpath.h"
#include "dispatch/table.h"
#include "event/listener.h"
#include "event/request.h"
#include "platform/ve_log.h"
#include "platform/ve_out.h"
#include "platform/ve_rl.h"
#include "platform/ve_wait.h"
#include "platform/ve_words.h"
#include "shell/completers.h"
#include "shell/history_expand.h"
#include "state/editor.h"
#include "state/interrupt.h"
#include "state/prompt.h"
#include "state/record.h"
#include "state/scheme.h"
#include "state/session_guard.h"

namespace
{

constexpr char lua_prefix[] = "lua ";
constexpr size_t passwd_buffer_size = 16384;
constexpr int listener_ms = 500;
constexpr int listener_poll_ms = 5;

struct free_deleter {
    void operator()(void *memory) const { free(memory); }
};
using text_ptr = std::unique_ptr<char, free_deleter>;

void print_banner()
{
    ve_puts("Veltro Management System client.");
    ve_puts("***\nWARNING - for experts only!\n"
            "This tool is not intended to use by users 'cause it can cause harm to the device!\n***");
    ve_puts("Interactive mode. \nEnter 'help' or '?' for help, 'q' for exit.");
    ve_out_flush(); // a daemon may take its time with what comes next
}

/// Logs the user of this process in, whom the daemon knows by the socket's credentials.
void login_as_process_user()
{
    const ve_socket *socket = ve_jrpcapi_socket(request_ctx);
    if (socket == nullptr || ve_socket_type(socket) != ve_socket_unix)
        return;
    const long wanted = sysconf(_SC_GETPW_R_SIZE_MAX);
    const size_t size = wanted > 0 ? static_cast<size_t>(wanted) : passwd_buffer_size;
    const text_ptr buffer(static_cast<char *>(ve_xmalloc(size, "try_login", __LINE__, "shell")));
    passwd entry;
    passwd *found = nullptr;
    if (getpwuid_r(getuid(), &entry, buffer.get(), size, &found) != 0 || found == nullptr || found->pw_name == nullptr)
        return;
    if (msg_login(found->pw_name, nullptr) == 0)
        kest_update_login(found->pw_name, nullptr);
}

void try_login()
{
    // The reverse of every other test on a login: a name that is refused stays in the prompt, one that is accepted
    // gives way to the user of this process.
    const auto &[user, password] = saved_login();
    const char *given = password.empty() ? nullptr : password.c_str();
    if (!user.empty() && msg_login(user.c_str(), given) != 0)
        kest_update_login(user.c_str(), given);
    else
        login_as_process_user();
}

/// Runs one command; Ctrl-C ends it.
void run_command(const std::vector<std::string> &words)
{
    if (interrupt_arm()) {
        ve_out_flush(); // this wait, too, is the command's
        if (!ve_wait_interrupted())
            exec_cmd(arg_text(words, 0), words.empty() ? command_args() : command_args(words).subspan(1));
        ve_out_flush();
    }
    interrupt_disarm();
}

/// The words of a line. What follows "lua " is one word.
std::vector<std::string> split_line(const std::string &line)
{
    if (line.starts_with(lua_prefix))
        return {"lua", line.substr(strlen(lua_prefix))};
    return ve_words_read(line).words;
}

void run_line(std::string &line)
{
    if (history_expand(shell_history(), line) > 0)
        ve_puts(ve_visible_lines(line).c_str());
    const std::vector<std::string> words = split_line(line);
    if (!ve_words_are_utf8(words)) {
        ve_puts("The line is not valid UTF-8 text.");
        return;
    }
    if (!ve_words_is_blank(line[0]))
        shell_history().add(line);
    if (record_check())
        record_increment();
    run_command(words);
}

bool is_quit(const char *line)
{
    return strcmp(line, "q") == 0 || strcmp(line, "quit") == 0;
}

/// Whether the daemon has ended the session. Where the input ends right behind a reboot, the listener may just be about
/// to say so.
bool daemon_has_left()
{
    for (int waited_ms = 0; is_running() && waited_ms < listener_ms; waited_ms += listener_poll_ms) {
        if (ve_socket_wait(ve_jrpcapi_socket(group_ctx), 1, 0) <= 0 || ve_wait_sleep_ms(listener_poll_ms) < 0)
            break;
    }
    return !is_running();
}

void read_lines()
{
    std::string text;
    while (is_running()) {
        complete_program_forget(); // new ones may be there
        const text_ptr line(ve_rl(prompt_get(), -1));
        if (ve_rl_ctrld_is_pressed() && !daemon_has_left())
            return;
        if (!line || line.get()[0] == '\0')
            continue;
        if (!is_quit(line.get())) {
            text = line.get();
            run_line(text);
        } else if (record_check()) {
            record_commit();
        } else {
            return;
        }
    }
    // The daemon ended the session, by a reboot perhaps, not the user.
    if (record_check())
        record_commit();
}

} // namespace

int shell_loop()
{
    const session_guard guard;
    print_banner();
    try_login();
    keep_instance_notices();
    reload_dm();
    kest_readline_prepare();
    old_cwd = cwd;
    read_lines();

    dm = nullptr;
    kest_readline_cleanup();
    if (ve_rl_input_error() == 0)
        return 0;
    fprintf(stderr, "kest: cannot read standard input: %s\n", strerror(ve_rl_input_error()));
    return -1;
}
