// What our services do alike at their start.
#pragma once

#include <string>

namespace tavr
{

// Tell it on standard error under the program's name, and end with status 2 or 1.
[[noreturn]] void Misuse(const std::string& text);
[[noreturn]] void Die(const std::string& text);

// Descriptors 0 to 2 are never sockets or databases; core files are never written; new files are the owner's
// alone. Whatever descriptors from `firstClosed` on the starter has left open are closed.
void PrepareProcess(unsigned firstClosed);

// The log's lines carry `name`, which is kept; on standard error where no logger listens.
void OpenLog(const char* name);

} // namespace tavr
