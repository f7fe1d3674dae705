// JSON helpers of the commands.
#pragma once

#include <jansson.h>

#include <string>

/// Sorts an array of strings in place, in byte order; equal strings keep their order.
void json_array_sort(json_t *array);

/// A new value of JSON type `type` (json_typeof of the default: JSON_STRING, JSON_INTEGER, JSON_REAL, JSON_TRUE,
/// JSON_FALSE) from what the user typed; null when the text does not fit.
json_t *json_load_uservalue(const char *text, int type);

/// The value as compact JSON text, scalars too, in the object's order.
std::string json_compact(const json_t *value);

/// Member `key` as a text; null when there is none or it is no text. Borrowed.
const char *json_text(const json_t *object, const char *key);
