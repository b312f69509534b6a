// What our services do alike at their start.
#pragma once

#include "linux/descriptor.h"

#include <unistd.h>

#include <string>

namespace tavr
{

// Tell it on standard error under the program's name, and end with status 2 or 1.
[[noreturn]] void Misuse(const std::string& text);
[[noreturn]] void Die(const std::string& text);

// Whether the starter has handed over a listening socket, as systemd does (socket activation): in LISTEN_FDS,
// meant for the process LISTEN_PID. Several are refused.
inline constexpr int kFirstPassed = STDERR_FILENO + 1; // where the starter's descriptors begin
bool IsActivated();

// That socket, made non-blocking. Anything but a listening Unix stream socket is refused.
Descriptor PassedListener();

// Descriptors 0 to 2 are never sockets or databases; core files are never written; new files are the owner's
// alone. Whatever descriptors from `firstClosed` on the starter has left open are closed.
void PrepareProcess(unsigned firstClosed);

// The log's lines carry `name`, which is kept; on standard error where no logger listens.
void OpenLog(const char* name);

} // namespace tavr
