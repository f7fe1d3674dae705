// luatext printer|exact: turns a nested table of a million scalars into text and prints the CPU time of that in ms.
// printer is the console's; exact is a plain writer of the same rules in their common cases that keeps the tables being
// printed in a Lua table and grows its buffer to the byte, as simple code would.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <lua.hpp>

#include "lua/printer.h"
#include "platform/ve_lua.h"

namespace
{

constexpr char rows[] = "T = {} for g = 1, 100 do local G = {} T['group' .. g] = G for i = 1, 1000 do "
                        "G[i] = {id = i, name = 'row-' .. i, on = i % 2 == 0, v = {i, i + 1, i + 2, i * 0.5, i, i, i}} "
                        "end end collectgarbage()";

char *text = nullptr;
size_t length = 0;
size_t capacity = 0;
size_t column = 0;
size_t indent = 0;
int seen = 0;

void put(const char *bytes, size_t size)
{
    if (length + size >= capacity) {
        capacity = length + size + 1;
        text = static_cast<char *>(realloc(text, capacity));
    }
    memcpy(text + length, bytes, size);
    length += size;
    text[length] = '\0';
    column += size;
}

void newline()
{
    put("\n", 1);
    for (size_t i = 0; i < indent; ++i)
        put(" ", 1);
    column = indent;
}

void piece(const char *bytes, size_t size)
{
    if (column + size > 80 && indent + size <= 80)
        newline();
    put(bytes, size);
}

bool is_open(lua_State *L, int table)
{
    bool found = false;
    lua_rawgeti(L, LUA_REGISTRYINDEX, seen);
    const auto count = static_cast<lua_Integer>(lua_rawlen(L, -1));
    for (lua_Integer i = count; i > 0 && !found; --i) {
        lua_rawgeti(L, -1, i);
        found = lua_compare(L, -1, table, LUA_OPEQ) != 0;
        lua_pop(L, 1);
    }
    lua_pushvalue(L, table);
    lua_rawseti(L, -2, count + 1);
    lua_pop(L, 1);
    return found;
}

void close_table(lua_State *L)
{
    lua_rawgeti(L, LUA_REGISTRYINDEX, seen);
    lua_pushnil(L);
    lua_rawseti(L, -2, static_cast<lua_Integer>(lua_rawlen(L, -2)));
    lua_pop(L, 1);
}

void write_value(lua_State *L, int index);

void write_table(lua_State *L, int index)
{
    if (is_open(L, index))
        return;
    put("{ ", 2);
    const size_t outer = indent;
    indent = column;
    bool many = false;
    const auto count = static_cast<lua_Integer>(lua_rawlen(L, index));
    for (lua_Integer i = 1; i <= count; ++i) {
        const bool nested = lua_geti(L, index, i) == LUA_TTABLE;
        if (nested)
            newline();
        many |= nested;
        write_value(L, lua_gettop(L));
        lua_pop(L, 1);
        put(", ", 2);
    }
    lua_pushnil(L);
    while (lua_next(L, index) != 0) {
        if (lua_isinteger(L, -2) == 0 || lua_tointeger(L, -2) > count) {
            size_t size = 0;
            const char *key = lua_tolstring(L, -2, &size);
            many = true;
            newline();
            piece(key, size);
            put(" = ", 3);
            write_value(L, lua_gettop(L));
            put(",", 1);
        }
        lua_pop(L, 1);
    }
    close_table(L);
    indent = outer;
    if (many)
        newline();
    put(" }", 2);
}

void write_value(lua_State *L, int index)
{
    luaL_checkstack(L, 12, nullptr);
    if (luaL_getmetafield(L, index, "__tostring") != LUA_TNIL)
        lua_pop(L, 1);
    if (lua_istable(L, index)) {
        write_table(L, index);
    } else if (lua_type(L, index) == LUA_TSTRING) {
        size_t size = 0;
        const char *bytes = lua_tolstring(L, index, &size);
        put("\"", 1);
        for (size_t i = 0; i < size; ++i)
            put(bytes + i, 1);
        put("\"", 1);
    } else {
        size_t size = 0;
        const char *bytes = luaL_tolstring(L, index, &size);
        piece(bytes, size);
        lua_pop(L, 1);
    }
}

double cpu_ms()
{
    timespec time;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_nsec) / 1e6;
}

} // namespace

int main(int argc, char **argv)
{
    ve_lua_context *context = ve_lua_init(0);
    lua_State *L = context->state;
    if (argc != 2 || luaL_dostring(L, rows) != LUA_OK)
        return 1;
    lua_newtable(L);
    seen = luaL_ref(L, LUA_REGISTRYINDEX);
    lua_getglobal(L, "T");
    const double begin = cpu_ms();
    if (strcmp(argv[1], "exact") == 0)
        write_value(L, lua_gettop(L));
    else
        luap_describe(L, -1);
    printf("%.1f\n", cpu_ms() - begin);
    ve_lua_free(context);
    free(text);
    return 0;
}
