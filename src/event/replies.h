// The answers that arrive on the group link, on their way from the listener to the one who waits for them.
#pragma once

#include <jansson.h>

#include "platform/ve_jrpcmsg.h"

/// Keeps answers with one id while it lives; at its end, what nobody took is freed. Main thread only, one at a time.
class replies_wanted
{
public:
    /// `id` is borrowed and must outlive this.
    explicit replies_wanted(const json_t *id);
    replies_wanted(const replies_wanted &) = delete;
    replies_wanted &operator=(const replies_wanted &) = delete;
    ~replies_wanted();

    /// The first answer that came, now the caller's; null when there is none yet.
    ve_jrpcmsg *take();
};

/// Hands an answer over, or frees it when nobody waits for it. Any thread.
void replies_put(ve_jrpcmsg *answer);
