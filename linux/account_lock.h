// The lock of one account, for a process that stays with its ids (the secret tool). Whoever may be raised
// takes AccountLock (enrolment.h), which is made of it.
#pragma once

#include "linux/descriptor.h"

#include <cstdint>

namespace tavr
{

enum class LockWait { Forever, AWhile }; // AWhile: some seconds, for a program that somebody waits for

// Holds the lock as long as the descriptor is open: an open file description lock on byte `account` of
// kAccountLockFile. Empty, with errno set, when it cannot be had.
Descriptor LockAccount(uint32_t account, LockWait wait);

} // namespace tavr
