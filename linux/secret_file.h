// An account's secret file: its layout, and reading and replacing it without ever following a link.
//
//     line 1             reference of the secret (vault.h)
//     " TOTP_AUTH        option lines begin with a double quote; readers ignore them
//     every other line   reference of an emergency code, in the vault's order
//
// Every line is ended by a line feed.
#pragma once

#include "linux/descriptor.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavr
{

// --- References ---

// 16 characters: a marker that no base-32 text has and that tells a secret's reference from a code's, then 90
// random bits in the alphabet of base-64url. The tool prints a reference padded with '=' to 24.
inline constexpr size_t kReferenceSize = 16;
inline constexpr size_t kPaddedReferenceSize = 24;
inline constexpr char kSecretMarker = '@';
inline constexpr char kCodeMarker = '+';

bool IsReference(std::string_view text, char marker);
std::string PaddedReference(std::string_view reference);

// The reference in either of its two spellings; any other text comes back as it is, and is then none.
std::string_view BareReference(std::string_view text);

// --- Layout ---

struct SecretFileText {
    std::string secret;             // its reference
    std::vector<std::string> codes; // theirs, in the order of the lines
};

std::string RenderSecretFile(const SecretFileText& file);

// Empty for what is not in the layout, a last line without its line feed included.
std::optional<SecretFileText> ParseSecretFile(std::string_view text);

// How a file stands to what the vault says of a secret and its codes.
struct CodeLine {
    std::string reference;
    bool spent = false; // its line may still be in the file
};
enum class Match {
    Whole,     // the vault's text
    WithSpent, // that, with lines of spent codes still in it
    Part,      // cut short, as a copy that was stopped leaves it; also nothing at all
    Other,
};
Match MatchSecretFile(std::string_view text, const std::string& secret, const std::vector<CodeLine>& codes);

// --- Files ---

inline constexpr size_t kSecretFileLimit = 4096; // bytes; a longer file is none of ours

enum class Found {
    Text, // our own regular file
    Nothing,
    NotOurs, // a link, directory, fifo, another owner's, linked twice, too large, or it cannot be read
};
struct FoundFile {
    Found found = Found::NotOurs;
    std::string text;
};

// What stands at `name` in the directory. "Own" is the effective user's.
FoundFile ReadOwnFile(const Descriptor& directory, const std::string& name);

} // namespace tavr
