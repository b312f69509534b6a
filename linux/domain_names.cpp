#include "linux/domain_names.h"

#include "linux/settings.h"

#include <strings.h>

#include <algorithm>
#include <utility>

namespace tavr
{

namespace
{

constexpr size_t kLongestName = 15; // of a domain, as its members have it
constexpr size_t kLongestRealm = 253;

bool IsNameCharacter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
}

bool IsName(std::string_view text)
{
    return !text.empty() && text.size() <= kLongestName && text.front() != '-' &&
           std::all_of(text.begin(), text.end(), IsNameCharacter);
}

bool IsRealm(std::string_view text)
{
    return !text.empty() && text.size() <= kLongestRealm && text.front() != '.' && text.back() != '.' &&
           text.find("..") == std::string_view::npos &&
           std::all_of(text.begin(), text.end(), [](char c) { return IsNameCharacter(c) || c == '.'; });
}

char Upper(char c)
{
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

char Lower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

DomainName Spelled(std::string_view name, std::string_view realm)
{
    DomainName domain{std::string(name), std::string(realm)};
    std::transform(name.begin(), name.end(), domain.name.begin(), Upper);
    std::transform(realm.begin(), realm.end(), domain.realm.begin(), Lower);
    return domain;
}

// Two domains with one name between them would be one to us.
bool IsTaken(const std::vector<DomainName>& names, const DomainName& added)
{
    return std::any_of(names.begin(), names.end(), [&](const DomainName& one) {
        return IsCalled(one, added.name) || IsCalled(one, added.realm);
    });
}

bool ReadTrusted(std::string_view text, std::vector<DomainName>& names)
{
    while (!text.empty()) {
        const size_t end = std::min(text.find(' '), text.size());
        const std::string_view word = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        if (word.empty()) {
            continue;
        }
        const size_t equals = word.find('=');
        if (equals == std::string_view::npos || !IsName(word.substr(0, equals)) ||
            !IsRealm(word.substr(equals + 1))) {
            return false;
        }
        DomainName added = Spelled(word.substr(0, equals), word.substr(equals + 1));
        if (IsTaken(names, added)) {
            return false;
        }
        names.push_back(std::move(added));
    }
    return true;
}

} // namespace

bool ReadDomainNames(std::vector<DomainName>& names, std::string& problem)
{
    std::vector<DomainName> found;
    const std::string name = Setting("domain_name", "");
    if (name.empty()) {
        names.clear();
        return true;
    }
    if (!IsName(name)) {
        problem = "setting domain_name is not the short name of a domain";
        return false;
    }
    const std::string realm = Setting("domain_realm", "");
    if (!IsRealm(realm)) {
        problem = "setting domain_realm is not the DNS name of a domain";
        return false;
    }
    found.push_back(Spelled(name, realm));
    if (!ReadTrusted(Setting("domain_trusted", ""), found)) {
        problem = "setting domain_trusted is none of NAME=realm, or names a domain twice";
        return false;
    }
    names = std::move(found);
    return true;
}

std::vector<DomainName> KnownDomains()
{
    std::vector<DomainName> names;
    std::string problem;
    return ReadDomainNames(names, problem) ? names : std::vector<DomainName>();
}

bool IsCalled(const DomainName& domain, std::string_view text)
{
    const auto is = [&](const std::string& name) {
        return name.size() == text.size() && strncasecmp(name.data(), text.data(), text.size()) == 0;
    };
    return is(domain.name) || is(domain.realm);
}

} // namespace tavr
