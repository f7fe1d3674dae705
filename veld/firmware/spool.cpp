#include "veld/firmware/spool.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include "base/file.h"
#include "base/hex.h"

namespace veld
{

namespace
{

constexpr const char *unfinished = ".download-";

} // namespace

void spool::sweep(const std::string &directory)
{
    DIR *const entries = opendir(directory.c_str());
    if (entries == nullptr)
        return;
    while (const dirent *entry = readdir(entries)) {
        if (!std::string_view(entry->d_name).starts_with(unfinished))
            continue;
        // One that is locked is on its way to another daemon that stores into the same directory.
        const fd_owner fd(openat(dirfd(entries), entry->d_name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        if (fd && flock(fd.get(), LOCK_EX | LOCK_NB) == 0)
            unlinkat(dirfd(entries), entry->d_name, 0);
    }
    closedir(entries);
}

bool spool::fail(const std::string &what)
{
    error_ = what + ": " + strerror(errno);
    return false;
}

bool spool::create(const std::string &directory, uint64_t limit)
{
    directory_ = directory;
    limit_ = limit;
    path_ = directory + "/" + unfinished + random_hex(16);
    fd_.reset(open(path_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!fd_)
        return fail(directory);
    flock(fd_.get(), LOCK_EX | LOCK_NB);
    MD5Init(&digest_);
    return true;
}

spool::~spool()
{
    if (fd_ && !path_.empty())
        unlink(path_.c_str());
}

bool spool::append(std::string_view bytes)
{
    if (bytes.size() > limit_ - size_) {
        error_ = "larger than " + std::to_string(limit_) + " bytes";
        return false;
    }
    MD5Update(&digest_, reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
    if (!write_all(fd_.get(), bytes))
        return fail("the file cannot be stored");
    size_ += bytes.size();
    return true;
}

std::string spool::md5()
{
    uint8_t digest[MD5_DIGEST_LENGTH];
    MD5Final(digest, &digest_);
    return hex_of(digest, sizeof digest);
}

std::string spool::beginning(size_t most) const
{
    std::string bytes(most, '\0');
    const ssize_t count = pread(fd_.get(), bytes.data(), most, 0);
    bytes.resize(count > 0 ? static_cast<size_t>(count) : 0);
    return bytes;
}

std::string spool::content() const
{
    std::string text;
    // A part of it is refused as what it is, no whole document.
    lseek(fd_.get(), 0, SEEK_SET);
    [[maybe_unused]] const bool whole = read_all(fd_.get(), size_, &text);
    return text;
}

bool spool::keep_as(const std::string &name)
{
    const std::string target = directory_ + "/" + name;
    if (rename(path_.c_str(), target.c_str()) != 0)
        return fail(target);
    path_.clear();
    return true;
}

} // namespace veld
