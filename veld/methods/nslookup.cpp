// NSLookup: asks name servers, one after the other.
#include "base/clock.h"
#include "base/name_lookup.h"
#include "veld/live/live.h"
#include "veld/live/sysfile.h"
#include "veld/methods/dns_question.h"
#include "veld/methods/job.h"

#include <sys/epoll.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

namespace veld
{

namespace
{

constexpr size_t most_servers = 3; // as many as the system's resolver asks

class nslookup : public method_job
{
public:
    std::string name;
    std::string server; // as the caller gave it
    std::string interface;
    int64_t timeout_ms = 5000;
    int64_t repetitions = 1;
    std::string asked_name; // the name itself, or the reverse name of an address
    std::vector<dns_type> asked_types;
    std::vector<host_address> servers; // known at the start, or found by looking `server` up
    uint16_t port = 53;

private:
    enum class phase { start, lookup, ask };

    void proceed() override;
    void begin();
    void start_round();
    void ask_server();
    void ask();
    void receive();
    bool failed();
    bool all_answered() const;
    void try_next_server(const char *verdict);
    void judge();
    void end_round(const char *status, const char *answer_type, const std::string &host, const std::string &addresses,
                   int64_t time_ms);
    void finish(const char *status);

    int64_t share_ms() const { return std::max<int64_t>(timeout_ms / int64_t(servers.size()), 1); }

    phase phase_ = phase::start;
    std::unique_ptr<name_lookup> lookup_;
    // Of this round to this server: for the IPv4 and the IPv6 addresses, or for the name of an address.
    std::vector<std::unique_ptr<dns_question>> questions_;
    size_t server_ = 0; // the one that is being asked
    int64_t asked_at_ = 0;
    bool repeated_ = false; // the questions went out a second time
    std::string worst_;     // what the servers before this one ended with
    int64_t rounds_ = 0;
    int64_t successes_ = 0;
    json_ref results_{json_array()};
};

void nslookup::proceed()
{
    switch (phase_) {
    case phase::start:
        begin();
        return;
    case phase::lookup:
        if (lookup_->ended()) {
            servers = lookup_->found();
            unwatch(lookup_->fd());
            if (servers.size() > most_servers)
                servers.resize(most_servers);
            if (servers.empty())
                return finish("Error_DNSServerNotResolved");
            phase_ = phase::ask;
            start_round();
        } else if (monotonic_us() - asked_at_ >= name_lookup_limit_ms * 1000) {
            finish("Error_DNSServerNotResolved");
        }
        return;
    case phase::ask:
        receive();
    }
}

void nslookup::begin()
{
    if (!servers.empty()) {
        phase_ = phase::ask;
        return start_round();
    }
    if (server.empty()) // the machine has none either
        return finish("Error_DNSServerNotResolved");
    lookup_ = name_lookup::start(server, AF_UNSPEC, account());
    if (!lookup_)
        return fail(code::resources, "too many name look-ups are under way");
    phase_ = phase::lookup;
    asked_at_ = monotonic_us();
    if (!watch(lookup_->fd(), EPOLLIN))
        return fail(code::resources, std::string("cannot wait for the look-up: ") + strerror(errno));
    wake_in(name_lookup_limit_ms);
}

void nslookup::start_round()
{
    server_ = 0;
    worst_.clear();
    ask_server();
}

void nslookup::ask_server()
{
    host_address target = servers[server_];
    target.set_port(port);
    servers[server_] = target;

    questions_.clear();
    for (dns_type type : asked_types)
        questions_.push_back(
            std::make_unique<dns_question>(asked_name, type, target, interface, [this](int fd, uint32_t events) {
                unwatch(fd);
                return events == 0 || watch(fd, events);
            }));
    asked_at_ = monotonic_us();
    repeated_ = false;
    ask();
    if (!failed())
        wake_in(std::max<int64_t>(share_ms() / 2, 1));
}

void nslookup::ask()
{
    for (const auto &each : questions_)
        if (!each->answer())
            each->ask();
}

// Whether the server cannot be asked; the next step has then been taken.
bool nslookup::failed()
{
    for (const auto &each : questions_) {
        if (each->no_interface()) {
            fail(code::internal, "cannot use the interface " + interface);
            return true;
        }
        if (each->unreachable()) {
            try_next_server("Error_DNSServerNotAvailable");
            return true;
        }
    }
    return false;
}

void nslookup::receive()
{
    for (const auto &each : questions_)
        each->proceed();
    if (failed())
        return;
    if (all_answered())
        return judge();

    int64_t waited_ms = (monotonic_us() - asked_at_) / 1000;
    if (waited_ms >= share_ms())
        return try_next_server("Error_Timeout");
    if (waited_ms >= share_ms() / 2 && !repeated_) {
        repeated_ = true;
        ask();
        if (failed())
            return;
    }
    wake_in(std::max<int64_t>((repeated_ ? share_ms() : share_ms() / 2) - waited_ms, 1));
}

bool nslookup::all_answered() const
{
    return std::all_of(questions_.begin(), questions_.end(),
                       [](const auto &each) { return each->answer().has_value(); });
}

void nslookup::try_next_server(const char *verdict)
{
    if (worst_.empty() || worst_ == "Error_DNSServerNotAvailable")
        worst_ = verdict;
    if (++server_ < servers.size())
        return ask_server();
    server_ = servers.size() - 1;
    end_round(worst_.c_str(), "None", "", "", 0);
}

// All answers of one server are there.
void nslookup::judge()
{
    int64_t time_ms = (monotonic_us() - asked_at_ + 500) / 1000;
    std::string host;
    std::string addresses;
    bool authoritative = true;
    bool failed = false;
    for (const auto &each : questions_) {
        const dns_answer &answer = *each->answer();
        authoritative = authoritative && answer.authoritative;
        failed = failed || (answer.code != 0 && answer.code != 3);
        for (const std::string &record : answer.records) {
            bool reverse = each->type() == dns_type::ptr;
            host = reverse ? record : answer.name;
            const std::string &address = reverse ? name : record;
            if (addresses.empty() || !reverse)
                addresses += (addresses.empty() ? "" : ",") + address;
        }
    }
    if (!addresses.empty())
        return end_round("Success", authoritative ? "Authoritative" : "NonAuthoritative", host, addresses, time_ms);
    if (failed && server_ + 1 < servers.size())
        return try_next_server("Error_Other");
    end_round(failed ? "Error_Other" : "Error_HostNameNotResolved",
              authoritative ? "Authoritative" : "NonAuthoritative", "", "", time_ms);
}

void nslookup::end_round(const char *status, const char *answer_type, const std::string &host,
                         const std::string &addresses, int64_t time_ms)
{
    rounds_++;
    if (!addresses.empty())
        successes_++;
    std::string prefix = "Result." + std::to_string(rounds_) + ".";
    json_t *list = results_.get();
    add_output(list, prefix + "Status", json_string(status));
    add_output(list, prefix + "AnswerType", json_string(answer_type));
    add_output(list, prefix + "HostNameReturned", json_clean_text(host));
    add_output(list, prefix + "IPAddresses", json_clean_text(addresses, size_t{64} << 10));
    add_output(list, prefix + "DNSServerIP", json_string(address_text(servers[server_]).c_str()));
    add_output(list, prefix + "ResponseTime", json_integer(time_ms));
    questions_.clear();
    if (rounds_ == repetitions)
        return finish("Complete");
    start_round();
}

void nslookup::finish(const char *status)
{
    json_ref list(json_array());
    add_output(list.get(), "Status", json_string(status));
    add_output(list.get(), "SuccessCount", json_integer(successes_));
    json_array_extend(list.get(), results_.get());
    succeed(std::move(list));
}

// The machine's own name servers.
std::vector<host_address> own_servers()
{
    std::vector<host_address> servers;
    json_ref rows(live_rows("resolvers"));
    for (size_t i = 0; i < json_array_size(rows.get()) && servers.size() < most_servers; i++) {
        const char *text = json_string_value(json_object_get(json_array_get(rows.get(), i), "address"));
        host_address address;
        if (text != nullptr && address_parse(text, AF_UNSPEC, &address))
            servers.push_back(address);
    }
    return servers;
}

} // namespace

std::unique_ptr<method_job> make_nslookup(const method_call &call)
{
    auto job = std::make_unique<nslookup>();
    job->name = call.text("HostName");
    if (job->name.empty())
        return call.refuse("HostName", "no host name given");
    job->asked_name = dns_reverse_name(job->name);
    job->asked_types = {dns_type::ptr};
    if (job->asked_name.empty()) {
        job->asked_name = job->name;
        job->asked_types = {dns_type::a, dns_type::aaaa};
    }
    if (job->name.find('\0') != std::string::npos || dns_query(0, job->asked_name, job->asked_types[0]).empty())
        return call.refuse("HostName", "not a host name");

    std::string server = call.text("DNSServer");
    if (!server.empty()) {
        // Which may listen elsewhere than name servers do.
        const auto place = host_port_parse(server, job->port);
        if (!place || place->port == 0)
            return call.refuse("DNSServer", "not a server, SERVER:PORT or [ADDRESS]:PORT");
        server = place->host;
        job->port = place->port;
    }
    host_address address;
    if (server.find('\0') != std::string::npos)
        return call.refuse("DNSServer", "not the name or address of a server");
    if (server.empty())
        job->servers = own_servers();
    else if (address_parse(server, AF_UNSPEC, &address))
        job->servers = {address};
    job->server = server;
    if (!call.interface(&job->interface))
        return nullptr;
    // A model without defaults for them says 0.
    if (int64_t given = call.number("Timeout", 0, 30000); given > 0)
        job->timeout_ms = given;
    job->repetitions = call.number("NumberOfRepetitions", 1, 16);
    return job;
}

} // namespace veld
