// Command lines: splitting into words, and the question whether a line goes on in the next.
#pragma once

#include <jansson.h>

/// The words of `text` as a new JSON array of strings: quotes group, a backslash escapes quotes, itself and "#", "#"
/// begins a comment. With `position` not negative and `word_index` given, `*word_index` receives the index of the word
/// that holds that byte offset. Null when `text` is null or a word is not UTF-8.
json_t *str_split(const char *text, long position, size_t *word_index);

/// 1 when the line is complete, 0 when it goes on in the next one (an open quote, an unescaped final backslash).
int line_completed(const char *text);
