// Who must use two-step sign-in: the option and the picks' file, and what our programs put around the
// library's functions, which lock nothing, rewrite the file in place and take a broken one for an empty one.
//
//     AskPolicy(OTPEnforceIsEnabled, name)
//     {
//         const PolicyReading policy;                    // readers side by side
//         if (policy.Usable()) { OTPEnforceCustomSettingList(...) }
//     }
//     {
//         PolicyWriting policy;                          // alone
//         done = policy.Usable() && OTPEnforceCustomSettingSet(...) == 0 && policy.Commit(&administrator);
//     }
//
// The library's functions are called in no other way, and no scope stands inside another. The effective ids
// are the service's until it ends.
//
// A scope looks at the file before anything is read. What does not hold a last good copy's content is
//   - restored from the copy, if it is no picks (below) or gone; what stood there is kept, as .broken;
//   - taken as the new copy, if it is picks: somebody else has changed it.
// Both are told in log and audit. The look costs one stat() while nothing has changed.
//
// Picks are a regular file of at most 32 MiB that ParsePicks (picks.h) takes. Without a copy an absent file
// is no picks yet; any other that is no picks makes the policy unusable.
//
// A process that is killed at any point, and a disk that is full, leave the content before or the one after,
// for the next scope at the latest.
#pragma once

#include "linux/accounts.h"
#include "linux/file_lock.h"
#include "linux/file_stamp.h"
#include "linux/ids.h"
#include "linux/new_file.h"

#include <optional>
#include <string>
#include <string_view>

namespace tavr
{

// --- The picks ---

// The lock: waits some seconds for it.
class PolicyLock
{
public:
    bool Take(LockKind kind); // what was held before is given back first
    bool MakeShared();        // of an exclusive one, without anybody getting in between

private:
    Descriptor file_;
};

class PolicyReading
{
public:
    PolicyReading();
    PolicyReading(const PolicyReading&) = delete;
    PolicyReading& operator=(const PolicyReading&) = delete;

    // False: no lock, or nothing that may be read; the log says why. Whoever has to give an answer then notes
    // Fault::PolicyUnavailable.
    [[nodiscard]] bool Usable() const { return usable_; }

    // Whether the file is still the one that was found usable: an editor knows no lock, and what was read
    // while one was at it may have been half a file.
    [[nodiscard]] bool Unchanged() const;

private:
    const EffectiveIds service_ = EffectiveIds::Service();
    PolicyLock lock_;
    bool usable_ = false;
    std::optional<FileStamp> stamp_;
};

class PolicyWriting
{
public:
    PolicyWriting();
    ~PolicyWriting(); // puts back what stood there, if the file was written and not committed
    PolicyWriting(const PolicyWriting&) = delete;
    PolicyWriting& operator=(const PolicyWriting&) = delete;

    // False: no lock, nothing that may be changed, or no room to put it back; the log says why, nothing has
    // changed. As in PolicyReading.
    [[nodiscard]] bool Usable() const { return usable_; }
    [[nodiscard]] bool Locked() const { return locked_; } // enough for the option, which needs no picks

    // After the library's writer: takes what stands in the file as the new copy, all of it durable, and puts
    // each number that came or went into the audit as `who`'s doing (null: the console's). False: that could
    // not be done, and the file is as before.
    [[nodiscard]] bool Commit(const Account* who);

private:
    bool PrepareToPutBack();

    const EffectiveIds service_ = EffectiveIds::Service();
    PolicyLock lock_;
    bool locked_ = false;
    bool usable_ = false;
    std::string before_;
    Descriptor folder_;
    std::optional<NewFile> putBack_; // `before_`, ready to be put in place
};

// --- The decision ---

// The library's (OTPEnforceIsEnabled, handed in), in a PolicyReading of its own. It takes what it could not
// look up for a "no"; here that is empty, logged, and Fault::PolicyUnavailable in the request. A "yes" is one
// whatever could not be looked up beside it.
std::optional<bool> AskPolicy(bool (*decide)(const std::string& account), const std::string& account);

// --- The option ---

// "user", "admin" or "custom"; "none" for whatever else stands in the settings, which is nobody.
std::string PolicyOption();
bool IsPolicyOption(std::string_view text); // one of these four

// Writes it into the system settings, under the policy's lock, with a row in the audit. "custom" only with
// picks that can be used. Unless Done nothing has changed; the log or the platform error record says why.
enum class OptionChange { Done, PicksUnusable, NotWritten };
OptionChange ChangePolicyOption(std::string_view option, const Account* who);

} // namespace tavr
