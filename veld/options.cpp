#include "veld/options.h"

#include "base/endpoint.h"
#include "base/number.h"

#include <charconv>
#include <cstdio>
#include <cstring>
#include <getopt.h>

namespace veld
{

namespace
{

constexpr const char *usage_text =
    "Veltro Management System daemon.\n"
    "Usage: veld [options]\n"
    "\n"
    "Options:\n"
    "\t    --socket PATH           UNIX socket to serve (default is \"/var/run/veld.sock\").\n"
    "\t    --listen tcp://HOST:PORT  TCP address to serve, may be repeated; port 0 lets the system choose.\n"
    "\t    --socket-mode MODE      Rights of the UNIX socket (default is 0666).\n"
    "\t    --socket-group GROUP    Group of the UNIX socket (default is the daemon's own).\n"
    "\t    --tls-cert FILE         Certificate chain (PEM): all sockets speak TLS.\n"
    "\t    --tls-key FILE          Private key (PEM) of the certificate.\n"
    "\t    --model FILE            Model document to serve (default is \"gateway\");\n"
    "\t                            with --import: which of several models (default is all).\n"
    "\t    --state DIR             Directory of what survives a restart (default is none).\n"
    "\t    --run-as USER           Become that user when the sockets and the state are open.\n"
    "\t    --reboot-time SECONDS   How long a reboot takes (default is 3).\n"
    "\t    --flash-time SECONDS    How long flashing a firmware takes (default is 5).\n"
    "\t    --files DIR             Directory of downloaded files (default is below that of the state).\n"
    "\t    --download-limit BYTES  The largest download (default is 4294967296).\n"
    "\t    --download-timeout SECONDS  How long a download may stand still (default is 10).\n"
    "\t    --populate N[,M]        Give every table N instances, tables within tables M (default is 1).\n"
    "\t    --set PATH=VALUE        A factory value of this instance, may be repeated.\n"
    "\t    --values FILE           Factory values of this instance: lines PATH=VALUE, or a JSON object.\n"
    "\t    --user NAME:ROLE        A user of the device, \"user\" or \"admin\", may be repeated.\n"
    "\t    --password-file FILE    Passwords of these users, one a line (default is to ask for them).\n"
    "\t    --anonymous ROLE        What those may do who have not logged in: public (default), user or admin.\n"
    "\t    --behaviour FILE.lua    What the device does when it is read, set and called.\n"
    "\t    --trust-behaviour       Let that file use all of Lua's libraries.\n"
    "\t    --log LEVEL|FILE        Log up to error, warning (default), info or debug on standard error,\n"
    "\t                            or up to info into a file.\n"
    "\t    --import FILE.xml       Turn a Broadband Forum data model into a model document, and end.\n"
    "\t    --make-image VERSION    Make a firmware image of that version, like PRODUCT-1.3.0, and end.\n"
    "\t    --payload FILE          What follows the header of the image (default is nothing).\n"
    "\t    --output FILE           Where --import and --make-image write (default is standard output).\n"
    "\t-h, --help                  Print this help message.\n"
    "\t-v, --version               Display veld version.\n";

enum option_value {
    option_socket = 1,
    option_model,
    option_log,
    option_state,
    option_reboot_time,
    option_listen,
    option_tls_cert,
    option_tls_key,
    option_populate,
    option_import,
    option_output,
    option_flash_time,
    option_files,
    option_download_limit,
    option_download_timeout,
    option_make_image,
    option_payload,
    option_set,
    option_values,
    option_user,
    option_password_file,
    option_anonymous,
    option_run_as,
    option_socket_mode,
    option_socket_group,
    option_behaviour,
    option_trust_behaviour
};

const option long_options[] = {
    {"socket", required_argument, nullptr, option_socket},
    {"model", required_argument, nullptr, option_model},
    {"state", required_argument, nullptr, option_state},
    {"reboot-time", required_argument, nullptr, option_reboot_time},
    {"listen", required_argument, nullptr, option_listen},
    {"socket-mode", required_argument, nullptr, option_socket_mode},
    {"socket-group", required_argument, nullptr, option_socket_group},
    {"run-as", required_argument, nullptr, option_run_as},
    {"tls-cert", required_argument, nullptr, option_tls_cert},
    {"tls-key", required_argument, nullptr, option_tls_key},
    {"populate", required_argument, nullptr, option_populate},
    {"import", required_argument, nullptr, option_import},
    {"log", required_argument, nullptr, option_log},
    {"flash-time", required_argument, nullptr, option_flash_time},
    {"files", required_argument, nullptr, option_files},
    {"download-limit", required_argument, nullptr, option_download_limit},
    {"download-timeout", required_argument, nullptr, option_download_timeout},
    {"make-image", required_argument, nullptr, option_make_image},
    {"payload", required_argument, nullptr, option_payload},
    {"output", required_argument, nullptr, option_output},
    {"set", required_argument, nullptr, option_set},
    {"values", required_argument, nullptr, option_values},
    {"user", required_argument, nullptr, option_user},
    {"password-file", required_argument, nullptr, option_password_file},
    {"anonymous", required_argument, nullptr, option_anonymous},
    {"behaviour", required_argument, nullptr, option_behaviour},
    {"trust-behaviour", no_argument, nullptr, option_trust_behaviour},
    {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, 'v'},
    {nullptr, 0, nullptr, 0},
};

// "2" or "0.25"; at most a day.
bool seconds(const char *text, int64_t *milliseconds)
{
    double value = 0;
    const auto end = std::from_chars(text, text + strlen(text), value, std::chars_format::fixed);
    if (end.ec != std::errc{} || *end.ptr != '\0' || value < 0 || value > 86400)
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

options_outcome wrong(const char *option, const char *text, const char *expected)
{
    fprintf(stderr, "veld: %s %s: must be %s\n", option, text, expected);
    return options_outcome::wrong;
}

} // namespace

options_outcome options_parse(int argc, char **argv, options *out)
{
    int found = 0;
    std::string error;
    while ((found = getopt_long(argc, argv, "hv", long_options, nullptr)) != -1) {
        switch (found) {
        case option_socket:
            out->sockets.emplace_back(optarg);
            break;
        case option_socket_mode:
            if (!mode(optarg, &out->socket_mode))
                return wrong("--socket-mode", optarg, "octal digits, like 0660");
            break;
        case option_socket_group:
            out->socket_group = optarg;
            break;
        case option_run_as:
            out->run_as = optarg;
            break;
        case option_model:
            out->model = optarg;
            break;
        case option_state:
            out->state = optarg;
            break;
        case option_reboot_time:
            if (!seconds(optarg, &out->reboot_ms))
                return wrong("--reboot-time", optarg, "a number of seconds");
            break;
        case option_flash_time:
            if (!seconds(optarg, &out->flash_ms))
                return wrong("--flash-time", optarg, "a number of seconds");
            break;
        case option_files:
            out->files = optarg;
            break;
        case option_download_limit:
            if (!bytes(optarg, &out->download_limit))
                return wrong("--download-limit", optarg, "a number of bytes");
            break;
        case option_download_timeout:
            if (!seconds(optarg, &out->download_stall_ms))
                return wrong("--download-timeout", optarg, "a number of seconds");
            break;
        case option_make_image:
            out->image_version = optarg;
            break;
        case option_payload:
            out->image_payload = optarg;
            break;
        case option_listen:
            if (!std::string_view(optarg).starts_with(tcp_scheme))
                return wrong("--listen", optarg, "of the form tcp://HOST:PORT");
            out->listen.emplace_back(optarg);
            break;
        case option_tls_cert:
            out->tls_certificate = optarg;
            break;
        case option_tls_key:
            out->tls_key = optarg;
            break;
        case option_populate:
            if (!two_counts(optarg, &out->populate, &out->populate_nested))
                return wrong("--populate", optarg, "one or two numbers of instances, like 10,2");
            break;
        case option_import:
            out->import = optarg;
            break;
        case option_log:
            out->log = optarg;
            break;
        case option_output:
            out->output = optarg;
            break;
        case option_set:
            if (!out->values.add(optarg, &error))
                return wrong("--set", optarg, "of the form PATH=VALUE");
            break;
        case option_values:
            if (!out->values.add_file(optarg, &error)) {
                fprintf(stderr, "veld: --values %s\n", error.c_str());
                return options_outcome::wrong;
            }
            break;
        case option_user:
            if (!first_user_parse(optarg, &out->users.emplace_back()))
                return wrong("--user", optarg, "of the form NAME:ROLE, with \"user\" or \"admin\"");
            break;
        case option_password_file:
            out->password_file = optarg;
            break;
        case option_behaviour:
            out->behaviour = optarg;
            break;
        case option_trust_behaviour:
            out->trust_behaviour = true;
            break;
        case option_anonymous:
            if (!role_of(optarg, &out->anonymous))
                return wrong("--anonymous", optarg, "\"public\", \"user\" or \"admin\"");
            break;
        case 'h':
            fputs(usage_text, stdout);
            return options_outcome::done;
        case 'v':
            puts("veld version " KEST_VERSION);
            return options_outcome::done;
        default:
            fputs(usage_text, stderr);
            return options_outcome::wrong;
        }
    }
    if (optind < argc) {
        fprintf(stderr, "veld: what is \"%s\"?\n%s", argv[optind], usage_text);
        return options_outcome::wrong;
    }
    if (out->tls_certificate.empty() != out->tls_key.empty()) {
        fputs("veld: --tls-cert and --tls-key belong together\n", stderr);
        return options_outcome::wrong;
    }
    return options_outcome::run;
}

} // namespace veld
