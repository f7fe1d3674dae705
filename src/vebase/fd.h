// The owner of a file descriptor.
#pragma once

#include <unistd.h>

#include <utility>

/// Owns a descriptor (-1: none) and closes it. Move-only.
class fd_owner
{
public:
    fd_owner() = default;
    explicit fd_owner(int fd) : fd_(fd) {}
    fd_owner(fd_owner &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    fd_owner &operator=(fd_owner &&other) noexcept
    {
        reset(std::exchange(other.fd_, -1));
        return *this;
    }
    fd_owner(const fd_owner &) = delete;
    fd_owner &operator=(const fd_owner &) = delete;
    ~fd_owner() { reset(); }

    int get() const { return fd_; }
    [[nodiscard]] int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1)
    {
        if (fd_ >= 0)
            close(fd_);
        fd_ = fd;
    }

private:
    int fd_ = -1;
};
