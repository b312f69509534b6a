#include "linux/file_stamp.h"

#include "linux/descriptor.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>

namespace tavr
{

namespace
{

constexpr int64_t kNano = 1'000'000'000; // nanoseconds a second
constexpr int kReadTries = 5;

StampedRead WhyNotOpened()
{
    if (errno == ENOENT || errno == ENOTDIR) {
        return StampedRead::Absent;
    }
    return errno == ELOOP || errno == EACCES || errno == ENXIO ? StampedRead::Unfit : StampedRead::Failed;
}

} // namespace

FileStamp StampOf(const struct stat& entry)
{
    return {entry.st_dev, entry.st_ino, entry.st_size, entry.st_mtim.tv_sec * kNano + entry.st_mtim.tv_nsec,
            entry.st_ctim.tv_sec * kNano + entry.st_ctim.tv_nsec};
}

bool IsJustNow(int64_t time)
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const int64_t age = now.tv_sec * kNano + now.tv_nsec - time;
    return std::abs(age) < kNano;
}

// O_NONBLOCK: a FIFO at the place must not stop the process.
StampedRead ReadStamped(const char* path, int openFlags, size_t limit, std::string& text, FileStamp& stamp)
{
    for (int i = 0; i < kReadTries; ++i) {
        const Descriptor file(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | openFlags));
        if (!file) {
            return WhyNotOpened();
        }
        struct stat before {
        };
        struct stat after {
        };
        if (fstat(file.Get(), &before) != 0) {
            return StampedRead::Failed;
        }
        if (!S_ISREG(before.st_mode) || before.st_size > static_cast<off_t>(limit)) {
            return StampedRead::Unfit;
        }
        std::string read;
        read.reserve(static_cast<size_t>(before.st_size));
        if (!ReadAll(file, limit, read) || fstat(file.Get(), &after) != 0) {
            return StampedRead::Failed;
        }
        if (StampOf(before) == StampOf(after) && static_cast<off_t>(read.size()) == after.st_size) {
            text = std::move(read);
            stamp = StampOf(after);
            return StampedRead::Done;
        }
    }
    return StampedRead::Failed;
}

} // namespace tavr
