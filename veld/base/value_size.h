// What JSON takes in memory.
#pragma once

#include <cstddef>
#include <string_view>

namespace veld
{

/// What one message, or one document from elsewhere, may take as values: one of all brackets and commas would take a
/// hundred times its length.
inline constexpr size_t values_limit = size_t{256} << 20;

/// The memory that the values of a JSON text will take, roughly: counted without making them. Any text is one.
size_t size_as_values(std::string_view text);

} // namespace veld
