// A session of Lua mode as a script.
#pragma once

#include <string>
#include <vector>

struct lua_State;

/// The statements of a session, to be written as a script that does what they did. Main thread only.
class lua_recording
{
public:
    void clear() { pieces_.clear(); }
    /// Adds a complete piece that ran. `first` is the number in "_" of the first value that it showed, of `shown`.
    void add(lua_State *L, const std::string &text, unsigned first, unsigned shown);
    /// What only looked at values shows them there. Where a piece uses "_", the script fills that table as the session
    /// did.
    std::string script() const;

private:
    struct piece {
        std::string statement; ///< with its line feed
        std::string values;    ///< what it shows, an expression list; empty when it is none
        bool looks;            ///< it does nothing but show them
        unsigned first;
    };

    std::vector<piece> pieces_;
};
