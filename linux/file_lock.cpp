#include "linux/file_lock.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <ctime>

namespace tavr
{

namespace
{

constexpr long kFirstPause = 100'000; // nanoseconds, each time twice as long
constexpr long kLongestPause = 10'000'000;
constexpr int64_t kAWhile = 10'000'000'000;

struct flock OneByte(off_t byte, short type)
{
    struct flock lock {
    };
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = byte;
    lock.l_len = 1;
    return lock;
}

} // namespace

Descriptor OpenLockFile(const char* path)
{
    return Descriptor(open(path, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
}

bool LockByte(const Descriptor& file, off_t byte, LockKind kind, LockWait wait)
{
    struct flock lock = OneByte(byte, kind == LockKind::Shared ? F_RDLCK : F_WRLCK);
    const int command = wait == LockWait::Forever ? F_OFD_SETLKW : F_OFD_SETLK;
    long pause = kFirstPause;
    int64_t waited = 0;
    while (fcntl(file.Get(), command, &lock) != 0) {
        const bool busy = errno == EAGAIN || errno == EACCES;
        if (busy && wait == LockWait::AWhile && waited < kAWhile) {
            const timespec time{0, pause};
            nanosleep(&time, nullptr);
            waited += pause;
            pause = std::min(2 * pause, kLongestPause);
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

void UnlockByte(const Descriptor& file, off_t byte)
{
    struct flock lock = OneByte(byte, F_UNLCK);
    fcntl(file.Get(), F_OFD_SETLK, &lock);
}

} // namespace tavr
