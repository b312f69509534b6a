// The account store: local users and groups in SQLite, for the platform's calls and for the console; and
// directories' accounts as far as they are known here.
//
// Numbers are given once and never again. Every function throws DatabaseError when the store cannot be used.
#pragma once

#include "linux/database.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavr
{

inline constexpr int kKindLocal = 1;
inline constexpr int kKindDomain = 2;
inline constexpr int kKindLdap = 8;

inline constexpr char kAdministrators[] = "administrators"; // the group whose members administer

struct Account {
    std::string name; // canonical
    uint32_t uid = 0;
    uint32_t gid = 0;
    int kind = kKindLocal;
    std::string description;
    std::string mail;
    bool isAdmin = false;
    bool disabled = false;  // no password is right for it, and its sessions are dead
    int64_t generation = 0; // raised by what no session may outlive: see SetPassword, SetDisabled, JoinGroup
};

inline constexpr char kUsers[] = "users"; // the primary group of every local account

// Numbers of directories' accounts and groups begin here.
inline constexpr uint32_t kFirstDirectoryNumber = 2'000'000'000;
inline constexpr uint32_t kNoGroup = 65534; // a directory's account has no primary group here

inline constexpr size_t kMaxPassword = 511; // bytes: crypt's limit
inline constexpr size_t kMaxMail = 254;
inline constexpr size_t kMaxDescription = 1024;

// --- Asking ------------------------------------------------------------------------------------------------

// Empty when there is no such account. Asks no directory: of a directory's account, whose name has a "@" or a
// backslash, this is number, name and kind as they were last seen (directory_numbers.h).
std::optional<Account> FindAccount(std::string_view canonicalName);
std::optional<Account> FindAccount(uint32_t uid);

// What a mail to a local account needs, at half the cost of the whole account.
struct Addressee {
    uint32_t uid = 0;
    std::string mail;
};
std::optional<Addressee> FindAddressee(std::string_view canonicalName);

// The local account if the password is right, else empty. An unknown name and a disabled account cost the
// work of a wrong password. An empty password, one beyond kMaxPassword and one that holds a NUL are never
// right.
std::optional<Account> CheckPassword(std::string_view canonicalName, std::string_view password);

// In the order of their names.
void ForEachAccount(const std::function<void(const Account&)>& each);

struct Group {
    std::string name; // canonical
    uint32_t gid = 0;
    std::string description;
};

std::optional<Group> FindGroup(std::string_view canonicalName);
void ForEachGroup(const std::function<void(const Group&)>& each); // in the order of their names
std::vector<uint32_t> GroupsOf(const Account& account);           // the primary one first, then by number
std::vector<std::string> MembersOf(const Group& group);           // in the order of their names

// --- Changing ----------------------------------------------------------------------------------------------

// What is wrong with a text that is to be stored, in a few words; null: nothing.
const char* PasswordProblem(std::string_view password);
const char* MailProblem(std::string_view mail);               // length and characters only
const char* DescriptionProblem(std::string_view description); // likewise
const char* LocalNameProblem(std::string_view canonicalName); // of an account or a group

struct NewAccount {
    std::string name; // canonical, local
    std::string description;
    std::string mail;
    bool isAdmin = false;
};

// Empty when the name is taken. A preference directory that a removed account of this name has left behind is
// deleted first; when that fails, DatabaseError. Texts must have been asked about above, here and below.
std::optional<Account> AddAccount(const NewAccount& account, std::string_view password);

// Texts that are not given stay as they are, whoever else changes them meanwhile. False: there is no such
// account.
struct AccountChange {
    std::optional<std::string> description;
    std::optional<std::string> mail;
};
bool ChangeAccount(uint32_t uid, const AccountChange& change);

// A new password and disabling raise the account's generation in the same write: sessions of an earlier one
// are dead from then on (session.h), and so is what a sign-in under way still opens.
bool SetPassword(uint32_t uid, std::string_view password);
bool SetDisabled(uint32_t uid, bool disabled);

// Removes the account, then its preference directory unless the name has been given anew by then. `cleaned`
// is false when the directory could not be deleted; the next account of the name begins with deleting it.
struct Removal {
    bool removed = false; // false: there was no such account
    bool cleaned = false;
};
Removal RemoveAccount(uint32_t uid);

std::optional<Group> AddGroup(std::string_view canonicalName, std::string_view description); // empty: taken
bool IsBuiltIn(const Group& group); // not to be removed
bool RemoveGroup(
    const Group& group); // false: there is none, it is built in, or the primary one of an account
// Joining and leaving the administrators raise the account's generation.
bool JoinGroup(const Account& account, const Group& group);  // false: was a member already
bool LeaveGroup(const Account& account, const Group& group); // false: was none

// --- Preference directories --------------------------------------------------------------------------------

// With the service's ids, raised or not when called. False: it could not be done; the log says why.

// Makes the account's if it is not there. Called after the first accepted password.
bool MakePreferenceDirectory(const Account& account);

// Deletes what stands at a name's place; and moves what stands at one to another, which is free. Nothing to
// delete or move is done too. For who gives names, in the transaction that does, with the account's lock.
bool DeletePreferences(const std::string& name);
bool MovePreferences(const std::string& from, const std::string& to);

// If anything stands at `from`, it takes the place of what stands at `to`.
bool ReplacePreferences(const std::string& from, const std::string& to);

} // namespace tavr
