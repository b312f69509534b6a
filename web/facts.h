// What stands between a password and a session: whether the account is enrolled, and whether it has to be.
#pragma once

#include "linux/enrolment.h"

#include <optional>

namespace tavr::web
{

// By the administrator's policy (AskPolicy in linux/policy_file.h). Empty when it cannot be told.
std::optional<bool> Demanded(const Account& account);

// Settles the account and puts both facts into the request, for whatever login comes after. What cannot be
// told of either is a fault.
EnrolmentState LearnFacts(const Account& account);

} // namespace tavr::web
