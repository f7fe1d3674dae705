// The escape sequences that a terminal obeys and does not show.
#pragma once

#include <cstddef>
#include <string_view>

/// Bytes of the sequence that `text` begins with, the ESC included; all of `text` when its end is not there yet.
size_t escape_size(std::string_view text);
