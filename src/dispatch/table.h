// The table of commands, its lookups and the two dispatchers.
#pragma once

#include <array>
#include <span>

#include <jansson.h>

#include "commands/handler.h"

/// What a word behind a command stands for, as far as completion can tell.
enum class argument_kind {
    other,
    object, ///< of the data model
    node,   ///< an object, parameter or method; behind a "=" the parameter's value
    file,
    program
};

struct cmd_argument {
    argument_kind kind = argument_kind::other;
    const char *words = ""; ///< what may stand there besides, "|" between, in the order in which it is offered

    bool operator==(const cmd_argument &) const = default;
};

/// The first argument, the second, and each one behind.
using cmd_arguments = std::array<cmd_argument, 3>;

struct cmd_entry {
    const char *name;
    const char *method;      ///< the JSON-RPC method, or null
    command_handler process; ///< in the shell, or null
    command_handler request; ///< in request mode, or null
    cmd_arguments arguments;
    const char *usage;
    const char *description;
};

std::span<const cmd_entry> cmd_rows();

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
