// The client of the web API against servers that do what they should not.
#include "platform/webapi.h"

#include "tests/support/temp_dir.h"
#include "tests/support/test_clock.h"

#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace
{

// What the client was ready to wait for. While `impatient`, no wait takes any time: nothing comes.
bool impatient = false;
std::vector<int> waits;
time_t connectWait = 0;

} // namespace

extern "C" {
int __real_poll(pollfd* fds, nfds_t count, int timeout);
int __wrap_poll(pollfd* fds, nfds_t count, int timeout)
{
    waits.push_back(timeout);
    return impatient ? __real_poll(fds, count, 0) : __real_poll(fds, count, timeout);
}

int __real_setsockopt(int fd, int level, int name, const void* value, socklen_t size);
int __wrap_setsockopt(int fd, int level, int name, const void* value, socklen_t size)
{
    if (level != SOL_SOCKET || name != SO_SNDTIMEO) {
        return __real_setsockopt(fd, level, name, value, size);
    }
    connectWait = static_cast<const timeval*>(value)->tv_sec;
    const timeval short_{impatient ? 0 : connectWait, impatient ? 1000 : 0};
    return __real_setsockopt(fd, level, name, &short_, sizeof short_);
}
}

namespace
{

using tavrdaemon::DomainSockConnection;
using Script = std::function<void(int connection)>;

void Write(int fd, const std::string& bytes)
{
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t sent = send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (sent < 0) {
            return; // the client has had enough
        }
        done += static_cast<size_t>(sent);
    }
}

std::string Read(int fd, size_t size)
{
    std::string bytes(size, '\0');
    const ssize_t got = recv(fd, bytes.data(), size, MSG_WAITALL);
    bytes.resize(got < 0 ? 0 : static_cast<size_t>(got));
    return bytes;
}

void WaitUntilTaken(int fd)
{
    for (int unread = 1; unread > 0 && ioctl(fd, SIOCOUTQ, &unread) == 0;) {
        std::this_thread::yield();
    }
}

std::string Head(const char* bytes)
{
    return {bytes, 4};
}

class Listener
{
public:
    explicit Listener(const std::string& path, int backlog = 8) : fd_(socket(AF_UNIX, SOCK_STREAM, 0))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        EXPECT_EQ(0, bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address));
        EXPECT_EQ(0, listen(fd_, backlog));
    }
    ~Listener() { close(fd_); }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    void ServeOne(const Script& script) const
    {
        const int connection = accept(fd_, nullptr, nullptr);
        script(connection);
        close(connection);
    }

private:
    int fd_;
};

class Client : public testing::Test
{
protected:
    void TearDown() override
    {
        impatient = false;
        SetClock(0, 0);
    }

    // One exchange of the request "{}" with a server that runs `script` on its connection.
    struct Exchange {
        bool sent = false;
        bool received = false;
        std::string text = "as it was";
    };
    Exchange With(const Script& script)
    {
        const std::string path = folder_.Path("server" + std::to_string(++servers_));
        const Listener listener(path);
        std::thread server([&] { listener.ServeOne(script); });
        Exchange exchange;
        {
            DomainSockConnection connection(path.c_str());
            EXPECT_TRUE(connection.Connect());
            exchange.sent = connection.Send("{}");
            exchange.received = connection.Recv(exchange.text);
        } // closed here, so that a server that still sends ends too
        server.join();
        return exchange;
    }

    TempDir folder_;
    int servers_ = 0;
};

TEST_F(Client, SendsOneRequestAndReceivesTheAnswer)
{
    std::string request;
    const Exchange exchange = With([&](int fd) {
        request = Read(fd, 6);
        Write(fd, Head("\0\0\0\x10") + "{\"success\":true}");
    });

    EXPECT_EQ(std::string("\0\0\0\x02{}", 6), request);
    EXPECT_TRUE(exchange.received);
    EXPECT_EQ("{\"success\":true}", exchange.text);
}

TEST_F(Client, TakesAnAnswerThatComesInPieces)
{
    const Exchange exchange = With([](int fd) {
        Read(fd, 6);
        for (const char byte : std::string("\0\0\0\x03{ }", 7)) {
            Write(fd, std::string(1, byte));
            std::this_thread::yield();
        }
    });

    EXPECT_TRUE(exchange.received);
    EXPECT_EQ("{ }", exchange.text);
}

TEST_F(Client, CarriesOneMebibyteEachWayAndNoMore)
{
    constexpr size_t kLargest = 1 << 20;
    const std::string path = folder_.Path("large");
    const Listener listener(path);
    std::thread server([&] { listener.ServeOne([](int fd) { Write(fd, Read(fd, 4 + kLargest)); }); });
    DomainSockConnection connection(path.c_str());
    ASSERT_TRUE(connection.Connect());
    EXPECT_FALSE(connection.Send(std::string(kLargest + 1, 'x')));
    EXPECT_FALSE(connection.Send(""));
    EXPECT_TRUE(connection.Send(std::string(kLargest, 'x')));
    std::string answer;
    EXPECT_TRUE(connection.Recv(answer));
    server.join();

    EXPECT_EQ(std::string(kLargest, 'x'), answer);
}

struct BadAnswer {
    const char* what;
    Script script;
};

TEST_F(Client, LeavesTheTextUntouchedWhateverIsWrongWithTheAnswer)
{
    const auto answering = [](const std::string& bytes) {
        return [bytes](int fd) {
            Read(fd, 6);
            Write(fd, bytes);
        };
    };
    const BadAnswer rows[] = {
        {"closed before the request was read", [](int) {}},
        {"closed after the request", [](int fd) { Read(fd, 6); }},
        {"half a length", answering(std::string("\0\0", 2))},
        {"a length alone", answering(Head("\0\0\0\x10"))},
        {"half an answer", answering(Head("\0\0\0\x10") + "{\"succ")},
        {"nothing announced", answering(Head("\0\0\0\0"))},
        {"one byte too many announced", answering(Head("\0\x10\0\x01") + std::string((1 << 20) + 1, ' '))},
        {"100 MB announced", answering(Head("\x05\xF5\xE1\0") + std::string(100'000, ' '))},
        {"no length at all, but text", answering("{\"success\":true}")},
        {"the longest length", answering(Head("\xFF\xFF\xFF\xFF"))},
    };
    for (const BadAnswer& row : rows) {
        SCOPED_TRACE(row.what);
        const Exchange exchange = With(row.script);
        EXPECT_FALSE(exchange.received);
        EXPECT_EQ("as it was", exchange.text);
    }
}

TEST_F(Client, DoesNotDieOfASocketThatWasClosed)
{
    signal(SIGPIPE, SIG_DFL);
    const std::string path = folder_.Path("closed");
    const Listener listener(path);
    DomainSockConnection connection(path.c_str());
    ASSERT_TRUE(connection.Connect());
    listener.ServeOne([](int) {});

    EXPECT_FALSE(connection.Send("{}"));
    std::string text = "as it was";
    EXPECT_FALSE(connection.Recv(text));
    EXPECT_EQ("as it was", text);
}

TEST_F(Client, DoesNotConnectWhereNobodyListens)
{
    const std::string leftOver = folder_.Path("left-over");
    {
        const Listener listener(leftOver);
    }
    const std::string paths[] = {
        folder_.Path("absent"),          leftOver, folder_.Write("file", "no socket"), folder_.Path(), "",
        "/tmp/" + std::string(108, 'x'), // longer than a socket's path may be
    };
    for (const std::string& path : paths) {
        SCOPED_TRACE(path);
        DomainSockConnection connection(path.c_str());
        EXPECT_FALSE(connection.Connect());
        EXPECT_FALSE(connection.Send("{}"));
        std::string text;
        EXPECT_FALSE(connection.Recv(text));
    }
    EXPECT_FALSE(DomainSockConnection(nullptr).Connect());
}

TEST_F(Client, DoesNotConnectWithoutTheRight)
{
    const std::string path = folder_.Path("roots");
    const Listener listener(path);
    const tavr::EffectiveIds root = tavr::EffectiveIds::Root();
    ASSERT_EQ(0, chown(path.c_str(), 0, 0));
    ASSERT_EQ(0, chmod(path.c_str(), 0600));
    DomainSockConnection asRoot(path.c_str());
    EXPECT_TRUE(asRoot.Connect());
    const tavr::EffectiveIds service = tavr::EffectiveIds::Service();
    DomainSockConnection asService(path.c_str());
    EXPECT_FALSE(asService.Connect());
}

TEST_F(Client, WaitsTwoSecondsForAPlaceInTheQueue)
{
    const std::string path = folder_.Path("full");
    const Listener listener(path, 0);
    DomainSockConnection first(path.c_str());
    ASSERT_TRUE(first.Connect());
    impatient = true;
    DomainSockConnection second(path.c_str());

    EXPECT_FALSE(second.Connect());
    EXPECT_EQ(2, connectWait);
}

TEST_F(Client, WaitsFiveSecondsForAServerThatReadsNothing)
{
    const std::string path = folder_.Path("deaf");
    const Listener listener(path);
    DomainSockConnection connection(path.c_str());
    ASSERT_TRUE(connection.Connect());
    impatient = true;
    waits.clear();

    EXPECT_FALSE(connection.Send(std::string(1 << 20, 'x'))); // more than a socket holds
    ASSERT_EQ(1U, waits.size());
    EXPECT_GT(waits[0], 3000);
    EXPECT_LE(waits[0], 5000);
}

TEST_F(Client, WaitsTwentySecondsForASilentServer)
{
    const std::string path = folder_.Path("silent");
    const Listener listener(path);
    DomainSockConnection connection(path.c_str());
    ASSERT_TRUE(connection.Connect() && connection.Send("{}"));
    impatient = true;
    waits.clear();

    std::string text = "as it was";
    EXPECT_FALSE(connection.Recv(text));
    EXPECT_EQ("as it was", text);
    ASSERT_EQ(1U, waits.size());
    EXPECT_GT(waits[0], 18000);
    EXPECT_LE(waits[0], 20000);
}

TEST_F(Client, WaitsTwentySecondsInAllForSlowBytes)
{
    int given = 0;
    const Exchange exchange = With([&](int fd) {
        Read(fd, 6);
        Write(fd, Head("\0\0\x10\0"));
        // A byte every four seconds; who listens for each of them anew would wait for more than four hours.
        for (; given < 100 && send(fd, " ", 1, MSG_NOSIGNAL) == 1; ++given) {
            WaitUntilTaken(fd);
            SetClock(0, given * 4);
        }
    });

    EXPECT_FALSE(exchange.received);
    EXPECT_EQ("as it was", exchange.text);
    EXPECT_LT(given, 10);
}

} // namespace
