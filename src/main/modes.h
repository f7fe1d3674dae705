// The run modes that start-up enters. Each returns the result that becomes the exit status.
#pragma once

#include <cstdint>

#include "commands/handler.h"
#include "platform/ve_jrpcapi.h"

/// Keeps the id of that message for it alone: no request that start-up sends before it gets the same.
void mode_reserve_raw_id(ve_jrpcapi *ctx, command_args params);
/// Sends the JSON text that is the first element of `params` as it stands, and prints the answer of a request.
int mode_run_raw(command_args params);
/// Lets the listener print events until Ctrl-C or the end of the link that brings them. Joins the groups again when
/// only the request link was lost. Returns 0, or -1 when that fails.
int mode_run_listen();
/// Sends event `id` on the group link, with the value that the first element of `params` holds as JSON, if it does.
int mode_run_event(uint32_t id, command_args params);
