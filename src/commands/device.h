// save, reset, reboot.
#pragma once

#include <jansson.h>

int process_save(const char *name, json_t *args);
int process_reset(const char *name, json_t *args);
int process_reboot(const char *name, json_t *args);
