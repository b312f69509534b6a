// Work that might never end, or do harm to who does it, in a process of its own.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

namespace tavr
{

inline constexpr size_t kMostFromApart = 1 << 20; // bytes

// Calls work() in a child with this process's ids, signals as at a start and no descriptor but the standard
// ones, and gives what it returned. Empty: it could not be started, threw, crashed, returned more than
// kMostFromApart, or was killed because it took longer. The child ends with its parent.
std::optional<std::string> RunApart(std::chrono::milliseconds longest,
                                    const std::function<std::string()>& work);

// For work that has changed its ids, which takes that back.
void EndWithParent();

} // namespace tavr
