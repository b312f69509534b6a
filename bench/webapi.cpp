// The web API's service: an exchange against an echo over a socket of the same kind, its memory with a
// thousand callers connected, and ten thousand mails out of the queue against libcurl sending the same ones
// alone, over as many connections.
#include "platform/webapi.h"
#include "linux/accounts.h"
#include "linux/ids.h"
#include "linux/mail_queue.h"
#include "linux/unix_socket.h"
#include "linux/webapi_frame.h"
#include "tests/support/mail_taker.h"

#include "bench/worker.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <csignal>
#include <cstring>
#include <memory>
#include <thread>

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
constexpr int kMails = 10'000;
constexpr int kAtOnce = 8; // as the service has it
constexpr double kDrainGoal = 0.8;

const std::string kText(1'200, 'x'); // as long as the text of an emergency mail

// --- Processes ---

template<typename Work>
pid_t Child(Work work)
{
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        Require(setresuid(0, 0, 0) == 0 && setresgid(0, 0, 0) == 0, "root");
        work();
        _exit(1);
    }
    return child;
}

pid_t StartService()
{
    return Child([] { execl("/usr/sbin/tavr-webapid", "tavr-webapid", nullptr); });
}

void End(pid_t child, int signal)
{
    const EffectiveIds root = EffectiveIds::Root(); // the child's ids may be root's
    kill(child, signal);
    waitpid(child, nullptr, 0);
}

bool Listens(const char* path)
{
    return tavrdaemon::DomainSockConnection(path).Connect();
}

void UntilListening(const char* path)
{
    while (!Listens(path)) {
        usleep(2000);
    }
}

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
void CompareExchange()
{
    for (const auto& [what, request] :
         {std::pair("50 exchanges, refused", kUnknown), std::pair("50 exchanges, an account", kRequest)}) {
        const size_t answerSize = Exchange(kWebApiSocket, request);
        const pid_t echo = Child([=, size = std::strlen(request)] { Echo(size, answerSize); });
        UntilListening(kEchoSocket);
        Compare(
            what, 1.5, kRounds, [] {}, [=] { ExchangeMany(kWebApiSocket, request); },
            [=] { ExchangeMany(kEchoSocket, request); });
        End(echo, SIGKILL);
    }
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

void MeasureMemory(pid_t service)
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
}

// --- The queue ---

void WriteSettings(int port)
{
    std::ofstream("/etc/tavrinfo.conf") << "mail_server=\"127.0.0.1\"\nmail_security=\"none\"\n"
                                        << "mail_from=\"nas@example.org\"\nmail_port=\"" << port << "\"\n";
}

void FillQueue()
{
    MailDatabase()
        .Prepare("PRAGMA synchronous=OFF")
        .Run(); // of this connection: filling is not what is measured
    for (int i = 0; i < kMails; ++i) {
        QueueMail("user" + std::to_string(i) + "@example.org", "Your emergency code", kText);
    }
}

double SecondsUntilTaken(test::MailTaker& server, size_t count)
{
    const auto start = std::chrono::steady_clock::now();
    while (server.Count() < count) {
        usleep(500);
    }
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

struct Upload {
    const std::string& message;
    size_t done = 0;
};

size_t ReadUpload(char* buffer, size_t size, size_t count, void* upload)
{
    auto* self = static_cast<Upload*>(upload);
    const size_t part = std::min(size * count, self->message.size() - self->done);
    std::memcpy(buffer, self->message.data() + self->done, part);
    self->done += part;
    return part;
}

void SendAlone(int port, int mails, const std::string& message)
{
    CURL* const easy = curl_easy_init();
    curl_slist* const to = curl_slist_append(nullptr, "user@example.org");
    curl_easy_setopt(easy, CURLOPT_URL, ("smtp://127.0.0.1:" + std::to_string(port)).c_str());
    curl_easy_setopt(easy, CURLOPT_MAIL_FROM, "nas@example.org");
    curl_easy_setopt(easy, CURLOPT_MAIL_RCPT, to);
    curl_easy_setopt(easy, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_READFUNCTION, ReadUpload);
    for (int i = 0; i < mails; ++i) {
        Upload upload{message};
        curl_easy_setopt(easy, CURLOPT_READDATA, &upload);
        Require(curl_easy_perform(easy) == CURLE_OK, "libcurl");
    }
    curl_slist_free_all(to);
    curl_easy_cleanup(easy);
}

double SecondsAlone(const std::string& message)
{
    test::MailTaker server;
    const auto start = std::chrono::steady_clock::now();
    std::vector<std::thread> senders;
    for (int i = 0; i < kAtOnce; ++i) {
        senders.emplace_back([&] { SendAlone(server.Port(), kMails / kAtOnce, message); });
    }
    for (std::thread& sender : senders) {
        sender.join();
    }
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double SecondsOfService(std::string& message)
{
    test::MailTaker server;
    {
        const EffectiveIds root = EffectiveIds::Root();
        WriteSettings(server.Port());
    }
    FillQueue();
    const pid_t service = StartService();
    const double seconds = SecondsUntilTaken(server, kMails);
    End(service, SIGTERM);
    message = server.LastMessage() + "\r\n";
    return seconds;
}

void CompareDrain()
{
    curl_global_init(CURL_GLOBAL_DEFAULT);
    std::string message;
    for (int round = 0; round < 3; ++round) {
        const double ours = SecondsOfService(message);
        const double alone = SecondsAlone(message);
        std::printf("%-44s %9.0f a second, alone %9.0f   %5.2f of it (goal %.2f)%s\n",
                    "10,000 queued mails, 8 at a time", kMails / ours, kMails / alone, alone / ours,
                    kDrainGoal, alone / ours < kDrainGoal ? "  MISSED" : "");
    }
}

} // namespace

int main(int /*argc*/, char** argv)
{
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    BecomeWorker(argv[0]);
    Require(AddAccount({"alice", "", "alice@home.example", false}, "a password 1").has_value(), "alice");
    const pid_t service = StartService();
    UntilListening(kWebApiSocket);
    CompareExchange();
    MeasureMemory(service);
    End(service, SIGTERM);
    CompareDrain();
    return 0;
}
