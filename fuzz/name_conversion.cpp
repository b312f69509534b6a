// Names in all spellings, where domains are known: each ends in the one canonical name, and none in a name of
// another kind of account.
#include "fuzz/demand.h"
#include "linux/domain_names.h"
#include "linux/names.h"
#include "linux/settings.h"

#include <utf8proc.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

// What is known here.
std::string tavr::Setting(std::string_view key, std::string_view fallback)
{
    if (key == "domain_name") {
        return "corp";
    }
    if (key == "domain_realm") {
        return "Corp.Test";
    }
    return key == "domain_trusted" ? "OTHER=other.test" : std::string(fallback);
}

namespace
{

enum class Kind { Local, Domain, Ldap };

bool Holds(std::string_view text, std::string_view part)
{
    return text.find(part) != std::string_view::npos;
}

// A sign in its wide form counts as well.
Kind KindAsTyped(std::string_view text)
{
    if (Holds(text, "\\") || Holds(text, "\xEF\xBC\xBC")) {
        return Kind::Domain;
    }
    return Holds(text, "@") || Holds(text, "\xEF\xBC\xA0") ? Kind::Ldap : Kind::Local;
}

std::string Decomposed(const std::string& text)
{
    utf8proc_uint8_t* const parts = utf8proc_NFD(reinterpret_cast<const utf8proc_uint8_t*>(text.c_str()));
    Demand(parts != nullptr, "a name is UTF-8");
    std::string decomposed(reinterpret_cast<const char*>(parts));
    std::free(parts); // NOLINT(cppcoreguidelines-no-malloc): as its maker has it
    return decomposed;
}

void Spells(const std::string& spelling, const std::string& name)
{
    Demand(spelling.size() > tavr::kMaxName || tavr::CanonicalName(spelling) == name,
           "another spelling ends in the same name");
}

void CheckSpellings(const std::string& name)
{
    Spells(name, name);
    Spells("  " + name + ' ', name);
    Spells("\xE3\x80\x80" + name, name); // a wide blank
    Spells(Decomposed(name), name);
    if (std::all_of(name.begin(), name.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; })) {
        std::string upper = name;
        std::transform(upper.begin(), upper.end(), upper.begin(),
                       [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c; });
        Spells(upper, name);
    }
}

void CheckDomainName(const std::string& name)
{
    const size_t at = name.find('\\');
    const std::string domain = name.substr(0, at);
    const std::string user = name.substr(at + 1);
    Demand(!user.empty() && !Holds(user, "\\"), "one user in one domain");
    Demand(domain != "CORP.TEST" && domain != "OTHER.TEST", "a known domain goes by its name");
    for (const auto& [called, realm] : {std::pair("CORP", "corp.test"), std::pair("OTHER", "other.test")}) {
        if (domain == called) {
            Spells(realm + ('\\' + user), name);
            if (!Holds(user, "@")) {
                Spells(user + '@' + called, name);
                Spells(user + '@' + realm, name);
            }
        }
    }
}

void CheckLdapName(const std::string& name)
{
    const size_t at = name.find('@');
    const std::string realm = name.substr(at + 1);
    Demand(at > 0 && !realm.empty() && !Holds(realm, "@"), "one user of one realm");
    for (const char* known : {"corp", "corp.test", "other", "other.test"}) {
        Demand(realm != known, "a domain's account is no LDAP account");
    }
    Demand(tavr::CanonicalName(name.substr(0, at)) == name.substr(0, at), "the user's part is a name");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string typed(reinterpret_cast<const char*>(data), size);
    const std::optional<std::string> name = tavr::CanonicalName(typed);
    if (!name) {
        return 0;
    }
    const Kind kind = KindAsTyped(*name);
    const Kind asTyped = KindAsTyped(typed);
    Demand(kind == asTyped || (asTyped == Kind::Ldap && kind == Kind::Domain), "the kind is the one typed");
    Demand(tavr::IsDirectoryName(*name) == (kind != Kind::Local), "a local name is of no directory");
    Demand(kind == asTyped || name->starts_with("CORP\\") || name->starts_with("OTHER\\"),
           "a realm is a domain only if it is known");
    CheckSpellings(*name);
    if (kind == Kind::Domain) {
        CheckDomainName(*name);
    } else if (kind == Kind::Ldap) {
        CheckLdapName(*name);
    }
    return 0;
}
