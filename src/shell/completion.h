// What Tab offers and what the hint shows.
#pragma once

#include <jansson.h>

void shell_autocomplete(const char *line, size_t cursor, json_t *candidates);
/// A newly allocated text, or null.
char *shell_hint(const char *line);
