// attr (info), in the shell and as a request.
#pragma once

#include <jansson.h>

int process_info(const char *name, json_t *args);
int process_get_attrs(const char *name, json_t *args);
