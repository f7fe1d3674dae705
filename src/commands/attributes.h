// attr (info), in the shell and as a request.
#pragma once

#include <jansson.h>

#include "commands/handler.h"
int process_info(const char *name, command_args args);
int process_get_attrs(const char *name, command_args args);
