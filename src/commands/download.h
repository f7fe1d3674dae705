// download, upgrade: firmware, configuration and files to the device.
#pragma once

#include <jansson.h>

#include "commands/handler.h"
int process_download(const char *name, command_args args);
int process_upgrade(const char *name, command_args args);
