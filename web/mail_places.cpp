#include "web/mail_places.h"

#include "linux/descriptor.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>

namespace tavr::web
{

namespace
{

int g_count = 0;

Descriptor& File()
{
    static Descriptor file;
    return file;
}

// Of the process, not of the open file, which all workers share.
bool SetLock(short type, int place)
{
    struct flock lock {
    };
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = place;
    lock.l_len = 1;
    return fcntl(File().Get(), F_SETLK, &lock) == 0;
}

} // namespace

bool MakeMailPlaces(int workers)
{
    g_count = std::max(1, workers / 2);
    File() = Descriptor(memfd_create("mail-places", MFD_CLOEXEC));
    return static_cast<bool>(File());
}

MailPlace::MailPlace()
{
    for (int place = 0; place < g_count; ++place) {
        if (SetLock(F_WRLCK, place)) {
            place_ = place;
            return;
        }
        if (errno != EAGAIN && errno != EACCES) {
            syslog(LOG_ERR, "cannot lock a place to wait for mail servers: %m");
            return;
        }
    }
}

MailPlace::~MailPlace()
{
    if (Taken()) {
        SetLock(F_UNLCK, place_);
    }
}

} // namespace tavr::web
