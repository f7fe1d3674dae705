// The one-shot file server: hands one file to the daemon over TCP.
#pragma once

#include <memory>
#include <string>

#include "platform/ve_socket.h"

class file_transfer;

/// Serves `path` once, from a thread of its own, to the peer of `link` (the request link's socket, or null) and to
/// nobody else; says so on the output. The result lets the caller end it early; null when the server could not be set
/// up (the reason is printed). `*url` receives "netcat://ADDRESS:PORT" as soon as the port is known.
std::shared_ptr<file_transfer> file_server_start(const char *path, const ve_socket *link, std::string *url);

/// Ends a transfer: one that still waits for its connection without a message. Null is allowed.
void file_server_cancel(const std::shared_ptr<file_transfer> &transfer);

/// Waits until no transfer is under way. A wait point.
void file_server_wait_all();
