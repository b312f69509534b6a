#include "linux/account_lock.h"

#include "linux/paths.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <ctime>

namespace tavr
{

namespace
{

constexpr int kTries = 1000; // of AWhile, kPause apart
constexpr timespec kPause = {0, 10'000'000};

} // namespace

Descriptor LockAccount(uint32_t account, LockWait wait)
{
    Descriptor file(open(kAccountLockFile, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (!file) {
        return file;
    }
    struct flock lock {
    };
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = static_cast<off_t>(account);
    lock.l_len = 1;
    const int command = wait == LockWait::Forever ? F_OFD_SETLKW : F_OFD_SETLK;
    for (int tries = 1; fcntl(file.Get(), command, &lock) != 0; ++tries) {
        const bool busy = wait == LockWait::AWhile && (errno == EAGAIN || errno == EACCES) && tries < kTries;
        if (!busy && errno != EINTR) {
            return Descriptor();
        }
        if (busy) {
            nanosleep(&kPause, nullptr);
        }
    }
    return file;
}

} // namespace tavr
