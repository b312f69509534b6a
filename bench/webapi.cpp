// The web API's service: an exchange against an echo over a socket of the same kind, and its memory with a
// thousand callers connected.
#include "linux/accounts.h"
#include "linux/unix_socket.h"
#include "linux/webapi_frame.h"

#include "bench/running_service.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <cstring>
#include <memory>

using namespace tavr;
using namespace tavr::bench;

namespace
{

constexpr char kEchoSocket[] = "/run/tavr-echo.sock";
constexpr char kRequest[] = R"({"params":{"api":"TAVR.Core.NormalUser","method":"get","version":1},)"
                            R"("runner":{"username":"alice"}})";
constexpr char kUnknown[] = R"({"params":{"api":"TAVR.Core.NormalUser","method":"set","version":1},)"
                            R"("runner":{"username":"alice"}})";
constexpr int kExchanges = 50; // in one round
constexpr int kRounds = 201;
constexpr int kCallers = 1000;
constexpr long kMostKib = 24 * 1024;

// --- The exchange ---

// Answers each request with as many bytes as the service would.
[[noreturn]] void Echo(size_t requestSize, size_t answerSize)
{
    const Descriptor listener = ListenAt(kEchoSocket, 0, 0);
    Require(chmod(kEchoSocket, 0666) == 0 && fcntl(listener.Get(), F_SETFL, 0) == 0, kEchoSocket);
    std::string answer(MakeFrameHead(answerSize).data(), 4);
    answer += std::string(answerSize, 'x');
    for (;;) {
        const Descriptor caller(accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        std::string request(4 + requestSize, '\0');
        if (recv(caller.Get(), request.data(), request.size(), MSG_WAITALL) ==
            static_cast<ssize_t>(request.size())) {
            send(caller.Get(), answer.data(), answer.size(), MSG_NOSIGNAL);
        }
    }
}

size_t Exchange(const char* path, const char* request = kRequest)
{
    tavrdaemon::DomainSockConnection connection(path);
    std::string answer;
    Require(connection.Connect() && connection.Send(request) && connection.Recv(answer), path);
    return answer.size();
}

void ExchangeMany(const char* path, const char* request)
{
    for (int i = 0; i < kExchanges; ++i) {
        Exchange(path, request);
    }
}

// A request that is refused after it was parsed shows what the exchange alone costs; the other one asks the
// accounts too.
bool CompareExchange()
{
    bool met = true;
    for (const auto& [what, request] :
         {std::pair("50 exchanges, refused", kUnknown), std::pair("50 exchanges, an account", kRequest)}) {
        const size_t answerSize = Exchange(kWebApiSocket, request);
        const pid_t echo = Child([=, size = std::strlen(request)] { Echo(size, answerSize); });
        UntilListening(kEchoSocket);
        met &= Compare(
            what, 1.5, kRounds, [] {}, [=] { ExchangeMany(kWebApiSocket, request); },
            [=] { ExchangeMany(kEchoSocket, request); });
        End(echo, SIGKILL);
    }
    return met;
}

// --- Memory ---

long ResidentKib(pid_t process)
{
    std::ifstream file("/proc/" + std::to_string(process) + "/status");
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("VmRSS:")) {
            return std::stol(line.substr(6));
        }
    }
    return -1;
}

bool MeasureMemory(pid_t service)
{
    std::vector<std::unique_ptr<tavrdaemon::DomainSockConnection>> callers;
    for (int i = 0; i < kCallers; ++i) {
        callers.push_back(std::make_unique<tavrdaemon::DomainSockConnection>(kWebApiSocket));
        Require(callers.back()->Connect(), "a thousand callers");
    }
    Exchange(kWebApiSocket); // all of them have been accepted by now
    const long kib = ResidentKib(service);
    std::printf("%-44s %9ld KiB resident (goal below %ld)%s\n", "1,000 callers connected", kib, kMostKib,
                kib >= kMostKib ? "  MISSED" : "");
    return kib < kMostKib;
}

} // namespace

int main(int /*argc*/, char** argv)
{
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    BecomeWorker(argv[0]);
    Require(AddAccount({"alice", "", "alice@home.example", false}, "a password 1").has_value(), "alice");
    const pid_t service = StartService();
    UntilListening(kWebApiSocket);
    bool met = CompareExchange();
    met &= MeasureMemory(service);
    End(service, SIGTERM);
    return met ? 0 : 1;
}
