// cat (get), catree, set, and the status printer of every command.
#pragma once

#include "commands/handler.h"

#include <string>
#include <string_view>

#include "platform/ve_jrpcmsg.h"

int process_cat(const char *name, command_args args);
int process_catree(const char *name, command_args args);
int process_set(const char *name, command_args args);

/// Prints how an executed message ended: "Status: OK", or the error with its data.
void print_status(const ve_jrpcmsg *message);
/// Prints that the daemon has denied what was asked for, with its words.
void print_denied(const std::string &words);
/// Prints the values as a tree whose root is named `path`; names are shown without it. Returns 0, or -1 with a message
/// when the tree would take too much memory. A wait point.
int values_tree(ve_parameters list, std::string_view path);
