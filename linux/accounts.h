// The account store: local users and groups in SQLite, for the platform's calls and for the console.
//
// Numbers are given once and never again. Every function throws DatabaseError when the store cannot be used.
#pragma once

#include "linux/database.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavr
{

inline constexpr int kKindLocal = 1;
inline constexpr int kKindDomain = 2;
inline constexpr int kKindLdap = 8;

inline constexpr char kAdministrators[] = "administrators";   // the group whose members administer

struct Account {
    std::string name;   // canonical
    uint32_t uid = 0;
    uint32_t gid = 0;
    int kind = kKindLocal;
    std::string description;
    std::string mail;
    bool isAdmin = false;
};

// Empty when there is no such account.
std::optional<Account> FindAccount(std::string_view canonicalName);
std::optional<Account> FindAccount(uint32_t uid);

// The account if the password is right, else empty. An unknown name costs the work of a wrong password.
std::optional<Account> CheckPassword(std::string_view canonicalName, std::string_view password);

// Makes the account's preference directory if it is not there, with the service's ids (raised or not when
// called); false when it could not be made. Called after the first accepted password.
bool MakePreferenceDirectory(const Account& account);

}  // namespace tavr
