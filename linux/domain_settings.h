// The domain that this server has joined: what it is called, who on this machine speaks with it, and with
// which controllers the copy of its directory is made. doc/domain.md has the settings, domain_*.
#pragma once

#include "linux/domain_names.h"
#include "linux/ldap.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tavr
{

// The service that has joined the domain: whose NSS and PAM modules are asked.
enum class DomainClient { Sssd, Winbind };

struct DomainSettings {
    std::vector<DomainName> names; // the server's own first; what is left are those that it trusts
    DomainClient client = DomainClient::Sssd;
    char separator = '\\'; // between domain and name where the client takes names; '@': name@realm
};

// Empty: no domain is set up. Throws LdapError(Settings) where one is, but not so that it could be used.
std::optional<DomainSettings> ReadDomainSettings();

struct DomainCopySettings {
    LdapSettings ldap; // of the controllers, without names of attributes, and with the base of the own domain
    int pageSize = 0;  // entries in one answer
    int64_t refreshSeconds = 0;
};

// Empty: no domain is set up, or none of its controllers (domain_uri), so there is no copy. Throws likewise.
std::optional<DomainCopySettings> ReadDomainCopySettings();

// The base of a domain that is called by its realm: dc=corp,dc=test.
std::string BaseOfRealm(const std::string& realm);

} // namespace tavr
