// The web API's service for benchmarks: as a process of its own, like other programs beside the benchmark.
#pragma once

#include "linux/ids.h"
#include "platform/webapi.h"

#include "bench/worker.h"

#include <sys/prctl.h>
#include <sys/wait.h>

#include <csignal>

namespace tavr::bench
{

// Runs `work` as root; ends with this process.
template<typename Work>
pid_t Child(Work work)
{
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        Require(setresuid(0, 0, 0) == 0 && setresgid(0, 0, 0) == 0, "root");
        work();
        _exit(1);
    }
    return child;
}

inline void End(pid_t child, int signal)
{
    const EffectiveIds root = EffectiveIds::Root(); // the child's ids may be root's
    kill(child, signal);
    waitpid(child, nullptr, 0);
}

inline void UntilListening(const char* path)
{
    while (!tavrdaemon::DomainSockConnection(path).Connect()) {
        usleep(2000);
    }
}

inline pid_t StartService()
{
    return Child([] { execl("/usr/sbin/tavr-webapid", "tavr-webapid", nullptr); });
}

} // namespace tavr::bench
