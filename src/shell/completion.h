// What Tab offers and what the hint shows.
#pragma once

#include <jansson.h>

/// Appends the candidates for the word at byte `cursor` of `line`, and tells the editor where the part that they
/// replace begins. May ask the daemon, but never reconnects; an abandoned wait gives no candidates.
void shell_autocomplete(const char *line, size_t cursor, json_t *candidates);
/// What Tab would insert behind the end of `line`: a newly allocated text, or null.
char *shell_hint(const char *line);
