// execute: methods of the data model.
#pragma once

#include <jansson.h>

int process_execute(const char *name, json_t *args);
