#include "linux/mail_queue.h"

#include "linux/clock.h"
#include "linux/descriptor.h"
#include "linux/mail_settings.h"
#include "linux/paths.h"
#include "platform/webapi.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>
#include <optional>
#include <set>

namespace tavr
{

namespace
{

constexpr int64_t kLookAgainSeconds = 60; // while another process sends
constexpr int kWipeWaitMilliseconds = 100;
constexpr size_t kMostBytesAtOnce = 1024 * 1024; // of texts that are taken out
constexpr int kMostDoublings = 10;

constexpr const char* kMigrations[] = {
    R"(
CREATE TABLE mail (
    id INTEGER PRIMARY KEY AUTOINCREMENT,
    state TEXT NOT NULL CHECK (state IN ('waiting', 'sent', 'given_up', 'dropped')),
    recipient BLOB NOT NULL,             -- sealed
    mark BLOB NOT NULL,                  -- keyed hash of the recipient, to count by
    content BLOB,                        -- sealed: subject, NUL, body; null once it is finished
    message_id TEXT NOT NULL,
    date INTEGER NOT NULL,               -- of the wall clock, when it was queued
    boot TEXT NOT NULL,                  -- the start of the machine that `at` and `due` belong to
    at INTEGER NOT NULL,                 -- queued, or last tried
    due INTEGER NOT NULL,
    waited INTEGER NOT NULL DEFAULT 0,   -- seconds, up to `at`
    attempts INTEGER NOT NULL DEFAULT 0,
    reply INTEGER NOT NULL DEFAULT 0,    -- of the last try
    answer TEXT NOT NULL DEFAULT ''
) STRICT;
CREATE INDEX mail_due ON mail (due, id) WHERE state = 'waiting';
CREATE INDEX mail_of_recipient ON mail (mark) WHERE state = 'waiting';
CREATE INDEX mail_finished ON mail (id) WHERE state <> 'waiting';
)",
    // A mail that is finished keeps its place in it: marks are spread over all of the index.
    R"(
DROP INDEX mail_of_recipient;
CREATE INDEX mail_of_recipient ON mail (mark);
)",
    // A state that is one of many would be looked up in a table that SQLite makes anew for each row that it
    // writes, which takes as long as the row.
    R"(
PRAGMA secure_delete=ON;
CREATE TABLE mail_compared (
    id INTEGER PRIMARY KEY AUTOINCREMENT,
    state TEXT NOT NULL CHECK (state = 'waiting' OR state = 'sent' OR state = 'given_up' OR state = 'dropped'),
    recipient BLOB NOT NULL,
    mark BLOB NOT NULL,
    content BLOB,
    message_id TEXT NOT NULL,
    date INTEGER NOT NULL,
    boot TEXT NOT NULL,
    at INTEGER NOT NULL,
    due INTEGER NOT NULL,
    waited INTEGER NOT NULL DEFAULT 0,
    attempts INTEGER NOT NULL DEFAULT 0,
    reply INTEGER NOT NULL DEFAULT 0,
    answer TEXT NOT NULL DEFAULT ''
) STRICT;
INSERT INTO mail_compared SELECT id, state, recipient, mark, content, message_id, date, boot, at, due, waited,
    attempts, reply, answer FROM mail;
DELETE FROM sqlite_sequence WHERE name = 'mail_compared';
INSERT INTO sqlite_sequence (name, seq) SELECT 'mail_compared', seq FROM sqlite_sequence WHERE name = 'mail';
DROP TABLE mail;
ALTER TABLE mail_compared RENAME TO mail;
CREATE INDEX mail_due ON mail (due, id) WHERE state = 'waiting';
CREATE INDEX mail_of_recipient ON mail (mark);
CREATE INDEX mail_finished ON mail (id) WHERE state <> 'waiting';
)",
    // The newest row never goes, so no number comes again, and none need be stored beside the rows.
    R"(
PRAGMA secure_delete=ON;
CREATE TABLE mail_numbered (
    id INTEGER PRIMARY KEY,
    state TEXT NOT NULL CHECK (state = 'waiting' OR state = 'sent' OR state = 'given_up' OR state = 'dropped'),
    recipient BLOB NOT NULL,
    mark BLOB NOT NULL,
    content BLOB,
    message_id TEXT NOT NULL,
    date INTEGER NOT NULL,
    boot TEXT NOT NULL,
    at INTEGER NOT NULL,
    due INTEGER NOT NULL,
    waited INTEGER NOT NULL DEFAULT 0,
    attempts INTEGER NOT NULL DEFAULT 0,
    reply INTEGER NOT NULL DEFAULT 0,
    answer TEXT NOT NULL DEFAULT ''
) STRICT;
INSERT INTO mail_numbered SELECT id, state, recipient, mark, content, message_id, date, boot, at, due, waited,
    attempts, reply, answer FROM mail;
DROP TABLE mail;
ALTER TABLE mail_numbered RENAME TO mail;
CREATE INDEX mail_due ON mail (due, id) WHERE state = 'waiting';
CREATE INDEX mail_of_recipient ON mail (mark);
CREATE INDEX mail_finished ON mail (id) WHERE state <> 'waiting';
)",
};

const std::string& ThisBoot()
{
    const std::string& id = BootId();
    if (id.empty()) {
        throw DatabaseError(0, "this start of the machine cannot be told from another");
    }
    return id;
}

int64_t WaitAfter(int64_t attempts)
{
    if (attempts == 0) {
        return 0;
    }
    const int64_t doublings = std::min<int64_t>(attempts - 1, kMostDoublings);
    return std::min(kFirstMailWaitSeconds << doublings, kLongestMailWaitSeconds);
}

// What a row's texts are sealed for.
std::string BoundTo(const char* part, int64_t id)
{
    return std::string("tavr-mail-1 ") + part + ' ' + std::to_string(id);
}

// Counted only where there are as many numbers between the first row and the last one.
bool IsFull(Database& db)
{
    Statement rows =
        db.Prepare("SELECT coalesce((SELECT max(id) FROM mail) - (SELECT min(id) FROM mail) + 1, 0)");
    if (rows.Step() && rows.Int(0) < kMostWaitingMails) {
        return false;
    }
    Statement ask = db.Prepare("SELECT count(*) FROM mail WHERE state = 'waiting'");
    return ask.Step() && ask.Int(0) >= kMostWaitingMails;
}

bool HasTooMany(Database& db, const std::string& mark)
{
    Statement ask = db.Prepare("SELECT count(*) FROM mail WHERE mark = ?1 AND state = 'waiting'");
    ask.BindBlob(1, mark);
    return ask.Step() && ask.Int(0) >= kMostMailsOfRecipient;
}

// Inside the transaction that uses it.
int64_t NextId(Database& db)
{
    Statement ask = db.Prepare("SELECT coalesce(max(id), 0) + 1 FROM mail");
    return ask.Step() ? ask.Int(0) : 1;
}

// --- The one that sends ---

// What this process knows besides the database.
struct Sender {
    Descriptor lock;       // held while it sends
    std::set<int64_t> out; // taken out, without a result yet
    std::string countedIn; // the start of the machine whose times the rows have
    bool textInLog = true; // the write-ahead log may still hold a text that is finished
    int64_t lastCut = -1;  // BootSeconds
};

Sender& ThisSender()
{
    static Sender sender;
    return sender;
}

bool IsSender()
{
    Descriptor& held = ThisSender().lock;
    if (held) {
        return true;
    }
    Descriptor file(open(kMailLockFile, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR));
    if (!file) {
        throw DatabaseError(0, std::string("cannot open ") + kMailLockFile);
    }
    if (flock(file.Get(), LOCK_EX | LOCK_NB) != 0) {
        return false;
    }
    held = std::move(file);
    return true;
}

// Times of an earlier start of the machine mean nothing now: a wait is served again from its beginning.
void CountFromThisStart()
{
    Sender& sender = ThisSender();
    if (sender.countedIn == ThisBoot()) {
        return;
    }
    Database& db = MailDatabase();
    Transaction transaction(db);
    db.Prepare("UPDATE mail SET boot = ?1, at = 0, due = CASE attempts WHEN 0 THEN 0"
               " ELSE min(?2 << min(attempts - 1, ?4), ?3) END WHERE state = 'waiting' AND boot <> ?1")
        .Bind(1, ThisBoot())
        .Bind(2, kFirstMailWaitSeconds)
        .Bind(3, kLongestMailWaitSeconds)
        .Bind(4, int64_t{kMostDoublings})
        .Run();
    transaction.Commit();
    sender.countedIn = ThisBoot();
}

// Finished texts are overwritten in the database; the log that still holds them is cut. That costs several
// syncs: while there is more to do, once a second. Somebody who reads at this moment puts it off.
enum class Work { Done, GoesOn };
void WipeLog(Work work)
{
    Sender& sender = ThisSender();
    const int64_t now = BootSeconds();
    if (sender.textInLog && (work == Work::Done || now != sender.lastCut)) {
        sender.lastCut = now;
        sender.textInLog = !MailDatabase().CutLog(kWipeWaitMilliseconds);
    }
}

struct Row {
    int64_t id = 0;
    std::string recipient;
    std::string content;
    QueuedMail mail;
};

std::vector<Row> DueRows(size_t most)
{
    const std::set<int64_t>& out = ThisSender().out;
    std::vector<Row> rows;
    Statement ask =
        MailDatabase().Prepare("SELECT id, recipient, content, message_id, date, attempts FROM mail"
                               " WHERE state = 'waiting' AND due <= ?1 ORDER BY due, id");
    ask.Bind(1, BootSeconds());
    size_t bytes = 0;
    while (rows.size() < most && bytes < kMostBytesAtOnce && ask.Step()) {
        if (!out.contains(ask.Int(0))) {
            rows.push_back({ask.Int(0),
                            ask.Text(1),
                            ask.Text(2),
                            {ask.Int(0), "", "", "", ask.Text(3), ask.Int(4), static_cast<int>(ask.Int(5))}});
            bytes += rows.back().content.size();
        }
    }
    return rows;
}

bool Open(const MachineKey& key, Row& row)
{
    const auto to = key.UnsealText(BoundTo("recipient", row.id), row.recipient);
    const auto content = key.UnsealText(BoundTo("content", row.id), row.content);
    const size_t nul = content ? content->find('\0') : std::string::npos;
    if (!to || nul == std::string::npos) {
        return false;
    }
    row.mail.to = *to;
    row.mail.subject = content->substr(0, nul);
    row.mail.html = content->substr(nul + 1);
    return true;
}

void Finish(Database& db, const char* state, const QueueResult& result)
{
    db.Prepare("UPDATE mail SET state = ?2, content = NULL, attempts = attempts + 1, reply = ?3, answer = ?4"
               " WHERE id = ?1 AND state = 'waiting'")
        .Bind(1, result.id)
        .Bind(2, state)
        .Bind(3, int64_t{result.reply})
        .Bind(4, result.text)
        .Run();
}

void PutOff(Database& db, int64_t waited, int64_t attempts, const QueueResult& result)
{
    const int64_t now = BootSeconds();
    db.Prepare(
          "UPDATE mail SET boot = ?2, at = ?3, due = ?4, waited = ?5, attempts = ?6, reply = ?7, answer = ?8"
          " WHERE id = ?1")
        .Bind(1, result.id)
        .Bind(2, ThisBoot())
        .Bind(3, now)
        .Bind(4, now + WaitAfter(attempts))
        .Bind(5, waited)
        .Bind(6, attempts)
        .Bind(7, int64_t{result.reply})
        .Bind(8, result.text)
        .Run();
}

// Inside a transaction. True when the mail is given up by this result.
bool StoreResult(Database& db, const QueueResult& result)
{
    if (result.sent) {
        Finish(db, "sent", result);
        return false;
    }
    int64_t waited = 0;
    int64_t attempts = 0;
    {
        Statement ask =
            db.Prepare("SELECT waited, at, boot, attempts FROM mail WHERE id = ?1 AND state = 'waiting'");
        ask.Bind(1, result.id);
        if (!ask.Step()) {
            return false; // dropped meanwhile
        }
        const int64_t at = ask.Text(2) == ThisBoot() ? ask.Int(1) : 0;
        waited = ask.Int(0) + std::max<int64_t>(0, BootSeconds() - at);
        attempts = ask.Int(3);
    }
    if (result.retry && waited < kMailGivenUpSeconds) {
        PutOff(db, waited, attempts + 1, result);
        return false;
    }
    Finish(db, "given_up", result);
    return true;
}

// Not to be waited for: one that is lost costs a minute at most.
void WakeSender()
{
    constexpr char kWake[] = R"({"params":{"api":"TAVR.Notification.Mail","method":"wake","version":1}})";
    tavrdaemon::DomainSockConnection connection(kWebApiSocket);
    if (connection.Connect()) {
        connection.Send(kWake);
    }
}

// Only when they are many: together they cost a few pages, one by one a few each.
void DropOldest(Database& db)
{
    Statement many =
        db.Prepare("SELECT 1 FROM mail WHERE state <> 'waiting' ORDER BY id DESC LIMIT 1 OFFSET ?1");
    many.Bind(1, kMostFinishedMails);
    if (!many.Step()) {
        return;
    }
    db.Prepare("DELETE FROM mail WHERE id IN (SELECT id FROM mail WHERE state <> 'waiting'"
               " ORDER BY id DESC LIMIT -1 OFFSET ?1)")
        .Bind(1, kKeptFinishedMails)
        .Run();
}

} // namespace

Database& MailDatabase()
{
    static Database database(kMailDatabase, kMigrations);
    static const bool wipes = [] {
        database.Prepare("PRAGMA secure_delete=ON").Run();
        return true;
    }();
    static_cast<void>(wipes);
    return database;
}

void QueueMail(const std::string& to, const std::string& subject, const std::string& html)
{
    if (subject.size() + html.size() > kMailLimit) {
        throw DatabaseError(SQLITE_TOOBIG, "the mail is too large");
    }
    const MachineKey key = MachineKey::Read();
    const std::string mark = key.Mark(to);
    Database& db = MailDatabase();
    Transaction transaction(db);
    if (IsFull(db) || HasTooMany(db, mark)) {
        throw DatabaseError(SQLITE_FULL, "the mail queue is full");
    }
    const int64_t id = NextId(db); // part of what the texts are sealed for
    db.Prepare("INSERT INTO mail (id, state, recipient, mark, content, message_id, date, boot, at, due)"
               " VALUES (?1, 'waiting', ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?8)")
        .Bind(1, id)
        .BindBlob(2, key.Seal(BoundTo("recipient", id), to))
        .BindBlob(3, mark)
        .BindBlob(4, key.Seal(BoundTo("content", id), subject + '\0' + html))
        .Bind(5, NewMessageId())
        .Bind(6, WallSeconds())
        .Bind(7, ThisBoot())
        .Bind(8, BootSeconds())
        .Run();
    transaction.Commit();
    WakeSender();
}

bool HasSealedMails()
{
    return MailDatabase().Prepare("SELECT 1 FROM mail WHERE state = 'waiting' LIMIT 1").Step();
}

std::vector<QueuedMail> DueMails(size_t most)
{
    if (!IsSender()) {
        return {};
    }
    CountFromThisStart();
    std::vector<Row> rows = DueRows(most);
    WipeLog(rows.empty() && ThisSender().out.empty() ? Work::Done : Work::GoesOn);
    if (rows.empty()) {
        return {};
    }
    const MachineKey key = MachineKey::Read();
    std::vector<QueuedMail> mails;
    std::vector<QueueResult> closed;
    for (Row& row : rows) {
        if (Open(key, row)) {
            mails.push_back(std::move(row.mail));
        } else {
            closed.push_back({row.id, false, true, 0, "the mail cannot be opened with this machine key"});
        }
    }
    if (!closed.empty()) {
        syslog(LOG_ERR, "mail queue: %zu mails cannot be opened with this machine key", closed.size());
        StoreResults(closed);
    }
    for (const QueuedMail& mail : mails) {
        ThisSender().out.insert(mail.id);
    }
    return mails;
}

void StoreResults(std::span<const QueueResult> results)
{
    Database& db = MailDatabase();
    std::vector<const QueueResult*> givenUp;
    Transaction transaction(db);
    for (const QueueResult& result : results) {
        if (StoreResult(db, result)) {
            givenUp.push_back(&result);
        }
    }
    DropOldest(db);
    transaction.Commit();
    for (const QueueResult& result : results) {
        ThisSender().out.erase(result.id);
        ThisSender().textInLog = true;
    }
    for (const QueueResult* result : givenUp) {
        syslog(LOG_WARNING, "mail %lld is given up: %d %s", static_cast<long long>(result->id), result->reply,
               result->text.c_str());
    }
    WipeLog(Work::GoesOn);
}

int64_t SecondsUntilDue()
{
    if (!IsSender()) {
        return kLookAgainSeconds;
    }
    CountFromThisStart();
    WipeLog(Work::GoesOn);
    const std::set<int64_t>& out = ThisSender().out;
    Statement ask =
        MailDatabase().Prepare("SELECT id, due FROM mail WHERE state = 'waiting' ORDER BY due, id");
    while (ask.Step()) {
        if (!out.contains(ask.Int(0))) {
            return std::max<int64_t>(0, ask.Int(1) - BootSeconds());
        }
    }
    return -1;
}

std::vector<ListedMail> ListMails()
{
    const MachineKey key = MachineKey::Read();
    std::vector<ListedMail> mails;
    Statement list = MailDatabase().Prepare(
        "SELECT id, state, recipient, date, boot, due, attempts, reply, answer FROM mail ORDER BY id");
    while (list.Step()) {
        const int64_t id = list.Int(0);
        const int64_t attempts = list.Int(6);
        const int64_t due = list.Text(4) == ThisBoot() ? list.Int(5) : WaitAfter(attempts);
        mails.push_back({id, list.Text(1),
                         key.UnsealText(BoundTo("recipient", id), list.Text(2)).value_or(""), list.Int(3),
                         static_cast<int>(attempts), std::max<int64_t>(0, due - BootSeconds()),
                         static_cast<int>(list.Int(7)), list.Text(8)});
    }
    return mails;
}

bool RetryMail(int64_t id)
{
    Database& db = MailDatabase();
    db.Prepare("UPDATE mail SET due = 0 WHERE id = ?1 AND state = 'waiting'").Bind(1, id).Run();
    const bool waits = db.Changes() == 1;
    if (waits) {
        WakeSender();
    }
    return waits;
}

bool DropMail(int64_t id)
{
    Database& db = MailDatabase();
    db.Prepare("UPDATE mail SET state = 'dropped', content = NULL WHERE id = ?1 AND state = 'waiting'")
        .Bind(1, id)
        .Run();
    const bool dropped = db.Changes() == 1;
    ThisSender().textInLog = ThisSender().textInLog || dropped;
    WipeLog(Work::Done);
    return dropped;
}

} // namespace tavr
