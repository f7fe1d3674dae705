// save, reset, reboot.
#pragma once

#include <jansson.h>

#include "commands/handler.h"
int process_save(const char *name, command_args args);
int process_reset(const char *name, command_args args);
int process_reboot(const char *name, command_args args);
