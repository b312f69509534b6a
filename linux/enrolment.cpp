#include "linux/enrolment.h"

#include "linux/account_lock.h"
#include "linux/attempts.h"
#include "linux/cipher.h"
#include "linux/clock.h"
#include "linux/ids.h"
#include "linux/names.h"
#include "linux/new_file.h"
#include "linux/paths.h"
#include "linux/session.h"
#include "linux/vault.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <unordered_map>

namespace tavr
{

namespace
{

// --- The account's permanent place ---

struct Preference {
    Descriptor directory; // empty: see `absent`
    bool absent = false;  // certainly not there; otherwise it cannot be used
};

// A preference directory is the service's own and nobody else writes in it.
Preference OpenPreference(const Account& account)
{
    Preference preference;
    preference.directory = OpenDirectoryNoLinks(PreferencePath(account.name));
    preference.absent = !preference.directory && errno == ENOENT;
    struct stat what {
    };
    if (preference.directory && (fstat(preference.directory.Get(), &what) != 0 || what.st_uid != geteuid() ||
                                 (what.st_mode & (S_IWGRP | S_IWOTH)) != 0)) {
        preference.directory = Descriptor();
    }
    return preference;
}

FoundFile ReadPlace(const Preference& preference)
{
    if (!preference.directory) {
        return {preference.absent ? Found::Nothing : Found::NotOurs, {}};
    }
    return ReadOwnFile(preference.directory, kSecretFileName);
}

void WritePlace(const Preference& preference, const std::string& text)
{
    if (!preference.directory) {
        throw VaultError(Fault::SecretFile);
    }
    NewFile file(preference.directory, kSecretFileName);
    if (!file.Write(text) || !file.PutInPlace(AtPlace::Replace)) {
        const bool noRoom = errno == ENOSPC || errno == EDQUOT || errno == EROFS;
        throw VaultError(noRoom ? Fault::StateUnavailable : Fault::SecretFile);
    }
}

void ClearPlace(const Preference& preference)
{
    if (preference.absent) {
        return;
    }
    const Descriptor directory(openat(preference.directory.Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory || (unlinkat(directory.Get(), kSecretFileName, 0) != 0 && errno != ENOENT) ||
        fsync(directory.Get()) != 0) {
        throw VaultError(Fault::SecretFile);
    }
}

// --- What a file says of a secret ---

std::string TextOf(const StoredSecret& secret)
{
    SecretFileText file{secret.reference, {}};
    for (const CodeLine& code : secret.codes) {
        if (!code.spent) {
            file.codes.push_back(code.reference);
        }
    }
    return RenderSecretFile(file);
}

// How what stands at the place stands to the secret; one that is not there is carried by nothing.
Match MatchOf(const FoundFile& found, const StoredSecret* secret)
{
    return secret == nullptr ? Match::Other : MatchSecretFile(found.text, secret->reference, secret->codes);
}

bool IsCarried(Match match)
{
    return match == Match::Whole || match == Match::WithSpent;
}

template<typename Secrets>
auto* Find(Secrets& secrets, SecretState state)
{
    const auto found = std::find_if(secrets.begin(), secrets.end(),
                                    [state](const StoredSecret& secret) { return secret.state == state; });
    return found == secrets.end() ? nullptr : &*found;
}

EnrolmentState Enrolled(StoredSecret&& secret)
{
    secret.state = SecretState::Active; // by now
    const auto left = std::count_if(secret.codes.begin(), secret.codes.end(),
                                    [](const CodeLine& code) { return !code.spent; });
    return {Enrolment::Yes, Fault::None, static_cast<int>(left), std::move(secret)};
}

// Spent codes are dead whether or not the file names them: one that cannot be written now is tidied by a
// later question, and keeps nobody out.
void DropSpentLines(const Preference& preference, const StoredSecret& secret)
{
    try {
        WritePlace(preference, TextOf(secret));
    } catch (const VaultError& error) {
        LogFault(error.fault, "spent codes stay in the secret file");
    }
}

// All at once: the secret takes its place, sessions that were opened without it end, and the audit has it.
void Activate(const Account& account, const StoredSecret& confirmed, AuditEvent event)
{
    Transaction transaction(SigninDatabase());
    MakeActive(transaction, confirmed);
    EndSessionsOf(account.uid);
    const AuditedGrant audited(event, account, "-");
    transaction.Commit();
    audited.Committed();
}

EnrolmentState SettleLocked(const Account& account)
{
    const Preference preference = OpenPreference(account);
    if (!preference.directory && !preference.absent) {
        throw VaultError(Fault::SecretFile);
    }
    bool isSwitchingOff = false;
    std::vector<StoredSecret> secrets = SecretsOf(account.uid, &isSwitchingOff);
    if (isSwitchingOff) {
        ClearPlace(preference);
        FinishSwitchingOff(account.uid);
        if (CurrentRequest().codeOf == account.uid) {
            CurrentRequest().codeOf.reset(); // of a secret that is no more: it proves nothing from here on
        }
        return {Enrolment::No};
    }
    const FoundFile found = ReadPlace(preference);
    if (found.found == Found::NotOurs) {
        throw VaultError(Fault::SecretFile);
    }
    StoredSecret* active = Find(secrets, SecretState::Active);
    StoredSecret* confirmed = Find(secrets, SecretState::Confirmed);
    if (active == nullptr && confirmed == nullptr) {
        if (found.found == Found::Text) {
            throw VaultError(Fault::SecretFile);
        }
        return {Enrolment::No};
    }
    Match ofActive = MatchOf(found, active);
    Match ofConfirmed = MatchOf(found, confirmed);
    if (ofActive == Match::Part || ofConfirmed == Match::Part) { // absent, or cut short
        WritePlace(preference, TextOf(active != nullptr ? *active : *confirmed));
        (active != nullptr ? ofActive : ofConfirmed) = Match::Whole;
    }
    if (IsCarried(ofActive)) {
        if (ofActive == Match::WithSpent) {
            DropSpentLines(preference, *active);
        }
        return Enrolled(std::move(*active));
    }
    if (IsCarried(ofConfirmed)) {
        Activate(account, *confirmed, active == nullptr ? AuditEvent::Enrolled : AuditEvent::Renewed);
        return Enrolled(std::move(*confirmed));
    }
    throw VaultError(Fault::SecretFile);
}

// --- Waiting secrets ---

bool IsFresh(const StoredSecret& secret)
{
    return secret.madeBoot == BootId() && BootSeconds() - secret.made < kWaitingSeconds;
}

// Only what is our own regular file goes; the tool says what is wrong with anything else.
void RemoveWaitingFile(const Descriptor& directory, const std::string& name)
{
    struct stat what {
    };
    if (directory && fstatat(directory.Get(), name.c_str(), &what, AT_SYMLINK_NOFOLLOW) == 0 &&
        S_ISREG(what.st_mode) && what.st_uid == geteuid()) {
        unlinkat(directory.Get(), name.c_str(), 0);
    }
}

std::optional<uint32_t> AccountOfWaitingFile(std::string_view name)
{
    const std::string_view prefix = kWaitingFilePrefix;
    uint32_t account = 0;
    if (!name.starts_with(prefix)) {
        return std::nullopt;
    }
    const auto [end, error] =
        std::from_chars(name.data() + prefix.size(), name.data() + name.size(), account);
    if (error != std::errc() || name != WaitingFileName(account) || end != name.data() + name.size()) {
        return std::nullopt;
    }
    return account;
}

std::vector<uint32_t> AccountsWithWaitingFile()
{
    struct CloseDir {
        void operator()(DIR* dir) const noexcept { closedir(dir); }
    };
    std::vector<uint32_t> accounts;
    const std::unique_ptr<DIR, CloseDir> directory(opendir(kWaitingDir));
    while (directory) {
        const dirent* entry = readdir(directory.get()); // NOLINT(concurrency-mt-unsafe): no threads here
        if (entry == nullptr) {
            break;
        }
        if (const auto account = AccountOfWaitingFile(entry->d_name)) {
            accounts.push_back(*account);
        }
    }
    return accounts;
}

// A file goes when no row of its account can be confirmed with it.
void RemoveDeadFile(uint32_t account)
{
    const std::vector<StoredSecret> secrets = SecretsOf(account);
    if (Find(secrets, SecretState::Waiting) == nullptr && Find(secrets, SecretState::Confirmed) == nullptr) {
        RemoveWaitingFile(OpenDirectoryNoLinks(kWaitingDir), WaitingFileName(account));
    }
}

void ClearWaitingOf(uint32_t uid, Clear which)
{
    const AccountLock lock(uid);
    if (!lock.Held()) {
        throw DatabaseError(0, "the account's lock cannot be had");
    }
    const std::vector<StoredSecret> secrets = SecretsOf(uid);
    const StoredSecret* waiting = Find(secrets, SecretState::Waiting);
    if (waiting == nullptr || (which == Clear::TooOld && IsFresh(*waiting))) {
        return;
    }
    const std::optional<Account> account = FindAccount(uid);
    if (account.has_value() && Settle(*account).enrolment == Enrolment::Fault) {
        return;
    }
    RetireWaitingSecret(uid);
}

void RequireServiceIds(const EffectiveIds& ids)
{
    if (!ids.Changed()) {
        throw DatabaseError(0, "the service's ids cannot be taken");
    }
}

} // namespace

// --- AccountLock ---

namespace
{

struct HeldLock {
    Descriptor file;
    int depth = 0;
};

std::unordered_map<uint32_t, HeldLock>& HeldLocks()
{
    static std::unordered_map<uint32_t, HeldLock> locks;
    return locks;
}

Descriptor TakeLock(uint32_t account, LockWait wait)
{
    const EffectiveIds service = EffectiveIds::Service();
    return service.Changed() ? LockAccount(account, wait) : Descriptor();
}

bool IsStillCalledSo(const Account& account)
{
    if (account.kind == kKindLocal) {
        return true;
    }
    try {
        const std::optional<Account> byNow = FindAccount(account.uid);
        return byNow && byNow->name == account.name;
    } catch (const DatabaseError& error) {
        syslog(LOG_ERR, "it cannot be told what %s is called by now: %s", account.name.c_str(), error.what());
        return false;
    }
}

} // namespace

AccountLock::AccountLock(uint32_t account) : account_(account)
{
    HeldLock& lock = HeldLocks()[account];
    if (lock.depth == 0) {
        lock.file = TakeLock(account, LockWait::Forever);
    }
    held_ = static_cast<bool>(lock.file);
    ++lock.depth;
}

AccountLock::AccountLock(const Account& account) : AccountLock(account.uid)
{
    held_ = held_ && IsStillCalledSo(account);
}

AccountLock::~AccountLock()
{
    if (--HeldLocks()[account_].depth == 0) {
        HeldLocks().erase(account_);
    }
}

bool AccountLock::Held() const
{
    return held_;
}

void AccountLocks::Take(uint32_t account)
{
    if (held_.contains(account)) {
        return;
    }
    Descriptor lock = TakeLock(account, LockWait::Not);
    if (!lock) {
        throw AccountInUse();
    }
    held_.emplace(account, std::move(lock));
}

// --- Settling ---

EnrolmentState Settle(const Account& account)
{
    const EffectiveIds service = EffectiveIds::Service();
    const AccountLock lock(account);
    EnrolmentState state{Enrolment::Fault, Fault::StateUnavailable};
    if (service.Changed() && lock.Held()) {
        state.fault = FaultIn([&] { state = SettleLocked(account); });
    }
    if (state.fault != Fault::None) {
        state = {Enrolment::Fault, state.fault};
        NoteFault(state.fault);
    }
    return state;
}

FoundFile FindSecretFile(const Account& account)
{
    const EffectiveIds service = EffectiveIds::Service();
    return service.Changed() ? ReadPlace(OpenPreference(account)) : FoundFile();
}

// --- Waiting secrets ---

std::string WaitingFileName(uint32_t account)
{
    return kWaitingFilePrefix + std::to_string(account);
}

std::optional<WaitingSecret> FindWaiting(uint32_t account)
{
    const std::vector<StoredSecret> secrets = SecretsOf(account);
    const StoredSecret* secret = Find(secrets, SecretState::Waiting);
    if (secret == nullptr) {
        secret = Find(secrets, SecretState::Confirmed);
    }
    if (secret == nullptr || !IsFresh(*secret)) {
        return std::nullopt;
    }
    return WaitingSecret{secret->reference, secret->session, secret->made};
}

bool ClaimWaiting(uint32_t account, std::string_view session, std::string_view keyBase32)
{
    const std::vector<StoredSecret> secrets = SecretsOf(account);
    const StoredSecret* waiting = Find(secrets, SecretState::Waiting);
    if (waiting == nullptr || !IsFresh(*waiting)) {
        return false;
    }
    if (!keyBase32.empty() && SecretText(account, waiting->reference) != keyBase32) {
        return false;
    }
    return ClaimWaitingSecret(*waiting, session);
}

void RetireWaiting(uint32_t account)
{
    const EffectiveIds service = EffectiveIds::Service();
    RequireServiceIds(service);
    const AccountLock lock(account);
    if (!lock.Held()) {
        throw DatabaseError(0, "the account's lock cannot be had");
    }
    RetireWaitingSecret(account);
}

void DropWaiting(uint32_t account)
{
    const EffectiveIds service = EffectiveIds::Service();
    RequireServiceIds(service);
    const AccountLock lock(account);
    RetireWaiting(account);
    RemoveDeadFile(account);
}

void ClearWaiting(Clear which)
{
    const EffectiveIds service = EffectiveIds::Service();
    RequireServiceIds(service);
    for (const uint32_t account : AccountsWithWaiting()) {
        ClearWaitingOf(account, which);
    }
    for (const uint32_t account : AccountsWithWaitingFile()) {
        const AccountLock lock(account);
        RemoveDeadFile(account);
    }
}

int64_t MarkSwitchingOff(const Account& account, std::optional<AuditEvent> event, const char* detail)
{
    const EffectiveIds service = EffectiveIds::Service();
    RequireServiceIds(service);
    const AccountLock lock(account);
    if (!lock.Held()) {
        throw DatabaseError(0, "the account's lock cannot be had");
    }
    Transaction transaction(SigninDatabase());
    MarkAsSwitchingOff(account.uid);
    const int64_t ended = EndSessionsOf(account.uid);
    std::optional<AuditedGrant> audited;
    if (event) {
        audited.emplace(*event, account, detail);
    }
    transaction.Commit();
    if (audited) {
        audited->Committed();
    }
    return ended;
}

// Marked first: whoever asks after a cut try finishes it.
Reset ResetSecondStep(const Account& account, const char* detail)
{
    Reset reset;
    reset.sessionsEnded = MarkSwitchingOff(account, AuditEvent::Reset, detail);
    reset.state = Settle(account);
    if (reset.state.enrolment == Enrolment::No) {
        OpenSecondStep(account);
    }
    return reset;
}

} // namespace tavr
