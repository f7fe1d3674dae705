#include "commands/download.h"

#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "commands/device.h"
#include "commands/file_server.h"
#include "commands/handler.h"
#include "commands/values.h"
#include "event/listener.h"
#include "event/request.h"
#include "platform/ve_fs.h"
#include "platform/ve_json.h"
#include "platform/ve_out.h"
#include "platform/ve_rl.h"
#include "platform/ve_wait.h"
#include "utils/json_util.h"

namespace
{

constexpr char progress_name[] = "Device.DeviceInfo.UpgradeProgress";
constexpr char status_name[] = "Device.DeviceInfo.UpgradeStatus";
constexpr char flashing_label[] = "Flashing:";

int syntax(const char *name)
{
    ve_printf("syntax: %s <firmware|config|file> <path_to_file> [<target_file_name>]\n", name);
    return -1;
}

/// The "FileType" of the first word, or null.
const char *file_type_of(const char *word)
{
    static constexpr const char *types[][2] = {{"firmware", "Firmware"}, {"config", "Config"}, {"file", "File"}};
    for (const auto &[typed, type] : types)
        if (word != nullptr && strcmp(word, typed) == 0)
            return type;
    return nullptr;
}

/// True when the daemon can read this machine's files: the link is a UNIX socket, or would be.
bool daemon_is_local()
{
    return ve_socket_type(ve_jrpcapi_socket(request_ctx)) == ve_socket_unix;
}

/// "file://" and the absolute path of a local file; empty when there is no such file.
std::string file_url(const char *path)
{
    char absolute[PATH_MAX];
    return realpath(path, absolute) != nullptr ? std::string("file://") + absolute : std::string();
}

/// A line typed by the user, freed with its owner.
struct free_deleter {
    void operator()(char *text) const { free(text); }
};
using typed_line = std::unique_ptr<char, free_deleter>;

enum class answer { no, yes, cancel, abandon };

/// What the shell offers for its commands is no answer to a question.
class without_completion
{
public:
    without_completion() = default;
    without_completion(const without_completion &) = delete;
    without_completion &operator=(const without_completion &) = delete;
    ~without_completion()
    {
        ve_rl_set_autocomplete_cb(autocomplete_);
        ve_rl_set_hint_cb(hint_);
    }

private:
    ve_rl_autocomplete_cb autocomplete_ = ve_rl_set_autocomplete_cb(nullptr);
    ve_rl_hint_cb hint_ = ve_rl_set_hint_cb(nullptr);
};

extern "C" void end_program(int signal)
{
    std::signal(signal, SIG_DFL);
    raise(signal);
    ve_wait_checkpoint();
}

/// Asks whether a major change shall reset the configuration. Ctrl-C ends a one-shot run; in the shell it abandons.
answer ask_reset()
{
    constexpr char question[] = "Reset config[(N)o/(y)es/(c)ancel] ";
    // The editor asks on terminals only. Who types while the output goes elsewhere sees what stands behind a pipe.
    if (isatty(STDIN_FILENO) != 0 && !ve_out_is_terminal()) {
        struct stat output;
        if (fstat(STDOUT_FILENO, &output) == 0 && S_ISFIFO(output.st_mode))
            ve_printf("%s", question);
        else
            ve_out_write_error(question, strlen(question));
    }
    struct sigaction before {
    };
    sigaction(SIGINT, nullptr, &before);
    if (before.sa_handler == SIG_DFL) {
        struct sigaction ending {
        };
        ending.sa_handler = end_program;
        sigaction(SIGINT, &ending, nullptr);
    }
    const without_completion plain;
    const typed_line line{ve_rl(question, -1)};
    const bool end_of_input = ve_rl_ctrld_is_pressed();
    if (before.sa_handler == SIG_DFL)
        sigaction(SIGINT, &before, nullptr);
    if (!line)
        return end_of_input ? answer::no : answer::abandon;
    if (!is_running())
        return answer::abandon;
    return strcasecmp(line.get(), "c") == 0   ? answer::cancel
           : strcasecmp(line.get(), "y") == 0 ? answer::yes
                                              : answer::no;
}

void send_download(json_t *params)
{
    msg_ref message{ve_jrpcmsg_create_new("Download", json_incref(params))};
    msg_exec(message.get(), -1);
}

void reset_config()
{
    ve_puts("Resetting config...");
    process_reset("reset", {});
}

/// The number that a list gives for the parameter `name`, 0 when there is none.
json_int_t value_of(const json_t *list, const char *name)
{
    size_t index;
    json_t *entry;
    json_array_foreach(list, index, entry)
    {
        const char *named = json_text(entry, "Name");
        if (named != nullptr && strcmp(named, name) == 0)
            return json_integer_value(json_object_get(entry, "Value"));
    }
    return 0;
}

/// Shows the flash's progress until the device goes down or the flash fails, and waits for the device to come back.
void watch_flashing()
{
    msg_ref poll{ve_jrpcmsg_cmd_get_parameter_values_new(nullptr)};
    ve_jrpcmsg_cmd_get_parameter_values_add(poll.get(), progress_name);
    ve_jrpcmsg_cmd_get_parameter_values_add(poll.get(), status_name);
    for (;;) {
        ve_jrpcmsg_set_result_new(poll.get(), nullptr);
        msg_exec_once(poll.get(), 1000);
        if (ve_wait_interrupted())
            return;
        if (!ve_jrpcmsg_has_result(poll.get()))
            break;
        const json_t *values = ve_jrpcmsg_parameter_list(poll.get());
        if (value_of(values, status_name) < 0)
            break;
        const json_int_t percent = value_of(values, progress_name);
        ve_rl_draw_progressbar(percent < 0 ? 0 : percent > 100 ? 100 : static_cast<int>(percent), flashing_label);
        ve_out_flush();
        if (ve_wait_sleep_ms(100) != 0)
            return;
    }
    ve_rl_draw_progressbar(100, flashing_label);
    ve_puts("");
    ve_out_flush();
    server_reconnect("Rebooting... ", true);
}

/// Gives a file that the daemon fetched from here, and therefore knows no name of, its name.
void name_file(const char *path, const json_t *result)
{
    const char *slash = strrchr(path, '/');
    const json_ref params{json_pack("{s: s, s: s, s: O}", "FileType", "File", "TargetFileName",
                                    slash != nullptr ? slash + 1 : path, "TransactionID",
                                    json_object_get(result, "TransactionID"))};
    send_download(params.get());
}

enum class next_step { flash, done, abandoned };

/// What the change of version asks for before the flash is confirmed.
next_step settle_version_change(const json_t *result, json_t *params, bool *confirm)
{
    const int change = ve_firmware_version_cmp(json_text(result, "CurrentVersion"), json_text(result, "NewVersion"));
    *confirm = change != 0;
    const char *direction = change > 0 ? "upgrade" : "downgrade";
    switch (change) {
    case 1:
    case -1:
        ve_printf("%s %s...\n", "Build", direction);
        return next_step::flash;
    case 2:
    case -2:
        ve_printf("%s %s...\n", "Minor", direction);
        return next_step::flash;
    case INT_MAX:
    case -INT_MAX:
        reset_config();
        return next_step::flash;
    case 3:
    case -3:
        break;
    default:
        return next_step::flash;
    }
    ve_printf("%s %s...\n", "Major", direction);
    switch (ask_reset()) {
    case answer::cancel:
        json_object_clear(params);
        json_object_set_new(params, "FileType", json_string("Firmware"));
        json_object_set(params, "TransactionID", json_object_get(result, "TransactionID"));
        send_download(params);
        return next_step::done;
    case answer::abandon:
        return next_step::abandoned;
    case answer::yes:
        reset_config();
        return next_step::flash;
    case answer::no:
        break;
    }
    return next_step::flash;
}

/// Everything behind the daemon's answer to a firmware download. Returns the command's result.
int upgrade_with(const json_t *result, json_t *params)
{
    if (json_integer_value(json_object_get(result, "Status")) != 0) {
        bool confirm = false;
        const next_step next = settle_version_change(result, params, &confirm);
        if (next != next_step::flash)
            return next == next_step::done ? 0 : -1;
        if (confirm) {
            const char *saved = json_text(result, "SavedFirmware");
            json_object_set_new(params, "URL", json_sprintf("file://%s", saved != nullptr ? saved : ""));
            json_object_set(params, "TransactionID", json_object_get(result, "TransactionID"));
            send_download(params);
        }
    }
    watch_flashing();
    return 0;
}

} // namespace

int process_download(const char *name, command_args args)
{
    const char *type = file_type_of(arg_text(args, 0));
    if (args.size() < 2 || args.size() > 3 || type == nullptr)
        return syntax(name);
    const char *file = arg_text(args, 1);
    const bool is_url = ve_url_parse(file) == 0;

    std::string url;
    if (is_url) {
        url = file;
    } else if (daemon_is_local()) {
        url = file_url(file);
        if (url.empty())
            return syntax(name);
    }
    json_ref params{json_pack("{s: s, s: s}", "FileType", type, "URL", url.c_str())};
    if (!params) {
        ve_printf("%s: %s: the path is not UTF-8.\n", name, ve_visible(file).c_str());
        return -1;
    }
    if (unsigned char digest[16]; ve_md5_calculate_from_file(file, digest) == 0)
        json_object_set_new(params.get(), "MD5", json_string(ve_md5_to_str(digest).c_str()));
    if (args.size() == 3)
        json_object_set_new(params.get(), "TargetFileName", json_string(arg_text(args, 2)));

    // The digest of a large file takes its time; the server's time runs only from here.
    std::shared_ptr<file_transfer> transfer;
    if (!is_url && url.empty()) {
        transfer = file_server_start(file, ve_jrpcapi_socket(request_ctx), &url);
        json_object_set_new(params.get(), "URL", json_string(url.c_str()));
        ve_out_flush();
    }

    msg_ref message{ve_jrpcmsg_create_new("Download", json_incref(params.get()))};
    msg_exec(message.get(), -1);
    const json_t *result = ve_jrpcmsg_result(message.get());
    if (result == nullptr) {
        file_server_cancel(transfer);
        print_status(message.get());
        return -1;
    }
    if (strcmp(type, "Firmware") == 0)
        return upgrade_with(result, params.get());
    const bool nameless = transfer && strcmp(type, "File") == 0 && args.size() == 2;
    if (nameless && json_text(result, "TransactionID") != nullptr)
        name_file(file, result);
    return 0;
}

int process_upgrade(const char *, command_args args)
{
    std::vector<std::string> words = {"firmware"};
    words.insert(words.end(), args.begin(), args.end());
    return process_download("download", words);
}
