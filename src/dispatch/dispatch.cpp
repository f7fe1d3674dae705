#include "dispatch/table.h"

#include "platform/ve_out.h"

int exec_cmd(const char *word, command_args args)
{
    const cmd_entry *entry = parse_cmd(word);
    if (entry == nullptr) {
        ve_printf("%s: command not found.\n", word != nullptr ? ve_visible(word).c_str() : "(null)");
        return -1;
    }
    return entry->process(entry->name, args);
}

int exec_request(const char *word, command_args args)
{
    const cmd_entry *entry = parse_request(word);
    if (entry == nullptr) {
        ve_printf("%s: unknown method.\n", word != nullptr ? ve_visible(word).c_str() : "(null)");
        return -1;
    }
    return entry->request(word, args);
}
