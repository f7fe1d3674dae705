// Functions of Lua's own library that can run for very long: replaced by ones that do the same in pieces and look for
// Ctrl-C in between.
#include <algorithm>
#include <cstdint>
#include <cstring>

#include "vebase/lua/lua_impl.h"

namespace
{

constexpr size_t bytes_per_look = size_t{1} << 20;
constexpr lua_Integer elements_per_look = 10000;
/// What a text can be long, as Lua's own library has it.
constexpr lua_Unsigned longest = std::min<lua_Unsigned>(SIZE_MAX, LUA_MAXINTEGER);

/// string.rep.
int repeat(lua_State *L)
{
    size_t size = 0;
    size_t separator_size = 0;
    const char *text = luaL_checklstring(L, 1, &size);
    const lua_Integer count = luaL_checkinteger(L, 2);
    const char *separator = luaL_optlstring(L, 3, "", &separator_size);
    if (count <= 0) {
        lua_pushliteral(L, "");
        return 1;
    }
    const size_t unit = size + separator_size;
    // The count may be more than a word of the machine holds.
    const auto times = static_cast<lua_Unsigned>(count);
    if (unit < size || unit > longest / times)
        return luaL_error(L, "resulting string too large");
    const auto total = static_cast<size_t>(unit * times - separator_size);
    luaL_Buffer buffer;
    char *place = luaL_buffinitsize(L, &buffer, total);
    // One unit is written, then what is there is doubled until a piece is reached, which is then repeated.
    size_t done = 0;
    const auto append = [&](const char *data, size_t bytes) {
        bytes = std::min(bytes, total - done);
        memcpy(place + done, data, bytes);
        done += bytes;
    };
    append(text, size);
    append(separator, separator_size);
    while (done > 0 && done < total && done < bytes_per_look)
        append(place, done);
    const size_t piece = done;
    while (done < total) {
        append(place, piece);
        ve_lua_check_interrupt(L);
    }
    luaL_pushresultsize(&buffer, total);
    return 1;
}

/// One piece of a move, `count` elements from `offset` on.
void move_piece(lua_State *L, lua_Integer from, lua_Integer to, lua_Integer offset, lua_Integer count)
{
    lua_pushvalue(L, lua_upvalueindex(1));
    lua_pushvalue(L, 1);
    lua_pushinteger(L, from + offset);
    lua_pushinteger(L, from + offset + count - 1);
    lua_pushinteger(L, to + offset);
    lua_pushvalue(L, 5);
    lua_call(L, 5, 0);
    ve_lua_check_interrupt(L);
}

/// table.move.
int move(lua_State *L)
{
    const lua_Integer from = luaL_checkinteger(L, 2);
    const lua_Integer last = luaL_checkinteger(L, 3);
    const lua_Integer to = luaL_checkinteger(L, 4);
    if (last < from || (from > LUA_MININTEGER / 2 && last < LUA_MAXINTEGER / 2 && last - from < elements_per_look))
        return ve_lua_call_original(L);
    luaL_argcheck(L, from > 0 || last < LUA_MAXINTEGER + from, 3, "too many elements to move");
    const lua_Integer count = last - from + 1;
    luaL_argcheck(L, to <= LUA_MAXINTEGER - count + 1, 4, "destination wrap around");
    lua_settop(L, 5);
    const int target = lua_isnil(L, 5) ? 1 : 5;
    const bool upwards = to > last || to <= from || (target != 1 && lua_compare(L, 1, target, LUA_OPEQ) == 0);
    for (lua_Integer done = 0; done < count;) {
        const lua_Integer piece = std::min(elements_per_look, count - done);
        move_piece(L, from, to, upwards ? done : count - done - piece, piece);
        done += piece;
    }
    lua_settop(L, target);
    return 1;
}

} // namespace

void ve_lua_open_long(lua_State *L)
{
    lua_getglobal(L, "string");
    ve_lua_replace(L, "rep", repeat);
    lua_getglobal(L, "table");
    ve_lua_replace(L, "move", move);
    lua_pop(L, 2);
}
