// Running a Lua file.
#include <string>

#include "event/listener.h"
#include "lua/client.h"
#include "lua/lua_mode.h"
#include "lua/running.h"
#include "platform/ve_input.h"
#include "platform/ve_out.h"

namespace
{

constexpr char byte_order_mark[] = "\xef\xbb\xbf";

/// The whole file into `*text`. False when it cannot be read, as a directory cannot.
bool read_script(const char *path, std::string *text)
{
    ve_input file(path);
    if (!file.is_open())
        return false;
    file.rest(*text);
    return file.error() == 0;
}

/// Takes the interpreter's line away, but for its line feed, so that the lines keep their numbers.
void strip_interpreter(std::string *text)
{
    if (text->starts_with(byte_order_mark))
        text->erase(0, sizeof byte_order_mark - 1);
    if (!text->starts_with("#!"))
        return;
    const size_t end = text->find('\n');
    if (end != std::string::npos)
        text->erase(0, end);
}

} // namespace

int run_lua_script(const char *path, command_args params)
{
    if (path == nullptr && !params.empty()) {
        path = params[0].c_str();
        params = params.subspan(1);
    }
    std::string text;
    if (!read_script(path, &text)) {
        ve_printf("Cannot open script file %s\n", path != nullptr ? ve_visible(path).c_str() : "(null)");
        return -1;
    }
    strip_interpreter(&text);
    const lua_client client(stop_event_handler);
    if (!client)
        return 0;
    lua_run_begin();
    const int status = ve_lua_exec(client.get(), text.data(), text.size(), path, params);
    if (lua_run_end()) {
        ve_out_write(client.get()->output.data(), client.get()->output.size());
        ve_out_flush();
        lua_run_deliver();
        return 0;
    }
    const std::string &output = client.get()->output;
    const std::string result = status != 0 ? ve_visible_lines(client.get()->error) + "\n" : std::string();
    ve_out_write(status != 0 ? result.data() : output.data(), status != 0 ? result.size() : output.size());
    return 0;
}
