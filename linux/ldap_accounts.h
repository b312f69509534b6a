// Accounts and groups of the LDAP directory, called name@realm. The directory is asked each time; what it has
// said of an account is kept until the end of the request, and so is the connection.
//
// Functions throw LdapError when the directory cannot be asked or does not answer in time, and DatabaseError
// when a number cannot be stored. Once it could not be asked, it is not asked again in the same request.
//
// An entry is an account only if its name attribute gives one canonical name, or its DN says which of several
// is meant; and a name is one only while one entry has it. So a search that the directory matches by looser
// rules than ours finds nobody.
#pragma once

#include "linux/account_list.h"
#include "linux/accounts.h"
#include "linux/ldap.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavr
{

bool IsLdapSetUp();

// Whether a canonical name is of the realm of the directory that is set up.
bool IsLdapName(std::string_view canonicalName);

// Empty: there is no such account or group, or its name is that of several.
std::optional<Account> FindLdapAccount(const std::string& canonicalName);
std::optional<Group> FindLdapGroup(const std::string& canonicalName);

// The account's recovery address as the directory has it now. Empty: it has none, or nobody has the name any
// more, or somebody else has.
std::string MailOfLdapAccount(const Account& account);

// The account if the password is right. What is never right is as in CheckPassword.
std::optional<Account> CheckLdapPassword(const std::string& canonicalName, std::string_view password);

// Groups that the account is in: by its name (memberUid), as its primary one (gidNumber), by its DN (the
// member attribute, uniqueMember, memberOf), and those that such groups are in.
std::vector<uint32_t> GroupsOfLdapAccount(const std::string& canonicalName);

// As ListAccounts and ListGroups, in the directory's order. Each page goes through all that the directory has
// to say about the text, of which no more than 500 entries are held at a time.
int64_t ListLdapAccounts(std::string_view text, const ListPage& page, const EachEntry& each);
int64_t ListLdapGroups(std::string_view text, const ListPage& page, const EachEntry& each);

// --- For a process that serves others meanwhile ---

// FindLdapAccount in two halves: the first asks the directory, over a connection of its own and on any
// thread, and the second gives the number.
struct UnnumberedAccount {
    Account account;
    std::string id;
};
std::optional<UnnumberedAccount> AskLdapAccount(const LdapSettings& settings,
                                                const std::string& canonicalName);
Account Numbered(UnnumberedAccount found);

// --- Steps of the library's own search ---

struct LdapMatches {
    int count = 0;
    std::string dn; // of the first
};
LdapMatches FindLdapEntries(std::string_view bareName);

// The account that an entry is, without its number. Empty: it is not there, or is no account.
std::optional<Account> ReadLdapEntry(const std::string& dn);

} // namespace tavr
