// Walking the call stack of a Lua thread, also of one that holds hundreds of thousands of frames.
#pragma once

#include <lua.hpp>

/// The frames of a thread from the innermost outwards. Lua's own lua_getstack counts its way from the top at every
/// call; this one steps from frame to frame. Holds nothing that needs releasing. Valid until the thread runs on.
class ve_lua_frames
{
public:
    explicit ve_lua_frames(lua_State *L);

    /// Fills the private part of `*frame`, which lua_getinfo, lua_getlocal and lua_setlocal then take. False at the
    /// end.
    bool next(lua_Debug *frame);

private:
    lua_State *state_;
    int depth_;     ///< number of frames
    int level_ = 0; ///< of the next frame
    bool linked_;   ///< the frames' links are where this library expects them
    lua_Debug newest_;
    void *current_ = nullptr;
};
