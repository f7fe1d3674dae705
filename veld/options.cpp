#include "veld/options.h"

#include "base/endpoint.h"
#include "base/number.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <getopt.h>
#include <iterator>

namespace veld
{

namespace
{

// "2" or "0.25"; at most a day.
bool seconds(const char *text, int64_t *milliseconds)
{
    double value = 0;
    const auto end = std::from_chars(text, text + strlen(text), value, std::chars_format::fixed);
    if (end.ec != std::errc{} || *end.ptr != '\0' || !(value >= 0 && value <= 86400)) // which "nan" is not
        return false;
    *milliseconds = static_cast<int64_t>(value * 1000);
    return true;
}

bool bytes(const char *text, uint64_t *out)
{
    const auto number = number_of<uint64_t>(text);
    *out = number.value_or(*out);
    return number.has_value();
}

bool mode(const char *text, uint32_t *out)
{
    const auto end = std::from_chars(text, text + strlen(text), *out, 8);
    return end.ec == std::errc{} && *end.ptr == '\0' && *out <= 0777;
}

bool count(const char **text, uint32_t *out)
{
    const auto end = std::from_chars(*text, *text + strlen(*text), *out);
    *text = end.ptr;
    return end.ec == std::errc{};
}

bool two_counts(const char *text, uint32_t *first, uint32_t *second)
{
    if (!count(&text, first))
        return false;
    if (*text == ',' && !count(&++text, second))
        return false;
    return *text == '\0';
}

bool role_of(std::string_view text, role *out)
{
    *out = text == "admin" ? role::administrator : text == "user" ? role::user : role::anonymous;
    return *out != role::anonymous || text == "public";
}

// What takes an option's argument: false when it does not fit; `*why` may then say more than the row does.
using taker = bool (*)(const char *text, options *out, std::string *why);

template <std::string options::*Member> bool keep(const char *text, options *out, std::string *)
{
    out->*Member = text;
    return true;
}

template <int64_t options::*Member> bool keep_seconds(const char *text, options *out, std::string *)
{
    return seconds(text, &(out->*Member));
}

struct option_row {
    const char *name;
    char letter;          // 0: none
    const char *argument; // null: none
    const char *help;     // lines
    taker take;           // null: nothing is taken, help and version end it
    const char *expected; // of the argument, when it does not fit
};

constexpr const char *a_number_of_seconds = "a number of seconds";

constexpr option_row rows[] = {
    {"socket", 0, "PATH", "UNIX socket to serve (default is \"/var/run/veld.sock\").",
     [](const char *text, options *out, std::string *) {
         out->sockets.emplace_back(text);
         return true;
     },
     nullptr},
    {"listen", 0, "tcp://HOST:PORT", "TCP address to serve, may be repeated; port 0 lets the system choose.",
     [](const char *text, options *out, std::string *) {
         out->listen.emplace_back(text);
         return std::string_view(text).starts_with(tcp_scheme);
     },
     "of the form tcp://HOST:PORT"},
    {"socket-mode", 0, "MODE", "Rights of the UNIX socket (default is 0666).",
     [](const char *text, options *out, std::string *) { return mode(text, &out->socket_mode); },
     "octal digits, like 0660"},
    {"socket-group", 0, "GROUP", "Group of the UNIX socket (default is the daemon's own).",
     keep<&options::socket_group>, nullptr},
    {"tls-cert", 0, "FILE", "Certificate chain (PEM): all sockets speak TLS.", keep<&options::tls_certificate>,
     nullptr},
    {"tls-key", 0, "FILE", "Private key (PEM) of the certificate.", keep<&options::tls_key>, nullptr},
    {"model", 0, "FILE",
     "Model document to serve (default is \"gateway\");\n"
     "with --import: which of several models (default is all).",
     keep<&options::model>, nullptr},
    {"state", 0, "DIR", "Directory of what survives a restart (default is none).", keep<&options::state>, nullptr},
    {"run-as", 0, "USER", "Become that user when the sockets and the state are open.", keep<&options::run_as>, nullptr},
    {"reboot-time", 0, "SECONDS", "How long a reboot takes (default is 3).", keep_seconds<&options::reboot_ms>,
     a_number_of_seconds},
    {"flash-time", 0, "SECONDS", "How long flashing a firmware takes (default is 5).", keep_seconds<&options::flash_ms>,
     a_number_of_seconds},
    {"files", 0, "DIR", "Directory of downloaded files (default is below that of the state).", keep<&options::files>,
     nullptr},
    {"download-limit", 0, "BYTES", "The largest download (default is 4294967296).",
     [](const char *text, options *out, std::string *) { return bytes(text, &out->download_limit); },
     "a number of bytes"},
    {"download-timeout", 0, "SECONDS", "How long a download may stand still (default is 10).",
     keep_seconds<&options::download_stall_ms>, a_number_of_seconds},
    {"populate", 0, "N[,M]", "Give every table N instances, tables within tables M (default is 1).",
     [](const char *text, options *out, std::string *) {
         return two_counts(text, &out->populate, &out->populate_nested);
     },
     "one or two numbers of instances, like 10,2"},
    {"set", 0, "PATH=VALUE", "A factory value of this instance, may be repeated.",
     [](const char *text, options *out, std::string *) {
         std::string said_by_the_row;
         return out->values.add(text, &said_by_the_row);
     },
     "of the form PATH=VALUE"},
    {"values", 0, "FILE", "Factory values of this instance: lines PATH=VALUE, or a JSON object.",
     [](const char *text, options *out, std::string *why) { return out->values.add_file(text, why); }, nullptr},
    {"user", 0, "NAME:ROLE", "A user of the device, \"user\" or \"admin\", may be repeated.",
     [](const char *text, options *out, std::string *) { return first_user_parse(text, &out->users.emplace_back()); },
     "of the form NAME:ROLE, with \"user\" or \"admin\""},
    {"password-file", 0, "FILE", "Passwords of these users, one a line (default is to ask for them).",
     keep<&options::password_file>, nullptr},
    {"anonymous", 0, "ROLE", "What those may do who have not logged in: public (default), user or admin.",
     [](const char *text, options *out, std::string *) { return role_of(text, &out->anonymous); },
     "\"public\", \"user\" or \"admin\""},
    {"behaviour", 0, "FILE.lua", "What the device does when it is read, set and called.", keep<&options::behaviour>,
     nullptr},
    {"trust-behaviour", 0, nullptr, "Let that file use all of Lua's libraries.",
     [](const char *, options *out, std::string *) { return out->trust_behaviour = true; }, nullptr},
    {"log", 0, "LEVEL|FILE",
     "Log up to error, warning (default), info or debug on standard error,\n"
     "or up to info into a file.",
     keep<&options::log>, nullptr},
    {"import", 0, "FILE.xml", "Turn a Broadband Forum data model into a model document, and end.",
     keep<&options::import>, nullptr},
    {"make-image", 0, "VERSION", "Make a firmware image of that version, like PRODUCT-1.3.0, and end.",
     keep<&options::image_version>, nullptr},
    {"payload", 0, "FILE", "What follows the header of the image (default is nothing).", keep<&options::image_payload>,
     nullptr},
    {"output", 0, "FILE", "Where --import and --make-image write (default is standard output).", keep<&options::output>,
     nullptr},
    {"help", 'h', nullptr, "Print this help message.", nullptr, nullptr},
    {"version", 'v', nullptr, "Display veld version.", nullptr, nullptr},
};

constexpr size_t help_column = 24;

std::string usage()
{
    std::string text = "Veltro Management System daemon.\nUsage: veld [options]\n\nOptions:\n";
    for (const option_row &row : rows) {
        std::string left = std::string("--") + row.name + (row.argument != nullptr ? " " : "") +
                           (row.argument != nullptr ? row.argument : "");
        left.resize(std::max(help_column, left.size() + 2), ' ');
        text += '\t' + (row.letter != 0 ? std::string("-") + row.letter + ", " : "    ") + left;
        for (const char *at = row.help; *at != '\0'; ++at)
            text += *at == '\n' ? "\n\t    " + std::string(help_column, ' ') : std::string(1, *at);
        text += '\n';
    }
    return text;
}

options_outcome wrong(const option_row &row, const char *text, const std::string &why)
{
    if (!why.empty())
        fprintf(stderr, "veld: --%s %s\n", row.name, why.c_str());
    else
        fprintf(stderr, "veld: --%s %s: must be %s\n", row.name, text, row.expected);
    return options_outcome::wrong;
}

// What getopt_long() gives back for a row.
int value_of(size_t place)
{
    return static_cast<int>(place) + 256;
}

} // namespace

options_outcome options_parse(int argc, char **argv, options *out)
{
    std::vector<option> known;
    std::string letters;
    for (size_t i = 0; i < std::size(rows); ++i) {
        known.push_back({rows[i].name, rows[i].argument != nullptr ? required_argument : no_argument, nullptr,
                         rows[i].letter != 0 ? rows[i].letter : value_of(i)});
        if (rows[i].letter != 0)
            letters += rows[i].letter;
    }
    known.push_back({nullptr, 0, nullptr, 0});
    int found = 0;
    while ((found = getopt_long(argc, argv, letters.c_str(), known.data(), nullptr)) != -1) {
        if (found == 'h') {
            fputs(usage().c_str(), stdout);
            return options_outcome::done;
        }
        if (found == 'v') {
            puts("veld version " KEST_VERSION);
            return options_outcome::done;
        }
        if (found < value_of(0)) {
            fputs(usage().c_str(), stderr);
            return options_outcome::wrong;
        }
        const option_row &row = rows[static_cast<size_t>(found - value_of(0))];
        std::string why;
        if (!row.take(optarg, out, &why))
            return wrong(row, optarg, why);
    }
    if (optind < argc) {
        fprintf(stderr, "veld: what is \"%s\"?\n%s", argv[optind], usage().c_str());
        return options_outcome::wrong;
    }
    if (out->tls_certificate.empty() != out->tls_key.empty()) {
        fputs("veld: --tls-cert and --tls-key belong together\n", stderr);
        return options_outcome::wrong;
    }
    return options_outcome::run;
}

} // namespace veld
