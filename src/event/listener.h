// The event listener: a thread that reads the group link, prints events and queues notices of instances.
#pragma once

#include <cstddef>

#include "event/notices.h"
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
/// From here on, until the listener is stopped, notices of added and deleted instances are kept for who asks for them.
void keep_instance_notices();
/// What they come to since the last time; nothing when the listener is just adding one. Never waits.
instance_changes fetch_instance_queue();
