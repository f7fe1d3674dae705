// download, upgrade: firmware, configuration and files to the device.
#pragma once

#include <jansson.h>

int process_download(const char *name, json_t *args);
int process_upgrade(const char *name, json_t *args);
