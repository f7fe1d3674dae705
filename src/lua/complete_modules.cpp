// Modules: Tab on the name of one loads it into a global; on a part of a name, offers what require could find.
#include <glob.h>

#include <cstdlib>
#include <cstring>

#include <lua.hpp>

#include "lua/complete.h"
#include "platform/ve_lua.h"

namespace
{

// Stack indices of the function that collects modules.
constexpr int package_index = 1;
constexpr int seen_index = 2; // names that were added

/// Calls require("package") and leaves the result. False when that fails.
bool push_package(lua_State *L)
{
    if (lua_getglobal(L, "require") != LUA_TFUNCTION)
        return false;
    lua_pushliteral(L, "package");
    return lua_pcall(L, 1, 1, 0) == LUA_OK && lua_istable(L, -1);
}

void announce(lua_State *L, const char *format, const char *word)
{
    size_t size = 0;
    const char *message = (lua_pushfstring(L, format, word), lua_tolstring(L, -1, &size));
    ve_lua_write(message, size);
    lua_pop(L, 1);
}

/// True when `word` names a module that is loaded, or could be: it is a global now.
bool load_module(lua_State *L, const char *word)
{
    lua_getfield(L, package_index, "loaded");
    if (lua_istable(L, -1)) {
        lua_getfield(L, -1, word);
        if (lua_toboolean(L, -1)) {
            if (lua_getglobal(L, word) == LUA_TNIL) {
                lua_pushvalue(L, -2);
                lua_setglobal(L, word);
                announce(L, "\nGlobalized module '%s'.\n", word);
            }
            return true;
        }
    }
    const char *statement = lua_pushfstring(L, "%s=require(\"%s\")", word, word);
    if (luaL_loadstring(L, statement) != LUA_OK || lua_pcall(L, 0, 0, 0) != LUA_OK)
        return false;
    announce(L, "\nLoaded module '%s'.\n", word);
    return true;
}

void add_preloaded(lua_State *L, const char *word, const char *name, json_t *candidates)
{
    const size_t size = strlen(name);
    if (lua_getfield(L, package_index, "preload") != LUA_TTABLE)
        return;
    lua_pushnil(L);
    while (lua_next(L, -2) != 0) {
        if (lua_type(L, -2) == LUA_TSTRING && strncmp(lua_tostring(L, -2), name, size) == 0)
            json_array_append_new(candidates, json_string(word));
        lua_pop(L, 1);
    }
}

/// Pushes line `number` (from 0) of package.config, or an empty text.
const char *push_config_line(lua_State *L, int number)
{
    lua_getfield(L, package_index, "config");
    const char *line = lua_tostring(L, -1);
    for (int i = 0; line != nullptr && i < number; ++i) {
        line = strchr(line, '\n');
        if (line != nullptr)
            ++line;
    }
    if (line == nullptr)
        return lua_pushliteral(L, "");
    return lua_pushlstring(L, line, strcspn(line, "\n"));
}

/// What a search needs to know of the typed word and of the platform. All texts stand on the Lua stack.
struct module_search {
    const char *pattern;
    const char *separator; ///< of directories
    const char *mark;
    char quote;  ///< around the names, or 0
    bool dotted; ///< the word has dots, so separators become dots
    json_t *candidates;
};

/// A module found at `path` through a template with the mark at `offset`.
void add_module(lua_State *L, const module_search *search, const char *path, size_t offset, size_t template_size)
{
    const size_t path_size = strlen(path);
    if (path_size < template_size)
        return; // a module without a name
    size_t size = path_size - template_size + 1;
    lua_pushlstring(L, path + offset, size);
    if (search->dotted)
        luaL_gsub(L, lua_tostring(L, -1), search->separator, ".");
    const char *name = lua_tolstring(L, -1, &size);
    const char quote[] = {search->quote, '\0'};
    if (size < 4 || strcmp(name + size - 4, "init") != 0) {
        const char *candidate = lua_pushfstring(L, "%s%s%s", quote, name, quote);
        lua_pushvalue(L, -1);
        if (lua_rawget(L, seen_index) == LUA_TNIL) {
            json_array_append_new(search->candidates, json_string(candidate));
            lua_pushvalue(L, -2);
            lua_pushboolean(L, 1);
            lua_rawset(L, seen_index);
        }
    }
}

struct glob_owner {
    glob_t found;
};

int release_glob(lua_State *L)
{
    globfree(&static_cast<glob_owner *>(lua_touserdata(L, 1))->found);
    return 0;
}

/// Pushes an empty result of glob, which Lua releases.
glob_t *push_glob(lua_State *L)
{
    auto *owner = static_cast<glob_owner *>(lua_newuserdata(L, sizeof(glob_owner)));
    memset(owner, 0, sizeof *owner);
    lua_createtable(L, 0, 1);
    lua_pushcfunction(L, release_glob);
    lua_setfield(L, -2, "__gc");
    lua_setmetatable(L, -2);
    return &owner->found;
}

/// The template on top.
void search_template(lua_State *L, const module_search *search)
{
    const int top = lua_gettop(L);
    size_t size = 0;
    const char *text = lua_tolstring(L, -1, &size);
    const char *mark = *search->mark != '\0' ? strstr(text, search->mark) : nullptr;
    if (mark == nullptr)
        return;
    const char *files = luaL_gsub(L, text, search->mark, search->pattern);
    glob_t *found = push_glob(L);
    if (glob(files, 0, nullptr, found) == 0) {
        const int first = lua_gettop(L);
        for (size_t i = 0; i < found->gl_pathc; ++i) {
            add_module(L, search, found->gl_pathv[i], static_cast<size_t>(mark - text), size);
            lua_settop(L, first);
            ve_lua_check_interrupt(L);
        }
    }
    globfree(found);
    memset(found, 0, sizeof *found);
    lua_settop(L, top);
}

/// Appends the modules that `word` may become. `name` is the word without its opening quote.
void add_found(lua_State *L, const char *word, const char *name, json_t *candidates)
{
    const bool dotted = strchr(word, '.') != nullptr;
    const char *separator = push_config_line(L, 0);
    const char *between = push_config_line(L, 1);
    const char *mark = push_config_line(L, 2);
    const char *stem = dotted ? luaL_gsub(L, name, ".", separator) : name;
    const module_search search = {.pattern = lua_pushfstring(L, "%s*", stem),
                                  .separator = separator,
                                  .mark = mark,
                                  .quote = name != word ? *word : '\0',
                                  .dotted = dotted,
                                  .candidates = candidates};
    lua_getfield(L, package_index, "path");
    lua_getfield(L, package_index, "cpath");
    const char *lua_path = lua_tostring(L, -2);
    const char *c_path = lua_tostring(L, -1);
    const char *rest = lua_pushfstring(L, "%s%s%s%s", lua_path != nullptr ? lua_path : "", between,
                                       c_path != nullptr ? c_path : "", between);
    if (*between == '\0')
        return;
    const int top = lua_gettop(L);
    for (const char *end = strstr(rest, between); end != nullptr; end = strstr(rest, between)) {
        lua_pushlstring(L, rest, static_cast<size_t>(end - rest));
        search_template(L, &search);
        lua_settop(L, top);
        rest = end + strlen(between);
    }
}

} // namespace

void lua_complete_modules(lua_State *L, const char *word, json_t *candidates)
{
    luaL_checkstack(L, 2 * LUA_MINSTACK, nullptr);
    lua_settop(L, 0);
    if (!push_package(L))
        return;
    lua_newtable(L);
    const bool quoted = *word == '"' || *word == '\'';
    if (*word != '\0' && word[strlen(word) - 1] != '.' && !quoted && load_module(L, word))
        return;
    lua_settop(L, seen_index);
    const char *name = quoted ? word + 1 : word;
    add_preloaded(L, word, name, candidates);
    lua_settop(L, seen_index);
    add_found(L, word, name, candidates);
}
