#include "tests/support/killed_writer.h"

#include "linux/request.h"

#include <cstdio>
#include <cstdlib>

namespace tavr::test
{

void KilledWriter::AtEveryCall(const std::function<bool()>& work, const std::function<void(bool)>& check)
{
    const int stride = std::getenv("KILL_STRIDE") != nullptr ? std::atoi(std::getenv("KILL_STRIDE")) : 1;
    long stops = 1;
    long killed = 0;
    for (long stop = 0; stop < stops + stride && !HasFailure(); stop += stride) {
        RestoreState();
        const Steps steps = RunKilledAt(stop, [&work] {
            return RunLowered([&work] {
                StartRequest();
                return work() ? 0 : 1;
            });
        });
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
