// Account names: one canonical spelling for each account, and the folder that follows from it. Nothing here
// asks a directory; what the known domains are called stands in the settings.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tavr
{

// Longest canonical name in bytes; what a caller of platform/ has room for, less the terminator.
inline constexpr size_t kMaxName = 492;

// The canonical spelling of a name as typed: `name` (local), `DOMAIN\user` or `user@domain`. Empty for what
// can be no name: not UTF-8, over-long, an empty part, slashes, control and format characters, blanks other
// than the common one, and characters that are mere variants of others (ligatures, mathematical alphabets).
//
// Blanks at the ends do not count; letters are composed (NFC), of usual width, and lower case but for an
// ASCII domain before a backslash, which is upper case. A domain that this server knows (domain_names.h) may
// be called by either of its names and stand on either side: `user@realm` is `DOMAIN\user`. A canonical name
// is its own canonical spelling.
std::optional<std::string> CanonicalName(std::string_view typed);

// Whether a canonical name is that of a directory's account or group: one of the two forms with a domain.
bool IsDirectoryName(std::string_view canonicalName);

// What a text is searched by: letters of usual width, composed and lower case, as in a name, and everything
// else as it is. Empty for what is not UTF-8.
std::optional<std::string> SearchText(std::string_view text);

// Whether a text can be shown and stored: UTF-8 without control and format characters.
bool IsPlainText(std::string_view text);

// Folder name for a canonical name: injective, at most 255 bytes, never "." or "..", no slash. Bytes other
// than a-z, 0-9, "_", "-" and "." (and a dot in front) are "%" and two digits; a name too long for that ends
// in "%-" and its hash.
std::string FolderName(std::string_view canonicalName);

// Absolute paths made of it. They create nothing.
std::string PreferencePath(std::string_view canonicalName); // no final slash
std::string SecretPath(std::string_view canonicalName);

} // namespace tavr
