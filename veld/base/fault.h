// Why something was refused, as the error answer says it: one type from what is behind the model to the answer.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace veld
{

/// The protocol's error codes.
enum class code : int {
    none = 0,
    not_supported = 9000,
    denied = 9001,
    internal = 9002,
    bad_arguments = 9003,
    resources = 9004,
    bad_name = 9005,
    bad_type = 9006,
    bad_value = 9007,
    not_writable = 9008,
    transfer_failed = 9010,
    unreachable = 9016,
    bad_file = 9018,
    last_of_devices = 9999, ///< a device's own codes are those from `not_supported` to this one
    invalid_request = -32600,
    no_method = -32601,
    bad_params = -32602
};

/// As it travels.
constexpr int wire_number(code which)
{
    return static_cast<int>(which);
}

/// The code that a device has chosen by its number; `none` when there is no such one.
constexpr code code_of_device(int64_t number)
{
    const bool possible = number >= wire_number(code::not_supported) && number <= wire_number(code::last_of_devices);
    return possible ? static_cast<code>(number) : code::none;
}

/// Without a code it is success. `message` is a sentence, or a phrase about the one thing that was asked about.
struct fault {
    veld::code code = veld::code::none;
    std::string message = {};
    std::string data = {};     ///< a JSON object as text, or empty
    bool lacks_rights = false; ///< somebody else may: whoever has not logged in is told that

    explicit operator bool() const { return code != veld::code::none; }
};

inline fault no_such_node(std::string_view name)
{
    return {code::bad_name, "no such node: " + std::string(name)};
}

} // namespace veld
