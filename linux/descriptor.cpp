#include "linux/descriptor.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cerrno>

namespace tavr
{

namespace
{

constexpr int kDirectoryFlags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

// For systems that do not know openat2().
Descriptor WalkNoLinks(const std::string& path)
{
    Descriptor directory(open(path.starts_with('/') ? "/" : ".", kDirectoryFlags));
    for (size_t at = 0; directory && at < path.size();) {
        const size_t end = std::min(path.find('/', at), path.size());
        if (end > at) {
            directory =
                Descriptor(openat(directory.Get(), path.substr(at, end - at).c_str(), kDirectoryFlags));
        }
        at = end + 1;
    }
    return directory;
}

} // namespace

Descriptor OpenDirectoryNoLinks(const std::string& path)
{
    open_how how{};
    how.flags = kDirectoryFlags;
    how.resolve = RESOLVE_NO_SYMLINKS;
    Descriptor directory(static_cast<int>(syscall(SYS_openat2, AT_FDCWD, path.c_str(), &how, sizeof how)));
    return directory || errno != ENOSYS ? std::move(directory) : WalkNoLinks(path);
}

bool ReadAll(const Descriptor& file, size_t limit, std::string& text)
{
    char block[4096];
    ssize_t got = 0;
    size_t size = 0;
    while ((got = read(file.Get(), block, sizeof block)) > 0) {
        size += static_cast<size_t>(got);
        if (size > limit) {
            return false;
        }
        text.append(block, static_cast<size_t>(got));
    }
    return got == 0;
}

bool WriteAll(const Descriptor& file, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t put = write(file.Get(), text.data(), text.size());
        if (put < 0 && errno == EINTR) {
            continue;
        }
        if (put <= 0) {
            return false;
        }
        text.remove_prefix(static_cast<size_t>(put));
    }
    return true;
}

bool IsGuarded(const Descriptor& file)
{
    struct stat what {
    };
    return fstat(file.Get(), &what) == 0 && S_ISREG(what.st_mode) && what.st_uid == 0 && what.st_nlink == 1 &&
           (what.st_mode & (S_IWGRP | S_IRWXO)) == 0;
}

} // namespace tavr
