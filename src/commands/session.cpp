#include "commands/session.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "commands/handler.h"
#include "commands/password.h"
#include "event/request.h"
#include "platform/ve_child.h"
#include "platform/ve_fs.h"
#include "platform/ve_out.h"
#include "platform/ve_string.h"
#include "platform/ve_wait.h"
#include "state/editor.h"
#include "state/record.h"
#include "utils/colorscheme.h"

namespace
{

// A recording's file name fits the shell's state.
constexpr size_t record_name_max = 255;

int syntax(const char *name, const char *usage)
{
    ve_printf("syntax: %s%s\n", name, usage);
    return -1;
}

/// Logs in and remembers it, or forgets every login. Returns 0 when accepted, else negative.
int log_in(const char *user, const char *password)
{
    const int result = msg_login(user, password);
    if (result == 0) {
        kest_update_login(user, password);
        return 0;
    }
    if (ve_wait_interrupted())
        return -1; // nobody knows how the daemon decided; who one was stays
    ve_puts("Failed to authenticate user");
    msg_logout();
    kest_update_login(nullptr, nullptr);
    return result;
}

int log_in_by_prompt(const char *user)
{
    secret_text password;
    if (!password_read(user, &password))
        return -1;
    return log_in(user, password.c_str());
}

/// The colour of that name, or null.
hsv_color *find_color(colorscheme_colors *scheme, const char *word)
{
    if (word == nullptr)
        return nullptr;
    return strcmp(word, "prompt") == 0         ? &scheme->prompt
           : strcmp(word, "autocomplete") == 0 ? &scheme->autocomplete
           : strcmp(word, "hint") == 0         ? &scheme->hint
                                               : nullptr;
}

/// Takes the number over, cut to the component's width; no word and "*" keep what is there. False when it is no number.
template <class Component> bool read_component(const char *word, Component *component)
{
    if (word == nullptr || strcmp(word, "*") == 0)
        return true;
    uint32_t number;
    if (ve_string_strtoul(word, 10, &number) < 0)
        return false;
    *component = static_cast<Component>(number);
    return true;
}

/// Creates the file, unless something else than a file of this user stands there.
bool create_record_file(const char *path)
{
    struct stat there;
    if (strlen(path) > record_name_max)
        return false;
    // What another user can read is no place for passwords.
    if (stat(path, &there) == 0 && there.st_uid != geteuid() && geteuid() != 0)
        return false;
    return ve_fs_touch(path) >= 0;
}

} // namespace

int process_login(const char *name, command_args args)
{
    const char *user = arg_text(args, 0);
    switch (args.size()) {
    case 0:
        user = getenv("USER");
        if (user == nullptr || *user == '\0') {
            ve_printf("%s: USER is not set, give a user name.\n", name);
            return -1;
        }
        return log_in(user, nullptr);
    case 1:
        return log_in_by_prompt(user);
    case 3:
        if (strcmp(arg_text(args, 1), "-p") == 0)
            return log_in(user, arg_text(args, 2));
        [[fallthrough]];
    default:
        return syntax(name, " [<login> [-p <password>]]");
    }
}

int process_logout(const char *name, command_args args)
{
    if (!args.empty())
        return syntax(name, "");
    const int result = msg_logout();
    if (result == 0)
        kest_update_login(nullptr, nullptr);
    return result;
}

int process_color(const char *name, command_args args)
{
    static constexpr char usage[] = " <prompt|autocomplete|hint> [<hue>|* <saturation>|* <value>|*]";
    colorscheme_colors scheme = kest_colorscheme_get();
    hsv_color *color = find_color(&scheme, arg_text(args, 0));
    if (color == nullptr || !read_component(arg_text(args, 1), &color->hue) ||
        !read_component(arg_text(args, 2), &color->saturation) || !read_component(arg_text(args, 3), &color->value))
        return syntax(name, usage);
    kest_colorscheme_set(scheme);
    ve_colors_set_hsv2(*color);
    ve_printf("%d %d %d\n", color->hue, color->saturation, color->value);
    ve_colors_reset();
    return 0;
}

int process_opt(const char *name, command_args args)
{
    const char *option = arg_text(args, 0);
    const char *state = arg_text(args, 1);
    const bool complete = args.size() == 2;
    const bool on = complete && strcmp(state, "on") == 0;
    const bool off = complete && strcmp(state, "off") == 0;
    if ((on || off) && strcmp(option, "autocomplete") == 0) {
        kest_set_autocomplete(on ? 1 : 0);
    } else if ((on || off) && strcmp(option, "hint") == 0) {
        kest_set_hint(on ? 1 : 0);
    } else {
        ve_printf("syntax: %s autocomplete|hint on|off", name);
        return -1;
    }
    return 0;
}

int process_clear(const char *, command_args)
{
    ve_printf("\033[2J\033[H");
    return 0;
}

int process_shell(const char *name, command_args args)
{
    std::string command;
    for (const std::string &word : args)
        command.append(word).append(1, ' ');
    if (command.empty())
        command = "sh ";
    ve_out_flush();
    ve_wait_checkpoint(); // a Ctrl-C that came before is for this command
    if (ve_wait_interrupted())
        return -1;
    if (ve_child_run(command.c_str()) < 0)
        ve_printf("%s: cannot start the shell: %s.\n", name, strerror(errno));
    return 0;
}

int process_record(const char *name, command_args args)
{
    if (args.size() != 1)
        return syntax(name, " <filename>|abort");
    const char *file = arg_text(args, 0);
    if (strcmp(file, "abort") == 0) {
        if (!record_check()) {
            ve_printf("%s: no record found.\n", name);
            return -1;
        }
        record_abort();
        return 0;
    }
    if (record_check()) {
        ve_printf("%s: already recording.\n", name);
        return -1;
    }
    if (!create_record_file(file)) {
        ve_printf("%s: can't create record file %s.\n", name, ve_visible(file).c_str());
        return -1;
    }
    record_start(file);
    return 0;
}
