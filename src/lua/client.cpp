#include "lua/client.h"

#include "event/request.h"
#include "lua/printer.h"
#include "platform/ve_out.h"

namespace
{

void change_login(const char *user, const char *password)
{
    kest_update_login(user, password);
}

} // namespace

lua_client::lua_client(void (*leaving)(), bool (*running)()) : context_(ve_lua_init(0))
{
    ve_lua_set_hooks({msg_exec, msg_post, change_login, leaving, running, luap_push_description});
    if (context_ == nullptr)
        ve_puts("LUA ERROR: not enough memory");
    else
        context_->request_ctx = request_ctx;
}
