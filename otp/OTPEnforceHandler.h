// Enforcement: who must use two-step sign-in, and the accounts and groups that the administrator has picked.
//
// The option "otp_enforce_option" of the system says "user" (everybody), "admin" (administrators), "custom"
// (the picks) or anything else (nobody). The picks stand in "/usr/tavr/etc/tavr_otp_enforce_custom_setting":
// one JSON object with an array of decimal numbers, as texts, for each of the types "local_user",
// "local_group", "domain_user", "domain_group", "ldap_user" and "ldap_group".
//
// Everything is read anew in every call, with the ids of the caller; nothing is locked. Failures are logged.
// A file that is absent or cannot be read holds no picks; one that is JSON of another shape ends in an
// exception of the JSON library, before anything has been written.
#pragma once

#include <string>

#include <json/value.h>

#pragma GCC visibility push(default)

// Takes rows {"id": text, "is_enforced": bool} into the list of one type, a later row of an id winning over
// an earlier one, and rewrites the whole file in place, sorted. The type is not judged. 0; -1: the file could
// not be opened, and is as it was, or not be written, and may be cut short.
int OTPEnforceCustomSettingSet(const std::string& type, const Json::Value& settings);

// Whether the account must use two-step sign-in. What could not be looked up counts as "no": a caller that
// has to tell the two apart asks the platform.
bool OTPEnforceIsEnabled(const std::string& account);

// The accounts or groups of one type that hold `query` in name or description, as an array of rows {"id",
// "name", "desc", "is_enforced"}: those of `filter` "all", "enforced" or "unenforced" (any other: none), of
// these `limit` (-1: all) from `offset` on, in the platform's order. An unknown type lists local accounts.
// `domain` is the domain, or the organisational unit where no domains are trusted. `total` is the number of
// matches before paging. 0; -1: `rows` is untouched, `total` is not.
int OTPEnforceCustomSettingList(int offset, int limit, const std::string& type, const std::string& query,
                                const std::string& domain, const std::string& filter, int& total,
                                Json::Value& rows);

#pragma GCC visibility pop
