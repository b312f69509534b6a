#include "linux/policy_file.h"

#include "linux/audit.h"
#include "linux/file_lock.h"
#include "linux/paths.h"
#include "linux/picks.h"
#include "linux/request.h"
#include "linux/settings.h"

#include <fcntl.h>
#include <syslog.h>

#include <algorithm>
#include <iterator>
#include <vector>

namespace tavr
{

namespace
{

constexpr char kOptionKey[] = "otp_enforce_option";
constexpr const char* kFileName = kPolicyFile + sizeof kDataDir;      // behind folder and slash
constexpr const char* kCopyName = kPolicyCopyFile + sizeof kStateDir; // likewise
constexpr char kBrokenEnd[] = ".broken";
constexpr mode_t kFileMode = 0644;
constexpr size_t kMaxSize = 32 << 20; // two million accounts and more
constexpr char kNoPicks[] = "{}\n";
constexpr const char* kOptions[] = {"none", "user", "admin", "custom"};

constexpr int kTries = 5; // of a decision, while somebody writes the file who knows no lock

// Bytes of the lock's file. Whoever wants the policy passes the gate first, so that readers who come one
// after the other do not keep a writer out.
constexpr off_t kGate = 0;
constexpr off_t kPolicy = 1;

// --- Looking ---

// The state of the file that was last found good by this process, if no later one can have the same stamp.
std::optional<FileStamp>& KnownGood()
{
    static std::optional<FileStamp> stamp;
    return stamp;
}

void Remember(const FileStamp& stamp)
{
    const bool tells = stamp != FileStamp() && !IsJustNow(stamp.changed);
    KnownGood() = tells ? std::optional(stamp) : std::nullopt;
}

// That of no file where there is none.
FileStamp PresentStamp()
{
    struct stat entry {
    };
    return lstat(kPolicyFile, &entry) == 0 ? StampOf(entry) : FileStamp();
}

enum class Finding {
    Good,     // picks, and the copy's content
    NoneYet,  // neither file nor copy
    Changed,  // picks, and not the copy's content, or there is no copy
    Broken,   // no picks, or gone, and the copy holds picks
    Hopeless, // likewise, and the copy holds none
    Unknown,  // it cannot be told what is there
};

struct Look {
    Finding finding = Finding::Unknown;
    bool gone = false;
    bool copied = false; // there is a copy that holds picks
    std::string text;    // the file's, with Good and Changed
    std::string copy;
    FileStamp stamp; // of `text`
};

Finding FindingOf(StampedRead file, StampedRead copy, Look& look)
{
    if (file == StampedRead::Failed) {
        return Finding::Unknown;
    }
    const bool read = file == StampedRead::Done;
    if (read && copy == StampedRead::Done && look.text == look.copy) {
        return Finding::Good; // nothing becomes a copy that is no picks
    }
    look.gone = file == StampedRead::Absent;
    look.copied = copy == StampedRead::Done && ParsePicks(look.copy).has_value();
    if (read && ParsePicks(look.text)) {
        return Finding::Changed;
    }
    if (look.copied) {
        return Finding::Broken;
    }
    return look.gone && copy == StampedRead::Absent ? Finding::NoneYet : Finding::Hopeless;
}

Look LookAtFile()
{
    Look look;
    FileStamp copyStamp;
    const StampedRead file = ReadStamped(kPolicyFile, O_NOFOLLOW, kMaxSize, look.text, look.stamp);
    const StampedRead copy = ReadStamped(kPolicyCopyFile, O_NOFOLLOW, kMaxSize, look.copy, copyStamp);
    look.finding = FindingOf(file, copy, look);
    return look;
}

// --- Mending, under the exclusive lock ---

bool StoreCopy(std::string_view text)
{
    const Descriptor folder = OpenDirectoryNoLinks(kStateDir);
    NewFile copy(folder, kCopyName);
    return folder && copy.Write(text) && copy.PutInPlace(AtPlace::Replace);
}

// What stands there is kept: it may be somebody's work.
bool StoreFile(std::string_view text)
{
    const Descriptor folder = OpenDirectoryNoLinks(kDataDir);
    NewFile file(folder, kFileName, kFileMode);
    if (!folder || !file.Write(text)) {
        return false;
    }
    renameat(folder.Get(), kFileName, folder.Get(), (std::string(kFileName) + kBrokenEnd).c_str());
    return file.PutInPlace(AtPlace::Replace);
}

// What is to be told once the lock is no longer exclusive.
struct Report {
    std::optional<AuditEvent> event;
    const char* detail = "-";
};

void Tell(const Report& report)
{
    if (report.event) {
        Audit(*report.event, std::string_view(), report.detail);
    }
}

void Adopt(Look& look, Report& report)
{
    if (!StoreCopy(look.text)) {
        // Not to be read without a copy: if it broke next, the one from before would be put in its place.
        syslog(LOG_ERR, "%s has changed and cannot be copied to %s: %m", kPolicyFile, kPolicyCopyFile);
        return;
    }
    if (look.copied) {
        syslog(LOG_WARNING, "%s was changed by somebody else, and is taken as it stands", kPolicyFile);
        report = {AuditEvent::PolicyAdopted, "changed"};
    }
    look.finding = Finding::Good;
}

void Restore(Look& look, Report& report)
{
    if (!StoreFile(look.copy)) {
        syslog(LOG_ERR, "%s is %s and cannot be restored: %m", kPolicyFile, look.gone ? "gone" : "broken");
        return;
    }
    syslog(LOG_WARNING, "%s was %s, and is restored from its last good copy%s%s", kPolicyFile,
           look.gone ? "gone" : "broken", look.gone ? "" : "; what stood there has its name with ",
           look.gone ? "" : kBrokenEnd);
    report = {AuditEvent::PolicyRestored, look.gone ? "gone" : "broken"};
    look.finding = Finding::Good;
    look.text = look.copy;
    look.stamp = PresentStamp();
}

void Begin(Look& look)
{
    if (!StoreCopy(kNoPicks) || !StoreFile(kNoPicks)) {
        syslog(LOG_ERR, "%s cannot be made: %m", kPolicyFile);
        return;
    }
    look.finding = Finding::Good;
    look.text = kNoPicks;
    look.stamp = PresentStamp();
}

// Puts right what can be put right.
Report Mend(Look& look)
{
    Report report;
    if (look.finding == Finding::Changed) {
        Adopt(look, report);
    } else if (look.finding == Finding::Broken) {
        Restore(look, report);
    }
    return report;
}

// Whether the library may be let at it. What cannot be put right is told.
bool MayBeRead(const Look& look)
{
    switch (look.finding) {
    case Finding::Good:
        Remember(look.stamp);
        return true;
    case Finding::NoneYet:
        return true;
    case Finding::Changed: // told by Adopt
    case Finding::Broken:  // told by Restore
        return false;
    case Finding::Hopeless:
        syslog(LOG_ERR, "%s holds no picks and there is no good copy; put one back, or {} for no picks",
               kPolicyFile);
        return false;
    case Finding::Unknown:
        syslog(LOG_ERR, "%s cannot be read: %m", kPolicyFile);
        return false;
    }
    return false;
}

bool NeedsMending(const Look& look)
{
    return look.finding == Finding::Changed || look.finding == Finding::Broken;
}

bool PicksCount()
{
    return PolicyOption() == "custom";
}

// Empty: the library throws at a file that is no picks, as one may be that was changed since the look.
std::optional<bool> AskLibrary(bool (*decide)(const std::string& account), const std::string& account)
{
    try {
        return decide(account);
    } catch (const Json::Exception& error) {
        syslog(LOG_ERR, "policy for %s: %s", account.c_str(), error.what());
        return std::nullopt;
    }
}

// An editor may have put a file of its owner's there, which the library could read and not write.
bool MayBeWritten()
{
    return faccessat(AT_FDCWD, kPolicyFile, W_OK, AT_EACCESS) == 0;
}

bool SyncFile()
{
    const Descriptor file(open(kPolicyFile, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    return file && fsync(file.Get()) == 0;
}

} // namespace

// --- The lock ---

bool PolicyLock::Take(LockKind kind)
{
    file_ = OpenLockFile(kPolicyLockFile);
    const bool taken = file_ && LockByte(file_, kGate, kind, LockWait::AWhile) &&
                       LockByte(file_, kPolicy, kind, LockWait::AWhile);
    if (!taken) {
        syslog(LOG_ERR, "%s cannot be locked: %m", kPolicyLockFile);
        file_ = Descriptor();
        return false;
    }
    UnlockByte(file_, kGate);
    return true;
}

bool PolicyLock::MakeShared()
{
    return LockByte(file_, kPolicy, LockKind::Shared, LockWait::AWhile);
}

// --- Reading ---

PolicyReading::PolicyReading()
{
    if (!service_.Changed() || !lock_.Take(LockKind::Shared)) {
        return;
    }
    stamp_ = PresentStamp();
    if (stamp_ == KnownGood()) {
        usable_ = true;
        return;
    }
    Look look = LookAtFile();
    Report report;
    if (NeedsMending(look)) {
        if (!lock_.Take(LockKind::Exclusive)) {
            return;
        }
        look = LookAtFile(); // somebody else may have been quicker
        report = Mend(look);
        if (!lock_.MakeShared()) {
            return;
        }
    }
    Tell(report);
    usable_ = MayBeRead(look);
    stamp_ = look.stamp;
}

bool PolicyReading::Unchanged() const
{
    return PresentStamp() == stamp_;
}

// --- Writing ---

PolicyWriting::PolicyWriting()
{
    locked_ = service_.Changed() && lock_.Take(LockKind::Exclusive);
    if (!locked_) {
        return;
    }
    Look look = LookAtFile();
    Tell(Mend(look));
    if (look.finding == Finding::NoneYet) {
        Begin(look);
    }
    if (!MayBeRead(look) || look.finding != Finding::Good) {
        return;
    }
    folder_ = OpenDirectoryNoLinks(kDataDir);
    before_ = std::move(look.text);
    usable_ = PrepareToPutBack() &&
              (MayBeWritten() || (putBack_->PutInPlace(AtPlace::Replace) && PrepareToPutBack()));
    if (!usable_) {
        syslog(LOG_ERR, "%s is not changed, as it could not be put back: %m", kPolicyFile);
        putBack_.reset();
    }
}

bool PolicyWriting::PrepareToPutBack()
{
    putBack_.emplace(folder_, kFileName, kFileMode);
    return folder_ && putBack_->Write(before_);
}

PolicyWriting::~PolicyWriting()
{
    if (!putBack_) {
        return;
    }
    const Look look = LookAtFile();
    if (look.text != before_ && !putBack_->PutInPlace(AtPlace::Replace)) {
        syslog(LOG_ERR, "%s was not written whole and cannot be put back: %m", kPolicyFile);
    }
}

bool PolicyWriting::Commit(const Account* who)
{
    std::string text;
    FileStamp stamp;
    const StampedRead read = ReadStamped(kPolicyFile, O_NOFOLLOW, kMaxSize, text, stamp);
    const std::optional<Json::Value> after =
        usable_ && read == StampedRead::Done ? ParsePicks(text) : std::nullopt;
    if (!after) {
        syslog(LOG_ERR, "%s would hold no picks any more, and is put back", kPolicyFile);
        return false;
    }
    if (text != before_ && (!SyncFile() || !StoreCopy(text))) {
        syslog(LOG_ERR, "%s cannot be stored, and is put back: %m", kPolicyFile);
        return false;
    }
    usable_ = false;
    putBack_.reset();
    Remember(stamp);
    AuditPicks(who, ChangesBetween(ParsePicks(before_).value_or(Json::Value()), *after));
    return true;
}

// --- The decision ---

std::optional<bool> AskPolicy(bool (*decide)(const std::string& account), const std::string& account)
{
    Request& request = CurrentRequest();
    const Fault before = request.fault;
    for (int i = 0; i < kTries; ++i) {
        const PolicyReading policy;
        const bool mayAsk = policy.Usable() || !PicksCount();
        const std::optional<bool> answer = mayAsk ? AskLibrary(decide, account) : std::nullopt;
        if (answer && *answer) {
            request.fault = before;
            return true;
        }
        const bool unchanged = policy.Unchanged();
        if (answer && request.fault == before && (!PicksCount() || (policy.Usable() && unchanged))) {
            return false;
        }
        if (!policy.Usable() || unchanged) {
            break;
        }
    }
    syslog(LOG_ERR, "whether %s must use two-step sign-in cannot be told: %s", account.c_str(),
           request.fault == before ? "the picks cannot be used" : FaultText(request.fault));
    request.fault = Fault::PolicyUnavailable;
    return std::nullopt;
}

// --- The option ---

std::string PolicyOption()
{
    std::string option = Setting(kOptionKey, "");
    return IsPolicyOption(option) ? option : "none";
}

bool IsPolicyOption(std::string_view text)
{
    return std::find(std::begin(kOptions), std::end(kOptions), text) != std::end(kOptions);
}

OptionChange ChangePolicyOption(std::string_view option, const Account* who)
{
    const PolicyWriting policy;
    if (option == "custom" && !policy.Usable()) {
        return OptionChange::PicksUnusable;
    }
    if (!policy.Locked() || !IsPolicyOption(option) || !WriteSetting(kOptionKey, option)) {
        return OptionChange::NotWritten;
    }
    const char* const detail = *std::find(std::begin(kOptions), std::end(kOptions), option);
    who != nullptr ? Audit(AuditEvent::PolicyOption, *who, detail)
                   : Audit(AuditEvent::PolicyOption, std::string_view(), detail);
    return OptionChange::Done;
}

} // namespace tavr
