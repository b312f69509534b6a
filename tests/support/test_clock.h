// The clocks, as builds with a settable clock read them.
#pragma once

#include "linux/descriptor.h"
#include "linux/ids.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <ctime>
#include <stdexcept>
#include <string>

namespace tavr::test
{

constexpr char kClockFile[] = "/run/tavr-test-clock";

inline int64_t RunningSeconds(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return now.tv_sec;
}

// As clock.cpp reads it, for all who see the file.
inline void WriteClockFile(std::string line)
{
    line.resize(100, ' '); // one write of one size: nobody reads a part of it
    const Descriptor file(open(kClockFile, O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    if (!file || pwrite(file.Get(), line.data(), line.size(), 0) != static_cast<ssize_t>(line.size())) {
        throw std::runtime_error("cannot set the clocks");
    }
}

// WallSeconds() and BootSeconds() from now on: both clocks stand. With a name, in a start of the machine that
// is called so.
inline void SetClocks(int64_t wall, int64_t boot, const std::string& bootId = "")
{
    WriteClockFile('=' + std::to_string(wall) + " =" + std::to_string(boot) + ' ' + bootId);
}

} // namespace tavr::test

// For a process alone: the clocks stand these seconds after its first call.
inline void SetClock(int64_t wall, int64_t boot)
{
    static const int64_t firstWall = tavr::test::RunningSeconds(CLOCK_REALTIME);
    static const int64_t firstBoot = tavr::test::RunningSeconds(CLOCK_BOOTTIME);
    const tavr::EffectiveIds root = tavr::EffectiveIds::Root();
    tavr::test::SetClocks(firstWall + wall, firstBoot + boot);
}
