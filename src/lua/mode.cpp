// Lua mode: every line is Lua. And the commands that lead there.
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <unistd.h>

#include "commands/handler.h"
#include "commands/session.h"
#include "event/listener.h"
#include "lua/client.h"
#include "lua/complete.h"
#include "lua/lua_mode.h"
#include "lua/running.h"
#include "lua/session.h"
#include "lua/traceback.h"
#include "platform/ve_landing.h"
#include "platform/ve_out.h"
#include "platform/ve_rl.h"
#include "platform/ve_wait.h"
#include "state/editor.h"
#include "state/interrupt.h"
#include "state/prompt.h"
#include "state/record.h"

namespace
{

constexpr char history_file[] = "/tmp/.kest.lua.hist";

struct free_deleter {
    void operator()(char *text) const { free(text); }
};

// The line just read and the lines of an unfinished statement. Not locals: Ctrl-C jumps back into the loop below.
std::unique_ptr<char, free_deleter> line;
std::string pending;
bool is_pending = false;

ve_history history;       // of all Lua modes
size_t session_begin = 0; // the entry of `history` with which this one begins

bool is_quit(const char *text)
{
    return strcmp(text, "q") == 0 || strcmp(text, "quit") == 0;
}

void drop_statement()
{
    pending.clear();
    is_pending = false;
    line.reset();
    prompt_set_incompleted(0);
    ve_puts("");
    ve_out_flush();
}

/// After a jump: also when it cut a coloured message short.
void land(ve_landing_node *mark)
{
    interrupt_land(mark);
    if (luap_error_colours() && write(STDERR_FILENO, "\033[0m", 4) < 0)
        return;
}

/// The statement is done, compiled or not.
void finish_statement(const std::string &text, bool compiled)
{
    prompt_set_incompleted(0);
    prompt_update_postfix(compiled ? "lua" : "lua(fail)");
    if (isspace(static_cast<unsigned char>(text[0])) != 0)
        ve_puts(text.c_str());
    else
        history.add(text);
    pending.clear();
    is_pending = false;
    line.reset();
    ve_wait_discard_sigint(); // it came too late for the statement
    sigint_buf_setted = 0;
    signal(SIGINT, SIG_DFL);
    ve_out_flush();
}

/// Runs `pending`, which holds the line or, while unfinished, the lines so far.
void run_statement(lua_State *L)
{
    lua_run_begin();
    kest_lua_prepare(L);
    const int result = kest_lua_execute(L, pending.data(), pending.size());
    if (result != 1)
        kest_lua_cleanup(L);
    if (lua_run_end())
        lua_run_deliver(); // does not return
    if (result == 1) {
        is_pending = true;
        line.reset();
        prompt_set_incompleted(1);
    } else {
        finish_statement(pending, result == 0);
    }
}

/// Runs lines until "q", Ctrl-D or the loss of the daemon.
void run_lines(lua_State *L)
{
    while (is_running()) {
        line.reset(ve_rl(prompt_get(), -1));
        if (ve_rl_ctrld_is_pressed())
            break;
        if (!line || *line == '\0')
            continue;
        if (is_pending) {
            pending.append("\n").append(line.get());
        } else {
            if (is_quit(line.get()))
                break;
            pending = line.get();
        }
        ve_out_flush();
        if (!is_pending) {
            bool armed = false;
            if (sigint_buf_setted == 0 && signal(SIGINT, sigint_handler) == SIG_DFL) {
                static ve_landing_node *mark;
                mark = ve_landing_mark();
                armed = sigsetjmp(sigint_buf, 1) == 0;
                // Also after a jump: from then on every line is dropped, until Lua mode is left.
                sigint_buf_setted = 1;
                if (!armed)
                    land(mark);
            }
            if (!armed) {
                drop_statement();
                continue;
            }
        }
        run_statement(L);
    }
    line.reset();
    pending.clear();
    is_pending = false;
}

/// What the session leaves behind: its recording and its history.
void save_session()
{
    if (record_check())
        record_commit(history.script(session_begin));
    history.save();
}

/// os.exit in Lua mode ends the program, but not without that.
void leave_program()
{
    save_session();
    stop_event_handler();
}

/// The same of a statement of the shell, whose history it is then.
void leave_shell()
{
    kest_readline_cleanup();
    stop_event_handler();
}

int lua_mode_run()
{
    sigint_buf_setted = 0;
    const auto disposition = signal(SIGINT, SIG_DFL);
    prompt_update_postfix("lua");
    kest_readline_cleanup();
    kest_readline_use({lua_autocomplete}, &history);
    history.load(history_file);
    session_begin = history.size();
    {
        const lua_client client(leave_program);
        if (client) {
            kest_lua_init(client.get()->state);
            run_lines(client.get()->state);
        }
        sigint_buf_setted = 0; // nothing jumps into the loop any more
        kest_readline_use({}, nullptr);
        lua_complete_set_state(nullptr);
    }
    save_session();
    prompt_update_postfix(nullptr);
    kest_readline_prepare();
    ve_wait_discard_sigint();
    signal(SIGINT, disposition);
    return 0;
}

} // namespace

int process_lua(const char *, json_t *args)
{
    if (json_array_size(args) == 0)
        return lua_mode_run();
    jump_safe<std::string> text;
    for (size_t i = 0; i < json_array_size(args); ++i)
        text.append(arg_text(args, i)).append(" ");
    ve_puts(text.c_str());
    ve_out_flush();
    const jump_safe<lua_client> client(leave_shell);
    if (!client)
        return 0;
    lua_run_begin();
    const int status = ve_lua_exec(client.get(), text.data(), text.size(), nullptr, nullptr);
    if (lua_run_end()) {
        lua_run_deliver();
        return 0;
    }
    if (status != 0) {
        ve_printf("LUA ERROR: ");
        ve_out_write(client.get()->error.data(), client.get()->error.size());
        ve_puts("");
    } else {
        ve_out_write(client.get()->output.data(), client.get()->output.size());
    }
    ve_out_flush();
    return 0;
}

int process_luarecord(const char *name, json_t *args)
{
    return process_record(name, args) < 0 ? -1 : lua_mode_run();
}
