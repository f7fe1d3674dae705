// Conversions of whole texts: what does not fit the type, or is not a number to its last character, fails.
#pragma once

#include <cstdint>

/// Digits in `base` (no sign, no blank) within 32 bits into `*out`. Returns 0, or negative with `*out` untouched.
int ve_string_strtoul(const char *text, int base, uint32_t *out);
/// An optional sign and digits in `base` within 32 bits. Returns 0, or negative with `*out` untouched.
int ve_string_strtol(const char *text, int base, int32_t *out);
/// A finite decimal number. Returns 0, or negative with `*out` untouched. Independent of the locale.
int ve_string_strtod(const char *text, double *out);
