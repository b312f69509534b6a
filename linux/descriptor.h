// A file descriptor with an owner, and reading and writing through one.
#pragma once

#include <unistd.h>

#include <string>
#include <string_view>
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

// Opens a directory, none of whose components may be a link. The owner is empty and errno set on failure.
Descriptor OpenDirectoryNoLinks(const std::string& path);

// Appends what is left to read, `limit` bytes at most, to `text`. False: there is more, or it cannot be read.
bool ReadAll(const Descriptor& file, size_t limit, std::string& text);

bool WriteAll(const Descriptor& file, std::string_view text); // false: errno says why

// Whether it is a regular file of root's, linked once, that others neither write nor read.
bool IsGuarded(const Descriptor& file);

} // namespace tavr
