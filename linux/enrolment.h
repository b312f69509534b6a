// Whether an account is enrolled: a state of the vault, settled against its secret file by whoever asks.
#pragma once

#include "linux/accounts.h"
#include "linux/audit.h"
#include "linux/descriptor.h"
#include "linux/request.h"
#include "linux/vault.h"

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavr
{

// One writer for an account's secret at a time, over all processes (a lock on one byte of kAccountLockFile).
// Waits for it. Nests within a process. Held by a confirmation from before the handler until settled. The
// secret tool takes it too, in its own process: never hold it around a call that may start the tool
// (GetQRcodePage).
class AccountLock
{
public:
    explicit AccountLock(uint32_t account);
    // Not held where a directory's account is called otherwise by now: below the name that was looked up
    // stand another one's files, or none.
    explicit AccountLock(const Account& account);
    ~AccountLock();
    AccountLock(const AccountLock&) = delete;
    AccountLock& operator=(const AccountLock&) = delete;
    [[nodiscard]] bool Held() const; // false: the lock file cannot be used; treat as StateUnavailable

private:
    uint32_t account_;
    bool held_;
};

struct AccountInUse {
}; // somebody holds the account's lock

// The locks of accounts whose files are moved or deleted, until it is stored whose the names are: nobody
// writes there meanwhile, and who comes next sees that the name has changed. Not waited for, as who holds one
// may be waiting for the store.
class AccountLocks
{
public:
    void Take(uint32_t account); // once or more often; throws AccountInUse

private:
    std::map<uint32_t, Descriptor> held_;
};

enum class Enrolment { No, Yes, Fault };

struct EnrolmentState {
    Enrolment enrolment = Enrolment::Fault;
    Fault fault = Fault::None;                         // with Enrolment::Fault
    int codesLeft = 0;                                 // with Enrolment::Yes: emergency codes not yet spent
    std::optional<StoredSecret> active = std::nullopt; // with Enrolment::Yes: what vault and file agree on
};

// Settles the account under its lock and says what it is. Writes files with the service's ids, whatever ids
// the process has at the moment. A fault is noted in the request as well.
EnrolmentState Settle(const Account& account);

// What stands at the account's permanent place, read with the service's ids. Found::Nothing only if it is
// certain.
FoundFile FindSecretFile(const Account& account);

// The secret that a confirmation may be tried against: the waiting one that the tool made for a session's own
// page, else one that was confirmed and did not come to its place. Only of this start of the machine and no
// older than kWaitingSeconds.
inline constexpr int64_t kWaitingSeconds = 30 * 60;
struct WaitingSecret {
    std::string reference;
    std::string session;  // identifier hash of the session that asked for it; empty before it was claimed
    int64_t madeBoot = 0; // BootSeconds
};
std::optional<WaitingSecret> FindWaiting(uint32_t account); // throws DatabaseError

// The name that the secret tool's file for the account has in kWaitingDir.
std::string WaitingFileName(uint32_t account);

// Makes the waiting secret `session`'s own; false: none waits. With `keyBase32`, the key that was shown,
// false also if the waiting secret is another one by now. Throws DatabaseError, VaultError.
bool ClaimWaiting(uint32_t account, std::string_view session, std::string_view keyBase32 = {});

// Forgets the account's waiting secret. DropWaiting is the web program's: it removes the file in its own /tmp
// as well. Others retire the row; a file without a row is dead. Both throw DatabaseError.
void DropWaiting(uint32_t account);
void RetireWaiting(uint32_t account);

// The web program's housekeeping. At its start every waiting secret goes, later those that waited too long.
// Accounts are settled first; one that cannot be settled is left alone. A confirmed secret is never removed.
// Throws DatabaseError.
enum class Clear { All, TooOld };
void ClearWaiting(Clear which);

// Switching off and reset: marks the account, ends its sessions and half sign-ins and stores the audit's row
// of `event` (none: the account is being removed), all or nothing; the next Settle removes file and secrets,
// whoever asks it and however often this was cut short. Gives how many sessions ended; throws DatabaseError.
int64_t MarkSwitchingOff(const Account& account, std::optional<AuditEvent> event, const char* detail = "-");

// By an administrator: marks the account as above and settles it. Whoever enrols anew begins anew: what was
// tried is forgotten. Enrolment::Fault: it is marked and its sessions have ended, but the secret is not
// removed yet. Throws DatabaseError.
struct Reset {
    int64_t sessionsEnded = 0;
    EnrolmentState state;
};
Reset ResetSecondStep(const Account& account, const char* detail = "-");

} // namespace tavr
