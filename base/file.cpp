#include "base/file.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/fd.h"
#include "base/hex.h"

namespace
{

std::string directory_of(const std::string &path)
{
    const size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? "." : path.substr(0, std::max<size_t>(slash, 1));
}

bool fill(fd_owner file, const std::function<bool(int fd)> &write, const file_replacement &how)
{
    return write(file.get()) && (!how.mode || fchmod(file.get(), *how.mode) == 0) &&
           (!how.durable || fsync(file.get()) == 0) && file.reset() == 0;
}

} // namespace

bool write_all(int fd, std::string_view content)
{
    while (!content.empty()) {
        const ssize_t count = write(fd, content.data(), content.size());
        if (count >= 0)
            content.remove_prefix(static_cast<size_t>(count));
        else if (errno != EINTR)
            return false;
    }
    return true;
}

bool read_all(int fd, size_t limit, std::string *content)
{
    char block[16384];
    for (size_t left = limit; left > 0;) {
        const ssize_t count = read(fd, block, std::min(sizeof block, left));
        if (count == 0)
            return true;
        if (count < 0 && errno != EINTR)
            return false;
        content->append(block, count > 0 ? static_cast<size_t>(count) : 0);
        left -= count > 0 ? static_cast<size_t>(count) : 0;
    }
    return true;
}

bool replace_file(const std::string &path, std::string_view content, const file_replacement &how)
{
    return replace_file(
        path, [content](int fd) { return write_all(fd, content); }, how);
}

bool replace_file(const std::string &path, const std::function<bool(int fd)> &write, const file_replacement &how)
{
    const std::string fresh = path + (how.suffix != nullptr ? how.suffix : "." + random_hex(8));
    // What a writer that was killed left there goes, whatever it is: a FIFO would be waited for.
    if (how.suffix != nullptr)
        unlink(fresh.c_str());
    fd_owner file{open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC,
                       how.mode ? *how.mode & 0600 : 0666)};
    if (!file)
        return false;
    if (fill(std::move(file), write, how) && rename(fresh.c_str(), path.c_str()) == 0)
        return !how.durable || sync_directory(directory_of(path));
    const int error = errno;
    unlink(fresh.c_str());
    errno = error;
    return false;
}

bool write_result(const std::string &path, const std::function<bool(int fd)> &write)
{
    if (path.empty())
        return write(STDOUT_FILENO);
    struct stat there;
    if (stat(path.c_str(), &there) != 0 || S_ISREG(there.st_mode))
        return replace_file(path, write, {.durable = true});
    const fd_owner direct{open(path.c_str(), O_WRONLY | O_CLOEXEC)};
    return direct && write(direct.get());
}

bool sync_directory(const std::string &path)
{
    const fd_owner fd{open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    return fd && fsync(fd.get()) == 0;
}
