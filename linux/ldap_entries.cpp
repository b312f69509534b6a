#include "linux/ldap_entries.h"

#include "linux/ldap_library.h"
#include "linux/mail_settings.h"
#include "linux/names.h"

#include <sodium.h>
#include <strings.h>

#include <algorithm>
#include <memory>
#include <set>
#include <string_view>
#include <utility>

namespace tavr
{

namespace
{

constexpr size_t kMostId = 64; // bytes

std::string First(const std::vector<std::string>& values)
{
    return values.empty() ? "" : values.front();
}

struct FreeDn {
    void operator()(LDAPDN dn) const noexcept { Ldap().ldap_dnfree(dn); }
};

// The values of an attribute that stand in the first part of a DN.
std::vector<std::string> NamesInDn(const std::string& dn, const std::string& attribute)
{
    LDAPDN parsed = nullptr;
    if (Ldap().ldap_str2dn(dn.c_str(), &parsed, LDAP_DN_FORMAT_LDAPV3) != LDAP_SUCCESS || parsed == nullptr) {
        return {};
    }
    const std::unique_ptr<LDAPRDN, FreeDn> owner(parsed);
    std::vector<std::string> values;
    for (LDAPAVA** part = parsed[0]; part != nullptr && *part != nullptr; ++part) {
        const std::string_view name((*part)->la_attr.bv_val, (*part)->la_attr.bv_len);
        if (name.size() == attribute.size() && strncasecmp(name.data(), attribute.data(), name.size()) == 0) {
            values.emplace_back((*part)->la_value.bv_val, (*part)->la_value.bv_len);
        }
    }
    return values;
}

// Empty: it can be no name of the realm. One with a backslash would be a domain's.
std::string NameInRealm(const std::string& value, const std::string& realm)
{
    const std::string end = '@' + realm;
    const auto name = CanonicalName(value + end);
    return name && name->ends_with(end) && name->find('\\') == std::string::npos ? *name : "";
}

std::set<std::string> NamesInRealm(const std::vector<std::string>& values, const std::string& realm)
{
    std::set<std::string> names;
    for (const std::string& value : values) {
        names.insert(NameInRealm(value, realm));
    }
    return names;
}

// The canonical name of an entry; empty when it has none, or several of which its DN picks none.
std::string NameOf(const std::vector<std::string>& values, const std::string& dn,
                   const std::string& attribute, const std::string& realm)
{
    const std::set<std::string> names = NamesInRealm(values, realm);
    const std::set<std::string> picked =
        names.size() > 1 ? NamesInRealm(NamesInDn(dn, attribute), realm) : names;
    return picked.size() == 1 && names.contains(*picked.begin()) ? *picked.begin() : "";
}

std::string DescriptionOf(const std::vector<std::string>& values)
{
    const std::string text = First(values);
    return DescriptionProblem(text) == nullptr ? text : "";
}

std::string MailOf(const std::vector<std::string>& values)
{
    const auto found = std::find_if(values.begin(), values.end(), IsMailAddress);
    return found != values.end() ? *found : "";
}

} // namespace

std::optional<Person> PersonOf(const LdapEntry& entry, const LdapSettings& settings)
{
    Person person;
    person.dn = entry.Dn();
    person.bareNames = entry.Values(settings.userName);
    person.id = IdOf(entry, settings);
    person.account.name = NameOf(person.bareNames, person.dn, settings.userName, settings.realm);
    if (person.dn.empty() || person.id.empty() || person.account.name.empty()) {
        return std::nullopt;
    }
    person.account.kind = kKindLdap;
    person.account.gid = kNoGroup;
    person.account.description = DescriptionOf(entry.Values(settings.userDescription));
    person.account.mail = MailOf(entry.Values(settings.userMail));
    person.primaryGroup = First(entry.Values("gidNumber"));
    person.memberOf = entry.Values("memberOf");
    return person;
}

std::optional<GroupEntry> GroupOf(const LdapEntry& entry, const LdapSettings& settings)
{
    GroupEntry found;
    found.dn = entry.Dn();
    found.id = IdOf(entry, settings);
    found.group.name = NameOf(entry.Values(settings.groupName), found.dn, settings.groupName, settings.realm);
    found.group.description = DescriptionOf(entry.Values(settings.groupDescription));
    return found.id.empty() || found.group.name.empty() ? std::nullopt : std::optional(std::move(found));
}

std::string IdOf(const LdapEntry& entry, const LdapSettings& settings)
{
    const std::vector<std::string> values = entry.Values(settings.idAttribute);
    if (values.size() != 1 || values[0].empty() || values[0].size() > kMostId) {
        return {};
    }
    if (IsPlainText(values[0])) {
        return values[0];
    }
    std::string digits(values[0].size() * 2 + 1, '\0');
    sodium_bin2hex(digits.data(), digits.size(), reinterpret_cast<const unsigned char*>(values[0].data()),
                   values[0].size());
    digits.pop_back();
    return digits;
}

} // namespace tavr
