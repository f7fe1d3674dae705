#include "lua/printer.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <lua.hpp>

#include "platform/ve_lua.h"

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

// The buffer is plain memory, not a string: an error raised from here leaves without running destructors.
char *text = nullptr;
size_t length = 0;   // of the description under way
size_t capacity = 0; // of the buffer
size_t held = 0;     // bytes of the buffer that are a text: `length`, or the description before while this one is empty
long width = line_width;
long column = 0; // visible length of the current line
long indent = 0; // where continuation lines start
open_table opened[open_max];
unsigned opened_count = 0;

const char *bold()
{
    return luap_colours ? "\033[1m" : "";
}

const char *unbold()
{
    return luap_colours ? "\033[22m" : "";
}

/// Characters of a text up to its first NUL; an escape sequence, from ESC to the next "m", counts nothing.
long visible_length(lua_State *L, const char *piece)
{
    long count = 0;
    for (const char *at = piece; *at != '\0'; ++at) {
        if (*at != '\033') {
            if (++count % long{stride} == 0)
                ve_lua_check_interrupt(L);
            continue;
        }
        at = strchr(at, 'm');
        if (at == nullptr)
            break;
    }
    return count;
}

/// Room for `count` more bytes and a NUL.
void reserve(lua_State *L, size_t count)
{
    if (length + count < capacity)
        return;
    const size_t wanted = std::max(length + count + 1, capacity * 2);
    auto *grown = static_cast<char *>(realloc(text, wanted));
    if (grown == nullptr)
        luaL_error(L, "not enough memory");
    text = grown;
    capacity = wanted;
}

void terminate()
{
    text[length] = '\0';
    held = length;
}

void newline(lua_State *L)
{
    const auto blanks = static_cast<size_t>(indent);
    reserve(L, blanks + 1);
    text[length] = '\n';
    memset(text + length + 1, ' ', blanks);
    length += blanks + 1;
    terminate();
    column = indent;
}

/// Bytes as they are, without the wrap test.
void put(lua_State *L, const char *bytes, size_t count, long visible)
{
    reserve(L, count);
    for (; count > stride; count -= stride, bytes += stride, length += stride) {
        memcpy(text + length, bytes, stride);
        ve_lua_check_interrupt(L);
    }
    memcpy(text + length, bytes, count);
    length += count;
    column += visible;
    terminate();
}

template <size_t size> void put_literal(lua_State *L, const char (&literal)[size])
{
    put(L, literal, size - 1, size - 1);
}

/// A piece of known visible length; it moves to a new line when it does not fit here but would fit there.
void append_visible(lua_State *L, const char *piece, size_t count, long visible)
{
    if (column + visible > width && indent + visible <= width)
        newline(L);
    put(L, piece, count, visible);
}

void append(lua_State *L, const char *piece, size_t count)
{
    append_visible(L, piece, count, visible_length(L, piece));
}

void append_kind(lua_State *L, const char *kind, const void *identity)
{
    char piece[64];
    const int count = snprintf(piece, sizeof piece, "<%s%s:%s %p>", bold(), kind, unbold(), identity);
    append(L, piece, static_cast<size_t>(count));
}

void append_word(lua_State *L, const char *word)
{
    char piece[32];
    const int count = snprintf(piece, sizeof piece, "%s%s%s", bold(), word, unbold());
    append(L, piece, static_cast<size_t>(count));
}

// --- strings ---

bool is_printable(unsigned char byte)
{
    return byte >= ' ' && byte < 127;
}

/// How much a string speaks for the long form: its length, more for every line break and tab, less for what the long
/// form would show as rubbish.
int64_t long_form_score(lua_State *L, const unsigned char *bytes, size_t count)
{
    auto score = static_cast<int64_t>(count);
    for (size_t i = 0; i < count; ++i) {
        const unsigned char byte = bytes[i];
        if (i % stride == 0)
            ve_lua_check_interrupt(L);
        if (is_printable(byte))
            continue;
        score += (byte >= '\t' && byte <= '\v') || byte == '\r' ? width / 2 : -(width / 4);
    }
    return score;
}

/// The level of long brackets that no closing bracket inside the string can end.
size_t bracket_level(lua_State *L, const char *bytes, size_t count)
{
    size_t level = 0;
    size_t equals = 0;
    bool in_bracket = false;
    for (size_t i = 0; i < count; ++i) {
        if (i % stride == 0)
            ve_lua_check_interrupt(L);
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

/// The letter of a two-character escape, or 0.
char escape_letter(unsigned char byte)
{
    static constexpr char letters[] = "abtnvfr"; // 7 to 13
    if (byte >= '\a' && byte <= '\r')
        return letters[byte - '\a'];
    return byte == '"' || byte == '\\' ? static_cast<char>(byte) : '\0';
}

void describe_quoted(lua_State *L, const char *bytes, size_t count)
{
    put_literal(L, "\"");
    size_t i = 0;
    while (i < count) {
        size_t plain = i;
        const size_t limit = std::min(count, i + stride);
        while (plain < limit && is_printable(static_cast<unsigned char>(bytes[plain])) && bytes[plain] != '"' &&
               bytes[plain] != '\\')
            ++plain;
        if (plain > i) {
            put(L, bytes + i, plain - i, static_cast<long>(plain - i));
            i = plain;
            ve_lua_check_interrupt(L);
            continue;
        }
        const auto byte = static_cast<unsigned char>(bytes[i++]);
        if (const char letter = escape_letter(byte)) {
            const char escape[] = {'\\', letter};
            put(L, escape, 2, 2);
        } else {
            const char escape[] = {'\\', static_cast<char>('0' + byte / 100), static_cast<char>('0' + byte / 10 % 10),
                                   static_cast<char>('0' + byte % 10)};
            append_visible(L, escape, 4, 4);
        }
    }
    put_literal(L, "\"");
}

void put_equals(lua_State *L, size_t level)
{
    for (size_t i = 0; i < level; ++i)
        put_literal(L, "=");
}

void describe_long(lua_State *L, const char *bytes, size_t count)
{
    const size_t level = bracket_level(L, bytes, count);
    put_literal(L, "[");
    put_equals(L, level);
    put_literal(L, "[\n");
    append(L, bytes, count);
    put_literal(L, "]");
    put_equals(L, level);
    put_literal(L, "]");
}

void describe_string(lua_State *L, int index)
{
    size_t count = 0;
    const char *bytes = lua_tolstring(L, index, &count);
    if (long_form_score(L, reinterpret_cast<const unsigned char *>(bytes), count) <= width)
        describe_quoted(L, bytes, count);
    else
        describe_long(L, bytes, count);
}

// --- numbers ---

void describe_number(lua_State *L, int index)
{
    if (!lua_isinteger(L, index)) {
        size_t count = 0;
        lua_pushvalue(L, index); // a conversion in place would spoil a key under traversal
        const char *digits = lua_tolstring(L, -1, &count);
        append(L, digits, count);
        lua_pop(L, 1);
        return;
    }
    char digits[24];
    char *begin = digits + sizeof digits;
    const lua_Integer value = lua_tointeger(L, index);
    auto rest = static_cast<lua_Unsigned>(value);
    if (value < 0)
        rest = 0 - rest;
    do
        *--begin = static_cast<char>('0' + rest % 10);
    while ((rest /= 10) != 0);
    if (value < 0)
        *--begin = '-';
    const auto count = static_cast<size_t>(digits + sizeof digits - begin);
    append_visible(L, begin, count, static_cast<long>(count));
}

// --- tables ---

bool has_metatable(lua_State *L, int index)
{
    if (!lua_getmetatable(L, index))
        return false;
    lua_pop(L, 1);
    return true;
}

/// How many levels up the table at `index` is being printed already: 1 the innermost table, 0 not at all.
int enclosing_level(lua_State *L, int index)
{
    const void *identity = lua_topointer(L, index);
    const bool may_equal = has_metatable(L, index);
    for (unsigned up = 1; up <= opened_count; ++up) {
        const open_table &entry = opened[opened_count - up];
        if (entry.identity == identity)
            return static_cast<int>(up);
        // Only an __eq of either table makes two of them equal.
        if ((may_equal || has_metatable(L, entry.index)) && lua_compare(L, entry.index, index, LUA_OPEQ))
            return static_cast<int>(up);
    }
    return 0;
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

void describe_key(lua_State *L, int index)
{
    if (lua_type(L, index) == LUA_TSTRING) {
        size_t count = 0;
        const char *key = lua_tolstring(L, index, &count);
        if (is_identifier(key, count)) {
            // Three pieces even without colours: behind a key that reaches over the width the line breaks.
            append(L, bold(), strlen(bold()));
            append_visible(L, key, count, static_cast<long>(count));
            append(L, unbold(), strlen(unbold()));
            return;
        }
    }
    put_literal(L, "[");
    luap_describe_value(L, index);
    put_literal(L, "]");
}

/// Elements 1 to `count`, __index respected. Returns whether one of them is a table.
bool describe_array_part(lua_State *L, int table, lua_Integer count)
{
    bool has_tables = false;
    bool line_begun = false;
    for (lua_Integer i = 1; i <= count; ++i) {
        const bool is_table = lua_geti(L, table, i) == LUA_TTABLE;
        if (is_table && !line_begun)
            newline(L);
        luap_describe_value(L, -1);
        lua_pop(L, 1);
        put_literal(L, ", ");
        line_begun = is_table && i < count;
        if (line_begun)
            newline(L);
        has_tables |= is_table;
    }
    return has_tables;
}

/// The entries that the array part did not show. Returns whether there are any.
bool describe_hash_part(lua_State *L, int table, lua_Integer array_count)
{
    bool any = false;
    lua_pushnil(L);
    while (lua_next(L, table) != 0) {
        if (lua_isinteger(L, -2)) {
            const lua_Integer key = lua_tointeger(L, -2);
            if (key >= 1 && key <= array_count) {
                lua_pop(L, 1);
                continue;
            }
        }
        any = true;
        newline(L);
        describe_key(L, lua_absindex(L, -2));
        put_literal(L, " = ");
        luap_describe_value(L, -1);
        put_literal(L, ",");
        lua_pop(L, 1);
    }
    return any;
}

void describe_table(lua_State *L, int index)
{
    char marker[64];
    if (indent > width * 8 / 10) {
        const int count = snprintf(marker, sizeof marker, "{ %s...%s }", bold(), unbold());
        append(L, marker, static_cast<size_t>(count));
        return;
    }
    if (const int up = enclosing_level(L, index)) {
        const int count = snprintf(marker, sizeof marker, "{ %s[%d]...%s }", bold(), -up, unbold());
        append(L, marker, static_cast<size_t>(count));
        return;
    }
    opened[opened_count++] = {lua_topointer(L, index), index};
    put_literal(L, "{ ");
    const long outer_indent = indent;
    indent = column;
    const auto array_count = static_cast<lua_Integer>(lua_rawlen(L, index));
    bool many_lines = describe_array_part(L, index, array_count);
    many_lines |= describe_hash_part(L, index, array_count);
    --opened_count;
    indent = outer_indent;
    if (many_lines) {
        newline(L);
        put_literal(L, "}");
    } else {
        put_literal(L, " }");
    }
}

/// True when the value's metatable has a "__tostring", which then gave the text.
bool describe_by_metafield(lua_State *L, int index)
{
    if (luaL_getmetafield(L, index, "__tostring") == LUA_TNIL)
        return false;
    lua_pushvalue(L, index);
    lua_pcall(L, 1, 1, 0);
    ve_lua_check_interrupt(L);
    size_t count = 0;
    if (const char *result = lua_tolstring(L, -1, &count))
        append(L, result, count);
    lua_pop(L, 1);
    return true;
}

} // namespace

void luap_describe_value(lua_State *L, int index)
{
    index = lua_absindex(L, index);
    ve_lua_check_interrupt(L);
    luaL_checkstack(L, LUA_MINSTACK, nullptr);
    if (describe_by_metafield(L, index))
        return;
    switch (lua_type(L, index)) {
    case LUA_TNIL:
        append_word(L, "nil");
        break;
    case LUA_TBOOLEAN:
        append_word(L, lua_toboolean(L, index) ? "true" : "false");
        break;
    case LUA_TNUMBER:
        describe_number(L, index);
        break;
    case LUA_TSTRING:
        describe_string(L, index);
        break;
    case LUA_TTABLE:
        describe_table(L, index);
        break;
    case LUA_TFUNCTION:
        append_kind(L, "function", lua_topointer(L, index));
        break;
    case LUA_TUSERDATA:
        append_kind(L, "userdata", lua_topointer(L, index));
        break;
    case LUA_TTHREAD:
        append_kind(L, "thread", lua_topointer(L, index));
        break;
    default: // a light userdata has no text of its own
        break;
    }
}

const char *luap_describe(lua_State *L, int index)
{
    index = lua_absindex(L, index);
    width = line_width;
    length = 0;
    column = 0;
    indent = 0;
    opened_count = 0;
    const bool colours = luap_colours;
    luap_colours = false;
    luap_describe_value(L, index);
    luap_colours = colours;
    return text;
}

const char *luap_describe_text()
{
    return text;
}

size_t luap_description_length()
{
    return held;
}
