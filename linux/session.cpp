#include "linux/session.h"

#include "linux/audit.h"
#include "linux/clock.h"
#include "linux/database.h"
#include "linux/enrolment.h"
#include "linux/settings.h"
#include "linux/system_accounts.h"

#include <sodium.h>
#include <syslog.h>

#include <algorithm>

namespace tavr
{

namespace
{

constexpr int64_t kIdleSeconds = 15 * 60;
constexpr int64_t kLifetimeSeconds = 12 * 60 * 60;
constexpr int64_t kCodeRequiredSeconds = 5 * 60;
constexpr int64_t kEnrolmentRequiredSeconds = 30 * 60;
constexpr int64_t kLongestRenewal = 60;
constexpr size_t kHandleBytes = 8; // of an id, enough to tell sessions apart
constexpr int64_t kClearedAtOnce =
    100;                      // rows; a sign-in that finds a million old ones must not wait for them
constexpr int kBatches = 100; // where nobody waits

struct Limits {
    int64_t idle = NumberSetting("session_idle", kIdleSeconds, 60, 24 * 60 * 60);
    int64_t lifetime = NumberSetting("session_lifetime", kLifetimeSeconds, 60, 30 * 24 * 60 * 60);
};

// BLAKE2b under a key that names the use, so that what is stored tells nothing about the token and the other
// way round.
std::string Derive(std::string_view use, std::string_view identifier, size_t size)
{
    std::string hash(size, '\0');
    crypto_generichash(reinterpret_cast<unsigned char*>(hash.data()), hash.size(),
                       reinterpret_cast<const unsigned char*>(identifier.data()), identifier.size(),
                       reinterpret_cast<const unsigned char*>(use.data()), use.size());
    return hash;
}

std::string Hex(std::string_view bytes)
{
    std::string text(bytes.size() * 2 + 1, '\0');
    sodium_bin2hex(text.data(), text.size(), reinterpret_cast<const unsigned char*>(bytes.data()),
                   bytes.size());
    text.pop_back();
    return text;
}

std::string HashOf(std::string_view identifier)
{
    return Derive("tavr session row", identifier, crypto_generichash_BYTES);
}

std::string NewIdentifier()
{
    std::string bytes(kIdentifierSize / 2, '\0');
    randombytes_buf(bytes.data(), bytes.size());
    std::string identifier = Hex(bytes);
    sodium_memzero(bytes.data(), bytes.size());
    return identifier;
}

SessionState StateOf(std::string_view text)
{
    if (text == "live") {
        return SessionState::Live;
    }
    return text == "code_required" ? SessionState::CodeRequired : SessionState::EnrolmentRequired;
}

struct Row {
    uint32_t account = 0;
    SessionState state = SessionState::Live;
    int64_t opened = 0;
    int64_t seen = 0;
    bool secondStep = false;
    int64_t confirmed = 0;
    int64_t generation = 0;
};

Row RowOf(const Statement& found)
{
    Row row;
    row.account = static_cast<uint32_t>(found.Int(0));
    row.state = StateOf(found.Text(1));
    row.opened = found.Int(2);
    row.seen = found.Int(3);
    row.secondStep = found.Int(4) != 0;
    row.confirmed = found.Int(5);
    row.generation = found.Int(6);
    return row;
}

// Rows of an earlier start of the machine are not found: their times mean nothing now.
std::optional<Row> ReadRow(std::string_view id)
{
    Statement find = SigninDatabase().Prepare("SELECT account, state, opened, seen, second_step, confirmed,"
                                              " generation FROM session WHERE id = ?1 AND boot = ?2");
    find.BindBlob(1, id).Bind(2, BootId());
    if (!find.Step()) {
        return std::nullopt;
    }
    return RowOf(find);
}

// Seconds left; none or fewer for one that has ended. A row from the future is as dead as one from the past.
int64_t SecondsLeft(const Row& row, const Limits& limits, int64_t now)
{
    if (row.opened > now || row.seen > now) {
        return 0;
    }
    switch (row.state) {
    case SessionState::CodeRequired:
        return row.opened + kCodeRequiredSeconds - now;
    case SessionState::EnrolmentRequired:
        return row.opened + kEnrolmentRequiredSeconds - now;
    case SessionState::Live:
        break;
    }
    return std::min(row.seen + limits.idle, row.opened + limits.lifetime) - now;
}

// Of the rows found here none can be live any more: they belong to another start of the machine, or nobody
// has come with them for longer than any state lasts. Gives how many went.
int64_t ClearOld(Database& db, int64_t now)
{
    int64_t cleared = 0;
    // Apart: put together by OR they cost several times as much, even when there is nothing to clear.
    for (const char* const otherBoot :
         {"DELETE FROM session WHERE id IN (SELECT id FROM session WHERE boot < ?1 LIMIT ?2)",
          "DELETE FROM session WHERE id IN (SELECT id FROM session WHERE boot > ?1 LIMIT ?2)"}) {
        db.Prepare(otherBoot).Bind(1, BootId()).Bind(2, kClearedAtOnce).Run();
        cleared += db.Changes();
    }
    Statement old = db.Prepare("DELETE FROM session WHERE id IN"
                               " (SELECT id FROM session WHERE boot = ?1 AND seen < ?2 LIMIT ?3)");
    old.Bind(1, BootId()).Bind(2, now - std::max(Limits().idle, kEnrolmentRequiredSeconds));
    old.Bind(3, kClearedAtOnce).Run();
    return cleared + db.Changes();
}

const char* ProofText(bool secondStep, bool confirmedNow)
{
    if (confirmedNow) {
        return "enrolment";
    }
    return secondStep ? "code" : "password";
}

// Asked inside the transaction that opens a session: what the request knows of the account may be old by now.
// Enrolling ends the account's sessions, so none that knows the password alone can stay.
bool EnrolledSince(Database& db, const Account& account)
{
    Statement find =
        db.Prepare("SELECT 1 FROM secret WHERE account = ?1 AND state IN ('confirmed', 'active')");
    return find.Bind(1, account.uid).Step();
}

// Sessions of local accounts end with the setting that says whose these are, or they lived again once it is
// changed back. Nobody need see the change itself: a session is opened after those of the other store have
// gone, and who still comes with one of these ends them all.
void EndSessionsOfOtherStore()
{
    const bool areSystem = AreSystemAccounts();
    const int64_t first = areSystem ? 0 : kFirstSystemNumber;
    const int64_t end = areSystem ? kFirstSystemNumber : kFirstDirectoryNumber;
    Database& db = SigninDatabase();
    const bool some = db.Prepare("SELECT 1 FROM session WHERE account >= ?1 AND account < ?2 LIMIT 1")
                          .Bind(1, first)
                          .Bind(2, end)
                          .Step();
    if (some) { // as a rule there are none, which a full disk must not turn into a fault
        db.Prepare("DELETE FROM session WHERE account >= ?1 AND account < ?2")
            .Bind(1, first)
            .Bind(2, end)
            .Run();
    }
}

bool IsOfOtherStore(uint32_t account)
{
    return account < kFirstDirectoryNumber && (account >= kFirstSystemNumber) != AreSystemAccounts();
}

// The account that a session may be of: as it stands now, if that is what the session was opened on.
std::optional<Account> FindOwner(uint32_t uid, int64_t generation)
{
    std::optional<Account> account = FindAccount(uid);
    const bool same = account && !account->disabled && account->generation == generation;
    return same ? std::move(account) : std::nullopt;
}

// Takes the half sign-in that a session is opened on; false: it has ended, or has led to a session already.
bool TakeHalf(Database& db, const Session& half)
{
    db.Prepare("DELETE FROM session WHERE id = ?1").BindBlob(1, half.id).Run();
    return db.Changes() == 1;
}

struct NewSession {
    const Account& account;
    SessionState state;
    const Session* half = nullptr;
    bool secondStep = false;
    bool confirmedNow = false;
};

void Insert(Database& db, const NewSession& session, const std::string& id, int64_t now)
{
    Statement insert = db.Prepare(
        "INSERT INTO session (id, account, state, boot, opened, seen, second_step, confirmed, generation)"
        " VALUES (?1, ?2, ?3, ?4, ?5, ?5, ?6, ?7, ?8)");
    insert.BindBlob(1, id).Bind(2, session.account.uid).Bind(3, TextOf(session.state)).Bind(4, BootId());
    insert.Bind(5, now).Bind(6, session.secondStep ? 1 : 0).Bind(7, session.confirmedNow ? now : 0);
    insert.Bind(8, session.account.generation).Run();
}

struct Opening {
    Grant grant = Grant::Opened;
    std::string identifier;              // with Opened
    std::optional<AuditedGrant> audited; // to be told of when it is durable
};

// A new row and the identifier that stands for it, in the caller's transaction. Whoever changes the account
// after it was looked at here raises its generation, with which this row is dead.
Opening OpenIn(Transaction& /*inside*/, const NewSession& session)
{
    Database& db = SigninDatabase();
    const int64_t now = BootSeconds();
    if (!FindOwner(session.account.uid, session.account.generation) ||
        (session.half != nullptr && !TakeHalf(db, *session.half))) {
        return {Grant::Ended, {}, {}};
    }
    const bool isLive = session.state == SessionState::Live;
    if (isLive && !session.secondStep && EnrolledSince(db, session.account)) {
        return {Grant::SecondStepMissing, {}, {}};
    }
    if (session.half == nullptr) { // a password has just been compared, beside which this is nothing
        ClearOld(db, now);
    }
    Opening opening;
    opening.identifier = NewIdentifier();
    Insert(db, session, HashOf(opening.identifier), now);
    if (isLive) {
        opening.audited.emplace(AuditEvent::SignIn, session.account,
                                ProofText(session.secondStep, session.confirmedNow));
    }
    return opening;
}

// Durable when this returns.
Opening Open(const NewSession& session)
{
    if (session.account.kind == kKindLocal) {
        EndSessionsOfOtherStore();
    }
    Transaction transaction(SigninDatabase());
    Opening opening = OpenIn(transaction, session);
    if (opening.grant == Grant::Opened) {
        transaction.Commit();
    }
    return opening;
}

// What was opened counts for this request from here on.
Grant Take(const Opening& opening)
{
    if (opening.audited) {
        opening.audited->Committed();
    }
    CurrentRequest().newSid = opening.identifier;
    return opening.grant;
}

void Renew(const std::string& id, Row& row, const Limits& limits, int64_t now)
{
    if (row.state != SessionState::Live || now - row.seen < std::min(limits.idle / 10, kLongestRenewal)) {
        return;
    }
    Statement renew = SigninDatabase().Prepare("UPDATE session SET seen = ?2 WHERE id = ?1 AND seen < ?2");
    renew.BindBlob(1, id).Bind(2, now).Run();
    row.seen = now;
}

} // namespace

const char* TextOf(SessionState state)
{
    switch (state) {
    case SessionState::Live:
        return "live";
    case SessionState::CodeRequired:
        return "code_required";
    case SessionState::EnrolmentRequired:
        return "enrolment_required";
    }
    return "";
}

bool SecondStepMissing(const Account& account)
{
    const Request& request = CurrentRequest();
    if (request.codeOf == account.uid) {
        return false;
    }
    // An account of which nothing is known is not let in on its password.
    const bool known = request.facts && request.facts->account == account.uid;
    return !known || request.facts->enrolled || request.facts->demanded;
}

Grant OpenSession(const Account& account)
{
    if (SecondStepMissing(account)) {
        return Grant::SecondStepMissing;
    }
    Request& request = CurrentRequest();
    const bool secondStep = request.codeOf == account.uid;
    if (secondStep && Settle(account).enrolment != Enrolment::Yes) {
        return Grant::Fault;
    }
    if (request.fault != Fault::None) {
        return Grant::Fault; // something that the answer rests on could not be looked up
    }
    // The library asks for codes of waiting secrets only, so an accepted one of its own confirmed an
    // enrolment.
    const bool confirmed =
        secondStep && LastLibraryAnswer() && LastLibraryAnswer()->result == CodeResult::Accepted;
    try {
        return Take(Open({account, SessionState::Live, nullptr, secondStep, confirmed}));
    } catch (const DatabaseError& error) {
        syslog(LOG_ERR, "cannot open a session for %s: %s", account.name.c_str(), error.what());
        NoteFault(Fault::StateUnavailable);
        return Grant::Fault;
    }
}

FinishedSignIn FinishSignIn(const Session& half, std::string_view code)
{
    Opening opening;
    FinishedSignIn finished;
    finished.code = VerifyCode(half.account, code, [&](Transaction& inside) {
        const bool isKnown = CurrentRequest().fault == Fault::None; // what the answer rests on
        opening = isKnown ? OpenIn(inside, {half.account, SessionState::Live, &half, true})
                          : Opening{Grant::Fault, {}, {}};
    });
    if (finished.code.result == CodeResult::Accepted) {
        finished.grant = Take(opening);
    }
    return finished;
}

std::string OpenPending(const Account& account, SessionState state)
{
    return Open({account, state}).identifier;
}

std::optional<Session> FindSession(std::string_view identifier)
{
    if (identifier.size() != kIdentifierSize) {
        return std::nullopt;
    }
    Session session;
    session.id = HashOf(identifier);
    std::optional<Row> row = ReadRow(session.id);
    const Limits limits;
    const int64_t now = BootSeconds();
    if (!row || SecondsLeft(*row, limits, now) <= 0) {
        return std::nullopt;
    }
    if (IsOfOtherStore(row->account)) {
        EndSessionsOfOtherStore();
        return std::nullopt;
    }
    std::optional<Account> account = FindOwner(row->account, row->generation);
    if (!account) {
        return std::nullopt;
    }
    Renew(session.id, *row, limits, now);
    session.state = row->state;
    session.account = std::move(*account);
    session.token = TokenOf(identifier);
    session.expiresIn = SecondsLeft(*row, limits, now);
    session.secondStep = row->secondStep;
    session.confirmedBoot = row->confirmed;
    return session;
}

void ClearSessions()
{
    for (int i = 0; i < kBatches && ClearOld(SigninDatabase(), BootSeconds()) > 0; ++i) {
    }
}

void EndSession(const Session& session)
{
    SigninDatabase().Prepare("DELETE FROM session WHERE id = ?1").BindBlob(1, session.id).Run();
}

int64_t EndSessionsOf(uint32_t account)
{
    Database& db = SigninDatabase();
    db.Prepare("DELETE FROM session WHERE account = ?1").Bind(1, account).Run();
    return db.Changes();
}

std::vector<ListedSession> ListSessions(std::optional<uint32_t> account)
{
    const Limits limits;
    const int64_t now = BootSeconds();
    std::vector<ListedSession> sessions;
    Statement list = SigninDatabase().Prepare(
        "SELECT account, state, opened, seen, second_step, confirmed, generation, id FROM session"
        " WHERE boot = ?1 AND (?2 IS NULL OR account = ?2) ORDER BY account, opened");
    list.Bind(1, BootId());
    account ? list.Bind(2, int64_t{*account}) : list.BindNull(2);
    while (list.Step()) {
        const Row row = RowOf(list);
        const int64_t left = SecondsLeft(row, limits, now);
        std::optional<Account> owner = left > 0 ? FindOwner(row.account, row.generation) : std::nullopt;
        if (owner) {
            sessions.push_back({Hex(list.Text(7).substr(0, kHandleBytes)), std::move(*owner), row.state,
                                row.secondStep, now - row.opened, now - row.seen, left});
        }
    }
    return sessions;
}

std::optional<Account> EndSessionByHandle(std::string_view handle)
{
    unsigned char first[kHandleBytes] = {};
    size_t size = 0;
    if (sodium_hex2bin(first, sizeof first, handle.data(), handle.size(), nullptr, &size, nullptr) != 0 ||
        size != sizeof first) {
        return std::nullopt;
    }
    const std::string least(reinterpret_cast<const char*>(first), sizeof first);
    Statement end = SigninDatabase().Prepare(
        "DELETE FROM session WHERE id >= ?1 AND id <= ?2 AND boot = ?3 RETURNING account");
    end.BindBlob(1, least).BindBlob(2, least + std::string(crypto_generichash_BYTES, '\xff'));
    end.Bind(3, BootId());
    if (!end.Step()) {
        return std::nullopt;
    }
    const auto account = static_cast<uint32_t>(end.Int(0));
    end.Run();
    return FindAccount(account);
}

std::string TokenOf(std::string_view identifier)
{
    return Hex(Derive("tavr request token", identifier, crypto_generichash_BYTES));
}

} // namespace tavr
