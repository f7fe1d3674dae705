#include "platform/ve_lua_frames.h"

#include <cstring>

namespace
{

/// A frame's record begins with two stack pointers and the link to its caller, in every release of Lua 5.3. Whether the
/// linked library agrees is tested before the link is relied on.
void *caller_of(const void *frame)
{
    void *caller;
    memcpy(&caller, static_cast<const char *>(frame) + 2 * sizeof(void *), sizeof caller);
    return caller;
}

int count_frames(lua_State *L)
{
    lua_Debug frame;
    int below = 0;
    int above = 1;
    while (lua_getstack(L, above - 1, &frame) != 0) {
        below = above;
        above *= 2;
    }
    while (above - below > 1) {
        const int middle = below + (above - below) / 2;
        (lua_getstack(L, middle - 1, &frame) != 0 ? below : above) = middle;
    }
    return below;
}

} // namespace

ve_lua_frames::ve_lua_frames(lua_State *L) : state_(L), depth_(count_frames(L)), linked_(false), newest_{}
{
    lua_Debug second{};
    if (depth_ < 2)
        return;
    lua_getstack(L, 0, &newest_);
    lua_getstack(L, 1, &second);
    linked_ = caller_of(newest_.i_ci) == second.i_ci;
}

bool ve_lua_frames::next(lua_Debug *frame)
{
    if (level_ >= depth_)
        return false;
    if (!linked_ || level_ == 0)
        lua_getstack(state_, level_, frame);
    else
        frame->i_ci = static_cast<CallInfo *>(caller_of(current_));
    current_ = frame->i_ci;
    ++level_;
    return true;
}
