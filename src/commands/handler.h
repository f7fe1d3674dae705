// The shape of every command handler: the command's name and the words behind it (a JSON array of strings, which the
// caller owns and a handler may shorten). Returns 0, or negative for a failure.
#pragma once

#include <jansson.h>

using command_handler = int (*)(const char *name, json_t *args);

/// Word `index`, borrowed, or null.
inline const char *arg_text(const json_t *args, size_t index)
{
    return json_string_value(json_array_get(args, index));
}
