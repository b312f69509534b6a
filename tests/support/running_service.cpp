#include "tests/support/running_service.h"

#include "linux/accounts.h"
#include "linux/paths.h"
#include "linux/unix_socket.h"
#include "platform/webapi.h"

#include <json/reader.h>
#include <json/writer.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <memory>

namespace tavr::test
{

namespace
{

int StatusOf(int status)
{
    return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

Json::Value Parse(std::string_view text)
{
    Json::Value value;
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    const bool good = reader->parse(text.data(), text.data() + text.size(), &value, nullptr);
    return good ? value : Json::Value();
}

} // namespace

Service::Service(const std::function<void()>& prepare)
{
    std::fflush(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        prepare();
        execl("/usr/sbin/tavr-webapid", "tavr-webapid", nullptr);
        _exit(127);
    }
}

Service::~Service()
{
    if (pid_ > 0) {
        Stop(SIGKILL);
    }
}

void Service::UntilServed() const
{
    while (!ConnectRaw()) {
        siginfo_t ended{};
        waitid(P_PID, static_cast<id_t>(pid_), &ended, WEXITED | WNOHANG | WNOWAIT);
        ASSERT_EQ(0, ended.si_pid) << "the service ended";
        usleep(2000);
    }
}

int Service::Wait()
{
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return StatusOf(status);
}

int Service::Stop(int signal)
{
    kill(pid_, signal);
    return Wait();
}

void LimitFiles(unsigned long most)
{
    const rlimit files{most, most};
    if (setrlimit(RLIMIT_NOFILE, &files) != 0) {
        _exit(99);
    }
}

void ServiceTest::SetUp()
{
    FreshServer::SetUp();
    unlink(kWebApiSocket);
    AsWorker([] {
        ASSERT_EQ(1026U, MakeAccount("alice").uid);
        ASSERT_TRUE(ChangeAccount(1026, {std::nullopt, "alice@home.example"}));
        ASSERT_EQ(1027U, MakeAccount("bob").uid);
    });
}

Descriptor ConnectRaw()
{
    Descriptor made(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_un address = *UnixAddress(kWebApiSocket);
    const timeval longest{20, 0}; // a test that waits for what never comes fails
    setsockopt(made.Get(), SOL_SOCKET, SO_RCVTIMEO, &longest, sizeof longest);
    const bool connected =
        connect(made.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    return connected ? std::move(made) : Descriptor();
}

void SendRaw(const Descriptor& socket, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t sent = send(socket.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent < 0) {
            return;
        }
        bytes.remove_prefix(static_cast<size_t>(sent));
    }
}

std::string ReceiveAll(const Descriptor& socket)
{
    std::string all;
    char block[4096];
    for (ssize_t got = 0; (got = recv(socket.Get(), block, sizeof block, 0)) > 0;) {
        all.append(block, static_cast<size_t>(got));
    }
    return all;
}

std::string Frame(std::string_view text)
{
    const auto size = text.size();
    const char head[] = {static_cast<char>(size >> 24), static_cast<char>(size >> 16),
                         static_cast<char>(size >> 8), static_cast<char>(size)};
    return std::string(head, sizeof head).append(text);
}

Json::Value AnswerIn(const std::string& bytes)
{
    return bytes.size() > 4 && Frame(bytes.substr(4)) == bytes ? Parse(std::string_view(bytes).substr(4))
                                                               : Json::Value();
}

Json::Value Ask(const std::string& request)
{
    tavrdaemon::DomainSockConnection connection(kWebApiSocket);
    std::string answer;
    return connection.Connect() && connection.Send(request) && connection.Recv(answer) ? Parse(answer)
                                                                                       : Json::Value();
}

std::string GetRequest(const std::string& user)
{
    Json::Value request;
    request["params"]["api"] = "TAVR.Core.NormalUser";
    request["params"]["method"] = "get";
    request["params"]["version"] = 1;
    request["runner"]["username"] = user;
    return Json::FastWriter().write(request);
}

int CodeIn(const Json::Value& answer)
{
    const bool refused = answer.isObject() && answer["success"].isBool() && !answer["success"].asBool();
    return refused ? answer["error"]["code"].asInt() : 0;
}

} // namespace tavr::test
