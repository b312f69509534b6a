// A file descriptor with an owner.
#pragma once

#include <unistd.h>

#include <utility>

namespace tavr
{

class Descriptor
{
public:
    Descriptor() = default;
    explicit Descriptor(int fd) : fd_(fd) {}
    Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~Descriptor()
    {
        if (fd_ >= 0) {
            close(fd_);
        }
    }

    explicit operator bool() const { return fd_ >= 0; }
    [[nodiscard]] int Get() const { return fd_; }
    [[nodiscard]] int Release() { return std::exchange(fd_, -1); } // the caller's from here on

private:
    int fd_ = -1;
};

} // namespace tavr
