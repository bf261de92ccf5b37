// Owner of a descriptor: closes it on every path unless it is released to its next owner.
#pragma once

#include <unistd.h>

#include <utility>

class orbs3_fd {
public:
    orbs3_fd() noexcept = default;
    explicit orbs3_fd(int fd) noexcept : fd_(fd) {}
    ~orbs3_fd() { reset(); }
    orbs3_fd(orbs3_fd&& o) noexcept : fd_(std::exchange(o.fd_, -1)) {}
    orbs3_fd& operator=(orbs3_fd&& o) noexcept
    {
        if (this != &o)
            reset(std::exchange(o.fd_, -1));
        return *this;
    }
    orbs3_fd(const orbs3_fd&) = delete;
    orbs3_fd& operator=(const orbs3_fd&) = delete;

    [[nodiscard]] int get() const noexcept { return fd_; }
    [[nodiscard]] bool valid() const noexcept { return fd_ >= 0; }
    [[nodiscard]] int release() noexcept { return std::exchange(fd_, -1); }
    void reset(int fd = -1) noexcept
    {
        if (fd_ >= 0)
            ::close(fd_);
        fd_ = fd;
    }

private:
    int fd_ = -1;
};
