// Who has tried how often: the counter of an account's second step, those of passwords, and how often an
// emergency code was mailed. All of it stands in the sign-in database, so that no restart, other worker or
// new sign-in begins anew.
//
// A try is counted before anything is compared, in a transaction, and taken back when it was no guess; so
// parallel tries never get past a limit. Times are BootSeconds: the wall clock moves nothing. After the
// machine has started anew they count from its start: a wait is then served again, and never shorter.
//
// Functions throw DatabaseError when the state cannot be read or stored; nothing may be compared then.
#pragma once

#include "linux/accounts.h"
#include "linux/database.h"

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace tavr
{

// --- The second step of an account ---
//
// Five free failures, then a wait before each further one, from 30 s doubling up to an hour; after 50 in a
// row closed until an administrator opens it. A right code sets it back. Whoever calls the verifier has the
// password or a session, so nobody else can move this counter.

inline constexpr int kFreeFailures = 5;
inline constexpr int kFailuresUntilClosed = 50;
inline constexpr int64_t kFirstWaitSeconds = 30;
inline constexpr int64_t kLongestWaitSeconds = 60 * 60;

struct SecondStep {
    int failures = 0; // in a row
    bool closed = false;
    int waitSeconds = 0;   // until the next code is compared
    int64_t toldStep = -1; // see NoteToldStep
};
SecondStep SecondStepOf(uint32_t account);

// For the verifier, in the transaction in which it decides. An accepted step (AcceptStep, vault.h) forgets
// failures by itself.
void CountFailure(Transaction& inside, uint32_t account);
void ForgetFailures(Transaction& inside, uint32_t account);

// For the console: the next code is compared at once. False: there was nothing to open.
bool OpenSecondStep(const Account& account);

// The latest time step that was told apart from the present one in a hint about a phone's clock
// (ClockOffsetMinutes, verifier.h); its code is not accepted any more. -1: none.
void NoteToldStep(Transaction& inside, uint32_t account, int64_t step);

// --- Passwords ---
//
// At sign-in: 10 wrong ones in 15 minutes for a name, whether or not it is an account's, and 30 for a
// client's address. In a session that asks for the password again: 10 in 15 minutes for that session, and
// nobody outside can use these up. Never closed. Only tries of the last 15 minutes are kept.

inline constexpr int kPasswordsOfName = 10;
inline constexpr int kPasswordsOfAddress = 30;
inline constexpr int kPasswordsOfSession = 10;
inline constexpr int64_t kPasswordSeconds = 15 * 60;

struct PasswordTry {
    int waitSeconds = 0;           // above 0: it was not counted, and no password is to be compared
    std::array<int64_t, 2> rows{}; // for GiveBack; 0: none
};

// Every spelling of a name counts as one. IPv6 addresses count by their first 64 bits.
PasswordTry CountPassword(std::string_view typedName, std::string_view clientAddress);
PasswordTry CountRepeatedPassword(std::string_view sessionId); // Session::id

// The password was right, or could not be compared.
void GiveBack(const PasswordTry& counted);

// For the console, when a name is given anew: what was tried on it before is forgotten.
void ForgetPasswords(std::string_view canonicalName);

// Removes a bounded number of tries that do not count any more; each further try does so too. Throws.
void ClearTries();

// --- Emergency codes by mail ---
//
// Three an hour and ten a day for an account. They take the password, so no stranger can use them up.

inline constexpr int kMailsAnHour = 3;
inline constexpr int kMailsADay = 10;

struct MailTry {
    int waitSeconds = 0; // above 0: it was not counted, and nothing is to be mailed
    uint32_t account = 0;
    int64_t number = 0; // for GiveBack
};
MailTry CountMail(uint32_t account);

// No mail went out.
void GiveBack(const MailTry& counted);

} // namespace tavr
