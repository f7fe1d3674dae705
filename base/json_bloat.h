// What a text may cost the one who reads it. Shared by the client and the daemon: what this one hands on to clients,
// they have to take.
#pragma once

#include <string_view>

/// Whether a text, JSON or not, would take too much memory as a Jansson value, or as a text of several lines made of
/// it: more than eight times its own size, and more than 16 MiB. So many values can stand in a line, or so deep, only
/// by malice.
bool json_text_is_bloated(std::string_view text);
