#include "veld/methods/dns_message.h"

#include <ares.h>
#include <arpa/inet.h>
#include <arpa/nameser.h>
#include <netinet/in.h>
#include <strings.h>

#include <cctype>

namespace veld
{

namespace
{

constexpr int udp_room = 1232; // what fits into a packet on every path

// c-ares would take backslashes for escapes, and blanks for themselves.
bool spelt_like_a_host(std::string_view name)
{
    for (char c : name)
        if (isalnum(static_cast<unsigned char>(c)) == 0 && c != '-' && c != '_' && c != '.')
            return false;
    return !name.empty() && name != "." && name.size() - (name.ends_with('.') ? 1 : 0) <= 253;
}

std::string_view without_dot(std::string_view name)
{
    return name.ends_with('.') ? name.substr(0, name.size() - 1) : name;
}

bool same_name(std::string_view a, std::string_view b)
{
    a = without_dot(a);
    b = without_dot(b);
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::string address_record(int family, const ns_rr &record)
{
    char text[INET6_ADDRSTRLEN];
    size_t size = family == AF_INET ? 4 : 16;
    if (ns_rr_rdlen(record) != size || inet_ntop(family, ns_rr_rdata(record), text, sizeof text) == nullptr)
        return "";
    return text;
}

std::string name_record(const ns_msg &message, const ns_rr &record)
{
    char text[NS_MAXDNAME];
    if (ns_name_uncompress(ns_msg_base(message), ns_msg_end(message), ns_rr_rdata(record), text, sizeof text) < 0)
        return "";
    return text;
}

} // namespace

std::vector<unsigned char> dns_query(uint16_t id, const std::string &name, dns_type type)
{
    unsigned char *bytes = nullptr;
    int size = 0;
    constexpr int recursion_wanted = 1;
    if (!spelt_like_a_host(name) || ares_create_query(name.c_str(), ns_c_in, int(type), id, recursion_wanted, &bytes,
                                                      &size, udp_room) != ARES_SUCCESS)
        return {};
    std::vector<unsigned char> out(bytes, bytes + size);
    ares_free_string(bytes);
    return out;
}

std::string dns_reverse_name(const std::string &text)
{
    unsigned char bytes[16];
    std::string name;
    if (inet_pton(AF_INET, text.c_str(), bytes) == 1) {
        for (int i = 3; i >= 0; i--)
            name += std::to_string(bytes[i]) + ".";
        return name + "in-addr.arpa";
    }
    if (inet_pton(AF_INET6, text.c_str(), bytes) != 1)
        return "";
    for (int i = 15; i >= 0; i--)
        for (unsigned nibble : {bytes[i] & 15U, unsigned{bytes[i]} >> 4U}) {
            name += "0123456789abcdef"[nibble];
            name += '.';
        }
    return name + "ip6.arpa";
}

std::optional<dns_answer> dns_parse(const unsigned char *bytes, size_t size, const std::string &name, dns_type type)
{
    ns_msg message;
    ns_rr record;
    if (size > 65535 || ns_initparse(bytes, int(size), &message) != 0 || ns_msg_getflag(message, ns_f_qr) == 0 ||
        ns_msg_count(message, ns_s_qd) != 1 || ns_parserr(&message, ns_s_qd, 0, &record) != 0 ||
        !same_name(ns_rr_name(record), name) || ns_rr_type(record) != int(type))
        return std::nullopt;

    dns_answer answer;
    answer.code = ns_msg_getflag(message, ns_f_rcode);
    answer.authoritative = ns_msg_getflag(message, ns_f_aa) != 0;
    answer.name = without_dot(name);
    for (int i = 0; i < ns_msg_count(message, ns_s_an); i++) {
        if (ns_parserr(&message, ns_s_an, i, &record) != 0)
            break; // cut off, or wrong from here on
        if (ns_rr_type(record) != int(type) || ns_rr_class(record) != ns_c_in)
            continue;
        std::string content = type == dns_type::ptr    ? name_record(message, record)
                              : type == dns_type::aaaa ? address_record(AF_INET6, record)
                                                       : address_record(AF_INET, record);
        if (content.empty())
            continue;
        answer.name = without_dot(ns_rr_name(record));
        answer.records.push_back(content);
    }
    return answer;
}

} // namespace veld
