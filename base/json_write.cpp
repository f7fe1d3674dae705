#include "base/json_write.h"

#include <charconv>

#include "base/utf8.h"

namespace
{

int append_chunk(const char *data, size_t size, void *out)
{
    static_cast<std::string *>(out)->append(data, size);
    return 0;
}

/// Collects small chunks and cuts large ones. Jansson's end between characters.
struct piece_writer {
    static constexpr size_t piece_size = size_t{16} << 10;

    const std::function<bool(std::string_view)> &take;
    std::string piece = {};

    bool put(std::string_view chunk)
    {
        while (!chunk.empty()) {
            if (piece.size() + chunk.size() > piece_size && !flush())
                return false;
            const std::string_view part = chunk.substr(0, utf8_cut(chunk, piece_size));
            piece.append(part);
            chunk.remove_prefix(part.size());
        }
        return true;
    }
    bool flush()
    {
        const bool goes_on = piece.empty() || take(piece);
        piece.clear();
        return goes_on;
    }
};

int put_chunk(const char *data, size_t size, void *writer)
{
    return static_cast<piece_writer *>(writer)->put({data, size}) ? 0 : -1;
}

/// What stands for a byte that is part of no character.
constexpr char32_t replacement = 0xfffd;

bool plain(unsigned char byte)
{
    return byte >= 0x20 && byte != '"' && byte != '\\' && byte < 0x80;
}

void escaped(std::string *out, unsigned char byte)
{
    static constexpr char digits[] = "0123456789ABCDEF";
    out->push_back('\\');
    switch (byte) {
    case '"':
    case '\\':
        out->push_back(static_cast<char>(byte));
        break;
    case '\b':
        out->push_back('b');
        break;
    case '\f':
        out->push_back('f');
        break;
    case '\n':
        out->push_back('n');
        break;
    case '\r':
        out->push_back('r');
        break;
    case '\t':
        out->push_back('t');
        break;
    default:
        out->append("u00");
        out->push_back(digits[byte >> 4]);
        out->push_back(digits[byte & 15]);
    }
}

} // namespace

void json_write_string(std::string *out, std::string_view text)
{
    out->push_back('"');
    size_t start = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if (plain(byte))
            continue;
        if (byte >= 0x80) {
            if (const utf8_step step = utf8_first(text.substr(i)); step.well_formed) {
                i += step.size - 1;
                continue;
            }
        }
        out->append(text, start, i - start);
        if (byte < 0x80)
            escaped(out, byte);
        else
            utf8_append(out, replacement);
        start = i + 1;
    }
    out->append(text, start, text.size() - start);
    out->push_back('"');
}

void json_write_integer(std::string *out, int64_t number)
{
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof digits, number).ptr;
    out->append(digits, end);
}

void json_write_value(std::string *out, const json_t *value)
{
    switch (json_typeof(value)) {
    case JSON_STRING:
        json_write_string(out, {json_string_value(value), json_string_length(value)});
        break;
    case JSON_INTEGER:
        json_write_integer(out, json_integer_value(value));
        break;
    case JSON_TRUE:
        out->append("true");
        break;
    case JSON_FALSE:
        out->append("false");
        break;
    case JSON_NULL:
        out->append("null");
        break;
    default:
        json_dump_callback(value, append_chunk, out, JSON_COMPACT | JSON_ENCODE_ANY);
    }
}

void json_write_pieces(const json_t *value, size_t flags, const std::function<bool(std::string_view)> &take)
{
    piece_writer writer{.take = take};
    if (json_dump_callback(value, put_chunk, &writer, flags | JSON_ENCODE_ANY) == 0)
        writer.flush();
}

std::string json_written(const json_t *value, size_t flags)
{
    std::string text;
    if (json_dump_callback(value, append_chunk, &text, flags | JSON_ENCODE_ANY) != 0)
        text.clear();
    return text;
}
