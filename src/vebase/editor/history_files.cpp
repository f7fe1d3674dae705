#include "vebase/editor/history_files.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace
{

constexpr char mark = '\001';
constexpr off_t size_max = off_t{256} << 20;

class descriptor
{
public:
    explicit descriptor(int fd) : fd_(fd) {}
    descriptor(const descriptor &) = delete;
    descriptor &operator=(const descriptor &) = delete;
    ~descriptor()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    int get() const { return fd_; }
    /// Closes now; what the file system reports only then is an error like any other.
    bool finish() { return close(std::exchange(fd_, -1)) == 0; }

private:
    int fd_;
};

/// Null when `info` is a plain file that only this user can have put there.
const char *refusal(const struct stat &info)
{
    if (!S_ISREG(info.st_mode))
        return "not a regular file";
    if (info.st_uid != geteuid())
        return "a file of another user";
    if (info.st_nlink != 1)
        return "a file with several names";
    return info.st_size > size_max ? "too large" : nullptr;
}

bool write_all(int fd, std::string_view content)
{
    while (!content.empty()) {
        const ssize_t count = write(fd, content.data(), content.size());
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return false;
        content.remove_prefix(static_cast<size_t>(count));
    }
    return true;
}

/// Writes `content` to a new file beside `path` and gives it that name.
bool replace_file(const char *path, std::string_view content, mode_t mode)
{
    std::string beside = std::string{path} + ".XXXXXX";
    descriptor file{mkostemp(beside.data(), O_CLOEXEC)};
    if (file.get() < 0)
        return false;
    if (write_all(file.get(), content) && fchmod(file.get(), mode) == 0 && file.finish() &&
        rename(beside.c_str(), path) == 0)
        return true;
    const int error = errno;
    unlink(beside.c_str());
    errno = error;
    return false;
}

bool write_in_place(const char *path, std::string_view content)
{
    descriptor file{open(path, O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0666)};
    if (file.get() < 0)
        return false;
    if (write_all(file.get(), content) && file.finish())
        return true;
    // An empty script says more clearly than half of one that something went wrong.
    const int error = errno;
    if (file.get() >= 0 && ftruncate(file.get(), 0) < 0)
        errno = error;
    errno = error;
    return false;
}

mode_t default_mode()
{
    const mode_t mask = umask(0);
    umask(mask);
    return 0666 & ~mask;
}

} // namespace

history_file history_read(const char *path, std::string &content, const char **reason)
{
    const descriptor file{open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)};
    if (file.get() < 0) {
        if (errno == ENOENT)
            return history_file::missing;
        *reason = errno == ELOOP ? "a symbolic link" : strerror(errno);
        return history_file::refused;
    }
    struct stat info;
    *reason = fstat(file.get(), &info) < 0 ? strerror(errno) : refusal(info);
    if (*reason != nullptr)
        return history_file::refused;
    content.resize(static_cast<size_t>(info.st_size));
    size_t filled = 0;
    while (filled < content.size()) {
        const ssize_t count = read(file.get(), content.data() + filled, content.size() - filled);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0) {
            *reason = strerror(errno);
            return history_file::refused;
        }
        if (count == 0)
            break;
        filled += static_cast<size_t>(count);
    }
    content.resize(filled);
    return history_file::read;
}

int history_replace(const char *path, std::string_view content, const char **reason)
{
    struct stat info;
    *reason = nullptr;
    if (lstat(path, &info) == 0)
        *reason = S_ISLNK(info.st_mode) ? "a symbolic link" : refusal(info);
    else if (errno != ENOENT)
        *reason = strerror(errno);
    if (*reason != nullptr)
        return -1;
    if (replace_file(path, content, 0600))
        return 0;
    *reason = strerror(errno);
    return -1;
}

int history_write_script(const char *path, std::string_view content)
{
    struct stat info;
    const bool exists = lstat(path, &info) == 0;
    if (exists && !(S_ISREG(info.st_mode) && info.st_nlink == 1 && info.st_uid == geteuid()))
        return write_in_place(path, content) ? 0 : -1;
    if (exists && access(path, W_OK) < 0)
        return -1;
    if (replace_file(path, content, exists ? info.st_mode & 0777 : default_mode()))
        return 0;
    // A directory that takes no new file may hold one that can be written.
    return (errno == EACCES || errno == EPERM || errno == EROFS) && write_in_place(path, content) ? 0 : -1;
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
