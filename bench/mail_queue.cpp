// The mail queue: putting one mail in against one durable SQLite transaction with the same bytes, and mails
// that the service sends against libcurl sending the same ones alone, over as many connections: ten thousand
// to a server that takes everything at once and does nothing with it, and a thousand to exim, as people have
// one.
#include "linux/mail_queue.h"
#include "tests/support/mail_taker.h"

#include "bench/running_service.h"

#include <curl/curl.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <atomic>
#include <cstring>
#include <thread>

using namespace tavr;
using namespace tavr::bench;

namespace
{

constexpr int kRounds = 400;
constexpr int kMails = 10'000;
constexpr int kDrains = 5;
constexpr int kAtOnce = 8; // as the service has it
constexpr double kDrainGoal = 0.8;

const std::string kText(1'200, 'x'); // as long as the text of an emergency mail

std::string Recipient(int number)
{
    return "user" + std::to_string(number) + "@example.org";
}

void QueueOne(int number)
{
    QueueMail(Recipient(number), "Your emergency code", kText);
}

// --- The service and libcurl ---

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// From the first command that the mail server gets to the last mail. `send` is given the server's port and
// starts who sends.
template<typename Send>
double SecondsToTake(std::string& lastMessage, Send send)
{
    std::atomic<bool> started = false;
    Clock::time_point start;
    test::MailTaker server([&](std::string_view) {
        if (!started) {
            start = Clock::now();
            started = true;
        }
    });
    const auto sender = send(server.Port());
    while (server.Count() < kMails) {
        usleep(200);
    }
    const double seconds = SecondsSince(start);
    lastMessage = server.LastMessage() + "\r\n";
    return seconds;
}

// The service, until the end of the scope.
class Sender
{
public:
    explicit Sender(int port)
    {
        {
            const EffectiveIds root = EffectiveIds::Root();
            std::ofstream(kSettingsFile) << "mail_server=\"127.0.0.1\"\nmail_security=\"none\"\n"
                                         << "mail_from=\"nas@example.org\"\nmail_port=\"" << port << "\"\n";
        }
        process_ = StartService();
    }
    ~Sender() { End(process_, SIGTERM); }
    Sender(const Sender&) = delete;
    Sender& operator=(const Sender&) = delete;

private:
    pid_t process_ = -1;
};

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

// One handle, and so one connection, for all mails. The message is there already.
void SendAlone(int port, int first, int mails, const std::string& message)
{
    CURL* const easy = curl_easy_init();
    curl_easy_setopt(easy, CURLOPT_URL, ("smtp://127.0.0.1:" + std::to_string(port)).c_str());
    curl_easy_setopt(easy, CURLOPT_MAIL_FROM, "nas@example.org");
    curl_easy_setopt(easy, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, 10'000L);
    curl_easy_setopt(easy, CURLOPT_READFUNCTION, ReadUpload);
    for (int i = 0; i < mails; ++i) {
        curl_slist* const to = curl_slist_append(nullptr, Recipient(first + i).c_str());
        Upload upload{message};
        curl_easy_setopt(easy, CURLOPT_MAIL_RCPT, to);
        curl_easy_setopt(easy, CURLOPT_READDATA, &upload);
        Require(curl_easy_perform(easy) == CURLE_OK, "libcurl");
        curl_slist_free_all(to);
    }
    curl_easy_cleanup(easy);
}

std::vector<std::jthread> SendAllAlone(int port, int mails, const std::string& message)
{
    std::vector<std::jthread> threads;
    for (int i = 0; i < kAtOnce; ++i) {
        threads.emplace_back(
            [=, &message] { SendAlone(port, i * mails / kAtOnce, mails / kAtOnce, message); });
    }
    return threads;
}

void FillQueue(int mails)
{
    MailDatabase().Prepare("PRAGMA synchronous=OFF").Run(); // filling is not what is measured
    for (int i = 0; i < mails; ++i) {
        QueueOne(i);
    }
}

bool CompareDrain(std::string& message)
{
    std::string unused;
    std::vector<double> ratios;
    for (int round = 0; round < kDrains; ++round) {
        FillQueue(kMails);
        const double ours = SecondsToTake(message, [](int port) { return Sender(port); });
        const double alone =
            SecondsToTake(unused, [&](int port) { return SendAllAlone(port, kMails, message); });
        std::printf("%-44s %9.0f a second, alone %9.0f   %5.2f of it\n", "10,000 queued mails, 8 at a time",
                    kMails / ours, kMails / alone, alone / ours);
        ratios.push_back(alone / ours);
    }
    const double ratio = Median(ratios);
    std::printf("%-44s %62.2f of it (goal %.2f)%s\n", "median", ratio, kDrainGoal,
                ratio < kDrainGoal ? "  MISSED" : "");
    return ratio >= kDrainGoal;
}

// --- A mail server that is in use ---

constexpr char kExim[] = "/usr/sbin/exim4";
constexpr int kEximMails = 1'000;
constexpr int kEximPort = 2525;

// Takes every mail into its spool, which lies in memory, and delivers it to nobody.
void RunExim()
{
    const passwd* const owner = getpwnam("Debian-exim"); // NOLINT(concurrency-mt-unsafe)
    Require(owner != nullptr, "Debian-exim");
    for (const char* folder : {"/etc/exim4", "/var/spool/exim4"}) {
        std::filesystem::create_directories(folder);
    }
    Require(chown("/var/spool/exim4", owner->pw_uid, owner->pw_gid) == 0, "exim's spool");
    std::ofstream("/etc/exim4/exim4.conf")
        << "exim_path = " << kExim << "\nprimary_hostname = localhost\n"
        << "spool_directory = /var/spool/exim4\n"
        << "log_file_path = /var/spool/exim4/%slog\n"
        << "local_interfaces = 127.0.0.1\ndaemon_smtp_ports = " << kEximPort
        << "\ntls_advertise_hosts =\nhost_lookup =\nkeep_environment =\n"
        << "acl_smtp_rcpt = accept\n"
        << "begin routers\nall:\n  driver = redirect\n  data = :blackhole:\n";
    execl(kExim, "exim4", "-bdf", nullptr);
}

void UntilTaken(int port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    for (;;) {
        const Descriptor caller(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (connect(caller.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
            return;
        }
        usleep(10'000);
    }
}

// Until the last one is known to be sent. Not judged: the figure is exim's more than ours.
void CompareDrainToExim(const std::string& message)
{
    if (access(kExim, X_OK) != 0) {
        std::printf("no exim on this machine: mails to a server that is in use are not compared\n");
        return;
    }
    const pid_t exim = Child(RunExim);
    UntilTaken(kEximPort);
    std::vector<double> ratios;
    for (int round = 0; round < kDrains; ++round) {
        FillQueue(kEximMails);
        auto start = Clock::now();
        double ours = 0;
        {
            const Sender sender(kEximPort);
            while (HasSealedMails()) {
                usleep(2'000);
            }
            ours = SecondsSince(start);
        }
        start = Clock::now();
        SendAllAlone(kEximPort, kEximMails, message).clear(); // waits for them
        const double alone = SecondsSince(start);
        std::printf("%-44s %9.0f a second, alone %9.0f   %5.2f of it\n",
                    "1,000 queued mails to exim, 8 at a time", kEximMails / ours, kEximMails / alone,
                    alone / ours);
        ratios.push_back(alone / ours);
    }
    std::printf("%-44s %62.2f of it\n", "median", Median(ratios));
    End(exim, SIGTERM);
}

} // namespace

int main(int /*argc*/, char** argv)
{
    BecomeWorker(argv[0]);
    Database floor((std::string(kStateDir) + "/floor.db").c_str(),
                   std::vector<const char*>{"CREATE TABLE floor (id INTEGER PRIMARY KEY, text BLOB)"});
    WarmLog(floor);
    WarmLog(MailDatabase());
    int number = 0;
    bool met = Compare(
        "a mail queued", 1.3, kRounds, [] {}, [&] { QueueOne(++number); },
        [&] { floor.Prepare("INSERT INTO floor (text) VALUES (?1)").BindBlob(1, kText).Run(); });

    while (number < kMails) {
        QueueOne(++number);
    }
    met &= Compare(
        "a mail queued behind ten thousand", 1.3, kRounds, [] {}, [&] { QueueOne(++number); },
        [&] { floor.Prepare("INSERT INTO floor (text) VALUES (?1)").BindBlob(1, kText).Run(); });

    MailDatabase().Prepare("DELETE FROM mail").Run();
    curl_global_init(CURL_GLOBAL_DEFAULT);
    std::string message;
    met &= CompareDrain(message);
    CompareDrainToExim(message);
    return met ? 0 : 1;
}
