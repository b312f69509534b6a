#include "webapi/loop.h"

#include "linux/clock.h"
#include "webapi/clearing.h"
#include "webapi/domain_refresh.h"
#include "webapi/queue_runner.h"
#include "webapi/server.h"
#include "webapi/transfers.h"

#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <stdexcept>
#include <system_error>

namespace tavr::webapi
{

namespace
{

using std::chrono::milliseconds;

constexpr int64_t kDrainSeconds = 12; // more than a mail may take
constexpr uint64_t kSignalId = 0;     // the server has the others
constexpr uint64_t kBellId = UINT64_MAX;
constexpr size_t kMostConnections = 2000;
constexpr size_t kOtherDescriptors = 128; // databases, mail servers, the log

Descriptor Require(int descriptor, const char* what)
{
    if (descriptor < 0) {
        throw std::system_error(errno, std::generic_category(), what);
    }
    return Descriptor(descriptor);
}

Descriptor Signals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    return Require(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK), "signalfd");
}

// As many as the machine lets this process have.
size_t MostConnections()
{
    rlimit files{};
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = std::min<rlim_t>(files.rlim_max, kMostConnections + kOtherDescriptors);
    setrlimit(RLIMIT_NOFILE, &files);
    getrlimit(RLIMIT_NOFILE, &files);
    return files.rlim_cur > 2 * kOtherDescriptors ? files.rlim_cur - kOtherDescriptors : files.rlim_cur / 2;
}

// The nearer of two times; negative: never.
milliseconds Sooner(milliseconds a, milliseconds b)
{
    return a.count() < 0 || (b.count() >= 0 && b < a) ? b : a;
}

milliseconds Seconds(int64_t seconds)
{
    return milliseconds(seconds < 0 ? -1 : 1000 * seconds);
}

class Loop
{
public:
    Loop(Descriptor listener, uid_t service)
        : epoll_(Require(epoll_create1(EPOLL_CLOEXEC), "epoll")),
          signals_(Signals()),
          tools_{transfers_, queue_},
          server_(std::move(listener), epoll_.Get(), service, MostConnections(), tools_)
    {
        WatchFor(signals_.Get(), kSignalId);
        WatchFor(transfers_.Bell(), kBellId);
    }
    ~Loop() // the transfers, let go of next, wait for both
    {
        queue_.Stop();
        domain_.Stop();
    }
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

    void Run()
    {
        for (milliseconds longest = GoOn(); !Ended(); longest = GoOn()) {
            TakeEvents(longest);
        }
        if (transfers_.Running() > 0) {
            _exit(0); // what still hangs cannot be waited for; a kill would lose nothing either
        }
    }

private:
    void WatchFor(int descriptor, uint64_t id)
    {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.u64 = id;
        if (epoll_ctl(epoll_.Get(), EPOLL_CTL_ADD, descriptor, &event) != 0) {
            throw std::system_error(errno, std::generic_category(), "epoll");
        }
    }

    // What is due by the clock. Gives the time until something will be.
    milliseconds GoOn()
    {
        milliseconds next = Sooner(Seconds(server_.Expire()), queue_.GoOn());
        if (drainEnd_ < 0) {
            next = Sooner(next, Seconds(clearing_.GoOn()));
            next = Sooner(next, Seconds(domain_.GoOn()));
        } else {
            next = Sooner(next, Seconds(std::max<int64_t>(0, drainEnd_ - BootSeconds())));
        }
        return next;
    }

    void TakeEvents(milliseconds longest)
    {
        epoll_event events[64];
        const int count = epoll_wait(epoll_.Get(), events, 64, static_cast<int>(longest.count()));
        for (int i = 0; i < count; ++i) {
            if (events[i].data.u64 == kSignalId) {
                OnSignal();
            } else if (events[i].data.u64 == kBellId) {
                transfers_.GoOn();
            } else {
                server_.OnEvent(events[i].data.u64);
            }
        }
    }

    void OnSignal()
    {
        signalfd_siginfo info{};
        while (read(signals_.Get(), &info, sizeof info) == sizeof info) {
            drainEnd_ = drainEnd_ < 0 ? BootSeconds() + kDrainSeconds : BootSeconds();
        }
        server_.Close();
        queue_.Stop();
        domain_.Stop();
    }

    [[nodiscard]] bool Ended() const
    {
        if (drainEnd_ < 0) {
            return false;
        }
        return (server_.IsEmpty() && transfers_.Running() == 0 && queue_.IsIdle()) ||
               BootSeconds() >= drainEnd_;
    }

    Descriptor epoll_;
    Descriptor signals_;
    int64_t drainEnd_ = -1; // BootSeconds; -1: not ending
    QueueRunner queue_{transfers_};
    DomainRefresh domain_{transfers_};
    Transfers transfers_;
    Clearing clearing_;
    Tools tools_;
    Server server_;
};

} // namespace

void Serve(Descriptor listener, uid_t service)
{
    Loop(std::move(listener), service).Run();
}

} // namespace tavr::webapi
