// What the domains are called that this server knows. From the settings alone: no directory is asked.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tavr
{

struct DomainName {
    std::string name;  // in canonical names of accounts, before the backslash: upper case
    std::string realm; // its DNS name, lower case
    bool operator==(const DomainName&) const = default;
};

// The server's own (settings domain_name and domain_realm) first, then those that it trusts (domain_trusted:
// NAME=realm, with blanks between them). Empty: none is set up. False: what is set up names no domains;
// `problem` then has the setting and what is wrong with it.
bool ReadDomainNames(std::vector<DomainName>& names, std::string& problem);

// Those, or none at all where they cannot be used.
std::vector<DomainName> KnownDomains();

// Whether a text is one of the two names of the domain, in whatever case.
bool IsCalled(const DomainName& domain, std::string_view text);

} // namespace tavr
