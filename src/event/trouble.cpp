#include "event/trouble.h"

#include <string>
#include <string_view>
#include <unistd.h>
#include <utility>

#include "platform/ve_out.h"

namespace
{

bool told = false;
bool told_lasting = false;
bool told_slow = false;

void say(const std::string &reason)
{
    // A spinner leaves the cursor behind its picture.
    const bool begins_row = isatty(STDERR_FILENO) == 0 || isatty(STDOUT_FILENO) == 0 || ve_out_unfinished_row().empty();
    const std::string message = (begins_row ? "kest: " : "\nkest: ") + ve_visible_error(reason) + '\n';
    ve_out_write_error(message.data(), message.size());
}

} // namespace

void trouble_tell(const ve_jrpcapi *ctx)
{
    const bool lasts = ve_jrpcapi_connect_error_lasts(ctx);
    if (told && (told_lasting || !lasts))
        return;
    const std::string reason = ve_jrpcapi_link_error(ctx);
    if (reason.empty())
        return;
    told = true;
    told_lasting = lasts;
    say(reason);
}

void trouble_tell_lasting(const ve_jrpcapi *ctx)
{
    if (ve_jrpcapi_connect_error_lasts(ctx))
        trouble_tell(ctx);
}

void trouble_tell_slow(const ve_jrpcapi *ctx)
{
    if (!std::exchange(told_slow, true))
        say(std::string(ve_jrpcapi_destination(ctx)) + ": waiting for the daemon");
}

void trouble_tell_tls()
{
    constexpr std::string_view message = "kest: the daemon closes links without a word: if it speaks TLS, try --ssl\n";
    ve_out_write_error(message.data(), message.size());
}

void trouble_over()
{
    told = false;
    told_lasting = false;
    told_slow = false;
}
