// Account names: one canonical spelling for each account, and the folder that follows from it. Nothing here
// asks a directory or touches a disk.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tavr
{

// Longest canonical name in bytes; what a caller of platform/ has room for, less the terminator.
inline constexpr size_t kMaxName = 492;

// The canonical spelling of a name as typed: `name` (local, lower case), `DOMAIN\user` or `user@domain`. Empty
// for what can be no name: control characters, slashes, over-long, not UTF-8, an empty part.
std::optional<std::string> CanonicalName(std::string_view typed);

// Folder name for a canonical name: injective, at most 255 bytes, never "." or "..", no slash.
std::string FolderName(std::string_view canonicalName);

// Absolute paths made of it. They create nothing.
std::string PreferencePath(std::string_view canonicalName);   // no final slash
std::string SecretPath(std::string_view canonicalName);

}  // namespace tavr
