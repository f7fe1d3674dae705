#include "base/utf8.h"
#include "platform/ve_json_text.h"

#include <bit>
#include <bitset>
#include <charconv>
#include <cstdint>
#include <cstring>

#include "base/json_ref.h"
#include "base/json_write.h"

namespace
{

// Jansson's own limit. A scalar counts as a level.
constexpr unsigned depth_max = 2048;
// A number of so few digits is no overflow, whatever it is.
constexpr size_t integer_digits = 18;
constexpr size_t real_digits = 300;

constexpr uint64_t ones = 0x0101010101010101U;
constexpr uint64_t highs = 0x80 * ones;

/// Eight bytes of which the first one is the lowest.
uint64_t eight(const char *at)
{
    uint64_t bytes;
    memcpy(&bytes, at, sizeof bytes);
    return std::endian::native == std::endian::little ? bytes : __builtin_bswap64(bytes);
}

/// Marks with its high bit the first of the eight bytes that is `byte`, and maybe later ones.
uint64_t marks(uint64_t bytes, unsigned char byte)
{
    const uint64_t differing = bytes ^ (ones * byte);
    return (differing - ones) & ~differing & highs;
}

/// The number of bytes before the first marked one.
int unmarked(uint64_t marked)
{
    return std::countr_zero(marked) / 8;
}

bool is_blank(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

/// The four digits of "\uXXXX", or -1.
int hex4(const char *at)
{
    unsigned code = 0;
    const auto parsed = std::from_chars(at, at + 4, code, 16);
    return parsed.ptr == at + 4 ? static_cast<int>(code) : -1;
}

bool is_high_surrogate(int code)
{
    return code >= 0xd800 && code < 0xdc00;
}

bool is_low_surrogate(int code)
{
    return code >= 0xdc00 && code < 0xe000;
}

json_t *load_text(std::string_view text)
{
    return json_loadb(text.data(), text.size(), JSON_DECODE_ANY | JSON_ALLOW_NUL, nullptr);
}

/// Reads a text from its beginning to where it is no JSON any more. Each function returns false there.
class checker
{
public:
    explicit checker(std::string_view text) : at_(text.data()), end_(at_ + text.size()) {}

    bool run()
    {
        for (;;) {
            // A value begins here.
            skip_blanks();
            if (at_ == end_ || depth_ >= depth_max)
                return false;
            if (*at_ == '{' || *at_ == '[') {
                objects_[depth_++] = *at_++ == '{';
                skip_blanks();
                if (at_ != end_ && *at_ != closing()) {
                    if (objects_[depth_ - 1] && !name())
                        return false;
                    continue;
                }
            } else if (!scalar()) {
                return false;
            }
            // A value has ended here, or a container is about to.
            for (;;) {
                skip_blanks();
                if (depth_ == 0)
                    return at_ == end_;
                if (at_ == end_)
                    return false;
                const char byte = *at_++;
                if (byte == ',') {
                    if (objects_[depth_ - 1] && !name())
                        return false;
                    break;
                }
                if (byte != closing())
                    return false;
                --depth_;
            }
        }
    }

private:
    char closing() const { return objects_[depth_ - 1] ? '}' : ']'; }

    void skip_blanks()
    {
        while (at_ != end_ && is_blank(*at_))
            ++at_;
    }

    bool take(char byte)
    {
        const bool there = at_ != end_ && *at_ == byte;
        at_ += there ? 1 : 0;
        return there;
    }

    bool take(std::string_view word)
    {
        const bool there = std::string_view(at_, static_cast<size_t>(end_ - at_)).starts_with(word);
        at_ += there ? word.size() : 0;
        return there;
    }

    bool name()
    {
        skip_blanks();
        holds_nul_ = false;
        if (!take('"') || !string() || holds_nul_)
            return false;
        skip_blanks();
        return take(':');
    }

    bool scalar()
    {
        switch (*at_) {
        case '"':
            ++at_;
            return string();
        case 't':
            return take("true");
        case 'f':
            return take("false");
        case 'n':
            return take("null");
        default:
            return number();
        }
    }

    /// The rest of a string, its closing quote included.
    bool string()
    {
        for (;;) {
            uint64_t marked = 0;
            while (end_ - at_ >= 8 && marked == 0) {
                const uint64_t bytes = eight(at_);
                // Control characters and what is not ASCII.
                marked = (((bytes - ones * 0x20) | bytes) & highs) | marks(bytes, '"') | marks(bytes, '\\');
                at_ += marked != 0 ? unmarked(marked) : 8;
            }
            while (at_ != end_ && is_plain(static_cast<unsigned char>(*at_)))
                ++at_;
            if (at_ == end_)
                return false;
            if (*at_ == '"') {
                ++at_;
                return true;
            }
            if (*at_ == '\\' ? !escape() : !character())
                return false;
        }
    }

    static bool is_plain(unsigned char c) { return c >= 0x20 && c < 0x80 && c != '"' && c != '\\'; }

    bool escape()
    {
        if (end_ - at_ < 2)
            return false;
        if (at_[1] != 'u') {
            const bool known = at_[1] != '\0' && strchr("\"\\/bfnrt", at_[1]) != nullptr;
            at_ += 2;
            return known;
        }
        const int code = end_ - at_ >= 6 ? hex4(at_ + 2) : -1;
        at_ += 6;
        if (is_high_surrogate(code)) {
            const bool low = end_ - at_ >= 6 && at_[0] == '\\' && at_[1] == 'u' && is_low_surrogate(hex4(at_ + 2));
            at_ += 6;
            return low;
        }
        holds_nul_ = holds_nul_ || code == 0;
        return code >= 0 && !is_low_surrogate(code);
    }

    /// A character of several bytes.
    bool character()
    {
        const utf8_step step = utf8_first({at_, static_cast<size_t>(end_ - at_)});
        at_ += step.size;
        return step.well_formed && step.size > 1;
    }

    size_t digits()
    {
        const char *begin = at_;
        while (at_ != end_ && is_digit(*at_))
            ++at_;
        return static_cast<size_t>(at_ - begin);
    }

    bool number()
    {
        const char *begin = at_;
        take('-');
        const bool zero = at_ != end_ && *at_ == '0';
        const size_t whole = digits();
        if (whole == 0 || (zero && whole > 1))
            return false;
        const bool fraction = take('.');
        if (fraction && digits() == 0)
            return false;
        const bool exponent = take('e') || take('E');
        if (exponent) {
            take('+') || take('-');
            if (digits() == 0)
                return false;
        }
        if (!exponent && whole <= (fraction ? real_digits : integer_digits))
            return true;
        return static_cast<bool>(json_ref(load_text({begin, static_cast<size_t>(at_ - begin)})));
    }

    const char *at_;
    const char *const end_;
    unsigned depth_ = 0;
    std::bitset<depth_max> objects_; // of the open containers, those that are objects
    bool holds_nul_ = false;         // the string read last
};

// --- what follows moves through checked texts, where only ends need to be found ---

const char *behind_blanks(const char *at, const char *end)
{
    while (at != end && is_blank(*at))
        ++at;
    return at;
}

/// Behind the string that begins at `at`.
const char *behind_string(const char *at, const char *end)
{
    for (++at;;) {
        uint64_t marked = 0;
        while (end - at >= 8 && marked == 0) {
            marked = marks(eight(at), '"') | marks(eight(at), '\\');
            at += marked != 0 ? unmarked(marked) : 8;
        }
        while (*at != '"' && *at != '\\')
            ++at;
        if (*at == '"')
            return at + 1;
        at += 2;
    }
}

/// Behind the value that begins at `at` inside a container.
const char *behind_value(const char *at, const char *end)
{
    if (*at == '"')
        return behind_string(at, end);
    if (*at != '{' && *at != '[') {
        while (*at != ',' && *at != '}' && *at != ']' && !is_blank(*at))
            ++at;
        return at;
    }
    size_t depth = 0;
    for (;;) {
        if (*at == '"') {
            at = behind_string(at, end);
            continue;
        }
        const char byte = *at++;
        if (byte == '{' || byte == '[')
            ++depth;
        else if ((byte == '}' || byte == ']') && --depth == 0)
            return at;
    }
}

/// Whether Jansson writes the value as it stands.
bool is_written_alike(std::string_view text)
{
    switch (text.empty() ? 'n' : text.front()) {
    case '"':
        return text.find('\\') == std::string_view::npos;
    case '[':
    case '{':
        return text.size() == 2;
    case 't':
    case 'f':
    case 'n':
        return true;
    default:
        return text != "-0" && text.find_first_of(".eE") == std::string_view::npos;
    }
}

} // namespace

bool json_text_check(std::string_view text)
{
    return checker(text).run();
}

json_piece::json_piece(std::string_view checked) : text_(checked)
{
    while (!text_.empty() && is_blank(text_.front()))
        text_.remove_prefix(1);
    while (!text_.empty() && is_blank(text_.back()))
        text_.remove_suffix(1);
}

json_piece json_piece::member(std::string_view name) const
{
    json_piece found;
    for (json_walk members(is_object() ? *this : json_piece()); members.next();) {
        if (members.is(name))
            found = members.value();
    }
    return found;
}

std::optional<std::string_view> json_piece::string(std::string *room) const
{
    if (!is_string())
        return std::nullopt;
    if (text_.find('\\') == std::string_view::npos)
        return text_.substr(1, text_.size() - 2);
    const json_ref value(load());
    room->assign(json_string_value(value.get()), json_string_length(value.get()));
    return *room;
}

json_t *json_piece::load() const
{
    return text_.empty() || json_text_is_bloated(text_) ? nullptr : load_text(text_);
}

void json_piece::append_to(std::string *out) const
{
    if (is_written_alike(text_)) {
        out->append(text_);
        return;
    }
    if (!is_array()) {
        const json_ref value(load());
        out->append(value ? json_written(value.get(), 0) : std::string(text_));
        return;
    }
    // Arrays in arrays are gone through once, however deep they are.
    const char *const end = text_.data() + text_.size();
    for (const char *at = text_.data(); at != end; at = behind_blanks(at, end)) {
        if (*at == '[' || *at == ']') {
            out->push_back(*at++);
        } else if (*at == ',') {
            out->append(", ");
            ++at;
        } else {
            const char *begin = at;
            at = behind_value(at, end);
            json_piece({begin, at}).append_to(out);
        }
    }
}

json_walk::json_walk(json_piece container)
{
    const std::string_view text = container.text();
    object_ = container.is_object();
    if (object_ || container.is_array()) {
        at_ = text.data() + 1;
        end_ = text.data() + text.size() - 1;
    }
}

bool json_walk::next()
{
    at_ = behind_blanks(at_, end_);
    if (at_ == end_)
        return false;
    if (*at_ == ',')
        at_ = behind_blanks(at_ + 1, end_);
    if (object_) {
        const char *name = at_;
        at_ = behind_string(name, end_);
        name_.text_ = {name, at_};
        at_ = behind_blanks(behind_blanks(at_, end_) + 1, end_); // the colon stands between
    }
    const char *begin = at_;
    at_ = behind_value(begin, end_);
    value_.text_ = {begin, at_};
    return true;
}

bool json_walk::is(std::string_view name) const
{
    const std::string_view written = name_.text();
    if (written.size() < name.size() + 2)
        return false;
    const bool escaped = written.find('\\') != std::string_view::npos;
    std::string room;
    return escaped ? name_.string(&room) == name : written.substr(1, written.size() - 2) == name;
}

bool ve_parameters::next(ve_parameter *entry)
{
    if (!elements_.next())
        return false;
    *entry = {};
    json_piece name;
    for (json_walk members(elements_.value().is_object() ? elements_.value() : json_piece()); members.next();) {
        if (members.is("Name"))
            name = members.value();
        else if (members.is("Value"))
            entry->value = members.value();
        else if (members.is("Attributes"))
            entry->attributes = members.value();
        else if (members.is("Template"))
            entry->pattern = members.value();
    }
    entry->name = name.string(&room_);
    return true;
}
