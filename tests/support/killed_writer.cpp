#include "tests/support/killed_writer.h"

#include "linux/request.h"

#include <grp.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace tavr::test
{

namespace
{

int RunAsWorker(const std::function<bool()>& work)
{
    if (setgroups(0, nullptr) != 0 || setresgid(kServiceId, kServiceId, 0) != 0 ||
        setresuid(kServiceId, kServiceId, 0) != 0) {
        return 90;
    }
    StartRequest();
    return work() ? 0 : 1;
}

} // namespace

void KilledWriter::Shell(const std::string& command)
{
    ASSERT_EQ(0, std::system(command.c_str())) << command;
}

void KilledWriter::KeepState()
{
    Shell("rm -rf /run/kept; mkdir /run/kept; cp -a /var/lib/tavr /usr/tavr/etc /run/kept/");
}

void KilledWriter::AtEveryCall(const std::function<bool()>& work, const std::function<void(bool)>& check)
{
    const int stride = std::getenv("KILL_STRIDE") != nullptr ? std::atoi(std::getenv("KILL_STRIDE")) : 1;
    long stops = 1;
    long killed = 0;
    for (long stop = 0; stop < stops + stride && !HasFailure(); stop += stride) {
        Shell("find /var/lib/tavr /usr/tavr/etc -mindepth 1 -delete; cp -a /run/kept/tavr/. /var/lib/tavr;"
              " cp -a /run/kept/etc/. /usr/tavr/etc");
        const Steps steps = RunKilledAt(stop, [&work] { return RunAsWorker(work); });
        stops = steps.killed ? stop + 1 + stride : 0;
        killed += steps.killed ? 1 : 0;
        ASSERT_TRUE(steps.killed || steps.exitStatus == 0) << steps.exitStatus;
        AsWorker([&] {
            SCOPED_TRACE("killed at stop " + std::to_string(stop));
            check(!steps.killed);
        });
    }
    EXPECT_GT(killed, 20);
    std::printf("%ld runs killed\n", killed);
}

} // namespace tavr::test
