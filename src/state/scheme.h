// Reloading the scheme cache. Main thread only.
#pragma once

/// Replaces the scheme cache by the root level as the daemon shows it to the current user; the current path becomes the
/// root. A wait point.
void reload_dm();
