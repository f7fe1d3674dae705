// cat (get), catree, set, and the status printer of every command.
#pragma once

#include "commands/handler.h"

#include "platform/ve_jrpcmsg.h"

int process_cat(const char *name, command_args args);
int process_catree(const char *name, command_args args);
int process_set(const char *name, command_args args);

/// Prints how an executed message ended: "Status: OK", or the error with its data.
void print_status(const ve_jrpcmsg *message);
/// Prints `list`, an array of {"Name", "Value"}, as a tree whose root is named `path_text`; names are shown without it.
void values_tree(const json_t *list, const char *path_text);
