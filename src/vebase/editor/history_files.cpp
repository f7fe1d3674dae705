#include "vebase/editor/history_files.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/file.h"
#include "platform/ve_history.h"

namespace
{

constexpr char mark = '\001';
constexpr off_t size_max = off_t{256} << 20;
constexpr int lock_tries = 200;
constexpr timespec lock_pause = {0, 5'000'000};

/// Null when `info` is a plain file that only this user can have put there.
const char *refusal(const struct stat &info)
{
    if (!S_ISREG(info.st_mode))
        return "not a regular file";
    if (info.st_uid != geteuid())
        return "a file of another user";
    if (info.st_nlink > 1) // none is left to one that was replaced meanwhile, which is as good
        return "a file with several names";
    return info.st_size > size_max ? "too large" : nullptr;
}

/// Takes a file's rights away from all but its owner, who is this user, or anybody for root. False with errno.
bool make_private(int file)
{
    struct stat info;
    if (fstat(file, &info) < 0)
        return false;
    if (S_ISREG(info.st_mode) && (info.st_uid == geteuid() || geteuid() == 0))
        return fchmod(file, info.st_mode & 0700) == 0;
    errno = EPERM;
    return false;
}

bool write_in_place(const char *path, std::string_view content)
{
    fd_owner file(open(path, O_WRONLY | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0600));
    if (file.get() < 0 || !make_private(file.get()) || ftruncate(file.get(), 0) < 0)
        return false;
    if (write_all(file.get(), content) && file.reset() == 0)
        return true;
    // An empty script says more clearly than half of one that something went wrong.
    const int error = errno;
    [[maybe_unused]] const int ignored = ftruncate(file.get(), 0);
    errno = error;
    return false;
}

/// False with errno.
bool write_script(const char *path, std::string_view content)
{
    struct stat info;
    const bool exists = lstat(path, &info) == 0;
    if (exists && !(S_ISREG(info.st_mode) && info.st_nlink == 1 && info.st_uid == geteuid()))
        return write_in_place(path, content);
    if (exists && access(path, W_OK) < 0)
        return false;
    // Passwords may stand in it.
    const mode_t mode = exists ? info.st_mode & 0700 : 0600;
    // A directory that takes no new file may hold one that can be written.
    return replace_file(path, content, {.mode = mode}) ||
           ((errno == EACCES || errno == EPERM || errno == EROFS) && write_in_place(path, content));
}

bool is_named(const struct stat &info, const char *path)
{
    struct stat named;
    return lstat(path, &named) == 0 && named.st_dev == info.st_dev && named.st_ino == info.st_ino;
}

} // namespace

history_lock::history_lock(const char *path)
{
    for (int i = 0; i < lock_tries; ++i) {
        file_.reset(open(path, O_RDONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0600));
        struct stat info;
        if (file_.get() < 0 || fstat(file_.get(), &info) < 0)
            return;
        const bool locked = flock(file_.get(), LOCK_EX | LOCK_NB) == 0;
        // Who held it may have put another file in its place.
        held_ = locked && is_named(info, path);
        if (held_)
            return;
        if (!locked)
            nanosleep(&lock_pause, nullptr);
    }
}

bool history_read(const char *path, std::string &content, const char **reason)
{
    content.clear();
    const fd_owner file(open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (file.get() < 0 && errno == ENOENT)
        return true;
    struct stat info = {};
    if (file.get() < 0 || fstat(file.get(), &info) < 0)
        *reason = errno == ELOOP ? "a symbolic link" : strerror(errno);
    else
        *reason = refusal(info);
    if (*reason == nullptr)
        content.reserve(static_cast<size_t>(info.st_size) + 1);
    if (*reason == nullptr && !read_all(file.get(), static_cast<size_t>(info.st_size), &content))
        *reason = strerror(errno);
    return *reason == nullptr;
}

bool history_replace(const char *path, std::string_view content)
{
    return replace_file(path, content, {.mode = 0600});
}

void history_remove_leftovers(const char *path)
{
    // As replace_file names a new file: the name, a dot, digits.
    constexpr size_t digits = 16;
    const char *slash = strrchr(path, '/');
    const std::string name = std::string(slash != nullptr ? slash + 1 : path) + ".";
    const std::string folder = slash != nullptr ? std::string(path, slash) + "/" : "./";
    const std::unique_ptr<DIR, int (*)(DIR *)> entries(opendir(folder.c_str()), closedir);
    while (const dirent *entry = entries ? readdir(entries.get()) : nullptr) {
        const std::string_view each = entry->d_name;
        if (each.size() != name.size() + digits || !each.starts_with(name) ||
            each.find_first_not_of("0123456789abcdef", name.size()) != std::string_view::npos)
            continue;
        const std::string leftover = folder + entry->d_name;
        struct stat info;
        if (lstat(leftover.c_str(), &info) == 0 && refusal(info) == nullptr)
            unlink(leftover.c_str());
    }
}

int ve_history_write_script(const char *path, std::string_view script)
{
    if (write_script(path, script))
        return 0;
    fprintf(stderr, "%s: %s\n", path, strerror(errno));
    return -1;
}

void history_encode(std::string_view entry, std::string &out)
{
    if (entry.find('\n') == std::string_view::npos && (entry.empty() || entry.front() != mark)) {
        out.append(entry);
    } else {
        out.push_back(mark);
        for (const char byte : entry) {
            if (byte == '\n')
                out.append("\\n");
            else if (byte == '\\')
                out.append("\\\\");
            else
                out.push_back(byte);
        }
    }
    out.push_back('\n');
}

bool history_is_plain(std::string_view line)
{
    return (line.empty() || line.front() != mark) && line.find('\0') == std::string_view::npos;
}

std::string history_newest(const std::string &content, size_t count)
{
    size_t begin = content.size();
    for (size_t lines = 0; begin > 0 && lines < count;) {
        const size_t end = begin - 1; // of a line, whose feed may be missing behind the last one
        const size_t feed = end > 0 ? content.rfind('\n', end - 1) : std::string::npos;
        const size_t start = feed == std::string::npos ? 0 : feed + 1;
        lines += end > start || content[end] != '\n' ? 1 : 0;
        begin = start;
    }
    return content.substr(begin);
}

void history_decode(std::string_view line, std::string &out)
{
    if (line.empty() || line.front() != mark) {
        out.assign(line);
        return;
    }
    out.clear();
    for (size_t i = 1; i < line.size(); ++i) {
        if (line[i] != '\\' || i + 1 == line.size()) {
            out.push_back(line[i]);
            continue;
        }
        ++i;
        if (line[i] != 'n' && line[i] != '\\')
            out.push_back('\\');
        out.push_back(line[i] == 'n' ? '\n' : line[i]);
    }
}
