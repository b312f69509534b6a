// The second step: the one function that decides whether a code is good (RFC 6238: SHA-1, 30 s, six digits,
// steps -1, 0, +1). The library reaches it through TAVRGoogleAuth.
#pragma once

#include "linux/accounts.h"
#include "linux/request.h"

#include <string_view>

namespace tavr
{

enum class CodeResult {
    Accepted, // and stored as used: no code of this step or an earlier one is accepted again
    Wrong,
    Used,      // right, but of a step already used
    Throttled, // not compared: too many wrong ones
    Closed,    // not compared: closed until an administrator opens it
    Fault,     // could not be compared or stored; no grant
};

struct CodeAnswer {
    CodeResult result = CodeResult::Fault;
    int retryAfterSeconds = 0; // Throttled only
    Fault fault = Fault::None; // Fault only
};

// Checks `code` against the account's active secret. When accepted, the request's codeOf is the account. The
// account is settled under its lock first.
CodeAnswer VerifyCode(const Account& account, std::string_view code);

// What the last TAVRGoogleAuth of this request answered; empty when there was none. The library can tell its
// caller right from wrong only.
const std::optional<CodeAnswer>& LastLibraryAnswer();

} // namespace tavr
