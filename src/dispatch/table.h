// The table of commands, its lookups and the two dispatchers.
#pragma once

#include <cstdint>

#include <jansson.h>

#include "commands/handler.h"

struct cmd_entry {
    const char *name;
    const char *method; ///< the JSON-RPC method, or null
    uint32_t id;        ///< chooses the argument completer
    uint32_t name_hash; ///< filled at the first lookup
    uint32_t method_hash;
    command_handler process; ///< in the shell, or null
    command_handler request; ///< in request mode, or null
    const char *usage;
    const char *description;
};

/// The entry for a word typed in the shell, or for a request; null when there is none for that mode.
const cmd_entry *parse_cmd(const char *word);
const cmd_entry *parse_request(const char *word);

/// Appends the names that begin with `prefix` (null: all) to `list`, in the table's order.
void autocomplete_command(const char *prefix, json_t *list);

/// Run a command; -1 with a message when there is none of that name.
int exec_cmd(const char *word, command_args args);
int exec_request(const char *word, command_args args);

/// Lists the commands.
int process_help(const char *name, command_args args);
