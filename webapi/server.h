// The connections of the web API: accepting and judging callers, reading one request and writing one answer
// each.
//
// Nothing here waits. Everything a caller can do badly costs him his own connection: a request has to be
// whole within kAskingSeconds, and who takes longest goes first when there are too many. An answer is small:
// what does not fit into the socket at once is lost.
#pragma once

#include "linux/descriptor.h"
#include "webapi/calls.h"
#include "webapi/request.h"

#include <sys/types.h>

#include <cstdint>
#include <list>
#include <string>
#include <unordered_map>

namespace tavr::webapi
{

inline constexpr int64_t kAskingSeconds = 10;
inline constexpr size_t kMostCalls = 64;           // that run at the same time
inline constexpr size_t kMostUnfinished = 8 << 20; // bytes of requests that are not whole yet

class Server
{
public:
    // Takes callers with the effective uid `service` or root's, at most `most` at a time. Registers with
    // `epoll` under ids of its own, from 1 on. `listener` must not block.
    Server(Descriptor listener, int epoll, uid_t service, size_t most, Tools& tools);
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    void OnEvent(uint64_t id); // of an epoll event

    // Ends what has taken too long. Gives the seconds until it has to be called again; -1: no need.
    int64_t Expire();

    // Takes no more callers and lets go of those who have not asked yet. Running calls go on.
    void Close();
    [[nodiscard]] bool IsEmpty() const { return places_.empty(); }

private:
    struct Connection {
        uint64_t id = 0;
        Descriptor socket;
        IncomingMessage request;
        int64_t deadline = 0;
        bool registered = false; // with epoll
        bool called = false;     // its request was whole
    };
    using Place = std::list<Connection>::iterator;

    bool AcceptOne();
    void Take(Descriptor socket);
    void Read(Place place);
    void Call(Place place);
    void StopWaitingFor(uint64_t id);
    void Answer(uint64_t id, const std::string& answer);
    void WaitFor(Place place);
    void Drop(Place place);
    bool DropLongestAsking();

    const int epoll_;
    const uid_t service_;
    const size_t most_;
    Tools& tools_;
    Descriptor listener_;
    int64_t pausedUntil_ =
        0; // BootSeconds; nobody is taken before, as the machine has no room. 0: not paused
    uint64_t lastId_;
    size_t unfinished_ = 0; // bytes

    // Each in the order of their deadlines: all of one list have the same time.
    std::list<Connection> asking_; // whose request is not whole yet
    std::list<Connection> calling_;
    std::unordered_map<uint64_t, Place> places_; // where each connection stands
};

} // namespace tavr::webapi
