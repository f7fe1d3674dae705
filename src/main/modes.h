// The run modes that start-up enters. Each returns the result that becomes the exit status.
#pragma once

#include <cstdint>

#include "commands/handler.h"

/// Sends the JSON text that is the first element of `params` as it stands, and prints the answer of a request.
int mode_run_raw(command_args params);
/// Lets the listener print events until Ctrl-C or the end of the link. Returns 0.
int mode_run_listen();
/// Sends event `id` on the group link, with the value that the first element of `params` holds as JSON, if it does.
int mode_run_event(uint32_t id, command_args params);
