#include "veld/state/store.h"

#include "base/file.h"
#include "base/json_write.h"

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

constexpr int most_kept = 1000;
constexpr off_t largest_document = off_t{256} << 20;

bool fail(std::string *error, const std::string &path)
{
    *error = path + ": " + strerror(errno);
    return false;
}

} // namespace

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

bool state_store::load(const std::string &name, json_ref *document, std::string *error) const
{
    document->reset();
    if (directory_.empty()) {
        const auto found = memory_.find(name);
        if (found != memory_.end())
            *document = json_ref::share(found->second.get());
        return true;
    }
    const fd_owner fd(::open(path(name).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!fd)
        return errno == ENOENT || fail(error, path(name));
    struct stat found {
    };
    if (fstat(fd.get(), &found) != 0)
        return fail(error, path(name));
    if (!S_ISREG(found.st_mode)) {
        *error = path(name) + ": not a regular file";
        return false;
    }
    std::string text;
    if (found.st_size > largest_document || !read_all(fd.get(), static_cast<size_t>(largest_document), &text)) {
        errno = found.st_size > largest_document ? EFBIG : errno;
        return fail(error, path(name));
    }
    json_error_t where{};
    document->reset(json_loadb(text.data(), text.size(), JSON_ALLOW_NUL | JSON_REJECT_DUPLICATES, &where));
    if (*document)
        return true;
    *error = path(name) + ": line " + std::to_string(where.line) + ": " + where.text;
    return false;
}

bool state_store::save(const std::string &name, const json_t *document, std::string *error)
{
    if (directory_.empty()) {
        memory_[name] = json_ref{json_deep_copy(document)};
        return true;
    }
    const std::string content = json_written(document, JSON_INDENT(1)) + "\n";
    if (content.size() == 1) {
        *error = path(name) + ": cannot be written as JSON";
        return false;
    }
    return replace_file(path(name), content, {.mode = 0600, .durable = true, .suffix = ".new"}) ||
           fail(error, path(name));
}

bool state_store::keep(const std::string &name, std::string *error)
{
    if (directory_.empty())
        return true;
    for (int number = 1; number <= most_kept; ++number) {
        if (link(path(name).c_str(), (path(name) + ".kept-" + std::to_string(number)).c_str()) == 0 || errno == ENOENT)
            return true;
        if (errno != EEXIST)
            break;
    }
    return fail(error, path(name) + ".kept");
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
