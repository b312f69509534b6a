// The writers of the mail queue, killed at any system call: afterwards the queue is the one before or the one
// after, what was told to be queued is there whole, and what is finished leaves nothing of its text.
#include "linux/mail_queue.h"

#include "linux/clock.h"
#include "linux/paths.h"

#include "tests/support/killed_writer.h"

#include <cstdio>

namespace tavr::test
{
namespace
{

constexpr int64_t kNow = 1'800'000'000;
constexpr char kSealedFile[] = "/var/lib/tavr/sealed"; // pieces of the texts, as they are stored

class KilledQueue : public KilledWriter
{
protected:
    void SetUp() override
    {
        FreshServer::SetUp();
        SetClocks(kNow, 100'000, "first");
        AsWorker([] {
            for (int i = 0; i < 3; ++i) {
                QueueMail("alice@example.org", "Subject", std::string(3'000, 'x'));
            }
            Statement ask =
                MailDatabase().Prepare("SELECT group_concat(hex(substr(content, 100, 16)), '') FROM mail");
            ASSERT_TRUE(ask.Step());
            WriteFile(kSealedFile, ask.Text(0));
        });
        KeepState();
    }
};

std::string States()
{
    std::string states;
    for (const ListedMail& mail : ListMails()) {
        states += mail.state + std::to_string(mail.attempts) + ' ';
    }
    return states;
}

// Whether the text of the n-th mail of SetUp is still in the database's files.
bool IsStored(size_t n)
{
    std::string piece;
    const std::string digits = ReadFile(kSealedFile).substr(n * 32, 32);
    for (size_t i = 0; i < digits.size(); i += 2) {
        piece += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
    }
    const std::string files = ReadFile(kMailDatabase) + ReadFile(std::string(kMailDatabase) + "-wal");
    return files.find(piece) != std::string::npos;
}

TEST_F(KilledQueue, AMailIsQueuedWholeOrNotAtAll)
{
    AtEveryCall(
        [] {
            MarkStart();
            QueueMail("bob@example.org", "Another", "text");
            return true;
        },
        [](bool told) {
            const std::vector<QueuedMail> mails = DueMails(10);
            ASSERT_TRUE(mails.size() == 4 || (mails.size() == 3 && !told)) << mails.size();
            if (mails.size() == 4) {
                EXPECT_EQ("bob@example.org", mails[3].to);
                EXPECT_EQ("Another", mails[3].subject);
                EXPECT_EQ("text", mails[3].html);
            }
        });
}

TEST_F(KilledQueue, ResultsAreStoredTogetherAndFinishedTextsGo)
{
    AtEveryCall(
        [] {
            const QueueResult results[] = {
                {1, true, false, 250, "ok"}, {2, false, true, 451, "later"}, {3, false, false, 550, "no"}};
            const bool taken = DueMails(10).size() == 3;
            MarkStart();
            StoreResults(results);
            return taken;
        },
        [](bool told) {
            const std::string states = States();
            const bool stored = states == "sent1 waiting1 given_up1 ";
            EXPECT_TRUE(stored || (states == "waiting0 waiting0 waiting0 " && !told)) << states;
            EXPECT_EQ(stored ? 0U : 3U, DueMails(10).size()) << "nothing is lost, and nothing sent twice";
            EXPECT_EQ(!stored, IsStored(0));
            EXPECT_TRUE(IsStored(1));
            EXPECT_EQ(!stored, IsStored(2));
        });
}

TEST_F(KilledQueue, TheConsolesChangesAreDoneOrNot)
{
    AtEveryCall(
        [] {
            MarkStart();
            return DropMail(1) && RetryMail(2);
        },
        [](bool told) {
            const std::string states = States();
            const bool dropped = states == "dropped0 waiting0 waiting0 ";
            EXPECT_TRUE(dropped || (states == "waiting0 waiting0 waiting0 " && !told)) << states;
            DueMails(10);
            EXPECT_EQ(!dropped, IsStored(0));
        });
}

TEST_F(KilledQueue, AStartOfTheMachineLeavesEveryMailDue)
{
    AtEveryCall(
        [] {
            SetClocks(kNow, 50, "second");
            MarkStart();
            return DueMails(10).size() == 3;
        },
        [](bool) { EXPECT_EQ(3U, DueMails(10).size()); });
}

} // namespace
} // namespace tavr::test
