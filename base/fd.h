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
    explicit operator bool() const { return fd_ >= 0; }
    [[nodiscard]] int release() { return std::exchange(fd_, -1); }
    /// Closes what was owned. Returns 0, or -1 with errno: what a file system reports only now is an error like any.
    int reset(int fd = -1)
    {
        const int old = std::exchange(fd_, fd);
        return old >= 0 ? close(old) : 0;
    }

private:
    int fd_ = -1;
};
