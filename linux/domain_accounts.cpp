#include "linux/domain_accounts.h"

#include "linux/directory_numbers.h"
#include "linux/domain_client.h"
#include "linux/names.h"
#include "linux/places.h"
#include "linux/request.h"

#include <syslog.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <utility>

namespace tavr
{

namespace
{

constexpr std::chrono::milliseconds kWholeTime{8'000}; // that the client has in one request

// What one request knows of the domain.
struct Asked {
    std::optional<DomainSettings> settings;
    std::optional<std::chrono::steady_clock::time_point> end;
    std::optional<DirectoryError> failure;
    std::optional<Account> account; // the last one, numbered
    std::optional<Group> group;
};

Asked& CurrentAsked()
{
    std::shared_ptr<void>& kept = CurrentRequest().domain;
    if (!kept) {
        auto made = std::make_shared<Asked>();
        made->settings = ReadDomainSettings();
        kept = std::move(made);
    }
    return *static_cast<Asked*>(kept.get());
}

// Gives ask(client).
template<class Ask>
auto WithClient(Ask ask)
{
    Asked& asked = CurrentAsked();
    if (asked.failure) {
        throw DirectoryError(*asked.failure);
    }
    try {
        if (!asked.settings) {
            throw DirectoryError("no domain is set up");
        }
        TakeDirectoryPlace();
        if (!asked.end) {
            asked.end = std::chrono::steady_clock::now() + kWholeTime;
        }
        return ask(DomainClientCalls(*asked.settings, *asked.end));
    } catch (const DirectoryError& error) {
        asked.failure.emplace(error);
        throw;
    }
}

// Of the accounts and groups that domains make themselves; not those that every machine has.
bool IsDomainSid(const std::string& sid)
{
    constexpr size_t kLongest = 184;
    return sid.starts_with("S-1-5-21-") && sid.size() <= kLongest &&
           std::all_of(sid.begin() + 1, sid.end(), [](char c) { return (c >= '0' && c <= '9') || c == '-'; });
}

// Clients may call accounts of their own domain without it.
bool IsCalledSo(const std::string& said, const std::string& name)
{
    const DomainSettings& settings = *CurrentAsked().settings;
    std::string spelled = said;
    if (settings.separator == '+') {
        std::replace(spelled.begin(), spelled.end(), '+', '\\');
    }
    const auto canonical = CanonicalName(spelled);
    if (canonical && !IsDirectoryName(*canonical)) {
        return CanonicalName(settings.names.front().name + '\\' + *canonical) == name;
    }
    return canonical == name;
}

bool IsOf(const ClientEntry& entry, const std::string& name)
{
    if (!IsCalledSo(entry.name, name)) {
        syslog(LOG_WARNING, "%s is called otherwise in the domain, so it is nobody's name here",
               name.c_str());
        return false;
    }
    if (!IsDomainSid(entry.sid)) {
        syslog(LOG_WARNING, "%s has no SID of a domain, so it is nobody's name here", name.c_str());
        return false;
    }
    return true;
}

// Numbered, and kept for the request.
const Account* Know(const std::optional<ClientEntry>& entry, const std::string& name)
{
    if (!entry || !IsOf(*entry, name)) {
        return nullptr;
    }
    Account account;
    account.name = name;
    account.kind = kKindDomain;
    account.gid = kNoGroup;
    account.uid = NumberOfAccount(kKindDomain, {entry->sid, name});
    if (DescriptionProblem(entry->description) == nullptr) {
        account.description = entry->description;
    }
    return &CurrentAsked().account.emplace(std::move(account));
}

const Account* FindPerson(const std::string& name)
{
    const std::optional<Account>& known = CurrentAsked().account;
    if (known && known->name == name) {
        return &*known;
    }
    const Account* found =
        Know(WithClient([&](const DomainClientCalls& client) { return client.FindAccount(name); }), name);
    if (found == nullptr && FindAccount(name)) {
        throw DirectoryError(name + " is not known any more, or the domain cannot be reached");
    }
    return found;
}

} // namespace

bool IsDomainSetUp()
{
    return CurrentAsked().settings.has_value();
}

bool IsDomainName(std::string_view canonicalName)
{
    const size_t backslash = canonicalName.find('\\');
    if (backslash == std::string_view::npos || !IsDomainSetUp()) {
        return false;
    }
    const std::vector<DomainName>& names = CurrentAsked().settings->names;
    const std::string_view domain = canonicalName.substr(0, backslash);
    return std::any_of(names.begin(), names.end(),
                       [&](const DomainName& known) { return known.name == domain; });
}

std::optional<Account> FindDomainAccount(const std::string& canonicalName)
{
    const Account* found = FindPerson(canonicalName);
    return found != nullptr ? std::optional(*found) : std::nullopt;
}

std::optional<Group> FindDomainGroup(const std::string& canonicalName)
{
    Asked& asked = CurrentAsked();
    if (asked.group && asked.group->name == canonicalName) {
        return asked.group;
    }
    const auto entry =
        WithClient([&](const DomainClientCalls& client) { return client.FindGroup(canonicalName); });
    if (!entry || !IsOf(*entry, canonicalName)) {
        return std::nullopt;
    }
    const std::string sids[] = {entry->sid};
    Group group;
    group.name = canonicalName;
    group.gid = NumbersOfGroups(kKindDomain, sids)[0];
    return asked.group.emplace(std::move(group));
}

std::optional<Account> CheckDomainPassword(const std::string& canonicalName, std::string_view password)
{
    if (PasswordProblem(password) != nullptr) {
        return std::nullopt;
    }
    const Account* found = Know(WithClient([&](const DomainClientCalls& client) {
                                    return client.CheckPassword(canonicalName, password);
                                }),
                                canonicalName);
    return found != nullptr ? std::optional(*found) : std::nullopt;
}

std::vector<uint32_t> GroupsOfDomainAccount(const std::string& canonicalName)
{
    std::vector<std::string> sids =
        WithClient([&](const DomainClientCalls& client) { return client.GroupSids(canonicalName); });
    std::erase_if(sids, [](const std::string& sid) { return !IsDomainSid(sid); });
    return NumbersOfGroups(kKindDomain, sids);
}

} // namespace tavr
