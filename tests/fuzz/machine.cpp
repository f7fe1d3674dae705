// What comes from outside while values are read and names are looked up: name servers' answers, the kernel's tables.
#include "base/fd.h"
#include "platform/ve_json.h"
#include "veld/live/providers.h"
#include "veld/methods/dns_question.h"

#include <netinet/in.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace
{

// A name server on the loopback that answers whatever it is told to.
class hostile_server
{
public:
    hostile_server() : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
    {
        sockaddr_in here = {};
        here.sin_family = AF_INET;
        here.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address_.length = sizeof here;
        if (bind(socket_.get(), reinterpret_cast<sockaddr *>(&here), sizeof here) != 0 ||
            getsockname(socket_.get(), reinterpret_cast<sockaddr *>(&address_.bytes), &address_.length) != 0)
            abort();
    }

    // What a question makes of such an answer, which bears the question's number.
    void answer(const uint8_t *data, size_t size)
    {
        veld::dns_question question("host.example", veld::dns_type::a, address_, "",
                                    [](int, uint32_t) { return true; });
        question.ask();
        unsigned char bytes[65536];
        sockaddr_in from = {};
        socklen_t length = sizeof from;
        if (recvfrom(socket_.get(), bytes, sizeof bytes, 0, reinterpret_cast<sockaddr *>(&from), &length) < 12)
            abort();
        if (size > 2 && size < sizeof bytes)
            memcpy(bytes + 2, data + 2, size - 2);
        if (size < sizeof bytes &&
            sendto(socket_.get(), bytes, size, 0, reinterpret_cast<sockaddr *>(&from), length) < 0)
            abort();
        question.proceed();
        if (question.answer() && !veld::dns_parse(data, size, "host.example", veld::dns_type::a))
            abort();
    }

private:
    fd_owner socket_;
    host_address address_;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    using namespace veld;
    for (const dns_type type : {dns_type::a, dns_type::aaaa, dns_type::ptr})
        dns_parse(data, size, "host.example", type);
    if (size > 2 && (data[2] & 0x80) != 0) { // what says that it is an answer
        static hostile_server server;
        server.answer(data, size);
    }

    const std::string_view text(reinterpret_cast<const char *>(data), size);
    const json_ref rows(json_array());
    row_of_process(text, rows.get());
    rows_of_tcp(text, rows.get());
    const json_ref tables[] = {json_ref(rows_of_arp(text)), json_ref(rows_of_resolv_conf(text)),
                               json_ref(rows_of_route(text)), json_ref(rows_of_cpuinfo(text, "machine"))};
    for (const json_ref &table : tables)
        if (!json_is_array(table.get()))
            abort();
    zone_of_tzfile(text);
    meminfo_field(text, "MemTotal");
    const json_ref clean(json_clean_text(text, 100));
    if (!json_is_string(clean.get()) || json_string_length(clean.get()) > 100)
        abort();
    return 0;
}
