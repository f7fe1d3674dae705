// The shape of every command handler: the command's name and the words behind it, which the caller owns. Returns 0, or
// negative for a failure.
#pragma once

#include <cstddef>
#include <span>
#include <string>

/// Words in UTF-8, without a NUL.
using command_args = std::span<const std::string>;
using command_handler = int (*)(const char *name, command_args args);

/// Word `index`, borrowed, or null.
inline const char *arg_text(command_args args, size_t index)
{
    return index < args.size() ? args[index].c_str() : nullptr;
}
