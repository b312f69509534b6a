// Kills a piece of work at a chosen system call: what a power cut, an out-of-memory kill or a crash leaves
// behind.
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

// Called by the work, in the child.
void MarkStart();

} // namespace tavr::test
