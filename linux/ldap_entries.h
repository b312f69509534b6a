// What entries of the LDAP directory say: accounts and groups, as far as they may be believed.
//
// Whatever a directory sends, a name is a canonical one of its own realm, and every text that is shown is
// plain and within the limits of accounts.h.
#pragma once

#include "linux/accounts.h"
#include "linux/ldap.h"

#include <optional>
#include <string>
#include <vector>

namespace tavr
{

struct Person {
    Account account; // without number where only the directory has been asked
    std::string id;
    std::string dn;
    std::vector<std::string> bareNames; // as the directory spells them
    std::string primaryGroup;
    std::vector<std::string> memberOf;
    std::optional<std::vector<std::string>> groups; // their identifiers, once the directory has been asked
};

struct GroupEntry {
    Group group; // likewise
    std::string id;
    std::string dn;
};

// Empty: an entry that is no account, or no group.
std::optional<Person> PersonOf(const LdapEntry& entry, const LdapSettings& settings);
std::optional<GroupEntry> GroupOf(const LdapEntry& entry, const LdapSettings& settings);

// The lasting identifier: texts and bytes alike become one text. Empty: there is none, or several.
std::string IdOf(const LdapEntry& entry, const LdapSettings& settings);

} // namespace tavr
