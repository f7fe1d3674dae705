#include "lua/recording.h"

#include <algorithm>
#include <cctype>
#include <string_view>

#include <lua.hpp>

namespace
{

/// The table of results, which numbers and keeps what it is called with.
constexpr char results_table[] = "_ = setmetatable({}, {__call = function(t, n, ...)\n"
                                 "  for i = 1, select('#', ...) do t[n + i - 1] = (select(i, ...)) end\n"
                                 "  return ...\n"
                                 "end})\n";

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

/// Whether the name or keyword stands anywhere in the text, even in one of its strings.
bool has_word(const std::string &text, std::string_view word)
{
    const auto in_name = [&text](size_t at) {
        return at < text.size() && (isalnum(static_cast<unsigned char>(text[at])) != 0 || text[at] == '_');
    };
    for (size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1)) {
        if (!in_name(at + word.size()) && (at == 0 || !in_name(at - 1)))
            return true;
    }
    return false;
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
    const auto uses = [](const piece &each) { return has_word(each.statement, "_"); };
    const bool keeps = std::any_of(pieces_.begin(), pieces_.end(), uses);
    std::string text = keeps ? results_table : "";
    for (const piece &each : pieces_) {
        if (!keeps || each.values.empty()) {
            text += each.statement;
            continue;
        }
        const std::string kept = "_(" + std::to_string(each.first) + ", " + each.values + ")";
        text += each.looks ? "dm.show(" + kept + ")\n" : kept + "\n";
    }
    return text;
}
