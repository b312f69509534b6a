#include "linux/clock.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace tavr
{

namespace
{

int64_t Running(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return now.tv_sec;
}

#ifdef TAVR_SETTABLE_CLOCK
// Builds for tests only. A file holds "WALL BOOT" and may name another start of the machine after them. A
// number is the seconds to add to that clock; with '=' before it the clock stands there.
struct Setting {
    char wall[24] = "0";
    char boot[24] = "0";
    char bootId[37] = {};
};

Setting ReadSetting()
{
    Setting setting;
    const int fd = open("/run/tavr-test-clock", O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) {
        return setting;
    }
    char text[128] = {};
    if (read(fd, text, sizeof text - 1) > 0) {
        std::sscanf(text, "%23s %23s %36s", setting.wall, setting.boot, setting.bootId);
    }
    close(fd);
    return setting;
}

int64_t Seconds(clockid_t clock, const char* set)
{
    return set[0] == '=' ? std::strtoll(set + 1, nullptr, 10)
                         : Running(clock) + std::strtoll(set, nullptr, 10);
}
#else
struct Setting {
    const char* wall = nullptr;
    const char* boot = nullptr;
    const char* bootId = "";
};
Setting ReadSetting()
{
    return {};
}
int64_t Seconds(clockid_t clock, const char* /*set*/)
{
    return Running(clock);
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
    return Seconds(CLOCK_REALTIME, ReadSetting().wall);
}

int64_t BootSeconds()
{
    return Seconds(CLOCK_BOOTTIME, ReadSetting().boot);
}

const std::string& BootId()
{
    static const std::string id = ReadBootId();
    static std::string other;
    other = ReadSetting().bootId;
    return other.empty() ? id : other;
}

} // namespace tavr
