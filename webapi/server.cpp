#include "webapi/server.h"

#include "linux/clock.h"

#include <sodium.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <syslog.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

namespace tavr::webapi
{

namespace
{

constexpr uint64_t kListenerId = 1;
constexpr int64_t kPauseSeconds = 1;
constexpr int kAcceptedAtEnd = 64;

// Of the process that connected, at that moment.
bool IsAllowed(int socket, uid_t service)
{
    ucred peer{};
    socklen_t size = sizeof peer;
    return getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 &&
           (peer.uid == 0 || peer.uid == service);
}

void Register(int epoll, int operation, int descriptor, uint64_t id, uint32_t events)
{
    epoll_event event{};
    event.events = events;
    event.data.u64 = id;
    if (epoll_ctl(epoll, operation, descriptor, &event) != 0) {
        syslog(LOG_ERR, "epoll: %m"); // who waits for it is given up in time
    }
}

ssize_t SendNow(int socket, const std::string& bytes)
{
    return send(socket, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
}

// For a caller who is not let in: an answer takes no room of ours.
void TurnAway(const Descriptor& socket, Code code)
{
    SendNow(socket.Get(), ToMessage(Refusal(code)));
}

} // namespace

Server::Server(Descriptor listener, int epoll, uid_t service, size_t most, Tools& tools)
    : epoll_(epoll),
      service_(service),
      most_(most),
      tools_(tools),
      listener_(std::move(listener)),
      lastId_(kListenerId)
{
    Register(epoll_, EPOLL_CTL_ADD, listener_.Get(), kListenerId, EPOLLIN);
}

void Server::OnEvent(uint64_t id)
{
    if (id == kListenerId) {
        AcceptOne(); // who comes behind him is told of again; asking for him now is mostly in vain
        return;
    }
    const auto found = places_.find(id);
    if (found != places_.end()) { // not dropped since
        Read(found->second);
    }
}

// False: there is nobody, or no room for anybody.
bool Server::AcceptOne()
{
    Descriptor socket(accept4(listener_.Get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (socket) {
        Take(std::move(socket));
        return true;
    }
    if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS) {
        if (DropLongestAsking()) {
            return true;
        }
        syslog(LOG_ERR, "cannot accept: %m");
        Register(epoll_, EPOLL_CTL_MOD, listener_.Get(), kListenerId, 0);
        pausedUntil_ = BootSeconds() + kPauseSeconds;
        return false;
    }
    return errno == EINTR || errno == ECONNABORTED;
}

void Server::Take(Descriptor socket)
{
    if (!IsAllowed(socket.Get(), service_)) {
        syslog(LOG_AUTH | LOG_NOTICE, "a caller was turned away who is neither root nor the service");
        TurnAway(socket, Code::NotAllowed);
        return;
    }
    if (places_.size() >= most_ && !DropLongestAsking()) {
        TurnAway(socket, Code::Busy);
        return;
    }
    Connection connection;
    connection.id = ++lastId_;
    connection.socket = std::move(socket);
    connection.deadline = BootSeconds() + kAskingSeconds;
    const Place place = asking_.insert(asking_.end(), std::move(connection));
    places_.emplace(place->id, place);
    Read(place); // most requests are here already
}

void Server::Read(Place place)
{
    static std::array<char, 64 << 10> bytes;
    const ssize_t got = recv(place->socket.Get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
        WaitFor(place);
        return;
    }
    if (got <= 0) {
        Drop(place);
        return;
    }
    const auto size = static_cast<size_t>(got);
    unfinished_ -= place->request.Held();
    const IncomingMessage::State state = place->request.Add({bytes.data(), size});
    sodium_memzero(bytes.data(), size);
    switch (state) {
    case IncomingMessage::State::Whole:
        Call(place);
        return;
    case IncomingMessage::State::BadLength:
        TurnAway(place->socket, Code::BadLength);
        Drop(place);
        return;
    case IncomingMessage::State::Unfinished:
        break;
    }
    unfinished_ += place->request.Held();
    WaitFor(place);
    while (unfinished_ > kMostUnfinished && DropLongestAsking()) {
    }
}

void Server::Call(Place place)
{
    place->called = true;
    place->deadline = BootSeconds() + kCallSeconds;
    calling_.splice(calling_.end(), asking_, place);
    const uint64_t id = place->id; // the place may be gone when the call returns
    const Reply reply([this, id](const std::string& answer) { Answer(id, answer); });
    if (calling_.size() > kMostCalls) {
        reply.Refuse(Code::Busy);
        return;
    }
    Request request;
    request.text = std::move(place->request.Text());
    const Code code = ParseRequest(request);
    if (code != Code::None) {
        reply.Refuse(code);
        return;
    }
    RunCall(request, reply, tools_);
    StopWaitingFor(id);
}

// Nothing that a caller does from now on matters. One who has been answered is gone.
void Server::StopWaitingFor(uint64_t id)
{
    const auto found = places_.find(id);
    if (found != places_.end() && std::exchange(found->second->registered, false)) {
        Register(epoll_, EPOLL_CTL_DEL, found->second->socket.Get(), id, 0);
    }
}

void Server::Answer(uint64_t id, const std::string& answer)
{
    const auto found = places_.find(id);
    if (found != places_.end()) {
        SendNow(found->second->socket.Get(), ToMessage(answer));
        Drop(found->second);
    }
}

void Server::WaitFor(Place place)
{
    if (!place->registered) {
        Register(epoll_, EPOLL_CTL_ADD, place->socket.Get(), place->id, EPOLLIN);
        place->registered = true;
    }
}

void Server::Drop(Place place)
{
    if (!place->called) {
        unfinished_ -= place->request.Held();
    }
    std::string& text = place->request.Text();
    sodium_memzero(text.data(), text.size());
    places_.erase(place->id);
    (place->called ? calling_ : asking_).erase(place);
}

bool Server::DropLongestAsking()
{
    if (asking_.empty()) {
        return false;
    }
    Drop(asking_.begin());
    return true;
}

int64_t Server::Expire()
{
    const int64_t now = BootSeconds();
    while (!asking_.empty() && asking_.front().deadline <= now) {
        Drop(asking_.begin());
    }
    while (!calling_.empty() && calling_.front().deadline <= now) {
        syslog(LOG_ERR, "a call took longer than %d seconds", static_cast<int>(kCallSeconds));
        Answer(calling_.front().id, Refusal(Code::Internal));
    }
    int64_t next = INT64_MAX;
    for (const std::list<Connection>* list : {&asking_, &calling_}) {
        if (!list->empty()) {
            next = std::min(next, list->front().deadline - now);
        }
    }
    if (pausedUntil_ > 0 && pausedUntil_ <= now) {
        pausedUntil_ = 0;
        Register(epoll_, EPOLL_CTL_MOD, listener_.Get(), kListenerId, EPOLLIN);
    } else if (pausedUntil_ > 0) {
        next = std::min(next, pausedUntil_ - now);
    }
    return next == INT64_MAX ? -1 : next;
}

void Server::Close()
{
    if (!listener_) {
        return;
    }
    for (int i = 0; i < kAcceptedAtEnd && AcceptOne(); ++i) { // who has connected before the end is let in
    }
    Register(epoll_, EPOLL_CTL_DEL, listener_.Get(), kListenerId, 0); // others may have the listener too
    listener_ = Descriptor();
    pausedUntil_ = 0;
    while (DropLongestAsking()) {
    }
}

} // namespace tavr::webapi
