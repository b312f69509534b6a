// Accounts and groups of the domain, called DOMAIN\name. The service that has joined it is asked each time
// (domain_client.h); what it has said of an account is kept until the end of the request.
//
// Functions throw DirectoryError when it cannot be asked or does not answer in time, and DatabaseError when a
// number cannot be stored. Once it could not be asked, it is not asked again in the same request.
//
// Numbers go with SIDs, so renaming and moving change nothing about them. What the client calls otherwise
// than it was asked for, or has no SID of a domain, is no account and no group.
#pragma once

#include "linux/accounts.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavr
{

bool IsDomainSetUp();

// Whether a canonical name is of a domain that this server knows.
bool IsDomainName(std::string_view canonicalName);

// Empty: there is no such account or group. An account that was here before is never reported as gone: a
// client that cannot reach the domain says the same of those that it does not remember, so DirectoryError.
std::optional<Account> FindDomainAccount(const std::string& canonicalName);
std::optional<Group> FindDomainGroup(const std::string& canonicalName);

// The account if the password is right. What is never right is as in CheckPassword. Needs root as the
// effective or the saved id.
std::optional<Account> CheckDomainPassword(const std::string& canonicalName, std::string_view password);

// Groups of the domain that the account is in, nested ones too, as far as the client tells.
std::vector<uint32_t> GroupsOfDomainAccount(const std::string& canonicalName);

} // namespace tavr
