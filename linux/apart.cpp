#include "linux/apart.h"

#include "linux/descriptor.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <exception>

namespace tavr
{

namespace
{

using Clock = std::chrono::steady_clock;

constexpr int kFirstOwnDescriptor = 3;

void ResetSignals()
{
    for (int signal = 1; signal < NSIG; ++signal) {
        std::signal(signal, SIG_DFL);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

[[noreturn]] void Work(int end, pid_t parent, const std::function<std::string()>& work)
{
    EndWithParent();
    if (getppid() != parent) { // by then it was gone
        _exit(1);
    }
    ResetSignals();
    closelog(); // its descriptor goes with the others
    const int output = dup2(end, kFirstOwnDescriptor);
    if (output < 0 || close_range(kFirstOwnDescriptor + 1, ~0U, 0) != 0) {
        _exit(1);
    }
    try {
        const Descriptor pipe(output);
        const std::string text = work();
        _exit(WriteAll(pipe, text) ? 0 : 1);
    } catch (const std::exception&) {
        _exit(1);
    }
}

// What comes until the other end is closed; empty when that takes too long or is too much.
std::optional<std::string> ReadUntil(const Descriptor& pipe, Clock::time_point end)
{
    std::string text;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
        pollfd waiting{pipe.Get(), POLLIN, 0};
        const int ready = left <= 0 ? 0 : poll(&waiting, 1, static_cast<int>(left));
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready <= 0) {
            return std::nullopt;
        }
        char bytes[4096];
        const ssize_t count = read(pipe.Get(), bytes, sizeof bytes);
        if (count == 0) {
            return text;
        }
        if (count < 0 && errno != EINTR) {
            return std::nullopt;
        }
        text.append(bytes, static_cast<size_t>(std::max<ssize_t>(0, count)));
        if (text.size() > kMostFromApart) {
            return std::nullopt;
        }
    }
}

} // namespace

void EndWithParent()
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
}

std::optional<std::string> RunApart(std::chrono::milliseconds longest,
                                    const std::function<std::string()>& work)
{
    const Clock::time_point end = Clock::now() + longest;
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return std::nullopt;
    }
    const Descriptor input(ends[0]);
    Descriptor output(ends[1]);
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child < 0) {
        return std::nullopt;
    }
    if (child == 0) {
        Work(output.Get(), parent, work);
    }
    output = Descriptor();
    std::optional<std::string> text = ReadUntil(input, end);
    if (!text) {
        kill(child, SIGKILL);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return status == 0 ? text : std::nullopt;
}

} // namespace tavr
