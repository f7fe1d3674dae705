// Why the daemon cannot be had, said on standard error.
#pragma once

#include "platform/ve_jrpcapi.h"

/// Says why there is no link, or why what was sent on it did not go out. A reason that was said is not said again until
/// trouble_over(). Main thread only.
void trouble_tell(const ve_jrpcapi *ctx);
/// The same, but only of a reason that waiting for the daemon does not cure.
void trouble_tell_lasting(const ve_jrpcapi *ctx);
/// How long a daemon may let one wait before that is said, in milliseconds.
constexpr int trouble_slow_ms = 2000;
/// Says, once until trouble_over(), that the daemon lets one wait.
void trouble_tell_slow(const ve_jrpcapi *ctx);
constexpr ve_jrpcapi_slow trouble_slow{.after_ms = trouble_slow_ms, .tell = trouble_tell_slow};
/// Says what may help with a daemon that closes every link without a word.
void trouble_tell_tls();
/// There is a link again: what comes now is another trouble.
void trouble_over();
