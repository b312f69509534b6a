#include "linux/attempts.h"

#include "linux/clock.h"
#include "linux/ids.h"
#include "linux/names.h"

#include <arpa/inet.h>
#include <sodium.h>

#include <algorithm>
#include <cstdlib>
#include <span>
#include <vector>

namespace tavr
{

namespace
{

const std::string& ThisBoot()
{
    const std::string& id = BootId();
    if (id.empty()) {
        throw DatabaseError(0, "this start of the machine cannot be told from another");
    }
    return id;
}

// When something happened, on this start's clock. What happened before it began counts from its beginning.
int64_t OnThisBoot(const std::string& boot, int64_t then)
{
    return boot == ThisBoot() ? then : 0;
}

// Seconds until `length` has passed since `then`. A clock that went backwards makes it no shorter.
int SecondsLeft(int64_t then, int64_t length)
{
    return static_cast<int>(std::clamp<int64_t>(then + length - BootSeconds(), 0, length));
}

// --- The second step ---

int64_t WaitAfter(int failures)
{
    if (failures < kFreeFailures) {
        return 0;
    }
    const int doublings = std::min(failures - kFreeFailures, 10);
    return std::min(kFirstWaitSeconds << doublings, kLongestWaitSeconds);
}

// Of rows that have the boot and the time.
std::vector<int64_t> TimesIn(Statement& rows)
{
    std::vector<int64_t> times;
    while (rows.Step()) {
        times.push_back(OnThisBoot(rows.Text(0), rows.Int(1)));
    }
    return times;
}

// Seconds until one more try is let through, of which `most` may lie within `seconds`.
int WaitOf(const std::vector<int64_t>& earlier, int most, int64_t seconds)
{
    int counted = 0;
    int shortest = static_cast<int>(seconds);
    for (const int64_t time : earlier) {
        const int left = SecondsLeft(time, seconds);
        if (left > 0) {
            ++counted;
            shortest = std::min(shortest, left);
        }
    }
    return counted < most ? 0 : shortest;
}

// --- Passwords ---

struct Limit {
    std::string key;
    int most = 0;
};

// A name may have been typed into the wrong field, so neither it nor an address is stored as it is.
Limit MakeLimit(const char* kind, std::string_view whose, int most)
{
    const std::string text = std::string(kind) + ' ' + std::string(whose);
    std::string key(crypto_generichash_BYTES_MIN, 0);
    crypto_generichash(reinterpret_cast<unsigned char*>(key.data()), key.size(),
                       reinterpret_cast<const unsigned char*>(text.data()), text.size(), nullptr, 0);
    return {key, most};
}

Limit LimitOfName(std::string_view name)
{
    return MakeLimit("name", name, kPasswordsOfName);
}

// Whoever has one IPv6 address has the 64 bits below its network as well.
std::string NetworkOf(const std::string& address)
{
    constexpr size_t kNetworkBytes = 8;
    constexpr std::string_view kMapped("\0\0\0\0\0\0\0\0\0\0\xff\xff", 12);
    std::string bytes(sizeof(in6_addr), 0);
    if (inet_pton(AF_INET6, address.c_str(), bytes.data()) != 1) {
        return address;
    }
    if (bytes.starts_with(kMapped)) {
        char text[INET_ADDRSTRLEN] = {};
        inet_ntop(AF_INET, bytes.data() + kMapped.size(), text, sizeof text);
        return text;
    }
    return bytes.substr(0, kNetworkBytes);
}

// Tries that do not count any more; some at a time, so that nobody waits for all of them. Gives how many
// went.
int64_t ClearOld(int64_t now)
{
    constexpr int64_t kClearedAtOnce = 100;
    SigninDatabase()
        .Prepare("DELETE FROM password_try WHERE id IN"
                 " (SELECT id FROM password_try WHERE boot = ?1 AND at <= ?2 LIMIT ?3)")
        .Bind(1, ThisBoot())
        .Bind(2, now - kPasswordSeconds)
        .Bind(3, kClearedAtOnce)
        .Run();
    int64_t cleared = SigninDatabase().Changes();
    if (now < kPasswordSeconds) {
        return cleared;
    }
    for (const char* const otherBoot : // apart: together, by OR, they cost several times as much
         {"DELETE FROM password_try WHERE id IN (SELECT id FROM password_try WHERE boot < ?1 LIMIT ?2)",
          "DELETE FROM password_try WHERE id IN (SELECT id FROM password_try WHERE boot > ?1 LIMIT ?2)"}) {
        SigninDatabase().Prepare(otherBoot).Bind(1, ThisBoot()).Bind(2, kClearedAtOnce).Run();
        cleared += SigninDatabase().Changes();
    }
    return cleared;
}

int WaitOf(const Limit& limit)
{
    Statement ask = SigninDatabase().Prepare("SELECT boot, at FROM password_try WHERE key = ?1");
    ask.BindBlob(1, limit.key);
    return WaitOf(TimesIn(ask), limit.most, kPasswordSeconds);
}

int64_t Insert(const Limit& limit)
{
    Database& db = SigninDatabase();
    db.Prepare("INSERT INTO password_try (key, boot, at) VALUES (?1, ?2, ?3)")
        .BindBlob(1, limit.key)
        .Bind(2, ThisBoot())
        .Bind(3, BootSeconds())
        .Run();
    return db.LastInsertId();
}

PasswordTry Count(std::span<const Limit> limits)
{
    PasswordTry counted;
    Transaction transaction(SigninDatabase());
    for (const Limit& limit : limits) {
        counted.waitSeconds = std::max(counted.waitSeconds, WaitOf(limit));
    }
    if (counted.waitSeconds > 0) {
        return counted;
    }
    ClearOld(BootSeconds());
    std::transform(limits.begin(), limits.end(), counted.rows.begin(), Insert);
    transaction.Commit();
    return counted;
}

// Commits that a power cut may undo, for what errs on the strict side without them. Visible at once to every
// process, and durable with the next ordinary commit.
class WithoutSync
{
public:
    WithoutSync() { SigninDatabase().Prepare("PRAGMA synchronous=NORMAL").Run(); }
    ~WithoutSync()
    {
        // never: it reads and writes no file
        if (sqlite3_exec(SigninDatabase().Handle(), "PRAGMA synchronous=FULL", nullptr, nullptr, nullptr) !=
            SQLITE_OK) {
            std::abort(); // no grant may rest on a commit that is not durable
        }
    }
    WithoutSync(const WithoutSync&) = delete;
    WithoutSync& operator=(const WithoutSync&) = delete;
};

// --- Emergency codes by mail ---

constexpr int64_t kHourSeconds = 60 * 60;
constexpr int64_t kDaySeconds = 24 * kHourSeconds;

int WaitOfMails(uint32_t account)
{
    Statement ask = SigninDatabase().Prepare("SELECT boot, at FROM code_mail WHERE account = ?1");
    ask.Bind(1, int64_t{account});
    const std::vector<int64_t> mails = TimesIn(ask);
    return std::max(WaitOf(mails, kMailsAnHour, kHourSeconds), WaitOf(mails, kMailsADay, kDaySeconds));
}

// So an account never has more rows than a day lets through.
void ClearOldMails(uint32_t account)
{
    SigninDatabase()
        .Prepare("DELETE FROM code_mail WHERE account = ?1 AND iif(boot = ?2, at, 0) <= ?3")
        .Bind(1, int64_t{account})
        .Bind(2, ThisBoot())
        .Bind(3, BootSeconds() - kDaySeconds)
        .Run();
}

} // namespace

SecondStep SecondStepOf(uint32_t account)
{
    Statement ask = SigninDatabase().Prepare(
        "SELECT failures, failed_boot, failed_at, told_step FROM account_mark WHERE account = ?1");
    ask.Bind(1, int64_t{account});
    if (!ask.Step()) {
        return {};
    }
    SecondStep step;
    step.failures = static_cast<int>(ask.Int(0));
    step.closed = step.failures >= kFailuresUntilClosed;
    step.waitSeconds = SecondsLeft(OnThisBoot(ask.Text(1), ask.Int(2)), WaitAfter(step.failures));
    step.toldStep = ask.Int(3);
    return step;
}

void CountFailure(Transaction& /*inside*/, uint32_t account)
{
    SigninDatabase()
        .Prepare("INSERT INTO account_mark (account, failures, failed_boot, failed_at) VALUES (?1, 1, ?2, ?3)"
                 " ON CONFLICT (account) DO UPDATE"
                 " SET failures = failures + 1, failed_boot = ?2, failed_at = ?3")
        .Bind(1, int64_t{account})
        .Bind(2, ThisBoot())
        .Bind(3, BootSeconds())
        .Run();
}

void ForgetFailures(Transaction& /*inside*/, uint32_t account)
{
    SigninDatabase()
        .Prepare("UPDATE account_mark SET failures = 0 WHERE account = ?1")
        .Bind(1, int64_t{account})
        .Run();
}

bool OpenSecondStep(const Account& account)
{
    const EffectiveIds service = EffectiveIds::Service();
    if (!service.Changed()) {
        throw DatabaseError(0, "the service's ids cannot be taken");
    }
    Transaction transaction(SigninDatabase());
    const SecondStep before = SecondStepOf(account.uid);
    ForgetFailures(transaction, account.uid);
    transaction.Commit();
    return before.closed || before.waitSeconds > 0;
}

void NoteToldStep(Transaction& /*inside*/, uint32_t account, int64_t step)
{
    Database& db = SigninDatabase();
    db.Prepare("UPDATE account_mark SET told_step = ?2 WHERE account = ?1")
        .Bind(1, int64_t{account})
        .Bind(2, step)
        .Run();
    if (db.Changes() != 1) {
        throw DatabaseError(0, "a hint without a counted failure");
    }
}

PasswordTry CountPassword(std::string_view typedName, std::string_view clientAddress)
{
    const Limit limits[] = {
        LimitOfName(CanonicalName(typedName).value_or(std::string(typedName))),
        MakeLimit("address", NetworkOf(std::string(clientAddress)), kPasswordsOfAddress),
    };
    return Count(limits);
}

PasswordTry CountRepeatedPassword(std::string_view sessionId)
{
    const Limit limits[] = {MakeLimit("session", sessionId, kPasswordsOfSession)};
    return Count(limits);
}

void GiveBack(const PasswordTry& counted)
{
    const WithoutSync unsynced;
    Transaction transaction(SigninDatabase());
    for (const int64_t row : counted.rows) {
        SigninDatabase().Prepare("DELETE FROM password_try WHERE id = ?1").Bind(1, row).Run();
    }
    transaction.Commit();
}

MailTry CountMail(uint32_t account)
{
    Database& db = SigninDatabase();
    MailTry counted;
    Transaction transaction(db);
    counted.waitSeconds = WaitOfMails(account);
    if (counted.waitSeconds > 0) {
        return counted;
    }
    ClearOldMails(account);
    counted.account = account;
    randombytes_buf(&counted.number, sizeof counted.number);
    db.Prepare("INSERT INTO code_mail (account, number, boot, at) VALUES (?1, ?2, ?3, ?4)")
        .Bind(1, int64_t{account})
        .Bind(2, counted.number)
        .Bind(3, ThisBoot())
        .Bind(4, BootSeconds())
        .Run();
    transaction.Commit();
    return counted;
}

void GiveBack(const MailTry& counted)
{
    const WithoutSync unsynced;
    SigninDatabase()
        .Prepare("DELETE FROM code_mail WHERE account = ?1 AND number = ?2")
        .Bind(1, int64_t{counted.account})
        .Bind(2, counted.number)
        .Run();
}

void ForgetPasswords(std::string_view canonicalName)
{
    SigninDatabase()
        .Prepare("DELETE FROM password_try WHERE key = ?1")
        .BindBlob(1, LimitOfName(canonicalName).key)
        .Run();
}

void ClearTries()
{
    constexpr int kBatches = 100;
    for (int i = 0; i < kBatches && ClearOld(BootSeconds()) > 0; ++i) {
    }
}

} // namespace tavr
