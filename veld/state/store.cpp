#include "veld/state/store.h"

#include "veld/base/log.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

namespace veld
{

namespace
{

bool fail(std::string *error, const std::string &path)
{
    *error = path + ": " + strerror(errno);
    return false;
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

std::string parent_of(const std::string &path)
{
    const size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

// A new name in a directory is on disk only when the directory is.
bool sync_directory(const std::string &path)
{
    const owned_fd fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return fd && fsync(fd.get()) == 0;
}

} // namespace

bool write_file_atomically(const std::string &path, std::string_view content, std::string *error)
{
    const std::string fresh = path + ".new";
    const owned_fd fd(open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!fd)
        return fail(error, fresh);
    if (!write_all(fd.get(), content) || fsync(fd.get()) != 0 || rename(fresh.c_str(), path.c_str()) != 0) {
        fail(error, path);
        unlink(fresh.c_str());
        return false;
    }
    return sync_directory(parent_of(path)) || fail(error, path);
}

bool make_directories(const std::string &path, std::string *error)
{
    for (size_t at = path.find('/', 1); at != std::string::npos; at = path.find('/', at + 1)) {
        if (mkdir(path.substr(0, at).c_str(), 0755) != 0 && errno != EEXIST)
            return fail(error, path.substr(0, at));
    }
    struct stat found {
    };
    if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST)
        return fail(error, path);
    if (stat(path.c_str(), &found) != 0)
        return fail(error, path);
    if (!S_ISDIR(found.st_mode)) {
        errno = ENOTDIR;
        return fail(error, path);
    }
    return true;
}

bool state_store::open(const std::string &directory, std::string *error)
{
    if (!make_directories(directory, error))
        return false;
    lock_.reset(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!lock_)
        return fail(error, directory);
    if (flock(lock_.get(), LOCK_EX | LOCK_NB) != 0) {
        *error = directory + ": another daemon keeps its state there";
        return false;
    }
    char *absolute = realpath(directory.c_str(), nullptr);
    directory_ = absolute != nullptr ? absolute : directory;
    free(absolute);
    return true;
}

json_ref state_store::load(const std::string &name)
{
    if (directory_.empty()) {
        const auto found = memory_.find(name);
        return found == memory_.end() ? json_ref{} : json_ref::share(found->second.get());
    }
    const owned_fd fd(::open(path(name).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!fd) {
        if (errno != ENOENT)
            LOG_ERROR("saved state: %s: %m", path(name).c_str());
        return {};
    }
    json_error_t where{};
    json_ref document{json_loadfd(fd.get(), JSON_ALLOW_NUL | JSON_REJECT_DUPLICATES, &where)};
    if (!document)
        set_aside(name, "line " + std::to_string(where.line) + ": " + where.text);
    return document;
}

void state_store::set_aside(const std::string &name, const std::string &why)
{
    if (directory_.empty()) {
        memory_.erase(name);
        LOG_ERROR("saved state: %s: %s", name.c_str(), why.c_str());
        return;
    }
    std::string aside;
    int number = 1;
    do
        aside = path(name) + ".damaged-" + std::to_string(number++);
    while (access(aside.c_str(), F_OK) == 0);
    if (rename(path(name).c_str(), aside.c_str()) == 0)
        LOG_ERROR("saved state: %s is damaged (%s), set aside as %s", path(name).c_str(), why.c_str(), aside.c_str());
    else
        LOG_ERROR("saved state: %s is damaged (%s), and cannot be set aside: %m", path(name).c_str(), why.c_str());
}

bool state_store::save(const std::string &name, const json_t *document, std::string *error)
{
    if (directory_.empty()) {
        memory_[name] = json_ref{json_deep_copy(document)};
        return true;
    }
    char *text = json_dumps(document, JSON_INDENT(1));
    if (text == nullptr) {
        *error = path(name) + ": cannot be written as JSON";
        return false;
    }
    std::string content = text;
    free(text);
    content += '\n';
    return write_file_atomically(path(name), content, error);
}

bool state_store::remove(const std::string &name, std::string *error)
{
    if (directory_.empty()) {
        memory_.erase(name);
        return true;
    }
    if (unlink(path(name).c_str()) != 0)
        return errno == ENOENT || fail(error, path(name));
    return sync_directory(directory_) || fail(error, path(name));
}

} // namespace veld
