#include "linux/domain_entries.h"

#include "linux/accounts.h"
#include "linux/ldap_library.h"
#include "linux/names.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <iterator>
#include <memory>
#include <utility>

namespace tavr
{

namespace
{

constexpr size_t kLongestSid = 184; // bytes, of one with all parts that it can have
constexpr size_t kLongestDn = 4096;

struct FreeDn {
    void operator()(LDAPDN dn) const noexcept { Ldap().ldap_dnfree(dn); }
};

// The text of the SID that these bytes are. Empty: they are none.
std::string SidText(std::string_view bytes)
{
    const auto at = [&](size_t i) { return static_cast<uint64_t>(static_cast<unsigned char>(bytes[i])); };
    constexpr size_t kHead = 8;
    constexpr size_t kMostParts = 15;
    if (bytes.size() < kHead || at(0) != 1 || at(1) > kMostParts || bytes.size() != kHead + 4 * at(1)) {
        return {};
    }
    char text[4 + 20 + kMostParts * 11] = "S-1-";
    uint64_t authority = 0;
    for (size_t i = 2; i < kHead; ++i) {
        authority = authority << 8 | at(i);
    }
    char* end = std::to_chars(text + 4, std::end(text), authority).ptr;
    for (size_t i = kHead; i < bytes.size(); i += 4) {
        *end++ = '-';
        const uint64_t part = at(i) | at(i + 1) << 8 | at(i + 2) << 16 | at(i + 3) << 24;
        end = std::to_chars(end, std::end(text), part).ptr;
    }
    return {text, end};
}

// In the one spelling that such bytes would have, so that nothing has two identifiers.
bool IsSidText(std::string_view text)
{
    constexpr std::string_view kHead = "S-1";
    if (!text.starts_with(kHead) || text.size() == kHead.size() || text.size() > kLongestSid) {
        return false;
    }
    text.remove_prefix(kHead.size());
    while (!text.empty()) {
        const size_t end = std::min(text.find('-', 1), text.size());
        const std::string_view part = text.substr(0, end); // with the hyphen in front
        if (part.front() != '-' || part.size() < 2 || (part[1] == '0' && part.size() > 2) ||
            part.find_first_not_of("0123456789", 1) != std::string_view::npos) {
            return false;
        }
        text.remove_prefix(end);
    }
    return true;
}

// What a unit is called here. Two that cannot be shown are called the same.
std::string UnitName(std::string_view value)
{
    return IsPlainText(value) ? SearchText(value).value_or("?") : "?";
}

// The name that an account or group goes by here; empty: it can be none.
std::string NameIn(const std::string& domain, std::string_view spelled)
{
    const auto bare = CanonicalName(spelled);
    if (!bare || IsDirectoryName(*bare) || domain.size() + 1 + bare->size() > kMaxName) {
        return {};
    }
    return domain + '\\' + *bare;
}

std::string Folded(const std::string& name, const std::string& description)
{
    return SearchText(name).value_or("") + '\n' + SearchText(description).value_or("");
}

} // namespace

std::string SidOf(std::string_view value)
{
    return IsSidText(value) ? std::string(value) : SidText(value);
}

std::string UnitsOfDn(std::string_view dn, size_t from)
{
    LDAPDN parsed = nullptr;
    if (dn.size() > kLongestDn || dn.find('\0') != std::string_view::npos ||
        Ldap().ldap_str2dn(std::string(dn).c_str(), &parsed, LDAP_DN_FORMAT_LDAPV3) != LDAP_SUCCESS ||
        parsed == nullptr) {
        return {};
    }
    const std::unique_ptr<LDAPRDN, FreeDn> owner(parsed);
    std::string units;
    for (size_t i = 0; parsed[i] != nullptr; ++i) {
        const LDAPAVA& part = *parsed[i][0];
        const std::string_view type(part.la_attr.bv_val, part.la_attr.bv_len);
        if (i >= from && type != "dc" && type != "DC") {
            units.insert(0, UnitName({part.la_value.bv_val, part.la_value.bv_len}) + '/');
        }
    }
    return units;
}

std::optional<DomainEntry> DomainEntryOf(const std::string& domain, std::string_view name,
                                         std::string_view description, std::string_view dn)
{
    DomainEntry entry;
    entry.name = NameIn(domain, name);
    if (entry.name.empty()) {
        return std::nullopt;
    }
    entry.description = DescriptionProblem(description) == nullptr ? description : std::string_view();
    entry.unit = UnitsOfDn(dn, 1);
    entry.folded = Folded(entry.name, entry.description);
    return entry;
}

} // namespace tavr
