// The event listener: a thread that reads the group link, prints events and queues notices of instances.
#pragma once

#include <cstddef>

#include "platform/ve_jrpcapi.h"

/// Stores both contexts, hooks the line editor up to the control pipe and starts the thread. Returns the result of the
/// thread's creation.
int start_event_handler(ve_jrpcapi *request, ve_jrpcapi *group);
/// Ends the thread and waits for it; a second call does nothing. What it
/// could not print within a second, because nobody reads it, is given up.
void stop_event_handler();
/// Lets the thread and whoever else asks is_running() end by themselves. Async-signal-safe.
void end_run();
/// False once the run was ended, the listener was stopped or the daemon dropped the link. Any thread.
bool is_running();
/// Prints whole lines from a thread of the caller's own: the prompt and a progress bar step aside for them. Any thread.
void print_aside(const char *text, size_t size);
/// The notices of added and deleted instances so far, a new array of {"Action", "Path", "InstanceNumber"} that the
/// caller owns; null when there are none or the listener is just adding one. Never waits.
json_t *fetch_instance_queue();
