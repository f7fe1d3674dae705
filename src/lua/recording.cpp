#include "lua/recording.h"

#include <algorithm>
#include <cctype>
#include <string_view>

#include <lua.hpp>

namespace
{

/// The table of results, which numbers and keeps what it is called with. It has a name of its own as well: a statement
/// may make something else of "_".
std::string results_table(const std::string &name)
{
    return "local " + name +
           " = setmetatable({}, {__call = function(t, n, ...)\n"
           "  for i = 1, select('#', ...) do t[n + i - 1] = (select(i, ...)) end\n"
           "  return ...\n"
           "end})\n";
}

bool compiles(lua_State *L, const std::string &text)
{
    const bool good = luaL_loadbufferx(L, text.data(), text.size(), "stdin", "t") == LUA_OK;
    lua_pop(L, 1);
    return good;
}

/// An expression for what the piece returns. Like the session, and unlike a script, it has no arguments in "...".
std::string called(lua_State *L, const std::string &piece)
{
    const std::string body = "\n" + piece + "\nend)()";
    return compiles(L, "return (function()" + body) ? "(function()" + body : "(function(...)" + body;
}

bool uses_arguments(lua_State *L, const std::string &piece)
{
    return !compiles(L, "local function f()\n" + piece + "\nend");
}

/// The expression list that `text` is, as it can stand between parentheses; empty when it is none, or has no values.
std::string values_of(lua_State *L, const std::string &text)
{
    if (!compiles(L, "return " + text))
        return "";
    const std::string values = text.substr(0, text.find_last_not_of(" \t;") + 1);
    for (const char *end : {"", "\n"}) { // a comment ends it
        if (compiles(L, "dm.show(nil, " + values + end + ")") && !uses_arguments(L, "return " + text))
            return values + end;
    }
    const bool nothing = compiles(L, "dm.show(" + values + "\n)") && !compiles(L, "dm.show(nil, " + values + "\n)");
    return nothing ? "" : called(L, "return " + text);
}

/// Where the name or keyword stands next in the text, from `at` on, even in one of its strings.
size_t find_word(const std::string &text, std::string_view word, size_t at = 0)
{
    const auto in_name = [&text](size_t place) {
        return place < text.size() && (isalnum(static_cast<unsigned char>(text[place])) != 0 || text[place] == '_');
    };
    for (at = text.find(word, at); at != std::string::npos; at = text.find(word, at + 1)) {
        if (!in_name(at + word.size()) && (at == 0 || !in_name(at - 1)))
            break;
    }
    return at;
}

bool has_word(const std::string &text, std::string_view word)
{
    return find_word(text, word) != std::string::npos;
}

/// Whether the statement may make something else of "_", and not only look into it. The session makes it the table of
/// results again.
bool may_set_results(const std::string &text)
{
    size_t at = find_word(text, "_");
    while (at != std::string::npos && text.substr(at + 1, 1) == "[")
        at = find_word(text, "_", at + 1);
    return at != std::string::npos;
}

/// Whether the statement would end the script that it stands in, and not only itself.
bool may_return(lua_State *L, const std::string &text, bool has_returned)
{
    if (!compiles(L, text + "\ndo end")) // nothing may follow a return
        return true;
    return has_word(text, "return") && (has_returned || !has_word(text, "function"));
}

/// The statement as it means the same among others: what is local to it, and its labels, end with it.
std::string standing_alone(lua_State *L, const std::string &text)
{
    if (uses_arguments(L, text))
        return ";" + called(L, text);
    const bool has_locals = !compiles(L, "goto behind_it\n" + text + "\n::behind_it:: dm = dm");
    const bool has_labels = !compiles(L, text + "\n;" + text);
    if (has_locals || has_labels)
        return "do\n" + text + "\nend";
    return (text.front() == '(' ? ";" : "") + text;
}

} // namespace

void lua_recording::add(lua_State *L, const std::string &text, unsigned first, unsigned shown)
{
    piece made{"", values_of(L, text), false, first};
    if (!made.values.empty()) {
        made.looks = !compiles(L, text);
    } else if (may_return(L, text, shown > 0)) {
        made.values = called(L, text);
        made.looks = true;
    }
    made.statement = (made.looks ? "dm.show(" + made.values + ")" : standing_alone(L, text)) + "\n";
    pieces_.push_back(std::move(made));
}

std::string lua_recording::script() const
{
    const auto uses = [this](const std::string &name) {
        return std::any_of(pieces_.begin(), pieces_.end(),
                           [&name](const piece &each) { return has_word(each.statement, name); });
    };
    std::string results = "results";
    while (uses(results))
        results += '_';
    const bool keeps = uses("_");
    const std::string restored = "_ = " + results + "\n";
    std::string text = keeps ? results_table(results) + restored : "";
    for (const piece &each : pieces_) {
        if (!keeps || each.values.empty()) {
            text += each.statement;
        } else {
            const std::string kept = results + "(" + std::to_string(each.first) + ", " + each.values + ")";
            text += each.looks ? "dm.show(" + kept + ")\n" : kept + "\n";
        }
        if (may_set_results(each.statement))
            text += restored;
    }
    return text;
}
