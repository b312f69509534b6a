// Locks among processes: open file description locks on single bytes of a file that holds nothing.
#pragma once

#include "linux/descriptor.h"

#include <sys/types.h>

namespace tavr
{

enum class LockKind { Shared, Exclusive };
enum class LockWait { Forever, AWhile, Not }; // AWhile: some seconds, where somebody waits for the answer

// Made where there is none, with the effective ids. Empty, with errno set, when it cannot be had.
Descriptor OpenLockFile(const char* path);

// Holds the lock until it is given back or the descriptor is closed; one that is held changes its kind, which
// to Shared happens at once. False: errno says why, EAGAIN where it is taken.
bool LockByte(const Descriptor& file, off_t byte, LockKind kind, LockWait wait);
void UnlockByte(const Descriptor& file, off_t byte);

} // namespace tavr
