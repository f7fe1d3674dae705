// The owner of a file descriptor: closes it when the owner goes.
#pragma once

#include <unistd.h>
#include <utility>

namespace veld
{

class owned_fd
{
public:
    owned_fd() = default;
    explicit owned_fd(int fd) : fd_(fd) {}
    owned_fd(owned_fd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    owned_fd &operator=(owned_fd &&other) noexcept
    {
        reset(std::exchange(other.fd_, -1));
        return *this;
    }
    owned_fd(const owned_fd &) = delete;
    owned_fd &operator=(const owned_fd &) = delete;
    ~owned_fd() { reset(); }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    [[nodiscard]] int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1)
    {
        const int old = std::exchange(fd_, fd);
        if (old >= 0)
            close(old);
    }

private:
    int fd_ = -1;
};

} // namespace veld
