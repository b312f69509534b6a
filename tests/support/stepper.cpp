#include "tests/support/stepper.h"

#include <fcntl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
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

// Starts the work in a child that waits to be let go.
pid_t StartTraced(const std::function<int()>& work)
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
    ptrace(PTRACE_SYSCALL, child, nullptr, 0L);
    return child;
}

enum class Then { GoOn, Kill };

// Runs `work`, and `atStop(number, process)` at each stop after the mark.
template<typename AtStop>
Steps Follow(const std::function<int()>& work, AtStop atStop)
{
    const pid_t child = StartTraced(work);
    Steps steps;
    std::unordered_set<pid_t> processes{child};
    bool marked = false;
    int status = 0;
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
            if (marked && atStop(steps.stops++, pid) == Then::Kill) {
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

// --- Calls that store something ---

constexpr int kNoArgument = -1;

struct StoringCall {
    uint64_t number;
    int descriptor; // which argument is the file's descriptor; none: it goes by a path
    int openFlags;  // which argument holds flags of open()
};
constexpr StoringCall kStoringCalls[] = {
    {SYS_write, 0, kNoArgument},
    {SYS_pwrite64, 0, kNoArgument},
    {SYS_writev, 0, kNoArgument},
    {SYS_fsync, 0, kNoArgument},
    {SYS_fdatasync, 0, kNoArgument},
    {SYS_ftruncate, 0, kNoArgument},
    {SYS_fallocate, 0, kNoArgument},
    {SYS_copy_file_range, 2, kNoArgument},
    {SYS_openat, kNoArgument, 2},
    {SYS_mkdirat, kNoArgument, kNoArgument},
    {SYS_unlinkat, kNoArgument, kNoArgument},
    {SYS_renameat, kNoArgument, kNoArgument},
    {SYS_renameat2, kNoArgument, kNoArgument},
    {SYS_linkat, kNoArgument, kNoArgument},
#ifdef SYS_open // older calls, which not every machine has
    {SYS_open, kNoArgument, 1},
    {SYS_mkdir, kNoArgument, kNoArgument},
    {SYS_unlink, kNoArgument, kNoArgument},
    {SYS_rename, kNoArgument, kNoArgument},
    {SYS_link, kNoArgument, kNoArgument},
#endif
};

bool IsStoredFile(pid_t pid, uint64_t descriptor)
{
    char path[4096] = {};
    const std::string link = "/proc/" + std::to_string(pid) + "/fd/" + std::to_string(descriptor);
    const ssize_t size = readlink(link.c_str(), path, sizeof path - 1);
    return size > 0 && path[0] == '/' && std::string_view(path).substr(0, 5) != "/dev/";
}

bool Stores(pid_t pid, const __ptrace_syscall_info& info)
{
    for (const StoringCall& call : kStoringCalls) {
        if (call.number != info.entry.nr) {
            continue;
        }
        if (call.descriptor != kNoArgument) {
            return IsStoredFile(pid, info.entry.args[call.descriptor]);
        }
        constexpr uint64_t kWriting = O_WRONLY | O_RDWR | O_CREAT;
        return call.openFlags == kNoArgument || (info.entry.args[call.openFlags] & kWriting) != 0;
    }
    return false;
}

#ifdef __x86_64__
template<typename Change>
void ChangeRegisters(pid_t pid, Change change)
{
    user_regs_struct registers{};
    if (ptrace(PTRACE_GETREGS, pid, nullptr, &registers) == 0) {
        change(registers);
        ptrace(PTRACE_SETREGS, pid, nullptr, &registers);
    }
}

// No system call has this number, so the kernel carries out nothing.
void SkipCall(pid_t pid)
{
    ChangeRegisters(pid, [](user_regs_struct& registers) { registers.orig_rax = ~0ULL; });
}

void SetResult(pid_t pid, int result)
{
    ChangeRegisters(pid, [result](user_regs_struct& registers) {
        registers.rax = static_cast<unsigned long long>(result);
    });
}
#else
void SkipCall(pid_t /*pid*/)
{
    throw std::runtime_error("calls can be made to fail on x86-64 alone");
}

void SetResult(pid_t /*pid*/, int /*result*/) {}
#endif

} // namespace

Steps RunKilledAt(long killAt, const std::function<int()>& work)
{
    return Follow(work, [killAt](long stop, pid_t) { return stop == killAt ? Then::Kill : Then::GoOn; });
}

Steps RunOvertakenAt(long stopAt, const std::function<int()>& work, const std::function<void()>& meanwhile)
{
    return Follow(work, [&](long stop, pid_t) {
        if (stop == stopAt) {
            meanwhile();
        }
        return Then::GoOn;
    });
}

Steps RunFailingAt(long failAt, int error, Failing failing, const std::function<int()>& work)
{
    long storing = 0;
    std::unordered_set<pid_t> failed; // at the entry of a call that was not let through
    Steps steps = Follow(work, [&](long, pid_t pid) {
        __ptrace_syscall_info info{};
        if (ptrace(PTRACE_GET_SYSCALL_INFO, pid, sizeof info, &info) <= 0) {
            return Then::GoOn;
        }
        if (info.op == PTRACE_SYSCALL_INFO_EXIT && failed.erase(pid) != 0) {
            SetResult(pid, -error);
        }
        if (info.op == PTRACE_SYSCALL_INFO_ENTRY && Stores(pid, info)) {
            const long number = storing++;
            if (number == failAt || (failing == Failing::FromThenOn && failAt >= 0 && number > failAt)) {
                SkipCall(pid);
                failed.insert(pid);
            }
        }
        return Then::GoOn;
    });
    steps.stops = storing;
    return steps;
}

void MarkStart()
{
    syscall(SYS_getpriority, kMarkArgument, 0);
}

} // namespace tavr::test
