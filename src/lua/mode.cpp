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
#include "lua/recording.h"
#include "lua/running.h"
#include "lua/session.h"
#include "lua/traceback.h"
#include "platform/ve_out.h"
#include "platform/ve_rl.h"
#include "platform/ve_wait.h"
#include "state/editor.h"
#include "state/interrupt.h"
#include "state/prompt.h"
#include "state/record.h"
#include "state/session_guard.h"

namespace
{

constexpr char history_file[] = "/tmp/.kest.lua.hist";

struct free_deleter {
    void operator()(char *text) const { free(text); }
};

struct {
    ve_history history;   // of all Lua modes
    lua_recording script; // of this one
} console;

bool is_quit(const char *text)
{
    return strcmp(text, "q") == 0 || strcmp(text, "quit") == 0;
}

/// Throws the line away, and the unfinished statement with it. After Ctrl-C also brings the terminal back: the key may
/// have cut a coloured message short.
void drop_statement(std::string &statement)
{
    if (interrupt_land() && luap_error_colours()) [[maybe_unused]]
        const ssize_t ignored = write(STDERR_FILENO, "\033[0m", 4);
    statement.clear();
    prompt_set_incompleted(0);
    ve_puts("");
    ve_out_flush();
}

/// The statement is done, compiled or not. `first` is the number of the first value that it showed.
void finish_statement(lua_State *L, std::string &statement, unsigned first, bool compiled)
{
    prompt_set_incompleted(0);
    prompt_update_postfix(compiled ? "lua" : "lua(fail)");
    if (isspace(static_cast<unsigned char>(statement[0])) != 0) {
        ve_puts(ve_visible_lines(statement).c_str());
    } else {
        console.history.add(statement);
        if (compiled && !kest_lua_failed())
            console.script.add(L, statement, first, kest_lua_shown() + 1 - first);
    }
    statement.clear();
    interrupt_disarm();
    ve_out_flush();
}

/// Runs `statement`: the line or, while unfinished, the lines so far. Empties it unless more lines are wanted.
void run_statement(lua_State *L, std::string &statement)
{
    lua_run_begin();
    kest_lua_prepare(L);
    const unsigned first = kest_lua_shown() + 1;
    const int result = kest_lua_execute(L, statement.data(), statement.size());
    if (result != 1)
        kest_lua_cleanup(L);
    if (lua_run_end())
        drop_statement(statement);
    else if (result == 1)
        prompt_set_incompleted(1);
    else
        finish_statement(L, statement, first, result == 0);
}

/// Runs lines until "q", Ctrl-D or the loss of the daemon.
void run_lines(lua_State *L)
{
    std::string statement; // empty unless it is unfinished
    while (is_running()) {
        const std::unique_ptr<char, free_deleter> line(ve_rl(prompt_get(), -1));
        if (ve_rl_ctrld_is_pressed())
            break;
        if (ve_wait_interrupted()) {
            drop_statement(statement);
            continue;
        }
        if (!line || *line == '\0')
            continue;
        const bool continues = !statement.empty();
        if (!continues && is_quit(line.get()))
            break;
        if (continues)
            statement += '\n';
        statement += line.get();
        ve_out_flush();
        // Once Ctrl-C was pressed it stays armed, and every line is dropped until Lua mode is left.
        if (continues || interrupt_arm())
            run_statement(L, statement);
        else
            drop_statement(statement);
    }
}

/// What the session leaves behind: its recording and its history.
void save_session()
{
    if (record_check())
        record_commit(console.script.script());
    console.history.save();
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
    const session_guard guard;
    const interrupt_suspension own_ctrl_c;
    prompt_update_postfix("lua");
    kest_readline_cleanup();
    kest_readline_use({lua_autocomplete}, &console.history);
    console.history.load(history_file);
    console.script.clear();
    {
        const lua_client client(leave_program, is_running);
        if (client) {
            kest_lua_init(client.get()->state);
            run_lines(client.get()->state);
            interrupt_disarm();
        }
        kest_readline_use({}, nullptr);
        lua_complete_set_state(nullptr);
    }
    save_session();
    prompt_update_postfix(nullptr);
    kest_readline_prepare();
    return 0;
}

} // namespace

int process_lua(const char *, command_args args)
{
    if (args.empty())
        return lua_mode_run();
    std::string text;
    for (const std::string &word : args)
        text.append(word).append(" ");
    ve_puts(ve_visible_lines(text).c_str());
    ve_out_flush();
    const lua_client client(leave_shell, is_running);
    if (!client)
        return 0;
    lua_run_begin();
    const int status = ve_lua_exec(client.get(), text.data(), text.size(), nullptr);
    if (lua_run_end()) {
        lua_run_deliver();
        return 0;
    }
    if (status != 0) {
        const std::string said = "LUA ERROR: " + ve_visible_lines(client.get()->error) + "\n";
        ve_out_write(said.data(), said.size());
    } else {
        ve_out_write(client.get()->output.data(), client.get()->output.size());
    }
    ve_out_flush();
    return 0;
}

int process_luarecord(const char *name, command_args args)
{
    return process_record(name, args) < 0 ? -1 : lua_mode_run();
}
