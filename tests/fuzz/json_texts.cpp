// A text that is read where it stands is accepted when Jansson accepts it, and shows what Jansson shows.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "base/json_ref.h"
#include "platform/ve_json_text.h"

static int append(const char *data, size_t size, void *out)
{
    static_cast<std::string *>(out)->append(data, size);
    return 0;
}

static void expect_alike(json_piece piece, json_t *value)
{
    std::string expected;
    std::string shown;
    json_dump_callback(value, append, &expected, JSON_ENCODE_ANY);
    piece.append_to(&shown);
    std::string room;
    const auto text = piece.string(&room);
    if (shown != expected || text.has_value() != json_is_string(value) ||
        (text && *text != std::string_view(json_string_value(value), json_string_length(value))))
        abort();
    size_t count = 0;
    for (json_walk elements(piece.is_array() ? piece : json_piece()); elements.next(); ++count)
        expect_alike(elements.value(), json_array_get(value, count));
    if (count != json_array_size(value))
        abort();
    const char *key;
    json_t *member;
    json_object_foreach(value, key, member) expect_alike(piece.member(key), member);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string_view text(reinterpret_cast<const char *>(data), size);
    const json_ref value{json_loadb(text.data(), text.size(), JSON_ALLOW_NUL | JSON_DECODE_ANY, nullptr)};
    // Jansson overlooks a NUL byte behind a number.
    const bool accepted = json_text_check(text);
    if (accepted != (value && text.find('\0') == std::string_view::npos))
        abort();
    if (accepted)
        expect_alike(json_piece(text), value.get());
    if (json_text_is_bloated(text) && size <= 4096)
        abort(); // so little cannot take 16 MiB
    return 0;
}
