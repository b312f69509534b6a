// Personal mail accounts: through which server, and as whom, mails of one person are sent. They stand in the
// file emailaccount.db of the account's preference directory (doc/files.md), which the library reads too, to
// find the default one. Passwords are sealed with the machine key, bound to the row: one that was moved to
// another server or another account does not open.
//
// Functions throw DatabaseError when the file cannot be used, VaultError when a password cannot be opened or
// sealed. Never while ids are raised (database.h).
#pragma once

#include "linux/accounts.h"
#include "linux/machine_key.h" // VaultError
#include "linux/mail_settings.h"

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavr
{

inline constexpr char kMailAccountType[] = "smtp"; // of those that are made here

struct MailAccount {
    std::string type = kMailAccountType;
    std::string alias; // what its owner calls it; no two of one person's are alike
    bool isDefault = false;
    MailServer server; // the password is that of OpenMailAccount alone
};

// What is wrong with it, in a few words; null: nothing.
const char* MailAccountProblem(const MailAccount& account);

// In the order of their aliases. Rows that have a problem are left out.
std::vector<MailAccount> MailAccountsOf(const Account& account);

// Whether any account has a mail account with a password: without the machine key that sealed it, it is lost.
// Throws DatabaseError.
bool HasSealedPasswords();

// With its password. Empty when there is no such mail account, or more than one of it.
std::optional<MailAccount> OpenMailAccount(const Account& account, std::string_view type,
                                           std::string_view alias);

// Durable when they return. One that is to be the default takes that from the one that was; without a default
// the added one becomes it in any case.
enum class AddedMailAccount { No, Added, AddedAsDefault }; // No: the alias is taken
AddedMailAccount AddMailAccount(const Account& account, const MailAccount& added);
bool SetDefaultMailAccount(const Account& account, std::string_view alias); // false: there is none
bool RemoveMailAccount(const Account& account, std::string_view alias);     // likewise

// --- One row, as somebody may have written it ---

using MailAccountRow = std::map<std::string, std::string, std::less<>>; // texts of columns; missing: empty

// Without its password. Empty when it has a problem.
std::optional<MailAccount> ParseMailAccount(const MailAccountRow& row);

} // namespace tavr
