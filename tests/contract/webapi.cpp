// platform/webapi.h. The other end of the connection is the maker's, as the form of a message on the wire is.
#include "platform/webapi.h"

#include "tests/contract/support.h"

#include <csignal>
#include <cstring>
#include <thread>

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace contract
{
namespace
{

using tavrdaemon::DomainSockConnection;

constexpr char kRequest[] = R"({"params":{"api":"TAVR.Core.NormalUser","method":"get","version":1}})";
constexpr char kAnswer[] = R"({"data":{"email":"mia@home.example"},"success":true})";

int Listen(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener, 5) != 0) {
        throw std::runtime_error("cannot listen at " + path);
    }
    return listener;
}

// Listens at a path and hands what comes to `serve`, one connection for each of them.
class Service
{
public:
    Service(const std::string& path, std::function<void(int)> serve)
        : listener_(Listen(path)), serve_(std::move(serve))
    {
        thread_ = std::thread([this] {
            for (int connection = 0;
                 (connection = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
                const timeval longest{30, 0};
                setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &longest, sizeof longest);
                Try([&] { serve_(connection); });
                close(connection);
            }
        });
    }
    ~Service()
    {
        shutdown(listener_, SHUT_RDWR);
        thread_.join();
        close(listener_);
    }
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

private:
    int listener_;
    std::function<void(int)> serve_;
    std::thread thread_;
};

// The bytes of an answer on the wire.
std::string OnTheWire(const std::string& answer)
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        throw std::runtime_error("no socket pair");
    }
    std::thread writer([&] {
        Try([&] { GiveAnswer(ends[0], answer); });
        shutdown(ends[0], SHUT_WR);
    });
    std::string bytes;
    char block[4096];
    for (ssize_t got = 0; (got = recv(ends[1], block, sizeof block, 0)) > 0;) {
        bytes.append(block, static_cast<size_t>(got));
    }
    writer.join();
    close(ends[0]);
    close(ends[1]);
    return bytes;
}

class WebapiConnection : public Case
{
protected:
    const std::string path_ = FreshFolder() + "/socket";
};

TEST_F(WebapiConnection, IsClosedAtItsEnd)
{
    const int listener = Listen(path_);
    const size_t before = OpenDescriptors();
    for (int i = 0; i < 3; ++i) {
        DomainSockConnection connection(path_.c_str());
        EXPECT_EQ(before, OpenDescriptors()) << "connects to nothing yet";
        ASSERT_TRUE(connection.Connect());
    }
    EXPECT_EQ(before, OpenDescriptors());
    close(listener);
}

TEST_F(WebapiConnection, CarriesOneExchange)
{
    std::string taken;
    const Service service(path_, [&](int connection) {
        taken = TakeRequest(connection);
        GiveAnswer(connection, kAnswer);
    });
    std::string path = path_;
    DomainSockConnection connection(path.c_str());
    path.assign(path.size(), 'x'); // a copy is kept
    ASSERT_TRUE(connection.Connect());
    ASSERT_TRUE(connection.Send(kRequest));
    std::string answer = "former";
    ASSERT_TRUE(connection.Recv(answer));
    EXPECT_EQ(kAnswer, answer);
    EXPECT_EQ(kRequest, taken);
}

TEST_F(WebapiConnection, CarriesLargeTexts)
{
    const std::string large(500'000, 'x');
    std::string taken;
    const Service service(path_, [&](int connection) {
        taken = TakeRequest(connection);
        GiveAnswer(connection, taken);
    });
    DomainSockConnection connection(path_.c_str());
    ASSERT_TRUE(connection.Connect());
    ASSERT_TRUE(connection.Send(large));
    std::string answer;
    ASSERT_TRUE(connection.Recv(answer));
    EXPECT_TRUE(large == taken);
    EXPECT_TRUE(large == answer);
}

TEST_F(WebapiConnection, ToNobodyFails)
{
    DomainSockConnection absent(path_.c_str());
    EXPECT_TRUE(Fails([&] { return absent.Connect(); }));
    std::string text = "former";
    EXPECT_TRUE(Fails([&] { return absent.Send(kRequest); })) << "not connected";
    EXPECT_TRUE(Fails([&] { return absent.Recv(text); })) << "not connected";
    EXPECT_EQ("former", text);

    DomainSockConnection none(nullptr);
    EXPECT_TRUE(Fails([&] { return none.Connect(); }));
    DomainSockConnection tooLong((path_ + std::string(200, 'x')).c_str());
    EXPECT_TRUE(Fails([&] { return tooLong.Connect(); }));
    WriteText(path_, "");
    DomainSockConnection file(path_.c_str());
    EXPECT_TRUE(Fails([&] { return file.Connect(); })) << "no socket";
}

TEST_F(WebapiConnection, SendsNothingThatIsNone)
{
    const Service service(path_, [](int connection) {
        char byte = 0;
        EXPECT_EQ(0, recv(connection, &byte, 1, 0)) << "something was sent";
    });
    DomainSockConnection connection(path_.c_str());
    ASSERT_TRUE(connection.Connect());
    EXPECT_TRUE(Fails([&] { return connection.Send(""); }));
}

TEST_F(WebapiConnection, SurvivesAServiceThatHangsUp)
{
    const Service service(path_, [](int) {});
    signal(SIGPIPE, SIG_DFL);
    DomainSockConnection connection(path_.c_str());
    ASSERT_TRUE(connection.Connect());
    // Until the other end is closed, bytes fit into the socket.
    bool sent = true;
    for (int i = 0; i < 100 && sent; ++i) {
        sent = connection.Send(std::string(100'000, 'x'));
    }
    EXPECT_FALSE(sent);
    std::string text = "former";
    EXPECT_TRUE(Fails([&] { return connection.Recv(text); }));
    EXPECT_EQ("former", text);
}

TEST_F(WebapiConnection, TakesNoAnswerThatWasCut)
{
    const std::string wire = OnTheWire(kAnswer);
    ASSERT_GE(wire.size(), sizeof kAnswer - 1);
    for (const size_t size : {size_t{0}, size_t{1}, wire.size() / 2, wire.size() - 1}) {
        const Service service(path_, [&](int connection) {
            TakeRequest(connection);
            send(connection, wire.data(), size, MSG_NOSIGNAL);
        });
        DomainSockConnection connection(path_.c_str());
        ASSERT_TRUE(connection.Connect());
        ASSERT_TRUE(connection.Send(kRequest));
        std::string answer = "former";
        EXPECT_TRUE(Fails([&] { return connection.Recv(answer); })) << size;
        EXPECT_EQ("former", answer) << size;
        unlink(path_.c_str());
    }
}

} // namespace
} // namespace contract
