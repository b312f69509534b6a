// Questions to the service that has joined the domain (SSSD or winbind): accounts and groups through its NSS
// module, their SIDs through its library, passwords through its PAM module.
//
// The modules are asked by themselves, not through the C library's lists: no local file can answer for a
// domain, and "there is none" can be told from "cannot be asked". They run in a process of their own
// (apart.h), since their own waits take minutes. Functions throw DirectoryError when there was no answer.
#pragma once

#include "linux/domain_settings.h"

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavr
{

// As the client spells it.
struct ClientEntry {
    std::string name;
    std::string sid;         // "S-1-5-21-..."; empty: it has none
    std::string description; // of an account
};

class DomainClientCalls
{
public:
    // All that is asked takes no longer than until `end`.
    DomainClientCalls(const DomainSettings& settings, std::chrono::steady_clock::time_point end)
        : settings_(settings), end_(end)
    {
    }

    // Names are canonical ones of a known domain.
    [[nodiscard]] std::optional<ClientEntry> FindAccount(const std::string& name) const;
    [[nodiscard]] std::optional<ClientEntry> FindGroup(const std::string& name) const;
    [[nodiscard]] std::vector<std::string> GroupSids(const std::string& name) const;

    // The account if the password is right: as FindAccount, then the same for whoever there is or is not.
    // Needs root as the effective or the saved id.
    [[nodiscard]] std::optional<ClientEntry> CheckPassword(const std::string& name,
                                                           std::string_view password) const;

private:
    template<class Ask>
    [[nodiscard]] std::vector<std::string> Question(const char* what, Ask ask) const;

    const DomainSettings& settings_;
    const std::chrono::steady_clock::time_point end_;
};

} // namespace tavr
