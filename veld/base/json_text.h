// JSON written as text directly: answers about large models are never built as values first.
#pragma once

#include <jansson.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace veld
{

/// Appends `text` (UTF-8, may hold NUL) as a JSON string with its quotes.
void json_text_string(std::string *out, std::string_view text);

/// Appends any JSON value, compact, members in the value's own order.
void json_text_value(std::string *out, const json_t *value);

void json_text_integer(std::string *out, int64_t number);

} // namespace veld
