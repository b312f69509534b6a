// The one clock. Everything that asks for the time asks here, so that a test can set it.
#pragma once

#include <cstdint>
#include <string>

namespace tavr
{

// Seconds since 1970 (UTC), as the system's clock has them: what codes are made of. An administrator or a
// time server may set it back or ahead.
int64_t WallSeconds();

// Seconds since the machine started, sleep included; never set back. For idle times, waits and lifetimes.
int64_t BootSeconds();

// What tells one start of the machine from another: a BootSeconds() stored under another id means nothing
// now.
const std::string& BootId();

} // namespace tavr
