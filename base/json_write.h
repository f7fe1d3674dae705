// JSON written as text directly: answers about large models are never built as values first.
#pragma once

#include <jansson.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

/// Appends `text` (UTF-8, may hold NUL) as a JSON string with its quotes. A byte that is part of no character becomes
/// U+FFFD, so that what is written is well-formed always.
void json_write_string(std::string *out, std::string_view text);

void json_write_integer(std::string *out, int64_t number);

/// Appends any JSON value, compact, members in the value's own order.
void json_write_value(std::string *out, const json_t *value);

/// Any JSON value as text, laid out as Jansson's `flags` say (JSON_COMPACT, JSON_INDENT); empty where it has none.
std::string json_written(const json_t *value, size_t flags);
/// Gives the same text to `take` in pieces of some KiB that end between characters, until that returns false: it may
/// become many times longer than the value is large.
void json_write_pieces(const json_t *value, size_t flags, const std::function<bool(std::string_view)> &take);
