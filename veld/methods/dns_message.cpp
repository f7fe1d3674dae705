#include "veld/methods/dns_message.h"

#include <arpa/inet.h>
#include <arpa/nameser.h>
#include <netinet/in.h>
#include <strings.h>

#include <cctype>

namespace veld
{

namespace
{

constexpr uint16_t udp_room = 1232; // what fits into a packet on every path

void put16(std::vector<unsigned char> *out, unsigned value)
{
    out->push_back(static_cast<unsigned char>(value >> 8));
    out->push_back(static_cast<unsigned char>(value & 0xFF));
}

// The name as labels; false when it is none.
bool put_name(std::vector<unsigned char> *out, std::string_view name)
{
    if (name.ends_with('.'))
        name.remove_suffix(1);
    if (name.empty() || name.size() > 253)
        return false;
    while (true) {
        std::string_view label = name.substr(0, name.find('.'));
        if (label.empty() || label.size() > 63)
            return false;
        for (char c : label)
            if (isalnum(static_cast<unsigned char>(c)) == 0 && c != '-' && c != '_')
                return false;
        out->push_back(static_cast<unsigned char>(label.size()));
        out->insert(out->end(), label.begin(), label.end());
        if (label.size() == name.size())
            break;
        name.remove_prefix(label.size() + 1);
    }
    out->push_back(0);
    return true;
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
    std::vector<unsigned char> out;
    put16(&out, id);
    put16(&out, 0x0100); // a question, recursion wanted
    put16(&out, 1);
    put16(&out, 0);
    put16(&out, 0);
    put16(&out, 1); // the record that tells how much we take
    if (!put_name(&out, name))
        return {};
    put16(&out, unsigned(type));
    put16(&out, ns_c_in);
    out.push_back(0);
    put16(&out, ns_t_opt);
    put16(&out, udp_room);
    for (int i = 0; i < 3; i++)
        put16(&out, 0);
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

std::optional<dns_answer> dns_parse(const unsigned char *bytes, size_t size, uint16_t id, const std::string &name,
                                    dns_type type)
{
    ns_msg message;
    ns_rr record;
    if (size > 65535 || ns_initparse(bytes, int(size), &message) != 0 || ns_msg_id(message) != id ||
        ns_msg_getflag(message, ns_f_qr) == 0 || ns_msg_count(message, ns_s_qd) != 1 ||
        ns_parserr(&message, ns_s_qd, 0, &record) != 0 || !same_name(ns_rr_name(record), name) ||
        ns_rr_type(record) != int(type))
        return std::nullopt;

    dns_answer answer;
    answer.code = ns_msg_getflag(message, ns_f_rcode);
    answer.authoritative = ns_msg_getflag(message, ns_f_aa) != 0;
    answer.truncated = ns_msg_getflag(message, ns_f_tc) != 0;
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
