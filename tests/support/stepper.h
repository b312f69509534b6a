// Does something to a piece of work at a chosen system call: kills it, as a power cut, an out-of-memory kill
// or a crash would, or lets somebody else act before it goes on.
#pragma once

#include <functional>

namespace tavr::test
{

struct Steps {
    long stops = 0;      // system call entries and exits seen after the mark, over all processes of the work
    bool killed = false; // false: the work ended by itself before the chosen stop
    int exitStatus = -1; // of the work, when it was not killed
};

// Runs `work` in a child process and follows it and every process that it starts. Once `work` has called
// MarkStart, their system calls count, each twice: before it is carried out and after. At stop number
// `killAt` (from 0) all of them are killed with SIGKILL at once; -1: never. `work`'s result is the child's
// exit status.
//
// Needs the right to trace its own children, and no other children of the calling process at the time.
Steps RunKilledAt(long killAt, const std::function<int()>& work);

// Likewise, but at stop number `stopAt` the work stands still while `meanwhile` runs in the calling process,
// and then goes on. What the work holds locked at that moment stays locked. `meanwhile` must wait for the
// processes that it starts.
Steps RunOvertakenAt(long stopAt, const std::function<int()>& work, const std::function<void()>& meanwhile);

// Likewise, but calls that store something (write, sync, make, rename, remove, open for writing) are counted
// instead of stops, and fail with `error` without being carried out: number `failAt` (from 0) alone, or that
// one and all after it. Sockets, pipes and devices are left alone. Steps::stops is the number of such calls.
// On x86-64 alone; elsewhere it throws.
enum class Failing { Once, FromThenOn };
Steps RunFailingAt(long failAt, int error, Failing failing, const std::function<int()>& work);

// Called by the work, in the child. A second call does nothing.
void MarkStart();

} // namespace tavr::test
