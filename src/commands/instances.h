// add (touch), take, del (rm), order.
#pragma once

#include <jansson.h>

#include "commands/handler.h"
/// Returns the new instance's number, 0 when the daemon gave none, -1 on a wrong word.
int process_add(const char *name, command_args args);
int process_take(const char *name, command_args args);
int process_del(const char *name, command_args args);
int process_order(const char *name, command_args args);
