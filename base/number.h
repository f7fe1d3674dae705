// Numbers out of texts.
#pragma once

#include <charconv>
#include <optional>
#include <string_view>
#include <type_traits>

/// The number that `text` is, from its first character to its last: no blank, no "+", "-" only where the type has a
/// sign. Nothing where it is none or does not fit. Independent of the locale; `base` is for whole numbers.
template <class Number> std::optional<Number> number_of(std::string_view text, [[maybe_unused]] int base = 10)
{
    Number number{};
    const char *end = text.data() + text.size();
    std::from_chars_result read{};
    if constexpr (std::is_floating_point_v<Number>)
        read = std::from_chars(text.data(), end, number);
    else
        read = std::from_chars(text.data(), end, number, base);
    return read.ec == std::errc{} && read.ptr == end ? std::optional(number) : std::nullopt;
}
