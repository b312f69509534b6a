#include "linux/domain_settings.h"

#include "linux/settings.h"

namespace tavr
{

namespace
{

constexpr char kSeparators[] = "\\+@";

[[noreturn]] void Refuse(const std::string& problem)
{
    throw LdapError(LdapStep::Settings, problem);
}

DomainClient ClientSetting()
{
    const std::string text = Setting("domain_client", "sssd");
    if (text != "sssd" && text != "winbind") {
        Refuse("setting domain_client is neither sssd nor winbind");
    }
    return text == "sssd" ? DomainClient::Sssd : DomainClient::Winbind;
}

char SeparatorSetting()
{
    const std::string text = Setting("domain_separator", "\\");
    if (text.size() != 1 || std::string(kSeparators).find(text) == std::string::npos) {
        Refuse("setting domain_separator is none of \\, + and @");
    }
    return text[0];
}

std::vector<DomainName> NamesSetting()
{
    std::vector<DomainName> names;
    std::string problem;
    if (!ReadDomainNames(names, problem)) {
        Refuse(problem);
    }
    return names;
}

} // namespace

std::optional<DomainSettings> ReadDomainSettings()
{
    DomainSettings settings;
    settings.names = NamesSetting();
    if (settings.names.empty()) {
        return std::nullopt;
    }
    settings.client = ClientSetting();
    settings.separator = SeparatorSetting();
    return settings;
}

std::optional<DomainCopySettings> ReadDomainCopySettings()
{
    constexpr int64_t kMostPage = 1000; // what controllers give at most
    constexpr int64_t kDay = 24 * 60 * 60;
    const std::vector<DomainName> names = NamesSetting();
    DomainCopySettings settings;
    if (names.empty() || !ReadLdapServers("domain_", settings.ldap)) {
        return std::nullopt;
    }
    settings.ldap.realm = names.front().realm;
    settings.ldap.userBase = Setting("domain_base", BaseOfRealm(names.front().realm));
    settings.ldap.groupBase = settings.ldap.userBase;
    settings.pageSize = static_cast<int>(NumberSetting("domain_page_size", 500, 1, kMostPage));
    settings.refreshSeconds = NumberSetting("domain_refresh", 60 * 60, 60, 30 * kDay);
    return settings;
}

std::string BaseOfRealm(const std::string& realm)
{
    std::string base = "dc=" + realm;
    for (size_t dot = 0; (dot = base.find('.', dot)) != std::string::npos;) {
        base.replace(dot, 1, ",dc=");
    }
    return base;
}

} // namespace tavr
