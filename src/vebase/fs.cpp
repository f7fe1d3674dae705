#include "platform/ve_fs.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <md5.h>

#include "base/fd.h"
#include "base/hex.h"
#include "platform/ve_wait.h"

namespace
{

/// Opens a regular file for reading, never waiting for a FIFO's writer; -1 when it is none.
fd_owner open_regular(const char *path, struct stat *status)
{
    fd_owner fd{open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)};
    if (fd.get() >= 0 && (fstat(fd.get(), status) != 0 || !S_ISREG(status->st_mode)))
        fd.reset();
    return fd;
}

char empty_mapping; // stands for the mapping of an empty file

/// False when the file cannot be read to its end.
bool md5_of(int fd, unsigned char digest[16])
{
    constexpr unsigned blocks_between_checkpoints = 16;
    MD5_CTX context;
    MD5Init(&context);
    unsigned char block[size_t{64} << 10];
    ssize_t count;
    for (unsigned blocks = 1; (count = read(fd, block, sizeof block)) > 0; ++blocks) {
        MD5Update(&context, block, static_cast<size_t>(count));
        if (blocks % blocks_between_checkpoints == 0)
            ve_wait_checkpoint();
        if (ve_wait_interrupted())
            return false;
    }
    MD5Final(digest, &context);
    return count == 0;
}

} // namespace

int ve_fs_touch(const char *path)
{
    const fd_owner fd{open(path, O_WRONLY | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0666)};
    struct stat status;
    return fd.get() >= 0 && fstat(fd.get(), &status) == 0 && S_ISREG(status.st_mode) ? 0 : -1;
}

int ve_fs_mmap_file(const char *path, void **data, size_t *size)
{
    struct stat status;
    const fd_owner fd = open_regular(path, &status);
    if (fd.get() < 0)
        return -1;
    // More than there are addresses is no smaller file.
    if (static_cast<uintmax_t>(status.st_size) > PTRDIFF_MAX) {
        errno = EFBIG;
        return -1;
    }
    *size = static_cast<size_t>(status.st_size);
    if (*size == 0) {
        *data = &empty_mapping;
        return 0;
    }
    void *mapping = mmap(nullptr, *size, PROT_READ, MAP_SHARED, fd.get(), 0);
    if (mapping == MAP_FAILED)
        return -1;
    madvise(mapping, *size, MADV_SEQUENTIAL);
    *data = mapping;
    return 0;
}

void ve_fs_munmap_file(void *data, size_t size)
{
    if (size > 0)
        munmap(data, size);
}

int ve_md5_calculate_from_file(const char *path, unsigned char digest[16])
{
    struct stat status;
    fd_owner fd;
    fd = open_regular(path, &status);
    return fd.get() >= 0 && md5_of(fd.get(), digest) ? 0 : -1;
}

std::string ve_md5_to_str(const unsigned char digest[16])
{
    return hex_of(digest, 16);
}

int ve_url_parse(const char *text)
{
    const auto is_alpha = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
    const auto is_scheme = [&](char c) {
        return is_alpha(c) || (c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.';
    };
    if (text == nullptr || !is_alpha(*text))
        return -1;
    while (is_scheme(*text))
        ++text;
    return strncmp(text, "://", 3) == 0 && text[3] != '\0' ? 0 : -1;
}
