// What entries of a domain's directory say, as the copy keeps it (domain_copy.h).
//
// Whatever a directory sends, a name is a canonical one of the domain that is read, and every text that is
// shown is plain and within the limits of accounts.h.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tavr
{

// The text of a SID, "S-1-5-21-...", from its bytes; directories other than controllers give it as text.
// Empty: it is none.
std::string SidOf(std::string_view value);

// The units of a DN, outermost first, each in search form and with a slash behind it. The first `from` parts
// and those of the domain's own name do not count.
std::string UnitsOfDn(std::string_view dn, size_t from);

struct DomainEntry {
    std::string name; // canonical
    std::string description;
    std::string unit;
    std::string folded; // name and description in search form, each on its line
};

// Empty: it can have no name here.
std::optional<DomainEntry> DomainEntryOf(const std::string& domain, std::string_view name,
                                         std::string_view description, std::string_view dn);

} // namespace tavr
