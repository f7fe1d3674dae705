// The Lua console in a client that was built without it: what asks for it is refused.
#include "lua/lua_mode.h"

#include "platform/ve_out.h"

int process_lua(const char *name, command_args)
{
    ve_printf("%s: kest was built without Lua.\n", name);
    return -1;
}

int process_luarecord(const char *name, command_args args)
{
    return process_lua(name, args);
}

int run_lua_script(const char *, command_args)
{
    ve_printf("lua-script: kest was built without Lua.\n");
    return -1;
}
