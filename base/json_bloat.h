// What a text may cost the one who reads it. Shared by the client and the daemon: what this one hands on to clients,
// they have to take.
#pragma once

#include <cstddef>
#include <string_view>

/// What whoever sends something may cost: so many bytes of memory, and so many times the bytes sent.
inline constexpr size_t cost_allowed = size_t{16} << 20;
inline constexpr size_t cost_factor = 8;

/// Whether a text, JSON or not, would take too much memory as a Jansson value, or as a text of several lines made of
/// it: more than cost_factor times its own size, and more than cost_allowed. So many values can stand in a line, or so
/// deep, only by malice.
bool json_text_is_bloated(std::string_view text);
