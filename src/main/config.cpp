#include "main/config.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "base/fd.h"
#include "commands/password.h"
#include "event/request.h"
#include "event/trouble.h"
#include "main/script.h"
#include "platform/ve_out.h"

namespace
{

constexpr size_t default_path_size = 256;

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

/// Why the commands in it may be somebody else's, or null.
const char *foreign(const struct stat &info)
{
    if (info.st_uid != geteuid() && info.st_uid != 0)
        return "not run: it belongs to another user";
    return (info.st_mode & S_IWOTH) != 0 ? "not run: everybody may write it" : nullptr;
}

bool is_null_device(const struct stat &info)
{
    return S_ISCHR(info.st_mode) && info.st_rdev == makedev(1, 3);
}

/// The file, if it is one and can be run. Says why not where it was asked for, and where the usual one is foreign.
fd_owner open_config(const char *path, bool asked_for)
{
    // What is looked at is what is run. A FIFO is not waited for.
    fd_owner file{open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)};
    struct stat info = {};
    const char *reason = nullptr;
    const int error = errno;
    if (!file || fstat(file.get(), &info) != 0)
        reason = asked_for || access(path, F_OK) == 0 ? strerror(error) : "";
    else if (S_ISREG(info.st_mode))
        reason = asked_for ? nullptr : foreign(info);
    else if (asked_for && !is_null_device(info)) // which is as good as an empty one
        reason = S_ISDIR(info.st_mode) ? strerror(EISDIR) : "not a regular file";
    else
        reason = "";
    if (reason == nullptr)
        return file;
    if (*reason != '\0')
        fprintf(stderr, "%s: %s\n", ve_visible_error(path).c_str(), reason);
    return {};
}

/// Makes standard output what `file` is. Returns 0, or the error.
int redirect_output(const fd_owner &file)
{
    ve_out_flush();
    while (dup2(file.get(), STDOUT_FILENO) < 0) {
        if (errno != EINTR && errno != EBUSY)
            return errno;
    }
    ve_out_reopened();
    return 0;
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
    fd_owner file = open_config(path, asked_for);
    if (!file)
        return;
    const fd_owner kept{fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)};
    const fd_owner hidden{open("/dev/null", O_WRONLY | O_CLOEXEC)};
    const int error = kept && hidden ? redirect_output(hidden) : errno;
    if (error != 0) {
        fprintf(stderr, "%s: not run: %s\n", ve_visible_error(path).c_str(), strerror(error));
        return;
    }
    running = path;
    password_ask_on_error(true);
    const ve_jrpcapi_slow before = ve_jrpcapi_tell_slow(request_ctx, {trouble_slow_ms, tell_slow});
    run_script(ve_input(std::move(file)), path, 1);
    ve_jrpcapi_tell_slow(request_ctx, before);
    password_ask_on_error(false);
    if (const int lost = redirect_output(kept); lost != 0)
        ve_out_fail(lost); // what follows would be written nowhere
}
