#include "lua/complete.h"

#include <cstring>
#include <iterator>
#include <string>

#include <lua.hpp>

#include "event/request.h"
#include "platform/ve_lua.h"
#include "platform/ve_rl.h"

namespace
{

constexpr int evaluation_limit_ms = 1000;
constexpr char delimiters[] = " \t\n`@$><=;|&{(";

// "goto" is not among them.
constexpr const char *reserved_words[] = {
    "and",   "break", "do",  "else", "elseif", "end",    "false", "for",  "function", "if",    "in",
    "local", "nil",   "not", "or",   "repeat", "return", "then",  "true", "until",    "while",
};
static_assert(std::size(reserved_words) == 21);

lua_State *state = nullptr;

/// The word that ends at `cursor`; `*start` receives where it begins, the cursor itself when there is none.
std::string word_at(const std::string &line, size_t cursor, size_t *start)
{
    *start = cursor;
    while (*start > 0 && strchr(delimiters, line[*start - 1]) == nullptr)
        --*start;
    return line.substr(*start, cursor - *start);
}

void add_reserved_words(const char *word, json_t *candidates)
{
    const size_t size = strlen(word);
    for (const char *reserved : reserved_words) {
        if (strncmp(reserved, word, size) == 0)
            json_array_append_new(candidates, json_string(reserved));
    }
}

struct completion {
    const char *word;
    json_t *candidates;
};

/// Lua functions of a completion: what each found before it raised stays.
int complete_modules(lua_State *L)
{
    const auto *request = static_cast<const completion *>(lua_touserdata(L, 1));
    lua_complete_modules(L, request->word, request->candidates);
    return 0;
}

int complete_fields(lua_State *L)
{
    const auto *request = static_cast<const completion *>(lua_touserdata(L, 1));
    lua_complete_fields(L, request->word, lua_field_source::object, request->candidates);
    lua_complete_fields(L, request->word, lua_field_source::metatable, request->candidates);
    return 0;
}

void run(lua_CFunction function, completion *request)
{
    const int top = lua_gettop(state);
    lua_pushcfunction(state, function);
    lua_pushlightuserdata(state, request);
    lua_pcall(state, 1, 0, 0);
    lua_settop(state, top);
}

} // namespace

void lua_complete_set_state(lua_State *L)
{
    state = L;
}

void lua_autocomplete(const char *line, size_t cursor, json_t *candidates)
{
    if (state == nullptr || lua_checkstack(state, LUA_MINSTACK) == 0)
        return;
    const std::string text(line);
    size_t start = 0;
    const std::string word = word_at(text, cursor < text.size() ? cursor : text.size(), &start);
    ve_rl_set_completion_start(start);
    ve_rl_set_completion_verbatim();
    add_reserved_words(word.c_str(), candidates);

    const bool reconnecting = msg_allow_reconnect(false);
    completion request = {word.c_str(), candidates};
    ve_lua_limit_time(state, evaluation_limit_ms);
    run(complete_modules, &request);
    run(complete_fields, &request);
    ve_lua_limit_time(state, -1);
    msg_allow_reconnect(reconnecting);
}
