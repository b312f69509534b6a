// Local accounts and groups that are the system's own, with accounts="system" in the settings: those of
// /etc/passwd and /etc/group that people have by the ranges of /etc/login.defs, with their passwords from
// PAM; members of `sudo` are the administrators.
//
// A store of the same tables as the embedded one (accounts.cpp) stands for them, so that they are found,
// listed and searched alike. It keeps what the system does not know: number, recovery address, generation.
// Whoever opens it first in a request has it brought in step with the system's files, if these have changed;
// when they cannot be read whole, nothing is known of any account.
//
// A number goes with name and uid, and is given once. An account that is seen gone, or with another uid,
// takes its number, secrets and preference directory along.
#pragma once

#include "linux/accounts.h"

#include <cstdint>
#include <optional>
#include <string_view>

namespace tavr
{

inline constexpr char kSystemAdministrators[] = "sudo";

// Their numbers begin here; those of the embedded store stay below.
inline constexpr uint32_t kFirstSystemNumber = 1'000'000'000;

// As the settings had it when the request first asked; while they are gone or cannot be read, as this process
// has seen it before. Throws DatabaseError when that is not known, and when they say something that is
// neither "system" nor "embedded".
bool AreSystemAccounts();

// The store. Throws DatabaseError also when the system's files cannot be used. In a process that can never be
// root, as the web API's service, it is as others have left it.
Database& SystemAccountsDatabase();

// As CheckPassword, from PAM; "no" takes the same time whatever it rests on. Throws DatabaseError also when
// PAM cannot tell. Needs root as the effective or the saved id.
std::optional<Account> CheckSystemPassword(std::string_view canonicalName, std::string_view password);

} // namespace tavr
