#include "dispatch/table.h"

#include <cstring>
#include <iterator>

#include "commands/attributes.h"
#include "commands/device.h"
#include "commands/download.h"
#include "commands/execute.h"
#include "commands/instances.h"
#include "commands/navigation.h"
#include "commands/session.h"
#include "commands/values.h"
#include "dispatch/rows.h"
#include "lua/lua_mode.h"
#include "platform/ve_string.h"

namespace
{

// The order is that of the help and of completion. "sh" carries the texts of "set".
// clang-format off
cmd_entry cmd_table[] = {
    // name, method, id, hashes, shell handler, request handler, usage, description
    {"add", "AddObject", 1, 0, 0, process_add, process_add, "add <path>", "add a new instance to multi-instance object"},
    {"attr", "GetParameterAttributes", 13, 0, 0, process_info, process_get_attrs, "attr [<path1> <path2>...]", "show node's attributes"},
    {"cd", nullptr, 4, 0, 0, process_cd, nullptr, "cd <path>", "cd to the node"},
    {"cat", "GetParameterValues", 2, 0, 0, process_cat, process_cat, "cat [<path1> <path2>...]", "retrieve node's values"},
    {"catree", nullptr, 3, 0, 0, process_catree, nullptr, "catree [<path1> <path2>...]", "retrieve node's values and print as tree"},
    {"clear", nullptr, 5, 0, 0, process_clear, nullptr, "clear", "clear screen"},
    {"color", nullptr, 6, 0, 0, process_color, nullptr, "color [<type> <hsv>]", "manage color scheme"},
    {"del", "DeleteObject", 7, 0, 0, process_del, process_del, "del <path>", "delete instance from multi-instance object"},
    {"download", "Download", 8, 0, 0, process_download, process_download, "download <firmware|config|file> <path_to_file> [<target_file_name>]", "download a file to CPE and immediately apply if firmware|config"},
    {"get", "GetParameterValues", 2, 0, 0, process_cat, process_cat, "get [<path1> <path2>...]", "same as 'cat'"},
    {"help", nullptr, 12, 0, 0, process_help, nullptr, "help", "show this message"},
    {"info", "GetParameterAttributes", 13, 0, 0, process_info, process_get_attrs, "info <path> [<path2>...]", "same as 'attr'"},
    {"login", nullptr, 16, 0, 0, process_login, process_login, "login [<username> [ -p <password>]]", "login as user <username> (or as $USER if empty)"},
    {"logout", nullptr, 17, 0, 0, process_logout, process_logout, "logout", "logout"},
    {"ls", "GetParameterNames", 18, 0, 0, process_ls, process_ls, "ls [-l] [<path1> <path2>...]", "list object's subnodes"},
    {"lua", "lua", 19, 0, 0, process_lua, process_lua, "lua [<Lua statement>]", "run Lua script (without arguments - enter Luamode)"},
    {"luarecord", nullptr, 20, 0, 0, process_luarecord, nullptr, "luarecord <filename>", "create lua-script from Lua session"},
    {"opt", nullptr, 21, 0, 0, process_opt, nullptr, "opt autocomplete|hint on|off", "enable/disable shell options"},
    {"order", "ChangeOrder", 22, 0, 0, process_order, process_order, "order <path> <num>", "assign order number to instance"},
    {"pwd", nullptr, 23, 0, 0, process_pwd, nullptr, "pwd", "print current path"},
    {"reboot", "Reboot", 24, 0, 0, process_reboot, process_reboot, "reboot [-f]", "reboot device (force reboot with '-f')"},
    {"reset", "FactoryReset", 26, 0, 0, process_reset, process_reset, "reset", "reset device configuration to default"},
    {"rm", "DeleteObject", 7, 0, 0, process_del, process_del, "rm <path>", "same as 'del'"},
    {"save", "SaveConfig", 28, 0, 0, process_save, process_save, "save", "save device configuration in NVRAM"},
    {"set", "SetParameterValues", 29, 0, 0, process_set, process_set, "set <path>=<value> [...]", "set parameters' values"},
    {"record", nullptr, 25, 0, 0, process_record, nullptr, "record <filename>|abort", "create kest-script from current shell session"},
    {"sh", nullptr, 30, 0, 0, process_shell, process_shell, "set <path>=<value> [...]", "set parameters' values"},
    {"touch", "AddObject", 1, 0, 0, process_add, process_add, "touch <path>", "same as 'add'"},
    {"take", nullptr, 31, 0, 0, process_take, nullptr, "take <path>", "add a new instance to multi-instace object and cd to it"},
    {"tree", nullptr, 32, 0, 0, process_tree, nullptr, "tree [<path>]", "show node scheme in tree form"},
    {"up", nullptr, 33, 0, 0, process_up, nullptr, "up [<levels>]", "cd to upper level node"},
    {"upgrade", nullptr, 34, 0, 0, process_upgrade, process_upgrade, "upgrade <path_to_firmware>", "upgrade CPE firmware"},
    {"execute", nullptr, 35, 0, 0, process_execute, process_execute, "execute <path_to_method> [<rpath1>=<value1> <rpath2>=<value2>...]", "execute method"},
};
// clang-format on
static_assert(std::size(cmd_table) == 33);

bool cmd_table_ready = false;

void cmd_table_init()
{
    for (cmd_entry &entry : cmd_table) {
        entry.name_hash = ve_string_get_hash(entry.name);
        entry.method_hash = ve_string_get_hash(entry.method);
    }
    cmd_table_ready = true;
}

const cmd_entry *find(const char *word)
{
    const uint32_t hash = ve_string_get_hash(word);
    if (!cmd_table_ready)
        cmd_table_init();
    for (const cmd_entry &entry : cmd_table) {
        if (entry.name_hash == hash && strcmp(entry.name, word) == 0)
            return &entry;
        if (entry.method_hash == hash && entry.method != nullptr && strcmp(entry.method, word) == 0)
            return &entry;
    }
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
