// Started commands: KLIBCPopen, KLIBCPclose, KLIBCExec.
//
// A command gets nothing of this process but its working directory and umask: an argument vector, a fixed
// environment, descriptors 0 to 2, default signals, and the real ids. Those are the service's in a worker, so
// exec leaves no way back to root, also when the command was started while the effective ids were raised.
#include "platform/core.h"

#include "linux/descriptor.h"
#include "linux/error.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <new>
#include <unordered_map>

using tavr::Descriptor;
using tavr::Error;
using tavr::Fail;

namespace
{

constexpr size_t kMaxArguments = 32;
constexpr int kFirstOwnDescriptor = 3;

// posix_spawn's interface takes char* and changes none of them.
using ArgumentVector = std::array<const char*, kMaxArguments + 2>;

struct Pipe {
    Descriptor read;
    Descriptor write;
};

// Above the standard descriptors, even in a process that has closed some of those: the child's 0 to 2 are set
// one after the other, and none may overwrite an end of the pipe.
bool OpenPipe(Pipe& made)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return false;
    }
    made.read = Descriptor(ends[0]);
    made.write = Descriptor(ends[1]);
    for (Descriptor* end : {&made.read, &made.write}) {
        if (end->Get() >= kFirstOwnDescriptor) {
            continue;
        }
        const int moved = fcntl(end->Get(), F_DUPFD_CLOEXEC, kFirstOwnDescriptor);
        if (moved < 0) {
            return false;
        }
        *end = Descriptor(moved);
    }
    return true;
}

class SpawnAttributes
{
public:
    SpawnAttributes()
    {
        sigset_t none;
        sigset_t all;
        sigemptyset(&none);
        sigfillset(&all);
        ready_ = posix_spawnattr_init(&attributes_) == 0;
        ready_ = ready_ && posix_spawnattr_setsigmask(&attributes_, &none) == 0 &&
                 posix_spawnattr_setsigdefault(&attributes_, &all) == 0 &&
                 posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_RESETIDS | POSIX_SPAWN_SETSIGMASK |
                                                            POSIX_SPAWN_SETSIGDEF) == 0;
    }
    ~SpawnAttributes() { posix_spawnattr_destroy(&attributes_); }
    SpawnAttributes(const SpawnAttributes&) = delete;
    SpawnAttributes& operator=(const SpawnAttributes&) = delete;
    [[nodiscard]] const posix_spawnattr_t* Get() const { return ready_ ? &attributes_ : nullptr; }

private:
    posix_spawnattr_t attributes_{};
    bool ready_ = false;
};

class FileActions
{
public:
    // `output` becomes the child's standard output; -1: /dev/null.
    explicit FileActions(int output)
    {
        ready_ = posix_spawn_file_actions_init(&actions_) == 0;
        ready_ = ready_ && Null(STDIN_FILENO, O_RDONLY) && Null(STDERR_FILENO, O_WRONLY);
        ready_ =
            ready_ && (output < 0 ? Null(STDOUT_FILENO, O_WRONLY)
                                  : posix_spawn_file_actions_adddup2(&actions_, output, STDOUT_FILENO) == 0);
        ready_ = ready_ && posix_spawn_file_actions_addclosefrom_np(&actions_, kFirstOwnDescriptor) == 0;
    }
    ~FileActions() { posix_spawn_file_actions_destroy(&actions_); }
    FileActions(const FileActions&) = delete;
    FileActions& operator=(const FileActions&) = delete;
    [[nodiscard]] const posix_spawn_file_actions_t* Get() const { return ready_ ? &actions_ : nullptr; }

private:
    bool Null(int fd, int flags)
    {
        return posix_spawn_file_actions_addopen(&actions_, fd, "/dev/null", flags, 0) == 0;
    }
    posix_spawn_file_actions_t actions_{};
    bool ready_ = false;
};

// Empty error code: `child` runs. Otherwise nothing was started.
Error Start(const char* path, const ArgumentVector& arguments, int output, pid_t& child)
{
    static const char* const environment[] = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C", "HOME=/",
                                              nullptr};
    const SpawnAttributes attributes;
    const FileActions actions(output);
    if (attributes.Get() == nullptr || actions.Get() == nullptr) {
        return Error::OutOfMemory;
    }
    const int code =
        posix_spawn(&child, path, actions.Get(), attributes.Get(), const_cast<char* const*>(arguments.data()),
                    const_cast<char* const*>(environment));
    if (code != 0) {
        errno = code;
        return Error::ExecFailed;
    }
    return Error::None;
}

// Exit status as a shell has it: 128 and the signal's number for one that was killed; -1: not known.
int WaitFor(pid_t child)
{
    int status = 0;
    pid_t ended = 0;
    do {
        ended = waitpid(child, &status, 0);
    } while (ended < 0 && errno == EINTR);
    if (ended != child) {
        return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::unordered_map<FILE*, pid_t>& OpenCommands()
{
    static std::unordered_map<FILE*, pid_t> commands;
    return commands;
}

// A path of our own, never looked for along PATH.
bool IsCommandPath(const char* path)
{
    return path != nullptr && path[0] == '/';
}

// False when there are more than fit.
bool TakeArguments(const char* path, va_list list, ArgumentVector& arguments)
{
    arguments = {};
    arguments[0] = path;
    for (size_t i = 1; i < arguments.size(); ++i) {
        // The checker does not see the caller's va_start. NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
        arguments[i] = va_arg(list, const char*);
        if (arguments[i] == nullptr) {
            return true;
        }
    }
    return false;
}

} // namespace

FILE* KLIBCPopen(const char* path, const char* mode, ...)
{
    if (!IsCommandPath(path) || mode == nullptr || std::strcmp(mode, "r") != 0) {
        Fail(Error::BadParameter);
        return nullptr;
    }
    ArgumentVector arguments;
    va_list list;
    va_start(list, mode);
    const bool taken = TakeArguments(path, list, arguments);
    va_end(list);
    if (!taken) {
        Fail(Error::BadParameter);
        return nullptr;
    }

    Pipe pipe;
    if (!OpenPipe(pipe)) {
        Fail(Error::OpenFailed);
        return nullptr;
    }
    // The stream first: once the command runs, nothing here may fail any more.
    FILE* stream = fdopen(pipe.read.Get(), "r");
    if (stream == nullptr) {
        Fail(Error::OutOfMemory);
        return nullptr;
    }
    static_cast<void>(pipe.read.Release()); // the stream's
    pid_t& child = OpenCommands()[stream];
    const Error code = Start(path, arguments, pipe.write.Get(), child);
    if (code != Error::None) {
        OpenCommands().erase(stream);
        fclose(stream);
        Fail(code);
        return nullptr;
    }
    return stream;
}

int KLIBCPclose(FILE* stream)
{
    const auto command = OpenCommands().find(stream);
    if (command == OpenCommands().end()) {
        return Fail(Error::BadParameter);
    }
    const pid_t child = command->second;
    OpenCommands().erase(command);
    // Closed before the wait: a command that still writes then ends by SIGPIPE and is not waited for in vain.
    fclose(stream);
    const int status = WaitFor(child);
    return status < 0 ? Fail(Error::ExecFailed) : status;
}

int KLIBCExec(const char* path, const char* arg1, const char* arg2, const char* arg3, const char* arg4)
{
    if (!IsCommandPath(path)) {
        return Fail(Error::BadParameter);
    }
    const ArgumentVector arguments{path, arg1, arg2, arg3, arg4}; // the first null ends it
    pid_t child = 0;
    const Error code = Start(path, arguments, -1, child);
    if (code != Error::None) {
        return Fail(code);
    }
    const int status = WaitFor(child);
    if (status != 0) {
        Fail(Error::ExecFailed);
    }
    return status;
}
