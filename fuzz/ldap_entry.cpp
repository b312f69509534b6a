// An entry of the LDAP directory: whatever the server sends, it is no account or group, or one whose name is
// one that the entry has, of the directory's own realm, and whose texts are bounded and can be shown.
#include "fuzz/ldap_answer.h"
#include "linux/ldap_entries.h"
#include "linux/mail_settings.h"
#include "linux/names.h"

#include <algorithm>
#include <cstdint>

namespace
{

constexpr char kEnd[] = "@office.example";

tavr::LdapSettings Settings()
{
    tavr::LdapSettings settings;
    settings.realm = kEnd + 1;
    settings.idAttribute = "entryUUID";
    settings.userName = "uid";
    settings.groupName = "cn";
    settings.userDescription = settings.groupDescription = "description";
    settings.userMail = "mail";
    return settings;
}

void CheckName(const std::string& name, const std::vector<std::string>& values)
{
    Demand(name.size() <= tavr::kMaxName && name.ends_with(kEnd) && name.find('\\') == std::string::npos,
           "a name of the realm");
    Demand(tavr::CanonicalName(name) == name, "the canonical name");
    Demand(std::any_of(values.begin(), values.end(),
                       [&](const std::string& value) { return tavr::CanonicalName(value + kEnd) == name; }),
           "a name that the entry has");
}

void CheckTexts(const std::string& id, const std::string& description)
{
    Demand(!id.empty() && id.size() <= 128 && tavr::IsPlainText(id), "an identifier that can be stored");
    Demand(description.size() <= 1024 && tavr::IsPlainText(description), "a description that can be shown");
}

void CheckPerson(const tavr::LdapEntry& entry, const tavr::LdapSettings& settings)
{
    const auto person = tavr::PersonOf(entry, settings);
    if (!person) {
        return;
    }
    CheckName(person->account.name, entry.Values(settings.userName));
    CheckTexts(person->id, person->account.description);
    const std::string& mail = person->account.mail;
    Demand(mail.empty() || (mail.size() <= 254 && tavr::IsMailAddress(mail)), "an address or none");
    Demand(person->account.kind == 8 && person->account.uid == 0 && person->account.gid == 65534 &&
               !person->account.isAdmin,
           "an account of the directory");
    Demand(!person->dn.empty() && person->dn.find('\0') == std::string::npos, "a DN");
    Demand(person->primaryGroup.size() <= 4096 && person->memberOf.size() <= 1000, "bounded");
}

void CheckGroup(const tavr::LdapEntry& entry, const tavr::LdapSettings& settings)
{
    if (const auto found = tavr::GroupOf(entry, settings)) {
        CheckName(found->group.name, entry.Values(settings.groupName));
        CheckTexts(found->id, found->group.description);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const tavr::LdapSettings settings = Settings();
    const std::vector<AnsweredAttribute> letters = {{'i', "entryUUID"},   {'u', "uid"},  {'c', "cn"},
                                                    {'d', "description"}, {'m', "mail"}, {'g', "gidNumber"},
                                                    {'o', "memberOf"}};
    WithAnswer({reinterpret_cast<const char*>(data), size}, letters, [](const tavr::LdapEntry& entry) {
        CheckPerson(entry, settings);
        CheckGroup(entry, settings);
    });
    return 0;
}
