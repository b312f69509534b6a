// The whole request for an emergency code by mail, put into the queue, against what it cannot do without: its
// three durable transactions (the count, the mail, the audit's row) and its two exchanges with the web API
// (who the user is; the sender is woken, which nobody waits for). What it costs to send is not part of it, so
// the mails stay in the queue: a sender would sync and cut the queue's log beside the request, and not beside
// its floor.
#include "linux/descriptor.h"
#include "linux/mail_queue.h"
#include "linux/places.h"
#include "linux/request.h"
#include "linux/session.h"
#include "linux/unix_socket.h"
#include "web/route.h"

#include "bench/enrolled.h"
#include "bench/running_service.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>

using namespace tavr;
using namespace tavr::bench;

namespace
{

constexpr int kRounds = 200;

constexpr char kAsk[] =
    R"({"params":{"api":"TAVR.Core.NormalUser","method":"get","version":1},"runner":{"username":"alice"}})";
constexpr char kWake[] = R"({"params":{"api":"TAVR.Notification.Mail","method":"wake","version":1}})";

void SetUpMail()
{
    std::ofstream(kSettingsFile) << "mail_server=\"127.0.0.1\"\nmail_from=\"server@nas.example\"\n";
}

// As a server has one: without it every line makes a socket in vain.
void StartLog()
{
    const Descriptor log(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const auto address = UnixAddress("/dev/log");
    Require(log && bind(log.Get(), reinterpret_cast<const sockaddr*>(&*address), sizeof *address) == 0 &&
                chmod("/dev/log", 0666) == 0,
            "/dev/log");
    Child([&log] {
        char line[2048];
        while (recv(log.Get(), line, sizeof line, 0) >= 0) {
        }
    });
}

// With this in hand nobody else sends.
Descriptor TakeSendersLock()
{
    Descriptor lock(open(kMailLockFile, O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    Require(lock && flock(lock.Get(), LOCK_EX) == 0, kMailLockFile);
    return lock;
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
    Require(MakePlaces(2), "places");
    StartLog();
    BecomeWorker(argv[0]);
    const Account account = EnrolledAccount();
    const Descriptor lock = TakeSendersLock();
    const pid_t service = StartService();
    UntilListening(kWebApiSocket);
    const std::string pending = OpenPending(account, SessionState::CodeRequired);
    const web::HttpRequest http = RequestOf(pending);
    Database floorDatabase(
        (std::string(kStateDir) + "/floor.db").c_str(),
        std::vector<const char*>{"CREATE TABLE floor (step INTEGER); INSERT INTO floor VALUES (0)"});
    WarmLog(floorDatabase);
    WarmLog(SigninDatabase());
    WarmLog(MailDatabase());

    const bool met = Compare(
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
    End(service, SIGTERM);
    return met ? 0 : 1;
}
