// Whether a reconnect is under way. Main thread only.
#pragma once

/// True from the beginning of server_reconnect to its end, so that the requests it makes itself start no other one.
bool reconnect_under_way();
