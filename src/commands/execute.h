// execute: methods of the data model.
#pragma once

#include <jansson.h>

#include "commands/handler.h"
int process_execute(const char *name, command_args args);
