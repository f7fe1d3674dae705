// login, logout, and what concerns the shell itself: color, opt, clear, sh, record.
#pragma once

#include <jansson.h>

#include "commands/handler.h"
int process_login(const char *name, command_args args);
int process_logout(const char *name, command_args args);
int process_color(const char *name, command_args args);
int process_opt(const char *name, command_args args);
int process_clear(const char *name, command_args args);
int process_shell(const char *name, command_args args);
int process_record(const char *name, command_args args);
