// The second step: the one function that decides whether a code is good. The library reaches it through
// TAVRGoogleAuth.
//
//   six digits    TOTP (RFC 6238: SHA-1, 30 s), steps -1, 0, +1, with the setting otp_strict_window="yes" the
//                 present one alone
//   eight digits  an emergency code of the account's secret, or the code that an administrator gave out; not
//   for a
//                 secret that waits for its first code
//
// Each is good once, whatever process, session or spelling of the name it comes through. Tries are counted
// (attempts.h) in the transaction that stores what is granted: no grant without stored state, and nobody
// learns what a comparison said before it counts. What has not the form of a code (blanks, signs, other
// scripts' digits, another length) is Wrong, compared with nothing and not counted: it says nothing about the
// secret.
#pragma once

#include "linux/accounts.h"
#include "linux/database.h"
#include "linux/request.h"

#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace tavr
{

enum class CodeResult {
    Accepted, // and stored as used: no code of this step or an earlier one is accepted again
    Wrong,
    Used,      // right, but of a step already used; not counted as a guess
    Throttled, // not compared: too many wrong ones
    Closed,    // not compared: closed until an administrator opens it
    Fault,     // could not be compared or stored; no grant
};

enum class CodeKind { None, Totp, Emergency, Temporary };

struct CodeAnswer {
    CodeResult result = CodeResult::Fault;
    int retryAfterSeconds = 0;      // Throttled only
    Fault fault = Fault::None;      // Fault only
    CodeKind kind = CodeKind::None; // Accepted only
    bool compared = true;           // Wrong only: false for what has not the form of a code, or has no secret
};

// Checks `code` against the account's active secret. When accepted, the request's codeOf is the account. The
// account is settled under its lock first. `grant` is called with an accepted code, inside the transaction
// that stores it: what it stores there stands if the answer is Accepted, and only then. What it throws is a
// fault.
using GrantInside = std::function<void(Transaction& inside)>;
CodeAnswer VerifyCode(const Account& account, std::string_view code, const GrantInside& grant = {});

// What the next code of a set-up would meet before it is compared: Throttled, Closed or Fault; empty when it
// would be compared. Counts nothing. For whoever has to answer that in place of the library.
std::optional<CodeAnswer> RefusalBeforeCode(const Account& account);

// What the last TAVRGoogleAuth of this request answered; empty when there was none. The library can tell its
// caller right from wrong only.
const std::optional<CodeAnswer>& LastLibraryAnswer();

// After a six-digit code that this request had compared, counted and found wrong: how many minutes the
// phone's clock seems to be ahead (below zero: behind), up to ten. Empty when the code is of no step near
// enough. No grant. For somebody who is signed in or sets up, never at sign-in: it tells that a code belongs
// to another time. Asked once a request; a step ahead that it tells of is not accepted any more, and none
// other is told until it is over, so that nobody collects codes for later.
std::optional<int> ClockOffsetMinutes(const Account& account);

// A new code for an administrator to give out, eight digits, good once for the account's second step within
// so many minutes (1 to 1,440), in place of one given out before. Nothing is switched off by it, and a closed
// second step stays closed. Throws DatabaseError, VaultError.
std::string MintTemporaryCode(const Account& account, int minutes);

} // namespace tavr
