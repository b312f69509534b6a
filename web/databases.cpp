#include "web/databases.h"

#include "linux/database.h"
#include "linux/descriptor.h"
#include "linux/enrolment.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <exception>

namespace tavr::web
{

namespace
{

// A file in memory, which every worker inherits: empty until somebody has cleared.
Descriptor& File()
{
    static Descriptor file;
    return file;
}

// Of the process, not of the open file, which all workers share; the kernel gives back that of one that dies.
class Turn
{
public:
    Turn() : taken_(Set(F_WRLCK)) {}
    ~Turn() { Set(F_UNLCK); }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

    [[nodiscard]] bool Taken() const { return taken_; }

private:
    static bool Set(short type)
    {
        struct flock lock {
        };
        lock.l_type = type;
        lock.l_whence = SEEK_SET;
        int result = 0;
        do {
            result = fcntl(File().Get(), F_SETLKW, &lock);
        } while (result != 0 && errno == EINTR);
        return result == 0;
    }

    bool taken_;
};

bool IsCleared()
{
    struct stat entry {
    };
    if (fstat(File().Get(), &entry) != 0) {
        throw DatabaseError(0, "cannot tell whether waiting secrets were dropped");
    }
    return entry.st_size > 0;
}

// One try: what an account's fault leaves behind is too old soon, and nobody else has to wait for it.
void ClearOnce()
{
    static bool done = false;
    if (done || !File()) {
        return;
    }
    const Turn turn;
    if (!turn.Taken()) {
        throw DatabaseError(0, "cannot wait for who drops the waiting secrets");
    }
    if (!IsCleared()) {
        try {
            ClearWaiting(Clear::All);
        } catch (const std::exception& error) {
            syslog(LOG_ERR, "cannot drop secrets that waited: %s", error.what());
        }
        if (ftruncate(File().Get(), 1) != 0) {
            throw DatabaseError(0, "cannot note that waiting secrets were dropped");
        }
    }
    done = true;
}

} // namespace

bool MakeClearing()
{
    File() = Descriptor(memfd_create("clearing", MFD_CLOEXEC));
    return static_cast<bool>(File());
}

void OpenDatabases()
{
    AccountsDatabase();
    LocalAccountsDatabase();
    SigninDatabase();
    ClearOnce();
}

} // namespace tavr::web
