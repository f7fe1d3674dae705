#include "lua/recording.h"

#include <algorithm>
#include <cctype>

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

/// The expression list that `text` is, as it can stand between parentheses; empty when it is none.
std::string values_of(lua_State *L, const std::string &text)
{
    std::string values = text.substr(0, text.find_last_not_of(" \t;") + 1);
    if (compiles(L, "dm.show(" + values + ")"))
        return values;
    return compiles(L, "dm.show(" + values + "\n)") ? values + "\n" : ""; // a comment ends it
}

bool uses_results(const std::string &text)
{
    const auto in_name = [&text](size_t at) {
        return at < text.size() && (isalnum(static_cast<unsigned char>(text[at])) != 0 || text[at] == '_');
    };
    for (size_t at = text.find('_'); at != std::string::npos; at = text.find('_', at + 1)) {
        if (!in_name(at + 1) && (at == 0 || !in_name(at - 1)))
            return true;
    }
    return false;
}

} // namespace

void lua_recording::add(lua_State *L, const std::string &text, unsigned first)
{
    piece made{"", values_of(L, text), false, first};
    // In a script something follows, which nothing may that follows a return.
    if (compiles(L, text + "\ndo end")) {
        made.statement = (text.front() == '(' ? ";" : "") + text + "\n";
    } else {
        if (made.values.empty())
            made.values = "(function()\n" + text + "\nend)()";
        made.looks = true;
        made.statement = "dm.show(" + made.values + ")\n";
    }
    pieces_.push_back(std::move(made));
}

std::string lua_recording::script() const
{
    const auto uses = [](const piece &each) { return uses_results(each.statement); };
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
