// The whole request for an emergency code by mail, put into the queue, against what it cannot do without: its
// three durable transactions (the count, the mail, the audit's row) and its two exchanges with the web API
// (who the user is; the sender is woken, which nobody waits for). The web API is a child that answers at
// once.
#include "linux/descriptor.h"
#include "linux/mail_queue.h"
#include "linux/request.h"
#include "linux/session.h"
#include "linux/webapi_frame.h"
#include "platform/webapi.h"
#include "web/mail_places.h"
#include "web/route.h"

#include "bench/enrolled.h"

#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <csignal>
#include <cstring>

using namespace tavr;
using namespace tavr::bench;

namespace
{

constexpr int kRounds = 200;

constexpr char kAsk[] =
    R"({"params":{"api":"TAVR.Core.NormalUser","method":"get","version":1},"runner":{"username":"alice"}})";
constexpr char kWake[] = R"({"params":{"api":"TAVR.Notification.Mail","method":"wake","version":1}})";
constexpr char kAnswer[] =
    R"({"success":true,"data":{"email":"alice@home.example","name":"alice","uid":1026}})";

void AnswerOne(int connection)
{
    FrameHead head{};
    if (recv(connection, head.data(), head.size(), MSG_WAITALL) != static_cast<ssize_t>(head.size())) {
        return;
    }
    std::string request(SizeInFrameHead(head), '\0');
    recv(connection, request.data(), request.size(), MSG_WAITALL);
    const FrameHead answered = MakeFrameHead(sizeof kAnswer - 1);
    const std::string answer = std::string(answered.data(), answered.size()) + kAnswer;
    send(connection, answer.data(), answer.size(), MSG_NOSIGNAL);
}

// As root, before anything else. Ends with this process.
void StartWebApi()
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, kWebApiSocket, sizeof kWebApiSocket);
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    Require(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
                chmod(kWebApiSocket, 0666) == 0 && listen(listener, 64) == 0,
            kWebApiSocket);
    if (fork() != 0) {
        close(listener);
        return;
    }
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (;;) {
        const Descriptor connection(accept(listener, nullptr, nullptr));
        AnswerOne(connection.Get());
    }
}

void SetUpMail()
{
    std::ofstream(kSettingsFile) << "mail_server=\"127.0.0.1\"\nmail_from=\"server@nas.example\"\n";
}

web::HttpRequest RequestOf(const std::string& pending)
{
    web::HttpRequest http;
    http.method = "POST";
    http.path = "/api/signin/emergency";
    http.contentType = "application/json";
    http.cookies = "pending=" + pending;
    http.token = TokenOf(pending);
    http.bodySize = 2;
    return http;
}

void AskForMail(const web::HttpRequest& http, const std::string& pending)
{
    StartRequest();
    CurrentRequest().pendingCookie = pending;
    const web::Answer answer = web::Serve(http, "{}");
    Require(answer.status == 200 && answer.body["success"] == true, "the request");
}

void Exchange(const char* request, bool waits)
{
    tavrdaemon::DomainSockConnection connection(kWebApiSocket);
    std::string answer;
    Require(connection.Connect() && connection.Send(request) && (!waits || connection.Recv(answer)),
            "exchange");
}

} // namespace

int main(int /*argc*/, char** argv)
{
    Require(geteuid() == 0, "to be run by bench/run");
    std::filesystem::create_directories(kConfigDir);
    SetUpMail();
    StartWebApi();
    Require(web::MakeMailPlaces(2), "places");
    BecomeWorker(argv[0]);
    const Account account = EnrolledAccount();
    const std::string pending = OpenPending(account, SessionState::CodeRequired);
    const web::HttpRequest http = RequestOf(pending);
    Database floorDatabase(
        (std::string(kStateDir) + "/floor.db").c_str(),
        std::vector<const char*>{"CREATE TABLE floor (step INTEGER); INSERT INTO floor VALUES (0)"});
    WarmLog(floorDatabase);
    WarmLog(SigninDatabase());
    WarmLog(MailDatabase());

    Compare(
        "emergency code into the queue", 1.3, kRounds,
        [] {
            SigninDatabase().Prepare("DELETE FROM code_mail").Run();
            MailDatabase().Prepare("DELETE FROM mail").Run();
        },
        [&] { AskForMail(http, pending); },
        [&] {
            Exchange(kAsk, true);
            for (int i = 0; i < 3; ++i) {
                floorDatabase.Prepare("UPDATE floor SET step = step + 1").Run();
            }
            Exchange(kWake, false);
        });
    return 0;
}
