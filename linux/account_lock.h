// The lock of one account, for a process that stays with its ids (the secret tool). Whoever may be raised
// takes AccountLock (enrolment.h), which is made of it.
#pragma once

#include "linux/file_lock.h"

#include <cstdint>

namespace tavr
{

// Holds the lock as long as the descriptor is open: on byte `account` of kAccountLockFile. Empty, with errno
// set, when it cannot be had.
Descriptor LockAccount(uint32_t account, LockWait wait);

} // namespace tavr
