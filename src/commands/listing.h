// The long listing of ls.
#pragma once

#include "cdpath/dm_path.h"

/// Prints a row of attributes for each child of the place, as the daemon knows them now; for a parameter or a method
/// its own row. Without an answer the header alone. A wait point.
void list_long(const dm_path &path);
