// Work that writes, killed at each of its system calls in turn, and what is left of the state then.
#pragma once

#include "tests/support/fresh_server.h"
#include "tests/support/stepper.h"

#include <functional>
#include <string>

namespace tavr::test
{

class KilledWriter : public FreshServer
{
protected:
    // Runs `work` as a worker, which calls MarkStart, anew on the kept state for each of its system calls,
    // killed there (with KILL_STRIDE in the environment, for each so many-th), and `check` on what is left;
    // its argument tells whether the work came to its end. The work gives whether it succeeded.
    void AtEveryCall(const std::function<bool()>& work, const std::function<void(bool)>& check);
};

} // namespace tavr::test
