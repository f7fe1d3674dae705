// Values that come from the machine the daemon runs on: for parameters and tables that a model marks as live.
#pragma once

#include <jansson.h>

#include <string_view>

namespace veld
{

/// Value of a scalar provider ("uptime", "memory.total"): a new reference, or null when this machine cannot tell or
/// no such provider exists; the parameter's default is then shown. Daemon's thread only, like all of this header.
json_t *live_value(std::string_view provider);

/// Rows of a table provider ("interfaces"): a reference to an array of objects {field: value}, for reading only, since
/// requests that come close together share it. A row has "#key", a text that stays with the row as long as it exists
/// and that no other row of its table has; a nested table is "#rows:<its name>", an array of the same kind. A machine
/// that cannot tell gives no rows. Null when no such provider exists.
json_t *live_rows(std::string_view provider);

/// Whether a provider of that name exists: the check of a model when it is loaded.
bool live_value_known(std::string_view provider);
bool live_rows_known(std::string_view provider);

} // namespace veld
