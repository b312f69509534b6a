// How many local accounts the policy demands two-step sign-in of that are not enrolled: for the
// administrator's page. The answer is the one of asking the library about each account, without asking it a
// million times.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <string_view>

namespace tavr
{

// `option` is that of the system, `picks` what the picks' file holds. Whoever is marked as being switched off
// counts as not enrolled, an account whose file is damaged as enrolled. Throws DatabaseError.
int64_t CountNotEnrolled(std::string_view option, const Json::Value& picks);

} // namespace tavr
