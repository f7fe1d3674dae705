// Why a request was refused, as the error answer says it.
#pragma once

#include <string>
#include <string_view>

namespace veld
{

namespace code
{
inline constexpr int not_supported = 9000;
inline constexpr int denied = 9001;
inline constexpr int internal = 9002;
inline constexpr int bad_arguments = 9003;
inline constexpr int resources = 9004;
inline constexpr int bad_name = 9005;
inline constexpr int bad_type = 9006;
inline constexpr int bad_value = 9007;
inline constexpr int not_writable = 9008;
inline constexpr int transfer_failed = 9010;
inline constexpr int unreachable = 9016;
inline constexpr int bad_file = 9018;
inline constexpr int invalid_request = -32600;
inline constexpr int no_method = -32601;
inline constexpr int bad_params = -32602;
} // namespace code

/// Code 0 is success. `data` is a JSON object as text, or empty.
struct fault {
    int code = 0;
    std::string message;
    std::string data;
    bool lacks_rights = false; ///< somebody else may: whoever has not logged in is told that

    explicit operator bool() const { return code != 0; }
};

inline fault no_such_node(std::string_view name)
{
    return {code::bad_name, "no such node: " + std::string(name), ""};
}

} // namespace veld
