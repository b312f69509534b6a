// What stands between a password and a session: whether the account is enrolled, and whether it has to be.
#pragma once

#include "linux/enrolment.h"

namespace tavr::web
{

bool Demanded(const Account& account); // by the administrator's policy

// Settles the account and puts both facts into the request, for whatever login comes after.
EnrolmentState LearnFacts(const Account& account);

} // namespace tavr::web
