#include "linux/names.h"

#include "linux/domain_names.h"
#include "linux/error.h"
#include "linux/paths.h"
#include "platform/cgi.h"

#include <sodium.h>
#include <utf8proc.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace tavr
{

namespace
{

constexpr size_t kMaxFolderName = 255;

struct FreeText {
    void operator()(utf8proc_uint8_t* text) const noexcept { std::free(text); }
};

// Composed form (NFC), stable over the versions of Unicode because unassigned characters were refused before.
std::optional<std::string> Compose(std::string_view text)
{
    utf8proc_uint8_t* composed = nullptr;
    const auto size = utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(text.data()),
                                   static_cast<utf8proc_ssize_t>(text.size()), &composed,
                                   static_cast<utf8proc_option_t>(UTF8PROC_STABLE | UTF8PROC_COMPOSE));
    const std::unique_ptr<utf8proc_uint8_t, FreeText> owner(composed);
    if (size < 0) {
        return std::nullopt;
    }
    return std::string(reinterpret_cast<const char*>(composed), static_cast<size_t>(size));
}

void Append(std::string& text, utf8proc_int32_t character)
{
    utf8proc_uint8_t bytes[4];
    const auto size = utf8proc_encode_char(character, bytes);
    text.append(reinterpret_cast<const char*>(bytes), static_cast<size_t>(size));
}

// Calls each(character) for every character; false for text that is not UTF-8, or when a call is.
template<class Each>
bool ForEachCharacter(std::string_view text, Each each)
{
    while (!text.empty()) {
        utf8proc_int32_t character = 0;
        const auto size = utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(text.data()),
                                           static_cast<utf8proc_ssize_t>(text.size()), &character);
        if (size <= 0 || !each(character)) {
            return false;
        }
        text.remove_prefix(static_cast<size_t>(size));
    }
    return true;
}

// Wide and narrow forms, as input methods for East Asian scripts give them, are spellings of the usual ones.
utf8proc_int32_t UsualWidth(utf8proc_int32_t character)
{
    const auto kind = utf8proc_get_property(character)->decomp_type;
    if (kind != UTF8PROC_DECOMP_TYPE_WIDE && kind != UTF8PROC_DECOMP_TYPE_NARROW) {
        return character;
    }
    utf8proc_int32_t usual[4];
    int lastClass = 0;
    const auto count = utf8proc_decompose_char(
        character, usual, 4, static_cast<utf8proc_option_t>(UTF8PROC_DECOMPOSE | UTF8PROC_COMPAT),
        &lastClass);
    return count == 1 ? usual[0] : character;
}

bool IsVisible(const utf8proc_property_t& property)
{
    switch (property.category) {
    case UTF8PROC_CATEGORY_CC:
    case UTF8PROC_CATEGORY_CF:
    case UTF8PROC_CATEGORY_CS:
    case UTF8PROC_CATEGORY_CO:
    case UTF8PROC_CATEGORY_CN:
    case UTF8PROC_CATEGORY_ZL:
    case UTF8PROC_CATEGORY_ZP:
        return false;
    default:
        return true;
    }
}

// What cannot be seen, or looks like something else: it would let two accounts show the same name.
bool IsNameCharacter(utf8proc_int32_t character)
{
    if (character == '/') {
        return false;
    }
    const utf8proc_property_t* property = utf8proc_get_property(character);
    if (property->decomp_type != 0 || property->ignorable) {
        return false; // ligatures, letters in circles, mathematical alphabets; characters without a glyph
    }
    return IsVisible(*property) && (property->category != UTF8PROC_CATEGORY_ZS || character == ' ');
}

bool IsAscii(std::string_view text)
{
    return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

// One spelling: usual width, composed, lower case.
std::optional<std::string> Fold(std::string_view text)
{
    if (IsAscii(text)) { // like most names; comes to the same
        std::string lower(text);
        std::transform(lower.begin(), lower.end(), lower.begin(),
                       [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
        return lower;
    }
    std::string usual;
    const bool readable = ForEachCharacter(text, [&](utf8proc_int32_t character) {
        Append(usual, UsualWidth(character));
        return true;
    });
    // Composed before: the lower case of a composed letter may be another than that of its parts.
    const auto composed = readable ? Compose(usual) : std::nullopt;
    if (!composed) {
        return std::nullopt;
    }
    std::string lower;
    ForEachCharacter(*composed, [&](utf8proc_int32_t character) {
        Append(lower, utf8proc_tolower(character));
        return true;
    });
    return Compose(lower);
}

std::string_view Trim(std::string_view text)
{
    while (!text.empty() && text.front() == ' ') {
        text.remove_prefix(1);
    }
    while (!text.empty() && text.back() == ' ') {
        text.remove_suffix(1);
    }
    return text;
}

bool IsPart(std::string_view part)
{
    return !part.empty() && part == Trim(part) && part.find('\\') == std::string_view::npos;
}

std::string UpperCase(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; });
    return text;
}

// The name of the known domain that is called so; empty: none is.
std::string KnownDomain(std::string_view called)
{
    for (const DomainName& domain : KnownDomains()) {
        if (IsCalled(domain, called)) {
            return domain.name;
        }
    }
    return {};
}

// The three forms, of a name that is in one spelling already but for the domain's case and name.
std::optional<std::string> ArrangeParts(const std::string& name)
{
    const size_t backslash = name.find('\\');
    if (backslash != std::string::npos) {
        const std::string domain = name.substr(0, backslash);
        const std::string user = name.substr(backslash + 1);
        if (!IsPart(domain) || !IsPart(user) || domain.find('@') != std::string::npos) {
            return std::nullopt;
        }
        const std::string known = KnownDomain(domain);
        return (known.empty() ? UpperCase(domain) : known) + '\\' + user;
    }
    const size_t at = name.find('@');
    if (at != std::string::npos) {
        const std::string user = name.substr(0, at);
        const std::string domain = name.substr(at + 1);
        if (!IsPart(user) || !IsPart(domain) || domain.find('@') != std::string::npos) {
            return std::nullopt;
        }
        const std::string known = KnownDomain(domain);
        return known.empty() ? name : known + '\\' + user;
    }
    return IsPart(name) ? std::optional(name) : std::nullopt;
}

bool IsPlain(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' || c == '-' || c == '.';
}

std::string Hash(std::string_view text)
{
    unsigned char hash[32];
    char digits[2 * sizeof hash + 1];
    crypto_generichash(hash, sizeof hash, reinterpret_cast<const unsigned char*>(text.data()), text.size(),
                       nullptr, 0);
    return sodium_bin2hex(digits, sizeof digits, hash, sizeof hash);
}

} // namespace

std::optional<std::string> CanonicalName(std::string_view typed)
{
    if (typed.size() > kMaxName) {
        return std::nullopt;
    }
    const auto folded = Fold(Trim(typed));
    if (!folded || folded->size() > kMaxName || !ForEachCharacter(*folded, IsNameCharacter)) {
        return std::nullopt;
    }
    // A wide blank has become a usual one; it may stand at an end.
    auto name = ArrangeParts(std::string(Trim(*folded)));
    return name && name->size() <= kMaxName ? name : std::nullopt;
}

bool IsDirectoryName(std::string_view canonicalName)
{
    return canonicalName.find_first_of("\\@") != std::string_view::npos;
}

std::optional<std::string> SearchText(std::string_view text)
{
    return Fold(text);
}

bool IsPlainText(std::string_view text)
{
    return ForEachCharacter(
        text, [](utf8proc_int32_t character) { return IsVisible(*utf8proc_get_property(character)); });
}

std::string FolderName(std::string_view canonicalName)
{
    std::string folder;
    for (const char c : canonicalName) {
        if (IsPlain(c) && !(c == '.' && folder.empty())) {
            folder += c;
            continue;
        }
        constexpr char kDigits[] = "0123456789ABCDEF";
        const auto byte = static_cast<unsigned char>(c);
        folder += {'%', kDigits[byte >> 4], kDigits[byte & 15]};
    }
    if (folder.size() > kMaxFolderName) {
        // "%-" stands in no encoded name, so a shortened one can meet no whole one.
        const std::string end = "%-" + Hash(canonicalName);
        folder.resize(kMaxFolderName - end.size());
        folder += end;
    }
    return folder;
}

std::string PreferencePath(std::string_view canonicalName)
{
    return std::string(kPreferenceDir) + "/" + FolderName(canonicalName);
}

std::string SecretPath(std::string_view canonicalName)
{
    return PreferencePath(canonicalName) + "/" + kSecretFileName;
}

} // namespace tavr

int WebUtils::ParseInputUserName(const char* input, char* out, unsigned long size)
{
    using tavr::Error;
    using tavr::Fail;
    if (input == nullptr || out == nullptr || size == 0) {
        return Fail(Error::BadParameter);
    }
    const auto name = tavr::CanonicalName(input);
    if (!name) {
        return Fail(Error::BadName);
    }
    if (name->size() >= size) {
        return Fail(Error::BufferTooSmall);
    }
    std::memcpy(out, name->c_str(), name->size() + 1);
    return 0;
}
