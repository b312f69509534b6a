// Whether an account is enrolled: a state of the vault, settled against its secret file by whoever asks.
#pragma once

#include "linux/accounts.h"
#include "linux/request.h"

#include <optional>
#include <string>
#include <string_view>

namespace tavr
{

// One writer for an account's secret at a time, over all processes (a lock on one byte of kAccountLockFile).
// Waits for it. Nests within a process. Held by a confirmation from before the handler until settled.
class AccountLock
{
public:
    explicit AccountLock(uint32_t account);
    ~AccountLock();
    AccountLock(const AccountLock&) = delete;
    AccountLock& operator=(const AccountLock&) = delete;
    [[nodiscard]] bool Held() const;   // false: the lock file cannot be used; treat as StateUnavailable

private:
    uint32_t account_;
    bool held_;
};

enum class Enrolment { No, Yes, Fault };

struct EnrolmentState {
    Enrolment enrolment = Enrolment::Fault;
    Fault fault = Fault::None;   // with Enrolment::Fault
    int codesLeft = 0;           // with Enrolment::Yes: emergency codes not yet spent
};

// Settles the account under its lock and says what it is. Writes files with the service's ids, whatever ids
// the process has at the moment. A fault is noted in the request as well.
EnrolmentState Settle(const Account& account);

// The secret that waits to be confirmed, made by the tool for a session's own page.
struct WaitingSecret {
    std::string reference;
    std::string session;   // identifier hash of the session that asked for it; empty before it was claimed
    int64_t madeBoot = 0;  // BootSeconds
};
std::optional<WaitingSecret> FindWaiting(uint32_t account);       // throws DatabaseError
bool ClaimWaiting(uint32_t account, std::string_view session);   // throws DatabaseError; false: none waits

// Forgets the account's waiting secret: row and, in the web program, the file in /tmp. Throws DatabaseError.
void DropWaiting(uint32_t account);

}  // namespace tavr
