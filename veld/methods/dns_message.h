// Questions to a name server and what it answers.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace veld
{

enum class dns_type : uint16_t { a = 1, ptr = 12, aaaa = 28 };

/// The bytes of a question for the records of one type, recursion wanted; empty when `name` is no name that can be
/// asked for.
std::vector<unsigned char> dns_query(uint16_t id, const std::string &name, dns_type type);

/// The name under which an address is looked up; empty when `text` is no address in digits.
std::string dns_reverse_name(const std::string &text);

struct dns_answer {
    int code = 0; ///< the server's: 0 no error, 2 it failed, 3 no such name, 5 it refused
    bool authoritative = false;
    std::string name;                 ///< the name that the records belong to, after all aliases
    std::vector<std::string> records; ///< addresses, or the names that a PTR question found
};

/// Reads an answer to that question, whatever its number; nothing when the bytes are anything else.
std::optional<dns_answer> dns_parse(const unsigned char *bytes, size_t size, const std::string &name, dns_type type);

} // namespace veld
