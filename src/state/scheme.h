// Reloading the scheme cache. Main thread only.
#pragma once

#include <jansson.h>

/// Replaces the scheme cache by the root level as the daemon shows it to the current user; the current path becomes the
/// root. Returns the cache, borrowed. A wait point.
json_t *reload_dm();
