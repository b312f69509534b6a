#include "cli/commands.h"
#include "cli/console.h"
#include "linux/ldap_accounts.h"
#include "linux/names.h"

namespace tavr::console
{

namespace
{

struct StepText {
    const char* key;
    const char* advice;
};

// What to change where a step fails.
StepText TextOf(LdapStep step)
{
    switch (step) {
    case LdapStep::Settings:
        return {"directory_settings", "mend the settings ldap_* in /etc/tavrinfo.conf"};
    case LdapStep::Connect:
        return {"directory_connect", "see that the server runs, and host and port in ldap_uri"};
    case LdapStep::Encrypt:
        return {"directory_encrypt",
                "see that ldap_ca_file holds the certificate of who issued the server's, and that "
                "ldap_uri calls the server what its certificate does"};
    case LdapStep::Bind:
        return {"directory_bind", "see ldap_bind_dn, and ldap_bind_password in /etc/tavr/secrets"};
    case LdapStep::Search:
        return {"directory_search", "see ldap_base, the filters, and what the reading account may read"};
    }
    return {"directory", ""};
}

[[noreturn]] void Fail(const LdapError& error)
{
    const auto [key, advice] = TextOf(error.step);
    throw Failure(Exit::Failed, key, std::string(error.what()) + "; " + advice);
}

LdapSettings TestSettings()
{
    const std::optional<LdapSettings> settings = ReadLdapSettings();
    if (!settings) {
        throw LdapError(LdapStep::Settings, "no directory is set up: ldap_uri is empty");
    }
    Say("settings: accounts are called name@" + settings->realm);
    return *settings;
}

// Every server by itself: one that cannot be used is not noticed while another one can.
Json::Value TestServers(const LdapSettings& settings)
{
    Json::Value uris(Json::arrayValue);
    for (const LdapServer& server : settings.servers) {
        LdapSettings one = settings;
        one.servers = {server};
        const LdapConnection connection(one);
        const bool encrypted = server.tls || settings.startTls;
        Say(server.uri + ": connected, " + (encrypted ? "encrypted" : "not encrypted") + ", lets " +
            (settings.bindName.empty() ? "anybody" : settings.bindName) + " in");
        uris.append(server.uri);
    }
    return uris;
}

int64_t Count(int64_t (*list)(std::string_view, const ListPage&, const EachEntry&), const char* what,
              const std::string& where)
{
    const int64_t count = list("", {0, 0}, [](const ListEntry&) {});
    Say(what + (": " + std::to_string(count)) + " below " + where);
    if (count == 0) {
        throw LdapError(LdapStep::Search, std::string("there are no ") + what +
                                              " with a name and an identifier (ldap_id) below " + where);
    }
    return count;
}

Json::Value TestAccount(const std::string& typedName)
{
    const auto name = CanonicalName(typedName);
    if (!name || !IsLdapName(*name)) {
        throw Failure(Exit::Usage, "bad_name", "this is no name of an account of the directory");
    }
    const std::optional<Account> account = FindLdapAccount(*name);
    if (!account) {
        throw Failure(Exit::NotFound, "no_such_user",
                      "the directory has no account " + *name + ", or several entries have the name");
    }
    const std::vector<uint32_t> groups = GroupsOfLdapAccount(*name);
    Say(*name + ": number " + std::to_string(account->uid) + ", address " +
        (account->mail.empty() ? "-" : account->mail) + ", groups " + std::to_string(groups.size()));
    Json::Value answer;
    answer["name"] = *name;
    answer["uid"] = account->uid;
    answer["mail"] = account->mail;
    answer["groups"] = Json::UInt64{groups.size()};
    return answer;
}

} // namespace

void TestDirectory(const std::string& typedName)
{
    try {
        const LdapSettings settings = TestSettings();
        Json::Value answer;
        answer["realm"] = settings.realm;
        answer["servers"] = TestServers(settings);
        answer["accounts"] = Json::Int64{Count(ListLdapAccounts, "accounts", settings.userBase)};
        answer["groups"] = Json::Int64{Count(ListLdapGroups, "groups", settings.groupBase)};
        if (!typedName.empty()) {
            answer["account"] = TestAccount(typedName);
        }
        Answer(std::move(answer));
    } catch (const LdapError& error) {
        Fail(error);
    }
}

} // namespace tavr::console
