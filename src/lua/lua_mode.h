// The Lua console: the commands lua and luarecord, and script files.
#pragma once

#include "commands/handler.h"

int process_lua(const char *name, command_args args);
int process_luarecord(const char *name, command_args args);
/// Runs the Lua file `path` (null: the first of `params`, which is then none of them) with the words of `params` as
/// its arguments. Returns 0 when the file could be opened, else -1.
int run_lua_script(const char *path, command_args params);
