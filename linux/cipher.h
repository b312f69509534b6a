// The platform's text cipher (KLIBCCryptSzDecrypt) deciphers references into the vault. The call is not told
// whose text it gets, so a request first names its account here.
#pragma once

#include "linux/accounts.h"
#include "linux/request.h"

namespace tavr
{

// From here to the end of the request the cipher answers for references of this account alone, a secret's as
// a secret's and a code's as a code's. Checks the account's secret file first, if there is one: line 1 is the
// reference of a secret, every other line an option or the reference of a code, all of this account. Any
// other content, something that is not our own regular file, or a vault that cannot be asked is a fault:
// noted in the request and returned. Call Settle (enrolment.h) before.
Fault NameAccountToCipher(const Account& account);

// The account's secret behind a reference, in base-32 (32 characters); empty when it has no such live one.
// Throws DatabaseError, VaultError.
std::string SecretText(uint32_t account, std::string_view reference);

} // namespace tavr
