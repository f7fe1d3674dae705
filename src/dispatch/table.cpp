#include "dispatch/table.h"

#include <cstring>
#include <iterator>
#include <string_view>

#include "commands/attributes.h"
#include "commands/device.h"
#include "commands/download.h"
#include "commands/execute.h"
#include "commands/instances.h"
#include "commands/navigation.h"
#include "commands/session.h"
#include "commands/values.h"
#include "lua/lua_mode.h"

namespace
{

constexpr cmd_argument object = {argument_kind::object};
constexpr cmd_argument node = {argument_kind::node};
constexpr cmd_argument file = {argument_kind::file};
constexpr cmd_argument program = {argument_kind::program};
constexpr cmd_arguments objects = {object, object, object};
constexpr cmd_arguments nodes = {node, node, node};
constexpr cmd_arguments files = {file, file, file};

constexpr cmd_argument any_of(const char *words, argument_kind kind = argument_kind::other)
{
    return {kind, words};
}

// The order is that of the help and of completion. "sh" carries the texts of "set".
// clang-format off
constexpr cmd_entry cmd_table[] = {
    // name, method, shell handler, request handler, arguments, usage, description
    {"add", "AddObject", process_add, process_add, objects, "add <path>", "add a new instance to multi-instance object"},
    {"attr", "GetParameterAttributes", process_info, process_get_attrs, nodes, "attr [<path1> <path2>...]", "show node's attributes"},
    {"cd", nullptr, process_cd, nullptr, objects, "cd <path>", "cd to the node"},
    {"cat", "GetParameterValues", process_cat, process_cat, nodes, "cat [<path1> <path2>...]", "retrieve node's values"},
    {"catree", nullptr, process_catree, nullptr, nodes, "catree [<path1> <path2>...]", "retrieve node's values and print as tree"},
    {"clear", nullptr, process_clear, nullptr, {}, "clear", "clear screen"},
    {"color", nullptr, process_color, nullptr, {any_of("prompt|autocomplete|hint")}, "color [<type> <hsv>]", "manage color scheme"},
    {"del", "DeleteObject", process_del, process_del, nodes, "del <path>", "delete instance from multi-instance object"},
    {"download", "Download", process_download, process_download, {any_of("config|file|firmware"), file}, "download <firmware|config|file> <path_to_file> [<target_file_name>]", "download a file to CPE and immediately apply if firmware|config"},
    {"get", "GetParameterValues", process_cat, process_cat, nodes, "get [<path1> <path2>...]", "same as 'cat'"},
    {"help", nullptr, process_help, nullptr, {}, "help", "show this message"},
    {"info", "GetParameterAttributes", process_info, process_get_attrs, nodes, "info <path> [<path2>...]", "same as 'attr'"},
    {"login", nullptr, process_login, process_login, {}, "login [<username> [ -p <password>]]", "login as user <username> (or as $USER if empty)"},
    {"logout", nullptr, process_logout, process_logout, {}, "logout", "logout"},
    {"ls", "GetParameterNames", process_ls, process_ls, nodes, "ls [-l] [<path1> <path2>...]", "list object's subnodes"},
    {"lua", "lua", process_lua, process_lua, {}, "lua [<Lua statement>]", "run Lua script (without arguments - enter Luamode)"},
    {"luarecord", nullptr, process_luarecord, nullptr, {any_of("abort", argument_kind::file)}, "luarecord <filename>", "create lua-script from Lua session"},
    {"opt", nullptr, process_opt, nullptr, {any_of("autocomplete|hint"), any_of("off|on")}, "opt autocomplete|hint on|off", "enable/disable shell options"},
    {"order", "ChangeOrder", process_order, process_order, {node}, "order <path> <num>", "assign order number to instance"},
    {"pwd", nullptr, process_pwd, nullptr, {}, "pwd", "print current path"},
    {"reboot", "Reboot", process_reboot, process_reboot, {}, "reboot [-f]", "reboot device (force reboot with '-f')"},
    {"reset", "FactoryReset", process_reset, process_reset, {}, "reset", "reset device configuration to default"},
    {"rm", "DeleteObject", process_del, process_del, nodes, "rm <path>", "same as 'del'"},
    {"save", "SaveConfig", process_save, process_save, {}, "save", "save device configuration in NVRAM"},
    {"set", "SetParameterValues", process_set, process_set, nodes, "set <path>=<value> [...]", "set parameters' values"},
    {"record", nullptr, process_record, nullptr, {any_of("abort", argument_kind::file)}, "record <filename>|abort", "create kest-script from current shell session"},
    {"sh", nullptr, process_shell, process_shell, {program, file, file}, "set <path>=<value> [...]", "set parameters' values"},
    {"touch", "AddObject", process_add, process_add, objects, "touch <path>", "same as 'add'"},
    {"take", nullptr, process_take, nullptr, objects, "take <path>", "add a new instance to multi-instace object and cd to it"},
    {"tree", nullptr, process_tree, nullptr, objects, "tree [<path>]", "show node scheme in tree form"},
    {"up", nullptr, process_up, nullptr, {}, "up [<levels>]", "cd to upper level node"},
    {"upgrade", nullptr, process_upgrade, process_upgrade, files, "upgrade <path_to_firmware>", "upgrade CPE firmware"},
    {"execute", nullptr, process_execute, process_execute, nodes, "execute <path_to_method> [<rpath1>=<value1> <rpath2>=<value2>...]", "execute method"},
};
// clang-format on
static_assert(std::size(cmd_table) == 33);

const cmd_entry *find(std::string_view word)
{
    for (const cmd_entry &entry : cmd_table)
        if (word == entry.name || (entry.method != nullptr && word == entry.method))
            return &entry;
    return nullptr;
}

} // namespace

std::span<const cmd_entry> cmd_rows()
{
    return cmd_table;
}

const cmd_entry *parse_cmd(const char *word)
{
    if (word == nullptr)
        return nullptr;
    const cmd_entry *entry = find(strcmp(word, "?") == 0 ? "help" : word);
    return entry != nullptr && entry->process != nullptr ? entry : nullptr;
}

const cmd_entry *parse_request(const char *word)
{
    if (word == nullptr)
        return nullptr;
    const cmd_entry *entry = find(word);
    return entry != nullptr && entry->request != nullptr ? entry : nullptr;
}

void autocomplete_command(const char *prefix, json_t *list)
{
    const size_t length = prefix != nullptr ? strlen(prefix) : 0;
    for (const cmd_entry &entry : cmd_table)
        if (length == 0 || strncmp(entry.name, prefix, length) == 0)
            json_array_append_new(list, json_string(entry.name));
}
