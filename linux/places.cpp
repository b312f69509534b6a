#include "linux/places.h"

#include "linux/descriptor.h"
#include "linux/directory_error.h"
#include "linux/request.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <memory>

namespace tavr
{

namespace
{

using std::chrono::milliseconds;

constexpr int kMostOfAKind = 1000;
constexpr milliseconds kLongestTurn{500}; // for others at a directory, who take some milliseconds as a rule
constexpr milliseconds kFirstPause{1};    // each time twice as long
constexpr milliseconds kLongestPause{16};

int g_count = 0;

Descriptor& File()
{
    static Descriptor file;
    return file;
}

// Of the process, not of the open file, which all workers share.
bool SetLock(short type, int byte)
{
    struct flock lock {
    };
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = byte;
    lock.l_len = 1;
    return fcntl(File().Get(), F_SETLK, &lock) == 0;
}

// Empty: none is free.
std::optional<int> LockFree(WaitingFor what)
{
    const int first = static_cast<int>(what) * kMostOfAKind;
    for (int byte = first; byte < first + g_count; ++byte) {
        if (SetLock(F_WRLCK, byte)) {
            return byte;
        }
        if (errno != EAGAIN && errno != EACCES) {
            syslog(LOG_ERR, "cannot lock a place to wait for a server: %m");
            return std::nullopt;
        }
    }
    return std::nullopt;
}

void Sleep(milliseconds time)
{
    const timespec pause{0, std::chrono::nanoseconds(time).count()};
    nanosleep(&pause, nullptr);
}

} // namespace

bool MakePlaces(int workers)
{
    g_count = std::clamp(workers / 2, 1, kMostOfAKind);
    File() = Descriptor(memfd_create("places", MFD_CLOEXEC));
    return static_cast<bool>(File());
}

Place::Place(WaitingFor what, milliseconds longest)
{
    if (g_count == 0) {
        taken_ = true;
        return;
    }
    const auto end = std::chrono::steady_clock::now() + longest;
    byte_ = LockFree(what);
    for (milliseconds pause = kFirstPause; !byte_ && std::chrono::steady_clock::now() < end;
         pause = std::min(2 * pause, kLongestPause)) {
        Sleep(pause);
        byte_ = LockFree(what);
    }
    taken_ = byte_.has_value();
}

Place::~Place()
{
    if (byte_) {
        SetLock(F_UNLCK, *byte_);
    }
}

void TakeDirectoryPlace()
{
    std::shared_ptr<Place>& place = CurrentRequest().directoryPlace;
    if (!place) {
        place = std::make_shared<Place>(WaitingFor::Directory, kLongestTurn);
    }
    if (!place->Taken()) {
        throw DirectoryError("others wait for it already", true);
    }
}

} // namespace tavr
