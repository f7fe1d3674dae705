// cd, up, pwd, ls, tree.
#pragma once

#include <jansson.h>

#include "commands/handler.h"
int process_cd(const char *name, command_args args);
int process_up(const char *name, command_args args);
int process_pwd(const char *name, command_args args);
int process_ls(const char *name, command_args args);
int process_tree(const char *name, command_args args);
