#include "linux/clock.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>

namespace tavr
{

namespace
{

int64_t Seconds(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return now.tv_sec;
}

#ifdef TAVR_SETTABLE_CLOCK
// Builds for tests only. The file holds "WALL BOOT", the seconds to add to each clock, and may name another
// start of the machine after them.
struct Offsets {
    long long wall = 0;
    long long boot = 0;
    char bootId[37] = {};
};

Offsets ReadOffsets()
{
    Offsets offsets;
    const int fd = open("/run/tavr-test-clock", O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) {
        return offsets;
    }
    char text[128] = {};
    if (read(fd, text, sizeof text - 1) > 0) {
        // NOLINTNEXTLINE(cert-err34-c): tests write whole numbers
        std::sscanf(text, "%lld %lld %36s", &offsets.wall, &offsets.boot, offsets.bootId);
    }
    close(fd);
    return offsets;
}
#else
struct Offsets {
    int64_t wall = 0;
    int64_t boot = 0;
    char bootId[1] = {};
};
Offsets ReadOffsets()
{
    return {};
}
#endif

std::string ReadBootId()
{
    char text[37] = {};
    const int fd = open("/proc/sys/kernel/random/boot_id", O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        if (read(fd, text, sizeof text - 1) < 0) {
            text[0] = 0;
        }
        close(fd);
    }
    return text;
}

} // namespace

int64_t WallSeconds()
{
    return Seconds(CLOCK_REALTIME) + ReadOffsets().wall;
}

int64_t BootSeconds()
{
    return Seconds(CLOCK_BOOTTIME) + ReadOffsets().boot;
}

const std::string& BootId()
{
    static const std::string id = ReadBootId();
    static std::string other;
    other = ReadOffsets().bootId;
    return other.empty() ? id : other;
}

} // namespace tavr
