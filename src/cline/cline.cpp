#include "cline/cline.h"

#include <getopt.h>

#include <cstring>
#include <string>

#include "base/utf8.h"
#include "base/visible.h"
#include "platform/ve_jrpcapi.h"
#include "platform/ve_log.h"
#include "platform/ve_string.h"

namespace
{

constexpr char program[] = "kest";
constexpr char version[] = KEST_VERSION;

constexpr int option_raw = 1;
constexpr int option_ssl = 2;

// "i" asks for an argument and has no action of its own.
constexpr char short_options[] = "c:s:S:r:n:e:g:i:u:lhv";
constexpr option long_options[] = {
    {"request", required_argument, nullptr, 'r'}, {"notify", required_argument, nullptr, 'n'},
    {"event", required_argument, nullptr, 'e'},   {"raw", required_argument, nullptr, option_raw},
    {"script", required_argument, nullptr, 's'},  {"lua-script", required_argument, nullptr, 'S'},
    {"listen", no_argument, nullptr, 'l'},        {"groups", required_argument, nullptr, 'g'},
    {"help", no_argument, nullptr, 'h'},          {"version", no_argument, nullptr, 'v'},
    {"ssl", no_argument, nullptr, option_ssl},    {"unixpath", required_argument, nullptr, 'u'},
    {"config", required_argument, nullptr, 'c'},  {nullptr, 0, nullptr, 0},
};

/// The options that choose a mode, with the word that a conflict names for the new mode, and for the mode chosen
/// before.
struct mode_option {
    int option;
    run_mode mode;
    const char *word;
    const char *remembered;
};
constexpr mode_option mode_options[] = {
    {'r', mode_request, "request", "request"}, {'n', mode_notify, "notify", "notify"},
    {'e', mode_event, "event", "event"},       {'l', mode_listen, "listen", "listen"},
    {'s', mode_script, "script", "script"},    {'S', mode_lua_script, "script", "script-lua"},
    {option_raw, mode_raw, "raw", "raw"},
};

const mode_option *find_mode(int option)
{
    for (const mode_option &entry : mode_options) {
        if (entry.option == option)
            return &entry;
    }
    return nullptr;
}

uint32_t mode_of_program_name(const char *path)
{
    if (path == nullptr)
        return mode_interactive;
    const char *slash = strrchr(path, '/');
    const char *name = slash != nullptr ? slash + 1 : path;
    if (strcmp(name, "kest_interpreter") == 0)
        return mode_script;
    return strcmp(name, "kest_lua") == 0 ? mode_lua_script : mode_interactive;
}

void store_mode_argument(cline_options *options, const char *argument)
{
    switch (options->mode) {
    case mode_request:
    case mode_notify:
        options->name = argument;
        break;
    case mode_event: {
        uint32_t event = 0;
        if (ve_string_strtoul(argument, 10, &event) < 0)
            fprintf(stderr, "Group id must be an integer.\n");
        options->event = event;
        break;
    }
    case mode_script:
    case mode_lua_script:
        options->script = argument;
        break;
    case mode_raw:
        options->params.emplace_back(argument);
        break;
    default:
        break;
    }
}

/// Appends the ids of a list like "1,,2". Returns 0, or -1 with a message.
int add_groups(cline_options *options, const char *list)
{
    std::string copy = list;
    char *rest = nullptr;
    for (char *piece = strtok_r(copy.data(), ",", &rest); piece != nullptr; piece = strtok_r(nullptr, ",", &rest)) {
        uint32_t group = 0;
        if (ve_string_strtoul(piece, 10, &group) < 0) {
            fprintf(stderr, "Invalid group number: '%s'.\n", piece);
            return -1;
        }
        if (options->groups_count == cline_groups_max) {
            fprintf(stderr, "Too many groups: at most %u can be joined.\n", cline_groups_max);
            return -1;
        }
        options->groups[options->groups_count++] = static_cast<int32_t>(group);
    }
    return 0;
}

void print_version()
{
    printf("Veltro Management System client.\n");
    printf("%s version %s\n", program, version);
}

} // namespace

void cline_usage(FILE *stream)
{
    fprintf(stream, "Veltro Management System client.\n");
    fprintf(stream, "Usage: %s [options]\n", program);
    fprintf(stream, "\n");
    fprintf(stream, "Options:\n");
    fprintf(stream, "\t-r, --request <name> [<params>]     Proceed request.\n");
    fprintf(stream, "\t-n, --notify <name> [<params>]      Send notify.\n");
    fprintf(stream, "\t-e, --event <id> [<params>]         Send event.\n");
    fprintf(stream, "\t-l, --listen                        Listen for incoming events (specify as -g).\n");
    fprintf(stream, "\t    --raw <json-msg>                Send raw JSON-RPC message.\n");
    fprintf(stream, "\t-s, --script <path-to-script>       Proceed script file.\n");
    fprintf(stream, "\t-S, --lua-script <path-to-script>   Proceed Lua script file.\n");
    fprintf(stream, "\t-g, --groups <gr1>[,<gr2>,..,<grN>] Join selected groups.\n");
    fprintf(stream, "\t    --ssl                           Use SSL layer.\n");
    fprintf(stream,
            "\t-c, --config <path>                 Path to config file (default is \"$HOME/.local/%s/config\").\n",
            program);
    fprintf(stream, "\t-u, --unixpath <path>               UNIX socket path to connect (default is \"%s\").\n",
            ve_jrpcapi_default_socket);
    fprintf(stream, "\t-h, --help                          Print this help message.\n");
    fprintf(stream, "\t-v, --version                       Display %s version.\n", program);
}

int cline_parse(int argc, char **argv, cline_options *options)
{
    if (options == nullptr)
        __ve_log_assert_fmt("options != ((void *)0)", "cline", __LINE__, __func__, "no record to fill");
    options->mode = mode_of_program_name(argc > 0 ? argv[0] : nullptr);
    const char *mode_word = "interactive";

    optind = 0; // the scanner starts anew, however often it ran before
    int option;
    while ((option = getopt_long(argc, argv, short_options, long_options, nullptr)) != -1) {
        if (const mode_option *chosen = find_mode(option)) {
            if (options->mode != mode_interactive) {
                fprintf(stderr, "Cannot execute '%s' and '%s' modes simultaneously.\n", chosen->word, mode_word);
                return -1;
            }
            options->mode = chosen->mode;
            mode_word = chosen->remembered;
            store_mode_argument(options, optarg);
            continue;
        }
        switch (option) {
        case 'h':
            cline_usage(stdout);
            return 1;
        case 'v':
            print_version();
            return 1;
        case 'g':
            if (add_groups(options, optarg) != 0)
                return -1;
            break;
        case 'u':
            options->unixpath = optarg;
            break;
        case 'c':
            options->config = optarg;
            break;
        case option_ssl:
            options->ssl = 1;
            break;
        default:
            cline_usage(stderr);
            return -1;
        }
    }
    if (options->mode == mode_raw)
        return 0;
    for (int i = optind; i < argc; i++) {
        if (!utf8_valid(argv[i])) {
            fprintf(stderr, "Argument '%s' is not valid UTF-8 text.\n", visible(argv[i]).c_str());
            return -1;
        }
        options->params.emplace_back(argv[i]);
    }
    return 0;
}
