// The groups that the user asked for. They are joined on the request link, so that losing it ends their membership.
// Main thread only.
#pragma once

#include <cstdint>
#include <span>

#include "platform/ve_jrpcapi.h"

/// Joins `group` on the link. Leaves the context at the time-out of the join. Returns 0 when the daemon answered with a
/// success, its code when it refused, and negative without an answer.
int group_join(ve_jrpcapi *ctx, uint32_t group);

/// Joins them at the start, in that order, and remembers which the daemon let in; what became of each is not said.
/// Returns whether there was an answer to any.
bool groups_join(ve_jrpcapi *ctx, std::span<const uint32_t> groups);
/// Joins again, on the new link, those that were joined on the lost one. Returns 0, or -1 when the events of one are
/// missing from here on, which standard error is told.
int groups_join_again(ve_jrpcapi *ctx);
