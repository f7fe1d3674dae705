// Bytes as hexadecimal digits, in lower case.
#pragma once

#include <cstddef>
#include <string>

std::string hex_of(const unsigned char *bytes, size_t count);

/// `count` (at most 64) random bytes as digits; empty when the system has no randomness to give.
std::string random_hex(size_t count);
