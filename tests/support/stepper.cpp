#include "tests/support/stepper.h"

#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <stdexcept>
#include <unordered_set>

namespace tavr::test
{

namespace
{

// A call that nobody makes by chance: getpriority with an argument that it refuses.
constexpr long kMarkArgument = 0x7a5e11;

constexpr long kOptions = PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK |
                          PTRACE_O_TRACECLONE | PTRACE_O_TRACEEXEC | PTRACE_O_EXITKILL;

bool AtMark(pid_t pid)
{
    __ptrace_syscall_info info{};
    const long size = ptrace(PTRACE_GET_SYSCALL_INFO, pid, sizeof info, &info);
    return size > 0 && info.op == PTRACE_SYSCALL_INFO_ENTRY && info.entry.nr == SYS_getpriority &&
           info.entry.args[0] == static_cast<uint64_t>(kMarkArgument);
}

bool IsSyscallStop(int status)
{
    return WIFSTOPPED(status) && WSTOPSIG(status) == (SIGTRAP | 0x80);
}

// Which signal to hand on to a stopped process: none for the stops that tracing itself makes.
int SignalToDeliver(int status)
{
    const int signal = WSTOPSIG(status);
    const bool event = (status >> 16) != 0;
    return IsSyscallStop(status) || event || signal == SIGTRAP || signal == SIGSTOP ? 0 : signal;
}

void KillAll(const std::unordered_set<pid_t>& processes)
{
    for (const pid_t pid : processes) {
        kill(pid, SIGKILL);
    }
    // All of them are gone, and their locks with them, when nobody is left to wait for.
    while (waitpid(-1, nullptr, __WALL) > 0 || errno == EINTR) {
    }
}

} // namespace

Steps RunKilledAt(long killAt, const std::function<int()>& work)
{
    const pid_t child = fork();
    if (child < 0) {
        throw std::runtime_error("cannot fork");
    }
    if (child == 0) {
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        raise(SIGSTOP);
        _exit(work());
    }
    int status = 0;
    if (waitpid(child, &status, 0) != child || !WIFSTOPPED(status) ||
        ptrace(PTRACE_SETOPTIONS, child, nullptr, kOptions) != 0) {
        throw std::runtime_error("cannot trace");
    }
    Steps steps;
    std::unordered_set<pid_t> processes{child};
    bool marked = false;
    ptrace(PTRACE_SYSCALL, child, nullptr, 0L);
    while (!processes.empty()) {
        const pid_t pid = waitpid(-1, &status, __WALL);
        if (pid < 0) {
            break;
        }
        if (!WIFSTOPPED(status)) {
            processes.erase(pid);
            if (pid == child) {
                steps.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            }
            continue;
        }
        processes.insert(pid);
        if (IsSyscallStop(status)) {
            if (marked && steps.stops++ == killAt) {
                KillAll(processes);
                steps.killed = true;
                return steps;
            }
            marked = marked || AtMark(pid);
        }
        ptrace(PTRACE_SYSCALL, pid, nullptr, static_cast<long>(SignalToDeliver(status)));
    }
    return steps;
}

void MarkStart()
{
    syscall(SYS_getpriority, kMarkArgument, 0);
}

} // namespace tavr::test
