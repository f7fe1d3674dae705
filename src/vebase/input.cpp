#include "platform/ve_input.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "platform/ve_wait.h"

namespace
{

constexpr size_t block_size = 65536;

} // namespace

ve_input::ve_input(const char *path)
    : ve_input(fd_owner{path != nullptr ? open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY) : -1})
{
}

ve_input::ve_input(fd_owner fd) : fd_(std::move(fd))
{
    struct stat info;
    if (fd_ && (fstat(fd_.get(), &info) != 0 || S_ISDIR(info.st_mode)))
        fd_.reset();
    await_writer_ = fd_ && S_ISFIFO(info.st_mode);
    ends_ = fd_ && S_ISREG(info.st_mode);
}

bool ve_input::next(std::string &line)
{
    line.clear();
    for (;;) {
        const size_t end = block_.find('\n', position_);
        line.append(block_, position_, end - position_);
        if (end != std::string::npos) {
            position_ = end + 1;
            return true;
        }
        if (line.size() > size_max) {
            error_ = EMSGSIZE;
            return false;
        }
        if (!fill())
            return !line.empty();
    }
}

void ve_input::rest(std::string &text)
{
    do {
        text.append(block_, position_, std::string::npos);
        if (text.size() > size_max && !ends_)
            error_ = EMSGSIZE;
    } while (error_ == 0 && fill());
}

bool ve_input::fill()
{
    block_.resize(block_size);
    position_ = 0;
    ssize_t count = -1;
    // What never lets one wait has to be left all the same.
    ve_wait_checkpoint();
    errno = EINTR;
    // A FIFO that nobody has opened for writing yet would read as ended.
    if (!ve_wait_interrupted() && (!std::exchange(await_writer_, false) || wait())) {
        while ((count = read(fd_.get(), block_.data(), block_size)) < 0 && (errno == EAGAIN || errno == EINTR) &&
               wait())
            ;
    }
    if (count < 0)
        error_ = errno;
    block_.resize(count > 0 ? static_cast<size_t>(count) : 0);
    return count > 0;
}

bool ve_input::wait()
{
    pollfd input = {fd_.get(), POLLIN, 0};
    const bool ready = ve_wait_poll(&input, 1, -1) >= 0;
    errno = EINTR;
    return ready;
}
