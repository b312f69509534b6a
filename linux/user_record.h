// User records as the platform hands them out (platform/users.h).
#pragma once

#include "linux/accounts.h"
#include "platform/users.h"

namespace tavr
{

TAVRUser* NewUserRecord(Account account); // until TAVRUserFree

} // namespace tavr
