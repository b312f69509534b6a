// The mail queue: putting one mail in against one durable SQLite transaction with the same bytes, and taking
// ten thousand out again, in portions, as the service does.
#include "linux/mail_queue.h"

#include "bench/worker.h"

using namespace tavr;
using namespace tavr::bench;

namespace
{

constexpr int kRounds = 400;
constexpr int kMails = 10'000;
constexpr size_t kPortion = 50;

const std::string kText(1'200, 'x'); // as long as the text of an emergency mail

void QueueOne(int number)
{
    QueueMail("user" + std::to_string(number) + "@example.org", "Your emergency code", kText);
}

// Gives how many came out.
int Drain()
{
    int drained = 0;
    for (std::vector<QueuedMail> mails = DueMails(kPortion); !mails.empty(); mails = DueMails(kPortion)) {
        std::vector<QueueResult> results;
        for (const QueuedMail& mail : mails) {
            results.push_back({mail.id, true, false, 250, "ok"});
        }
        StoreResults(results);
        drained += static_cast<int>(mails.size());
    }
    return drained;
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
    Compare(
        "a mail queued", 1.3, kRounds, [] {}, [&] { QueueOne(++number); },
        [&] { floor.Prepare("INSERT INTO floor (text) VALUES (?1)").BindBlob(1, kText).Run(); });

    while (number < kMails) {
        QueueOne(++number);
    }
    Compare(
        "a mail queued behind ten thousand", 1.3, kRounds, [] {}, [&] { QueueOne(++number); },
        [&] { floor.Prepare("INSERT INTO floor (text) VALUES (?1)").BindBlob(1, kText).Run(); });

    int drained = 0;
    const double microseconds = Microseconds([&] { drained = Drain(); });
    Require(drained == number, "every mail comes out");
    std::printf("%-44s %9.1f us each, %d mails in portions of %zu\n", "mails taken out and stored as sent",
                microseconds / drained, drained, kPortion);
    return 0;
}
