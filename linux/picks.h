// The picks, which are what the picks' file may hold: whom the administrator has picked to use two-step
// sign-in. Of texts alone; the file and its lock: policy_file.h.
#pragma once

#include "linux/accounts.h"
#include "linux/audit.h"

#include <json/value.h>

#include <optional>
#include <string_view>
#include <vector>

namespace tavr
{

// The lists that a decision may read, by the source of the account.
struct PickType {
    const char* name;
    int kind;
    bool groups;
};
inline constexpr PickType kPickTypes[] = {
    {"local_user", kKindLocal, false},   {"local_group", kKindLocal, true},
    {"domain_user", kKindDomain, false}, {"domain_group", kKindDomain, true},
    {"ldap_user", kKindLdap, false},     {"ldap_group", kKindLdap, true},
};

// Empty for what is no picks: no object as the library reads it, one of these lists that is no array of texts
// and numbers, control characters. With picks no call of the library ends in an exception, and none takes a
// list for an empty one.
std::optional<Json::Value> ParsePicks(std::string_view text);

// What came and what went between two of them, for the audit.
std::vector<PickChange> ChangesBetween(const Json::Value& before, const Json::Value& after);

} // namespace tavr
