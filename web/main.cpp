// tavr-otp-web: the parent. It stays root, opens the socket, keeps the workers running and serves nothing
// itself.
#include "web/databases.h"
#include "web/server.h"

#include "linux/daemon.h"
#include "linux/paths.h"
#include "linux/places.h"
#include "linux/unix_socket.h"

#include <getopt.h>
#include <grp.h>
#include <pwd.h>
#include <sodium.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace
{

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr char kWebServerGroup[] = "www-data";
constexpr int kMostWorkers = 64;
constexpr int kMostMemory = 1024;         // MiB
constexpr milliseconds kGrace{1900};      // for requests that run when the end comes
constexpr milliseconds kLongEnough{1000}; // a worker that lived so long has not failed at its start
constexpr milliseconds kFirstDelay{100};
constexpr milliseconds kLongestDelay{5000};

constexpr char kUsage[] = R"(Usage: tavr-otp-web [OPTION]...
Serves two-step sign-in under /api/ to a web server, over FastCGI.

  --workers N      worker processes, 1 to 64 (default 2)
  --memory MIB     a worker that holds more when a request is over is replaced, 1 to 1024 (default 64)
  --socket PATH    listening socket (default /run/tavr/otp-web.sock)
  --help           this text
  --version        the version

Starts as root, and takes a socket that it is handed (socket activation); the workers run as tavr-web. SIGHUP
replaces them, each once its request is answered. Ends with SIGTERM. See tavr-otp-web(8).
)";

struct Options {
    int workers = 2;
    int memory = 64; // MiB
    std::string socket = tavr::kWebSocket;
};

struct Worker {
    pid_t pid = 0; // 0: not running
    Clock::time_point started;
    Clock::time_point next; // not started again before
    milliseconds delay{0};  // after the next failed start
};

int ReadNumber(const char* option, std::string_view text, int most)
{
    int number = 0;
    const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || stop != text.data() + text.size() || number < 1 || number > most) {
        tavr::Misuse(std::string(option) + " takes a number from 1 to " + std::to_string(most));
    }
    return number;
}

Options ReadOptions(int argc, char** argv)
{
    static constexpr option kOptions[] = {
        {"workers", required_argument, nullptr, 'w'}, {"memory", required_argument, nullptr, 'm'},
        {"socket", required_argument, nullptr, 's'},  {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'v'},       {}};
    Options options;
    for (int c = 0; (c = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
        switch (c) {
        case 'w':
            options.workers = ReadNumber("--workers", optarg, kMostWorkers);
            break;
        case 'm':
            options.memory = ReadNumber("--memory", optarg, kMostMemory);
            break;
        case 's':
            options.socket = optarg;
            if (!tavr::UnixAddress(options.socket)) {
                tavr::Misuse("--socket takes a path of 1 to 107 bytes");
            }
            break;
        case 'h':
            std::fputs(kUsage, stdout);
            std::exit(0);
        case 'v':
            std::puts("tavr-otp-web " TAVR_VERSION);
            std::exit(0);
        default:
            tavr::Misuse("wrong option");
        }
    }
    if (optind != argc) {
        tavr::Misuse("no arguments are taken");
    }
    return options;
}

// Non-blocking, because more than one worker wakes up for a connection.
tavr::Descriptor Listen(const std::string& path, bool activated)
{
    if (activated) {
        return tavr::PassedListener();
    }
    const group* webServer = getgrnam(kWebServerGroup);
    if (webServer == nullptr) {
        tavr::Die(std::string("no group ") + kWebServerGroup);
    }
    try {
        return tavr::ListenAt(path, 0, webServer->gr_gid);
    } catch (const std::runtime_error& error) {
        tavr::Die(error.what());
    }
}

// Group before user: only root may change the group. The saved ids stay root's, for the library's scopes.
bool TakeIds(const passwd& service)
{
    return setgroups(0, nullptr) == 0 && setresgid(service.pw_gid, service.pw_gid, 0) == 0 &&
           setresuid(service.pw_uid, service.pw_uid, 0) == 0 && prctl(PR_SET_DUMPABLE, 0) == 0;
}

void StartWorker(Worker& worker, const tavr::web::Serving& serving, const passwd& service)
{
    worker.started = Clock::now();
    worker.pid = fork();
    if (worker.pid != 0) {
        return; // of the parent; a failed fork is looked at by the caller
    }
    if (!TakeIds(service)) {
        syslog(LOG_AUTH | LOG_CRIT, "a worker cannot give up root: %m");
        _exit(70);
    }
    std::exit(tavr::web::ServeRequests(serving));
}

void PutOff(Worker& worker)
{
    const bool lived = Clock::now() - worker.started >= kLongEnough;
    worker.delay = lived ? milliseconds(0) : std::clamp(worker.delay * 2, kFirstDelay, kLongestDelay);
    worker.next = Clock::now() + worker.delay;
    worker.pid = 0;
}

// Takes note of the workers that have ended.
void Reap(std::vector<Worker>& workers, bool expected)
{
    int status = 0;
    for (pid_t pid = 0; (pid = waitpid(-1, &status, WNOHANG)) > 0;) {
        const auto worker =
            std::find_if(workers.begin(), workers.end(), [pid](const Worker& w) { return w.pid == pid; });
        if (worker == workers.end()) {
            continue;
        }
        if (!expected) {
            const bool byItself = WIFEXITED(status) && WEXITSTATUS(status) == 0; // and has said why
            syslog(byItself ? LOG_NOTICE : LOG_ERR, "worker %d ended (%s %d)", pid,
                   WIFSIGNALED(status) ? "signal" : "status",
                   WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status));
        }
        PutOff(*worker);
    }
}

int WaitForSignal(const sigset_t& signals, milliseconds longest)
{
    const auto whole = std::max(longest, milliseconds(0));
    const timespec time{whole.count() / 1000, whole.count() % 1000 * 1000000};
    return sigtimedwait(&signals, nullptr, &time);
}

milliseconds Until(Clock::time_point then)
{
    return std::chrono::ceil<milliseconds>(then - Clock::now());
}

void Send(const std::vector<Worker>& workers, int signal)
{
    for (const Worker& worker : workers) {
        if (worker.pid > 0) {
            kill(worker.pid, signal);
        }
    }
}

void KeepRunning(std::vector<Worker>& workers, const tavr::web::Serving& serving, const passwd& service,
                 const sigset_t& signals)
{
    for (int signal = 0; signal != SIGTERM && signal != SIGINT;) {
        milliseconds longest = std::chrono::hours(1);
        for (Worker& worker : workers) {
            if (worker.pid == 0 && worker.next <= Clock::now()) {
                StartWorker(worker, serving, service);
                if (worker.pid < 0) {
                    syslog(LOG_ERR, "cannot start a worker: %m");
                    PutOff(worker);
                }
            }
            if (worker.pid == 0) {
                longest = std::min(longest, Until(worker.next));
            }
        }
        signal = WaitForSignal(signals, longest);
        if (signal == SIGHUP) { // connections wait in the socket's queue until a new worker takes them
            syslog(LOG_NOTICE, "reload: the workers are replaced");
            Send(workers, SIGTERM);
        }
        Reap(workers, false);
    }
}

void End(std::vector<Worker>& workers, const sigset_t& signals)
{
    const auto running = [&workers] {
        return std::any_of(workers.begin(), workers.end(),
                           [](const Worker& worker) { return worker.pid > 0; });
    };
    Send(workers, SIGTERM);
    const Clock::time_point end = Clock::now() + kGrace;
    for (Reap(workers, true); running() && Clock::now() < end; Reap(workers, true)) {
        WaitForSignal(signals, Until(end));
    }
    Send(workers, SIGKILL);
}

} // namespace

int main(int argc, char** argv)
{
    const Options options = ReadOptions(argc, argv);
    if (geteuid() != 0) {
        tavr::Die("has to be started as root");
    }
    const passwd* found = getpwnam(tavr::kServiceUser);
    if (found == nullptr || found->pw_uid == 0) {
        tavr::Die(std::string("no account ") + tavr::kServiceUser);
    }
    const passwd service = *found;
    if (sodium_init() < 0) {
        tavr::Die("no source of random bits");
    }
    const bool activated = tavr::IsActivated();
    tavr::PrepareProcess(activated ? tavr::kFirstPassed + 1 : tavr::kFirstPassed);
    tavr::OpenLog("tavr-otp-web");

    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGCHLD}) {
        sigaddset(&signals, signal);
    }
    sigprocmask(SIG_BLOCK, &signals, nullptr);

    tavr::Descriptor listener = Listen(options.socket, activated);
    if (!tavr::MakePlaces(options.workers) || !tavr::web::MakeClearing()) {
        tavr::Die(std::string("cannot make a file in memory: ") + std::strerror(errno));
    }
    std::vector<Worker> workers(static_cast<size_t>(options.workers));
    const size_t mostMemory = static_cast<size_t>(options.memory) * 1024 * 1024;
    KeepRunning(workers, {listener.Get(), mostMemory}, service, signals);
    listener = tavr::Descriptor();
    if (!activated) {
        unlink(options.socket.c_str());
    }
    End(workers, signals);
    return 0;
}
