#include "lua/printer.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>

#include <lua.hpp>

#include "base/utf8.h"
#include "base/visible.h"
#include "platform/ve_lua.h"
#include "platform/ve_out.h"

bool luap_colours = true;

namespace
{

constexpr long line_width = 80;
/// Bytes of a text passed between two questions whether Ctrl-C was pressed.
constexpr size_t stride = size_t{1} << 20;
/// Tables open at the same time: each one indents by two columns or more, and beyond four fifths of the width none is
/// opened.
constexpr unsigned open_max = line_width * 8 / 10 / 2 + 1;

struct open_table {
    const void *identity;
    int index; ///< on the Lua stack
};

bool is_printable(unsigned char byte)
{
    return byte >= ' ' && byte < 127;
}

/// The letter of a two-character escape, or 0.
char escape_letter(unsigned char byte)
{
    static constexpr char letters[] = "abtnvfr"; // 7 to 13
    if (byte >= '\a' && byte <= '\r')
        return letters[byte - '\a'];
    return byte == '"' || byte == '\\' ? static_cast<char>(byte) : '\0';
}

bool has_metatable(lua_State *L, int index)
{
    if (!lua_getmetatable(L, index))
        return false;
    lua_pop(L, 1);
    return true;
}

bool is_identifier(const char *key, size_t count)
{
    for (size_t i = 0; i < count; ++i) {
        const char c = key[i];
        if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || (i > 0 && c >= '0' && c <= '9')))
            return false;
    }
    return true;
}

/// The description under way. One object for all: an error raised from here leaves without running destructors, so that
/// nothing is kept but plain memory.
class printer
{
public:
    void begin(bool plain)
    {
        plain_ = plain;
        length_ = 0;
        column_ = 0;
        indent_ = 0;
        opened_count_ = 0;
    }
    /// Appends the text of a value.
    void describe(lua_State *L, int index)
    {
        L_ = L;
        describe_value(index);
    }
    const char *text() const { return text_; }
    size_t size() const { return held_; }
    void release()
    {
        free(text_);
        text_ = nullptr;
        capacity_ = 0;
        held_ = 0;
    }

private:
    const char *bold() const { return luap_colours && !plain_ ? "\033[1m" : ""; }
    const char *unbold() const { return luap_colours && !plain_ ? "\033[22m" : ""; }

    /// Characters of a text up to its first NUL; an escape sequence, from ESC to the next "m", counts nothing.
    long visible_length(const char *piece)
    {
        long count = 0;
        for (const char *at = piece; *at != '\0'; ++at) {
            if (*at != '\033') {
                if (++count % long{stride} == 0)
                    ve_lua_check_interrupt(L_);
                continue;
            }
            at = strchr(at, 'm');
            if (at == nullptr)
                break;
        }
        return count;
    }

    /// Room for `count` more bytes and a NUL.
    void reserve(size_t count)
    {
        if (length_ + count < capacity_)
            return;
        const size_t wanted = std::max(length_ + count + 1, capacity_ * 2);
        auto *grown = static_cast<char *>(realloc(text_, wanted));
        if (grown == nullptr)
            luaL_error(L_, "not enough memory");
        text_ = grown;
        capacity_ = wanted;
    }

    void terminate()
    {
        text_[length_] = '\0';
        held_ = length_;
    }

    void newline()
    {
        const auto blanks = static_cast<size_t>(indent_);
        reserve(blanks + 1);
        text_[length_] = '\n';
        memset(text_ + length_ + 1, ' ', blanks);
        length_ += blanks + 1;
        terminate();
        column_ = indent_;
    }

    /// Bytes as they are, without the wrap test.
    void put(const char *bytes, size_t count, long visible)
    {
        reserve(count);
        for (; count > stride; count -= stride, bytes += stride, length_ += stride) {
            memcpy(text_ + length_, bytes, stride);
            ve_lua_check_interrupt(L_);
        }
        memcpy(text_ + length_, bytes, count);
        length_ += count;
        column_ += visible;
        terminate();
    }

    template <size_t size> void put_literal(const char (&literal)[size]) { put(literal, size - 1, size - 1); }

    /// A piece of known visible length; it moves to a new line when it does not fit here but would fit there.
    void append_visible(const char *piece, size_t count, long visible)
    {
        if (column_ + visible > line_width && indent_ + visible <= line_width)
            newline();
        put(piece, count, visible);
    }

    void append(const char *piece, size_t count) { append_visible(piece, count, visible_length(piece)); }

    void append_kind(const char *kind, const void *identity)
    {
        char piece[64];
        const int count = snprintf(piece, sizeof piece, "<%s%s:%s %p>", bold(), kind, unbold(), identity);
        append(piece, static_cast<size_t>(count));
    }

    void append_word(const char *word)
    {
        char piece[32];
        const int count = snprintf(piece, sizeof piece, "%s%s%s", bold(), word, unbold());
        append(piece, static_cast<size_t>(count));
    }

    // --- strings ---

    /// How much a string speaks for the long form: its length, more for every line break and tab, less for what the
    /// long form would show as rubbish.
    int64_t long_form_score(const unsigned char *bytes, size_t count)
    {
        auto score = static_cast<int64_t>(count);
        for (size_t i = 0; i < count; ++i) {
            const unsigned char byte = bytes[i];
            if (i % stride == 0)
                ve_lua_check_interrupt(L_);
            if (is_printable(byte))
                continue;
            score += (byte >= '\t' && byte <= '\v') || byte == '\r' ? line_width / 2 : -(line_width / 4);
        }
        return score;
    }

    /// The level of long brackets that no closing bracket inside the string can end.
    size_t bracket_level(const char *bytes, size_t count)
    {
        size_t level = 0;
        size_t equals = 0;
        bool in_bracket = false;
        for (size_t i = 0; i < count; ++i) {
            if (i % stride == 0)
                ve_lua_check_interrupt(L_);
            if (bytes[i] == ']') {
                // A second bracket does not begin a new count: in a chain the counts add up.
                if (in_bracket)
                    level = std::max(level, equals + 1);
                else
                    equals = 0;
                in_bracket = true;
            } else if (bytes[i] == '=' && in_bracket) {
                ++equals;
            } else {
                in_bracket = false;
            }
        }
        return level;
    }

    void describe_quoted(const char *bytes, size_t count)
    {
        put_literal("\"");
        size_t i = 0;
        while (i < count) {
            size_t plain = i;
            const size_t limit = std::min(count, i + stride);
            while (plain < limit && is_printable(static_cast<unsigned char>(bytes[plain])) && bytes[plain] != '"' &&
                   bytes[plain] != '\\')
                ++plain;
            if (plain > i) {
                put(bytes + i, plain - i, static_cast<long>(plain - i));
                i = plain;
                ve_lua_check_interrupt(L_);
                continue;
            }
            const auto byte = static_cast<unsigned char>(bytes[i++]);
            if (const char letter = escape_letter(byte)) {
                const char escape[] = {'\\', letter};
                put(escape, 2, 2);
            } else {
                const char escape[] = {'\\', static_cast<char>('0' + byte / 100),
                                       static_cast<char>('0' + byte / 10 % 10), static_cast<char>('0' + byte % 10)};
                append_visible(escape, 4, 4);
            }
        }
        put_literal("\"");
    }

    void put_equals(size_t level)
    {
        for (size_t i = 0; i < level; ++i)
            put_literal("=");
    }

    void describe_long(const char *bytes, size_t count)
    {
        const size_t level = bracket_level(bytes, count);
        put_literal("[");
        put_equals(level);
        put_literal("[\n");
        append(bytes, count);
        put_literal("]");
        put_equals(level);
        put_literal("]");
    }

    /// Whether a terminal can be shown the text as it is.
    static bool is_harmless(std::string_view text)
    {
        while (!text.empty()) {
            const utf8_step step = utf8_first(text);
            if (!step.well_formed || (!is_visible(step.code) && step.code != '\n' && step.code != '\t'))
                return false;
            text.remove_prefix(step.size);
        }
        return true;
    }

    void describe_string(int index)
    {
        size_t count = 0;
        const char *bytes = lua_tolstring(L_, index, &count);
        if (long_form_score(reinterpret_cast<const unsigned char *>(bytes), count) <= line_width ||
            (ve_out_is_terminal() && !is_harmless({bytes, count})))
            describe_quoted(bytes, count);
        else
            describe_long(bytes, count);
    }

    // --- numbers ---

    void describe_number(int index)
    {
        if (!lua_isinteger(L_, index)) {
            size_t count = 0;
            lua_pushvalue(L_, index); // a conversion in place would spoil a key under traversal
            const char *digits = lua_tolstring(L_, -1, &count);
            append(digits, count);
            lua_pop(L_, 1);
            return;
        }
        char digits[24];
        char *begin = digits + sizeof digits;
        const lua_Integer value = lua_tointeger(L_, index);
        auto rest = static_cast<lua_Unsigned>(value);
        if (value < 0)
            rest = 0 - rest;
        do
            *--begin = static_cast<char>('0' + rest % 10);
        while ((rest /= 10) != 0);
        if (value < 0)
            *--begin = '-';
        const auto count = static_cast<size_t>(digits + sizeof digits - begin);
        append_visible(begin, count, static_cast<long>(count));
    }

    // --- tables ---

    /// How many levels up the table at `index` is being printed already: 1 the innermost table, 0 not at all.
    int enclosing_level(int index)
    {
        const void *identity = lua_topointer(L_, index);
        const bool may_equal = has_metatable(L_, index);
        for (unsigned up = 1; up <= opened_count_; ++up) {
            const open_table &entry = opened_[opened_count_ - up];
            if (entry.identity == identity)
                return static_cast<int>(up);
            // Only an __eq of either table makes two of them equal.
            if ((may_equal || has_metatable(L_, entry.index)) && lua_compare(L_, entry.index, index, LUA_OPEQ))
                return static_cast<int>(up);
        }
        return 0;
    }

    void describe_key(int index)
    {
        if (lua_type(L_, index) == LUA_TSTRING) {
            size_t count = 0;
            const char *key = lua_tolstring(L_, index, &count);
            if (is_identifier(key, count)) {
                // Three pieces even without colours: behind a key that reaches over the width the line breaks.
                append(bold(), strlen(bold()));
                append_visible(key, count, static_cast<long>(count));
                append(unbold(), strlen(unbold()));
                return;
            }
        }
        put_literal("[");
        describe_value(index);
        put_literal("]");
    }

    /// Elements 1 to `count`, __index respected. Returns whether one of them is a table.
    bool describe_array_part(int table, lua_Integer count)
    {
        bool has_tables = false;
        bool line_begun = false;
        for (lua_Integer i = 1; i <= count; ++i) {
            const bool is_table = lua_geti(L_, table, i) == LUA_TTABLE;
            if (is_table && !line_begun)
                newline();
            describe_value(-1);
            lua_pop(L_, 1);
            put_literal(", ");
            line_begun = is_table && i < count;
            if (line_begun)
                newline();
            has_tables |= is_table;
        }
        return has_tables;
    }

    /// The entries that the array part did not show. Returns whether there are any.
    bool describe_hash_part(int table, lua_Integer array_count)
    {
        bool any = false;
        lua_pushnil(L_);
        while (lua_next(L_, table) != 0) {
            if (lua_isinteger(L_, -2)) {
                const lua_Integer key = lua_tointeger(L_, -2);
                if (key >= 1 && key <= array_count) {
                    lua_pop(L_, 1);
                    continue;
                }
            }
            any = true;
            newline();
            describe_key(lua_absindex(L_, -2));
            put_literal(" = ");
            describe_value(-1);
            put_literal(",");
            lua_pop(L_, 1);
        }
        return any;
    }

    void describe_table(int index)
    {
        char marker[64];
        if (indent_ > line_width * 8 / 10) {
            const int count = snprintf(marker, sizeof marker, "{ %s...%s }", bold(), unbold());
            append(marker, static_cast<size_t>(count));
            return;
        }
        if (const int up = enclosing_level(index)) {
            const int count = snprintf(marker, sizeof marker, "{ %s[%d]...%s }", bold(), -up, unbold());
            append(marker, static_cast<size_t>(count));
            return;
        }
        opened_[opened_count_++] = {lua_topointer(L_, index), index};
        put_literal("{ ");
        const long outer_indent = indent_;
        indent_ = column_;
        const auto array_count = static_cast<lua_Integer>(lua_rawlen(L_, index));
        bool many_lines = describe_array_part(index, array_count);
        many_lines |= describe_hash_part(index, array_count);
        --opened_count_;
        indent_ = outer_indent;
        if (many_lines) {
            newline();
            put_literal("}");
        } else {
            put_literal(" }");
        }
    }

    /// True when the value's metatable has a "__tostring", which then gave the text.
    bool describe_by_metafield(int index)
    {
        if (luaL_getmetafield(L_, index, "__tostring") == LUA_TNIL)
            return false;
        lua_pushvalue(L_, index);
        lua_pcall(L_, 1, 1, 0);
        ve_lua_check_interrupt(L_);
        size_t count = 0;
        if (const char *result = lua_tolstring(L_, -1, &count))
            append(result, count);
        lua_pop(L_, 1);
        return true;
    }

    void describe_value(int index)
    {
        index = lua_absindex(L_, index);
        ve_lua_check_interrupt(L_);
        luaL_checkstack(L_, LUA_MINSTACK, nullptr);
        if (describe_by_metafield(index))
            return;
        switch (lua_type(L_, index)) {
        case LUA_TNIL:
            append_word("nil");
            break;
        case LUA_TBOOLEAN:
            append_word(lua_toboolean(L_, index) ? "true" : "false");
            break;
        case LUA_TNUMBER:
            describe_number(index);
            break;
        case LUA_TSTRING:
            describe_string(index);
            break;
        case LUA_TTABLE:
            describe_table(index);
            break;
        case LUA_TFUNCTION:
            append_kind("function", lua_topointer(L_, index));
            break;
        case LUA_TUSERDATA:
            append_kind("userdata", lua_topointer(L_, index));
            break;
        case LUA_TTHREAD:
            append_kind("thread", lua_topointer(L_, index));
            break;
        default: // a light userdata has no text of its own
            break;
        }
    }

    bool plain_ = false;     // no colours, whatever holds elsewhere
    lua_State *L_ = nullptr; // borrowed while a description is under way
    char *text_ = nullptr;
    size_t length_ = 0;   // of the description under way
    size_t capacity_ = 0; // of the buffer
    size_t held_ = 0;     // of the text: `length_`, or the description before while this one is empty
    long column_ = 0;     // visible length of the current line
    long indent_ = 0;     // where continuation lines start
    open_table opened_[open_max];
    unsigned opened_count_ = 0;
};

printer description;

constexpr char printer_type[] = "kest.printer";

int release_printer(lua_State *L)
{
    static_cast<printer *>(lua_touserdata(L, 1))->release();
    return 0;
}

/// Pushes a printer that Lua owns.
printer *push_printer(lua_State *L)
{
    auto *made = new (lua_newuserdata(L, sizeof(printer))) printer;
    if (luaL_newmetatable(L, printer_type) != 0) {
        lua_pushcfunction(L, release_printer);
        lua_setfield(L, -2, "__gc");
    }
    lua_setmetatable(L, -2);
    return made;
}

} // namespace

void luap_describe_value(lua_State *L, int index)
{
    description.describe(L, index);
}

const char *luap_describe(lua_State *L, int index)
{
    description.begin(false);
    const bool colours = luap_colours;
    luap_colours = false;
    luap_describe_value(L, index);
    luap_colours = colours;
    return description.text();
}

void luap_push_description(lua_State *L, int index)
{
    index = lua_absindex(L, index);
    printer *own = push_printer(L);
    own->begin(true);
    own->describe(L, index);
    lua_pushlstring(L, own->text() != nullptr ? own->text() : "", own->size());
    own->release();
    lua_remove(L, -2);
}

const char *luap_describe_text()
{
    return description.text();
}

size_t luap_description_length()
{
    return description.size();
}
