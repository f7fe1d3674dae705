#include "main/config.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "base/fd.h"
#include "commands/password.h"
#include "event/request.h"
#include "main/script.h"
#include "platform/ve_out.h"

namespace
{

constexpr size_t default_path_size = 256;
/// An answer that takes longer is worth a word to whoever sees nothing else.
constexpr int slow_ms = 2000;

std::string running; // the path of the file that runs

void tell_slow(const ve_jrpcapi *)
{
    const std::string text = ve_visible_error(running) + ": waiting for the daemon\n";
    ve_out_write_error(text.data(), text.size());
}

const char *home_directory()
{
    if (const char *home = getenv("HOME"))
        return home;
    const passwd *entry = getpwuid(getuid());
    return entry != nullptr && entry->pw_dir != nullptr ? entry->pw_dir : "";
}

/// Whether it can be run; when it was asked for and cannot, says why.
bool usable(const char *path, bool asked_for)
{
    struct stat info;
    const char *reason = nullptr;
    if (stat(path, &info) != 0)
        reason = asked_for ? strerror(errno) : nullptr;
    else if (S_ISREG(info.st_mode))
        reason = access(path, R_OK) != 0 ? strerror(errno) : "";
    else if (asked_for && !S_ISCHR(info.st_mode)) // /dev/null is as good as an empty one
        reason = S_ISDIR(info.st_mode) ? strerror(EISDIR) : "not a regular file";
    if (reason != nullptr && *reason != '\0')
        fprintf(stderr, "%s: %s\n", path, reason);
    return reason != nullptr && *reason == '\0';
}

} // namespace

void run_config(const char *path)
{
    char default_path[default_path_size];
    const bool asked_for = path != nullptr;
    if (!asked_for) {
        snprintf(default_path, sizeof default_path, "%s/.local/kest/config", home_directory());
        path = default_path;
    }
    if (!usable(path, asked_for))
        return;
    ve_out_flush();
    const fd_owner kept{fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)};
    const fd_owner hidden{open("/dev/null", O_WRONLY | O_CLOEXEC)};
    if (!kept || !hidden)
        return;
    dup2(hidden.get(), STDOUT_FILENO);
    ve_out_reopened();
    running = path;
    password_ask_on_error(true);
    ve_jrpcapi_tell_slow(request_ctx, slow_ms, tell_slow);
    run_script(path, 1);
    ve_out_flush();
    ve_jrpcapi_tell_slow(request_ctx, -1, nullptr);
    password_ask_on_error(false);
    dup2(kept.get(), STDOUT_FILENO);
    ve_out_reopened();
}
