// The queue of mails: what is in it is sent once, later, or given up, and nothing of a finished text stays.
#include "linux/mail_queue.h"

#include "linux/clock.h"
#include "linux/paths.h"

#include "tests/support/fresh_server.h"

#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>

namespace tavr::test
{
namespace
{

namespace fs = std::filesystem;

constexpr int64_t kNow = 1'800'000'000;
constexpr int64_t kHour = 60 * 60;
constexpr int64_t kDay = 24 * kHour;

class Queue : public FreshServer
{
protected:
    void SetUp() override
    {
        FreshServer::SetUp();
        SetClocks(kNow, 10 * kDay, "first");
    }
};

void QueueOne(const std::string& to = "alice@example.org")
{
    QueueMail(to, "Subject", "a <b>body</b>");
}

// The numbers of what is due, taken out.
std::vector<int64_t> TakeDue(size_t most = 100)
{
    std::vector<int64_t> ids;
    for (const QueuedMail& mail : DueMails(most)) {
        ids.push_back(mail.id);
    }
    return ids;
}

void Store(const QueueResult& result)
{
    StoreResults({&result, 1});
}

void Sent(int64_t id)
{
    Store({id, true, false, 250, "ok"});
}

void Later(int64_t id)
{
    Store({id, false, true, 451, "try later"});
}

std::string States()
{
    std::string states;
    for (const ListedMail& mail : ListMails()) {
        states += std::to_string(mail.id) + ':' + mail.state + ' ';
    }
    return states;
}

// All bytes of the database's files.
std::string Bytes()
{
    std::string bytes;
    for (const auto& entry : fs::directory_iterator(kStateDir)) {
        if (entry.path().filename().string().starts_with("mail.db") &&
            !entry.path().string().ends_with("-shm")) {
            bytes += ReadFile(entry.path());
        }
    }
    return bytes;
}

std::string SealedContent(int64_t id)
{
    sqlite3* db = nullptr;
    EXPECT_EQ(SQLITE_OK, sqlite3_open_v2(kMailDatabase, &db, SQLITE_OPEN_READONLY, nullptr));
    sqlite3_stmt* ask = nullptr;
    sqlite3_prepare_v2(db, ("SELECT content FROM mail WHERE id = " + std::to_string(id)).c_str(), -1, &ask,
                       nullptr);
    EXPECT_EQ(SQLITE_ROW, sqlite3_step(ask));
    const auto* bytes = static_cast<const char*>(sqlite3_column_blob(ask, 0));
    const std::string content(bytes == nullptr ? "" : bytes,
                              static_cast<size_t>(sqlite3_column_bytes(ask, 0)));
    sqlite3_finalize(ask);
    sqlite3_close(db);
    return content;
}

void Execute(const std::string& sql)
{
    sqlite3* db = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open_v2(kMailDatabase, &db, SQLITE_OPEN_READWRITE, nullptr));
    sqlite3_busy_timeout(db, 10'000);
    EXPECT_EQ(SQLITE_OK, sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr)) << sqlite3_errmsg(db);
    sqlite3_close(db);
}

// --- In and out ---

TEST_F(Queue, KeepsMailsAndNumbersOfAnEarlierVersion)
{
    AsWorker([] {
        sqlite3* db = nullptr;
        ASSERT_EQ(SQLITE_OK, sqlite3_open(kMailDatabase, &db));
        const char* const sql = R"(
CREATE TABLE mail (id INTEGER PRIMARY KEY AUTOINCREMENT,
    state TEXT NOT NULL CHECK (state IN ('waiting', 'sent', 'given_up', 'dropped')), recipient BLOB NOT NULL,
    mark BLOB NOT NULL, content BLOB, message_id TEXT NOT NULL, date INTEGER NOT NULL, boot TEXT NOT NULL,
    at INTEGER NOT NULL, due INTEGER NOT NULL, waited INTEGER NOT NULL DEFAULT 0, attempts INTEGER NOT NULL DEFAULT 0,
    reply INTEGER NOT NULL DEFAULT 0, answer TEXT NOT NULL DEFAULT '') STRICT;
CREATE INDEX mail_due ON mail (due, id) WHERE state = 'waiting';
CREATE INDEX mail_of_recipient ON mail (mark);
CREATE INDEX mail_finished ON mail (id) WHERE state <> 'waiting';
INSERT INTO mail VALUES (3, 'waiting', x'01', x'02', x'03', '<a@b>', 4, 'boot', 5, 6, 7, 8, 451, 'later'),
    (5, 'sent', x'01', x'02', NULL, '<c@d>', 4, 'boot', 5, 6, 7, 8, 250, 'ok'),
    (9, 'given_up', x'01', x'02', NULL, '<e@f>', 4, 'boot', 5, 6, 7, 8, 550, 'no');
PRAGMA user_version = 2;)";
        ASSERT_EQ(SQLITE_OK, sqlite3_exec(db, sql, nullptr, nullptr, nullptr)) << sqlite3_errmsg(db);
        sqlite3_close(db);

        {
            Statement row = MailDatabase().Prepare(
                "SELECT group_concat(quote(id) || quote(state) || quote(recipient) || quote(mark) || "
                "quote(content)"
                " || quote(message_id) || quote(date) || quote(boot) || quote(at) || quote(due) || "
                "quote(waited)"
                " || quote(attempts) || quote(reply) || quote(answer)) FROM mail ORDER BY id");
            ASSERT_TRUE(row.Step());
            EXPECT_EQ("3'waiting'X'01'X'02'X'03''<a@b>'4'boot'5678451'later',"
                      "5'sent'X'01'X'02'NULL'<c@d>'4'boot'5678250'ok',"
                      "9'given_up'X'01'X'02'NULL'<e@f>'4'boot'5678550'no'",
                      row.Text(0));
        }
        QueueOne();
        EXPECT_EQ("3:waiting 5:sent 9:given_up 10:waiting ", States());
        EXPECT_THROW(MailDatabase().Prepare("UPDATE mail SET state = 'lost' WHERE id = 5").Run(),
                     DatabaseError);
    });
}

TEST_F(Queue, GivesWhatWasPutInAfterARestart)
{
    AsWorker([] {
        EXPECT_EQ(-1, SecondsUntilDue());
        EXPECT_TRUE(TakeDue().empty());
        QueueMail("alice@example.org",
                  "Gr\xc3\xbc\xc3\x9f"
                  "e",
                  "<b>12345678</b><br>two");
    });
    std::string messageId;
    for (int process = 0; process < 2; ++process) {
        AsWorker([process] {
            EXPECT_EQ(0, SecondsUntilDue());
            const std::vector<QueuedMail> mails = DueMails(10);
            ASSERT_EQ(1U, mails.size());
            EXPECT_EQ(1, mails[0].id);
            EXPECT_EQ("alice@example.org", mails[0].to);
            EXPECT_EQ("Gr\xc3\xbc\xc3\x9f"
                      "e",
                      mails[0].subject);
            EXPECT_EQ("<b>12345678</b><br>two", mails[0].html);
            EXPECT_GE(mails[0].date, kNow);
            EXPECT_LE(mails[0].date, kNow + 5);
            EXPECT_EQ(0, mails[0].attempts);
            const std::string id = mails[0].messageId;
            EXPECT_TRUE(id.starts_with('<') && id.ends_with('>') && id.find('@') == 33) << id;
            if (process == 0) {
                WriteFile("/var/lib/tavr/id", id);
            } else {
                EXPECT_EQ(ReadFile("/var/lib/tavr/id"), id) << "the same in a further try";
            }
        });
    }
}

TEST_F(Queue, TakesOutInOrderAndNothingTwice)
{
    AsWorker([] {
        for (int i = 0; i < 5; ++i) {
            QueueOne();
        }
        EXPECT_EQ((std::vector<int64_t>{1, 2}), TakeDue(2));
        EXPECT_EQ((std::vector<int64_t>{3, 4, 5}), TakeDue(10));
        EXPECT_TRUE(TakeDue().empty());
        EXPECT_EQ(-1, SecondsUntilDue()) << "all of them are out";
        Later(2);
        EXPECT_EQ(60, SecondsUntilDue());
        SetClocks(kNow, 10 * kDay + 60, "first");
        EXPECT_EQ((std::vector<int64_t>{2}), TakeDue());
    });
}

TEST_F(Queue, MessageIdsDiffer)
{
    AsWorker([] {
        std::set<std::string> ids;
        for (int i = 0; i < 100; ++i) {
            QueueOne();
        }
        for (const QueuedMail& mail : DueMails(100)) {
            ids.insert(mail.messageId);
        }
        EXPECT_EQ(100U, ids.size());
    });
}

TEST_F(Queue, OneProcessSendsUntilItEnds)
{
    AsWorker([] { QueueOne(); });
    // The lock file itself is the gate: both are there before either may end.
    WriteFile("/var/lib/tavr/mail.lock", "");
    ASSERT_EQ(0, chown("/var/lib/tavr/mail.lock", kServiceId, kServiceId));
    AsWorker([] {
        const int other = open("/var/lib/tavr/mail.lock", O_RDWR | O_CLOEXEC);
        ASSERT_EQ(0, flock(other, LOCK_EX | LOCK_NB));
        EXPECT_TRUE(TakeDue().empty());
        EXPECT_EQ(60, SecondsUntilDue());
        close(other);
        EXPECT_EQ(0, SecondsUntilDue());
        EXPECT_EQ((std::vector<int64_t>{1}), TakeDue());
        const int third = open("/var/lib/tavr/mail.lock", O_RDWR | O_CLOEXEC);
        EXPECT_NE(0, flock(third, LOCK_EX | LOCK_NB)) << "held for as long as it lives";
        close(third);
    });
    AsWorker([] { EXPECT_EQ((std::vector<int64_t>{1}), TakeDue()) << "its process ended without a result"; });
}

TEST_F(Queue, ManyProcessesPutInSideBySide)
{
    AsWorkers(4, [](int) {
        for (int i = 0; i < 25; ++i) {
            QueueOne();
        }
    });
    AsWorker([] { EXPECT_EQ(100U, TakeDue(1000).size()); });
}

// --- Waits ---

TEST_F(Queue, WaitsTwiceAsLongAfterEachTryUpToAnHourAndADay)
{
    AsWorker([] {
        QueueOne();
        int64_t boot = 10 * kDay;
        std::vector<int64_t> waits;
        for (int i = 0; i < 100; ++i) {
            const std::vector<QueuedMail> due = DueMails(1);
            ASSERT_EQ(1U, due.size()) << i;
            EXPECT_EQ(i, due[0].attempts);
            Later(1);
            const int64_t wait = SecondsUntilDue();
            if (wait < 0) {
                break;
            }
            waits.push_back(wait);
            SetClocks(kNow, boot + wait - 2, "first");
            EXPECT_TRUE(TakeDue().empty());
            boot += wait;
            SetClocks(kNow, boot, "first");
        }
        ASSERT_GT(waits.size(), 10U);
        EXPECT_EQ((std::vector<int64_t>{60, 120, 240, 480, 960, 1920, 3600, 3600}),
                  std::vector<int64_t>(waits.begin(), waits.begin() + 8));
        EXPECT_GE(boot - 10 * kDay, kDay);
        EXPECT_LT(boot - 10 * kDay, kDay + kHour + 60);
        EXPECT_EQ("1:given_up ", States());
        EXPECT_EQ(451, ListMails().at(0).reply);
        EXPECT_EQ("try later", ListMails().at(0).text);
    });
}

TEST_F(Queue, NoWallClockMovesAWait)
{
    AsWorker([] {
        QueueOne();
        ASSERT_EQ(1U, TakeDue().size());
        Later(1);
        for (const int64_t wall : {kNow + 365 * kDay, kNow - 365 * kDay, int64_t{0}}) {
            SetClocks(wall, 10 * kDay + 10, "first");
            EXPECT_EQ(50, SecondsUntilDue());
        }
    });
}

TEST_F(Queue, AWaitIsServedAgainAfterAStartOfTheMachine)
{
    AsWorker([] {
        QueueOne();
        QueueOne();
        ASSERT_EQ(2U, TakeDue().size());
        Later(1);
        Later(2);
        SetClocks(kNow, 10 * kDay + 60, "first");
        ASSERT_EQ(2U, TakeDue().size());
        Later(1);
    });
    AsWorker([] {
        SetClocks(kNow, 30, "second");
        EXPECT_EQ(30, SecondsUntilDue()) << "the second one, tried once";
        EXPECT_EQ(90, ListMails().at(0).dueIn);
        SetClocks(kNow, 61, "second");
        EXPECT_EQ((std::vector<int64_t>{2}), TakeDue());
        SetClocks(kNow, 121, "second");
        EXPECT_EQ((std::vector<int64_t>{1}), TakeDue());
    });
    AsWorker([] {
        SetClocks(kNow, 5, "third");
        QueueOne();
        EXPECT_EQ((std::vector<int64_t>{3}), TakeDue()) << "a new one is due at once";
    });
}

TEST_F(Queue, ADayOfWaitingIsCountedOverStartsOfTheMachine)
{
    AsWorker([] {
        QueueOne();
        for (int start = 0; start < 2; ++start) {
            const std::string boot = "start" + std::to_string(start);
            SetClocks(kNow, kHour + 1, boot);
            ASSERT_EQ(1U, TakeDue().size());
            Later(1);
            SetClocks(kNow, 13 * kHour, boot);
            ASSERT_EQ(1U, TakeDue().size());
            Later(1);
        }
        EXPECT_EQ("1:given_up ", States());
    });
}

TEST_F(Queue, WhatIsRefusedIsNotTriedAgain)
{
    AsWorker([] {
        QueueOne();
        ASSERT_EQ(1U, TakeDue().size());
        Store({1, false, false, 550, "no such mailbox"});
        EXPECT_EQ(-1, SecondsUntilDue());
        EXPECT_EQ("1:given_up ", States());
        EXPECT_EQ(550, ListMails().at(0).reply);
        EXPECT_EQ(1, ListMails().at(0).attempts);
    });
}

TEST_F(Queue, AResultComesToLateForAMailThatIsFinished)
{
    AsWorker([] {
        QueueOne();
        ASSERT_EQ(1U, TakeDue().size());
        EXPECT_TRUE(DropMail(1));
        Later(1);
        EXPECT_EQ("1:dropped ", States());
        EXPECT_EQ(-1, SecondsUntilDue());
        Sent(77);
        EXPECT_EQ("1:dropped ", States());
    });
}

// --- What stays ---

TEST_F(Queue, KeepsNothingOfATextThatIsFinished)
{
    const std::string longBody(20'000, 'x'); // on pages of its own
    AsWorker([&longBody] {
        for (int i = 0; i < 4; ++i) {
            QueueMail("alice@example.org", "SubjectOfIt", "the code is 12345678 " + longBody);
        }
        EXPECT_EQ(std::string::npos, Bytes().find("12345678"));
        EXPECT_EQ(std::string::npos, Bytes().find("SubjectOfIt"));
        EXPECT_EQ(std::string::npos, Bytes().find("alice@example.org"));
        std::vector<std::string> sealed;
        for (int i = 1; i <= 4; ++i) {
            sealed.push_back(SealedContent(i));
            ASSERT_GT(sealed.back().size(), 20'000U);
        }
        const auto holds = [&](int id) {
            const std::string bytes = Bytes();
            const std::string& text = sealed[static_cast<size_t>(id) - 1];
            for (size_t at = 0; at + 64 < text.size(); at += 256) {
                if (bytes.find(text.substr(at, 16)) != std::string::npos) {
                    return true;
                }
            }
            return false;
        };
        ASSERT_EQ(4U, TakeDue().size());
        ASSERT_TRUE(holds(1) && holds(2) && holds(3) && holds(4));
        SetClocks(kNow, 10 * kDay + 100, "first");
        Sent(1);
        EXPECT_FALSE(holds(1)) << "while others are out, once a second";
        EXPECT_TRUE(DropMail(2));
        EXPECT_FALSE(holds(2));
        Later(2); // it was on its way
        Store({3, false, false, 550, "no"});
        Later(4);
        EXPECT_TRUE(TakeDue().empty());
        EXPECT_FALSE(holds(3)) << "at the latest when there is no more to do";
        EXPECT_TRUE(holds(4));
        EXPECT_EQ("1:sent 2:dropped 3:given_up 4:waiting ", States());
        EXPECT_EQ("alice@example.org", ListMails().at(0).to);
    });
}

TEST_F(Queue, WipesWhatSomebodysReadingKeptBefore)
{
    AsWorker([] {
        QueueMail("alice@example.org", "S", std::string(5'000, 'x'));
        ASSERT_EQ(1U, TakeDue().size());
        const std::string sealed = SealedContent(1).substr(100, 16);
        sqlite3* db = nullptr;
        ASSERT_EQ(SQLITE_OK, sqlite3_open_v2(kMailDatabase, &db, SQLITE_OPEN_READONLY, nullptr));
        ASSERT_EQ(SQLITE_OK, sqlite3_exec(db, "BEGIN; SELECT count(*) FROM mail", nullptr, nullptr, nullptr));
        Sent(1);
        EXPECT_NE(std::string::npos, Bytes().find(sealed)) << "the reader needs it still";
        sqlite3_close(db);
        TakeDue();
        EXPECT_EQ(std::string::npos, Bytes().find(sealed));
    });
}

TEST_F(Queue, WipesWhatAKilledOneLeftInTheLog)
{
    AsWorker([] {
        QueueMail("alice@example.org", "S", std::string(5'000, 'x'));
        WriteFile("/var/lib/tavr/sealed", SealedContent(1).substr(100, 16));
        Execute("PRAGMA secure_delete=ON; UPDATE mail SET state = 'sent', content = NULL");
        // Without closing: the log stays as it is.
    });
    AsWorker([] {
        const std::string sealed = ReadFile("/var/lib/tavr/sealed");
        ASSERT_NE(std::string::npos, Bytes().find(sealed));
        TakeDue();
        EXPECT_EQ(std::string::npos, Bytes().find(sealed));
    });
}

TEST_F(Queue, KeepsAThousandFinishedRowsAtLeast)
{
    AsWorker([] {
        const auto send = [](int first, int last) {
            std::vector<QueueResult> results;
            for (int i = first; i <= last; ++i) {
                QueueOne("user" + std::to_string(i) + "@example.org");
                results.push_back({i, true, false, 250, "ok"});
            }
            while (!TakeDue(2'000).empty()) {
            }
            StoreResults(results);
        };
        send(1, 2'000);
        EXPECT_EQ(2'000U, ListMails().size());
        send(2'001, 2'001);
        const std::vector<ListedMail> mails = ListMails();
        EXPECT_EQ(1'000U, mails.size());
        EXPECT_EQ(1'002, mails.front().id);
        EXPECT_EQ(2'001, mails.back().id);
    });
}

TEST_F(Queue, TakesOutFewAtOnceWhereTheyAreLarge)
{
    AsWorker([] {
        for (int i = 0; i < 12; ++i) {
            QueueMail("alice@example.org", "S", std::string(120'000, 'x'));
        }
        EXPECT_EQ(9U, TakeDue().size()) << "a mebibyte";
        EXPECT_EQ(0, SecondsUntilDue());
        EXPECT_EQ(3U, TakeDue().size());
    });
}

// --- Bounds ---

TEST_F(Queue, OneRecipientFillsNobodyElsesPlace)
{
    AsWorker([] {
        for (int i = 0; i < 200; ++i) {
            QueueOne();
        }
        EXPECT_THROW(QueueOne(), DatabaseError);
        EXPECT_NO_THROW(QueueOne("bob@example.org"));
        ASSERT_EQ(1U, TakeDue(1).size());
        Sent(1);
        EXPECT_NO_THROW(QueueOne());
    });
}

TEST_F(Queue, IsFullWithTwentyThousand)
{
    AsWorker([] {
        QueueOne();
        Execute("WITH RECURSIVE n (i) AS (SELECT 2 UNION ALL SELECT i + 1 FROM n WHERE i < 20000)"
                " INSERT INTO mail (state, recipient, mark, content, message_id, date, boot, at, due)"
                " SELECT 'waiting', x'00', randomblob(16), x'00', '<x>', 0, 'first', 0, 0 FROM n");
        EXPECT_THROW(QueueOne(), DatabaseError);
        EXPECT_EQ(20'000U, ListMails().size());
        EXPECT_TRUE(DropMail(7));
        EXPECT_NO_THROW(QueueOne());
    });
}

TEST_F(Queue, AMailTooLargeIsRefused)
{
    AsWorker([] {
        EXPECT_THROW(QueueMail("a@b", "", std::string(131'073, 'x')), DatabaseError);
        EXPECT_NO_THROW(QueueMail("a@b", "", std::string(131'072, 'x')));
    });
}

// --- Faults ---

TEST_F(Queue, WhatDoesNotOpenWaitsAndDisturbsNothing)
{
    AsWorker([] {
        for (int i = 0; i < 5; ++i) {
            QueueOne();
        }
        Execute("UPDATE mail SET content = (SELECT content FROM mail WHERE id = 2) WHERE id = 1;"
                "UPDATE mail SET recipient = (SELECT recipient FROM mail WHERE id = 1) WHERE id = 3;"
                "UPDATE mail SET content = x'' WHERE id = 4");
        EXPECT_EQ((std::vector<int64_t>{2, 5}), TakeDue());
        EXPECT_EQ(60, SecondsUntilDue());
        EXPECT_EQ("the mail cannot be opened with this machine key", ListMails().at(0).text);
        EXPECT_EQ("", ListMails().at(2).to);
    });
}

TEST_F(Queue, AnotherMachineKeyLosesNothingForADay)
{
    AsWorker([] { QueueOne(); });
    const std::string key = ReadFile(kMachineKeyFile);
    std::string other = key;
    other[other.size() - 2] = 'e';
    std::ofstream(kMachineKeyFile) << other;
    AsWorker([] { EXPECT_TRUE(TakeDue().empty()); });
    unlink(kMachineKeyFile);
    AsWorker([] {
        EXPECT_NO_THROW(SecondsUntilDue());
        SetClocks(kNow, 10 * kDay + 60, "first");
        EXPECT_THROW(DueMails(1), VaultError);
        EXPECT_THROW(QueueOne(), VaultError);
    });
    std::ofstream(kMachineKeyFile) << key;
    ASSERT_EQ(0, chown(kMachineKeyFile, 0, kServiceId));
    ASSERT_EQ(0, chmod(kMachineKeyFile, 0440));
    AsWorker([] { EXPECT_EQ((std::vector<int64_t>{1}), TakeDue()); });
}

TEST_F(Queue, AFullDiskQueuesNothingAndLosesNothing)
{
    AsWorker([] {
        for (int i = 0; i < 3; ++i) {
            QueueOne();
        }
    });
    LimitFolder(kStateDir, 512 * 1024);
    AsWorker([] {
        ASSERT_EQ(3U, TakeDue().size());
        const std::string filler = std::string(kStateDir) + "/filler";
        WriteFile(filler, std::string(1 << 20, 'x'));
        EXPECT_THROW(QueueMail("bob@example.org", "S", std::string(50'000, 'x')), DatabaseError);
        try {
            Sent(1);
        } catch (const DatabaseError&) {
            EXPECT_EQ("1:waiting 2:waiting 3:waiting ", States());
        }
        EXPECT_TRUE(TakeDue().empty()) << "none goes out twice meanwhile";
        unlink(filler.c_str());
        Sent(1);
        EXPECT_EQ("1:sent 2:waiting 3:waiting ", States());
        EXPECT_NO_THROW(QueueOne());
    });
}

TEST_F(Queue, IsNotOpenedWithRootsIds)
{
    EXPECT_THROW(QueueOne(), DatabaseError);
    EXPECT_FALSE(fs::exists(kMailDatabase));
}

// --- The console's ---

TEST_F(Queue, RetryAndDropAreForWhatWaits)
{
    AsWorker([] {
        QueueOne();
        QueueOne();
        ASSERT_EQ(2U, TakeDue().size());
        Later(1);
        Sent(2);
        EXPECT_TRUE(RetryMail(1));
        EXPECT_EQ(0, ListMails().at(0).dueIn);
        EXPECT_EQ((std::vector<int64_t>{1}), TakeDue());
        EXPECT_FALSE(RetryMail(2));
        EXPECT_FALSE(DropMail(2));
        EXPECT_FALSE(RetryMail(3));
        EXPECT_FALSE(DropMail(-1));
        EXPECT_TRUE(DropMail(1));
        EXPECT_FALSE(DropMail(1));
    });
}

// --- The call that wakes ---

TEST_F(Queue, TellsTheServiceAndDoesNotWaitForIt)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s", kWebApiSocket);
    unlink(address.sun_path);
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(0, bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address));
    ASSERT_EQ(0, chown(address.sun_path, kServiceId, kServiceId));
    ASSERT_EQ(0, listen(listener, 5));
    AsWorker([] { QueueOne(); });
    const int caller = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    char text[256] = {};
    ASSERT_GT(recv(caller, text, sizeof text - 1, MSG_WAITALL), 4);
    EXPECT_STREQ(R"({"params":{"api":"TAVR.Notification.Mail","method":"wake","version":1}})", text + 4);
    close(caller);
    close(listener);
    unlink(address.sun_path);
}

} // namespace
} // namespace tavr::test
