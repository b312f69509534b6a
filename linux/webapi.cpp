#include "platform/webapi.h"

#include "linux/clock.h"
#include "linux/descriptor.h"
#include "linux/error.h"
#include "linux/unix_socket.h"
#include "linux/webapi_frame.h"

#include <poll.h>
#include <sodium.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <utility>

using tavr::Error;
using tavr::Fail;

namespace
{

constexpr int64_t kConnectSeconds = 2;
constexpr int64_t kSendSeconds = 5;
constexpr int64_t kReceiveSeconds = 20; // longer than the service's longest call

// The end of all the waits of one operation.
class Deadline
{
public:
    explicit Deadline(int64_t seconds) : end_(tavr::BootSeconds() + seconds) {}

    // False at the end, and when the descriptor cannot be waited for.
    [[nodiscard]] bool WaitFor(int descriptor, short events) const
    {
        pollfd waiting{descriptor, events, 0};
        const int64_t left = end_ - tavr::BootSeconds();
        const int ready = left <= 0 ? 0 : poll(&waiting, 1, static_cast<int>(left * 1000));
        return ready > 0 || (ready < 0 && errno == EINTR);
    }
    [[nodiscard]] bool Passed() const { return tavr::BootSeconds() >= end_; }

private:
    int64_t end_;
};

// Calls move(done) until `size` bytes have gone one way; it works as recv() and send() do, without waiting.
template<typename Move>
bool MoveAll(int descriptor, short events, size_t size, const Deadline& deadline, Move move)
{
    for (size_t done = 0; done < size;) {
        const ssize_t moved = move(done);
        if (moved > 0) {
            done += static_cast<size_t>(moved);
        } else if (moved == 0 || (errno != EAGAIN && errno != EINTR) ||
                   !deadline.WaitFor(descriptor, events)) {
            return false;
        }
    }
    return true;
}

bool Receive(int descriptor, char* bytes, size_t size, const Deadline& deadline)
{
    return MoveAll(descriptor, POLLIN, size, deadline,
                   [&](size_t done) { return recv(descriptor, bytes + done, size - done, MSG_DONTWAIT); });
}

// A connect() that blocks waits for a place in the listener's queue, for as long as sending may take.
bool ConnectInTime(int descriptor, const sockaddr_un& address)
{
    const timeval longest{kConnectSeconds, 0};
    setsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &longest, sizeof longest);
    const Deadline deadline(kConnectSeconds);
    while (connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        if (errno != EINTR || deadline.Passed()) {
            return false;
        }
    }
    return true;
}

bool Failed(Error code, int line = __builtin_LINE())
{
    Fail(code, __FILE__, line);
    return false;
}

} // namespace

namespace tavrdaemon
{

bool SockConnection::Recv(std::string& text)
{
    const Deadline deadline(kReceiveSeconds);
    tavr::FrameHead head{};
    if (descriptor_ < 0 || !Receive(descriptor_, head.data(), head.size(), deadline)) {
        return Failed(Error::ReadFailed);
    }
    std::string answer(tavr::SizeInFrameHead(head), '\0');
    if (answer.empty() || !Receive(descriptor_, answer.data(), answer.size(), deadline)) {
        return Failed(Error::ReadFailed);
    }
    text = std::move(answer);
    return true;
}

DomainSockConnection::DomainSockConnection(const char* path) : path_(path != nullptr ? path : "") {}

DomainSockConnection::~DomainSockConnection()
{
    if (descriptor_ >= 0) {
        close(descriptor_);
    }
}

bool DomainSockConnection::Connect()
{
    const std::optional<sockaddr_un> address = tavr::UnixAddress(path_);
    if (descriptor_ >= 0 || !address) {
        return Failed(Error::BadParameter);
    }
    tavr::Descriptor connection(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!connection || !ConnectInTime(connection.Get(), *address)) {
        return Failed(Error::OpenFailed);
    }
    descriptor_ = connection.Release();
    return true;
}

bool DomainSockConnection::Send(const std::string& text)
{
    if (descriptor_ < 0 || text.empty() || text.size() > tavr::kLargestWebApiMessage) {
        return Failed(Error::BadParameter);
    }
    const tavr::FrameHead head = tavr::MakeFrameHead(text.size());
    std::string message(head.data(), head.size());
    message += text;
    const bool sent = MoveAll(descriptor_, POLLOUT, message.size(), Deadline(kSendSeconds), [&](size_t done) {
        return send(descriptor_, message.data() + done, message.size() - done, MSG_DONTWAIT | MSG_NOSIGNAL);
    });
    sodium_memzero(message.data(), message.size()); // a mail's text may hold a code
    return sent || Failed(Error::WriteFailed);
}

} // namespace tavrdaemon
