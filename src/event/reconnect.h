// Whether a reconnect is under way.
#pragma once

/// True from the beginning of server_reconnect to its end, so that the requests it makes itself start no other one.
/// Main thread only.
bool reconnect_under_way();
