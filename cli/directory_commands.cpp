#include "cli/commands.h"
#include "cli/console.h"
#include "linux/domain_accounts.h"
#include "linux/domain_client.h"
#include "linux/domain_copy.h"
#include "linux/domain_entries.h"
#include "linux/ldap_accounts.h"
#include "linux/names.h"

namespace tavr::console
{

namespace
{

struct StepText {
    const char* key;
    std::string advice;
};

// What to change where a step fails. The settings begin with `prefix`.
StepText TextOf(LdapStep step, const std::string& prefix)
{
    switch (step) {
    case LdapStep::Settings:
        return {"directory_settings", "mend the settings " + prefix + "* in /etc/tavrinfo.conf"};
    case LdapStep::Connect:
        return {"directory_connect", "see that the server runs, and host and port in " + prefix + "uri"};
    case LdapStep::Encrypt:
        return {"directory_encrypt",
                "see that " + prefix + "ca_file holds the certificate of who issued the server's, and that " +
                    prefix + "uri calls the server what its certificate does"};
    case LdapStep::Bind:
        return {"directory_bind",
                "see " + prefix + "bind_dn, and " + prefix + "bind_password in /etc/tavr/secrets"};
    case LdapStep::Search:
        return {"directory_search", "see " + prefix + "base, " + (prefix == "ldap_" ? "the filters, " : "") +
                                        "and what the reading account may read"};
    case LdapStep::Load:
        return {"directory_library", "install the LDAP library"};
    }
    return {"directory", ""};
}

// Gives test().
template<class Test>
auto WithAdvice(const char* prefix, Test test)
{
    try {
        return test();
    } catch (const LdapError& error) {
        const auto [key, advice] = TextOf(error.step, prefix);
        throw Failure(Exit::Failed, key, std::string(error.what()) + "; " + advice);
    }
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

// --- The LDAP directory ------------------------------------------------------------------------------------

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

Json::Value TestLdapAccount(const std::string& name)
{
    const std::optional<Account> account = FindLdapAccount(name);
    if (!account) {
        throw Failure(Exit::NotFound, "no_such_user",
                      "the directory has no account " + name + ", or several entries have the name");
    }
    const std::vector<uint32_t> groups = GroupsOfLdapAccount(name);
    Say(name + ": number " + std::to_string(account->uid) + ", address " +
        (account->mail.empty() ? "-" : account->mail) + ", groups " + std::to_string(groups.size()));
    Json::Value answer;
    answer["name"] = name;
    answer["uid"] = account->uid;
    answer["mail"] = account->mail;
    answer["groups"] = Json::UInt64{groups.size()};
    return answer;
}

// Null: none is set up.
Json::Value TestLdap(const std::string& name)
{
    const std::optional<LdapSettings> settings = ReadLdapSettings();
    if (!settings) {
        return {};
    }
    if (!name.empty() && !IsLdapName(name)) {
        throw Failure(Exit::Usage, "bad_name", "this is no name of an account of the LDAP directory");
    }
    Say("settings: accounts are called name@" + settings->realm);
    Json::Value answer;
    answer["realm"] = settings->realm;
    answer["servers"] = TestServers(*settings);
    answer["accounts"] = Json::Int64{Count(ListLdapAccounts, "accounts", settings->userBase)};
    answer["groups"] = Json::Int64{Count(ListLdapGroups, "groups", settings->groupBase)};
    if (!name.empty()) {
        answer["account"] = TestLdapAccount(name);
    }
    return answer;
}

// --- The domain --------------------------------------------------------------------------------------------

constexpr std::chrono::minutes kReading{5};

// What controllers say of the accounts.
struct Listed {
    int64_t accounts = 0;
    int64_t groups = 0;
    std::string first; // an account, for want of one to look for
    std::string sid;   // of the one that is looked for
};

void ReadDomain(const CopiedDomain& domain, const std::string& name, Listed& listed)
{
    LdapConnection connection(domain.ldap, kReading);
    const std::vector<std::string> attributes = {domain.ldap.idAttribute, domain.ldap.userName};
    const auto read = [&](const std::string& base, const std::string& filter, const auto& take) {
        LdapSearch search{base, filter, attributes};
        search.page = domain.pageSize;
        int64_t count = 0;
        connection.Search(search, [&](const LdapEntry& entry) {
            const LdapEntry::Texts texts = entry.OnlyValues(attributes);
            const std::string sid = SidOf(texts.values[0]);
            const auto found = DomainEntryOf(domain.name, texts.values[1], "", texts.dn);
            if (!sid.empty() && !sid.starts_with("S-1-5-32-") && found) { // those every machine has
                ++count;
                take(found->name, sid);
            }
        });
        return count;
    };
    const int64_t accounts = read(domain.ldap.userBase, domain.ldap.userFilter,
                                  [&](const std::string& called, const std::string& sid) {
                                      if (listed.first.empty()) {
                                          listed.first = called;
                                      }
                                      if (called == name) {
                                          listed.sid = sid;
                                      }
                                  });
    const int64_t groups =
        read(domain.ldap.groupBase, domain.ldap.groupFilter, [](const std::string&, const std::string&) {});
    Say(domain.name + ": " + std::to_string(accounts) + " accounts, " + std::to_string(groups) +
        " groups below " + domain.ldap.userBase);
    if (accounts == 0) {
        throw LdapError(LdapStep::Search,
                        "there are no accounts with a name and a SID below " + domain.ldap.userBase);
    }
    listed.accounts += accounts;
    listed.groups += groups;
}

Listed TestControllers(const std::string& name, Json::Value& answer)
{
    Listed listed;
    const CopyPlan plan = ReadCopyPlan();
    if (plan.domains.empty()) {
        Say("controllers: none is set up (domain_uri), so there are no lists");
        return listed;
    }
    answer["servers"] = TestServers(plan.domains.front().ldap);
    for (const CopiedDomain& domain : plan.domains) {
        ReadDomain(domain, name, listed);
    }
    answer["accounts"] = Json::Int64{listed.accounts};
    answer["groups"] = Json::Int64{listed.groups};
    return listed;
}

std::string Shown(const std::string& text)
{
    return text.empty() || !IsPlainText(text) ? "-" : text;
}

Json::Value TestDomainAccount(const std::string& name, const std::string& client, const ClientEntry& entry,
                              const std::string& listedSid)
{
    const std::optional<Account> account = FindDomainAccount(name);
    if (!account) {
        throw Failure(
            Exit::Failed, "directory_client",
            client + " calls " + name + " " + Shown(entry.name) + ", with the SID " + Shown(entry.sid) +
                "; it has to call accounts as domain_name, domain_realm and domain_separator say, and "
                "to make numbers of SIDs");
    }
    if (!listedSid.empty() && listedSid != entry.sid) {
        throw Failure(Exit::Failed, "directory_client",
                      client + " gives " + name + " the SID " + entry.sid + ", the controllers " + listedSid +
                          "; see that domain_uri names controllers of the domain that has been joined");
    }
    const std::vector<uint32_t> groups = GroupsOfDomainAccount(name);
    Say(name + ": number " + std::to_string(account->uid) + ", SID " + entry.sid + ", groups " +
        std::to_string(groups.size()));
    Json::Value answer;
    answer["name"] = name;
    answer["uid"] = account->uid;
    answer["sid"] = entry.sid;
    answer["groups"] = Json::UInt64{groups.size()};
    return answer;
}

// Who has joined the domain: whether it answers, and what it says of the account, or of any.
void TestClient(const DomainSettings& settings, const std::string& name, const Listed& listed,
                Json::Value& answer)
{
    constexpr std::chrono::seconds kLongest{8};
    const std::string client = settings.client == DomainClient::Sssd ? "SSSD" : "winbind";
    const std::string own = settings.names.front().name;
    const std::string asked = !name.empty()           ? name
                              : !listed.first.empty() ? listed.first
                                                      : own + "\\administrator";
    try {
        const DomainClientCalls calls(settings, std::chrono::steady_clock::now() + kLongest);
        const std::optional<ClientEntry> entry = calls.FindAccount(asked);
        Say(client + ": answers, and " + (entry ? "knows " : "does not know ") + asked);
        answer["client"] = client;
        if (name.empty()) {
            return;
        }
        if (!entry) {
            throw Failure(Exit::NotFound, "no_such_user",
                          client + " does not know " + name + "; see that it serves the domain as " + own +
                              " and can reach it, and domain_separator");
        }
        answer["account"] = TestDomainAccount(name, client, *entry, listed.sid);
    } catch (const DirectoryError& error) {
        throw Failure(Exit::Failed, "directory_client",
                      std::string(error.what()) + "; see that its service runs and serves the domain as " +
                          own + ", and that domain_client names it");
    }
}

// Null: none is set up.
Json::Value TestDomain(const std::string& name)
{
    const std::optional<DomainSettings> settings = ReadDomainSettings();
    if (!settings) {
        return {};
    }
    if (!name.empty() && !IsDomainName(name)) {
        throw Failure(Exit::Usage, "bad_name", "this is no name of an account of the domain");
    }
    const DomainName& own = settings->names.front();
    Say("settings: accounts are called " + own.name + "\\name or name@" + own.realm);
    Json::Value answer;
    answer["name"] = own.name;
    answer["realm"] = own.realm;
    const Listed listed = TestControllers(name, answer);
    TestClient(*settings, name, listed, answer);
    return answer;
}

} // namespace

void TestDirectory(const std::string& typedName)
{
    const std::optional<std::string> name = typedName.empty() ? typedName : CanonicalName(typedName);
    if (!name) {
        throw Failure(Exit::Usage, "bad_name", "this is no name of an account");
    }
    const bool isOfDomain = name->find('\\') != std::string::npos;
    Json::Value answer(Json::objectValue);
    if (name->empty() || !isOfDomain) {
        answer = WithAdvice("ldap_", [&] { return TestLdap(*name); });
    }
    if (name->empty() || isOfDomain) {
        Json::Value domain = WithAdvice("domain_", [&] { return TestDomain(*name); });
        if (!domain.isNull()) {
            answer["domain"] = std::move(domain);
        }
    }
    if (answer.empty() && !name->empty()) {
        throw Failure(Exit::Usage, "bad_name", "this is no name of an account of a directory that is set up");
    }
    if (answer.empty()) {
        throw Failure(Exit::Failed, "directory_settings",
                      "no directory is set up: ldap_uri and domain_name are empty; mend the settings in "
                      "/etc/tavrinfo.conf");
    }
    Answer(std::move(answer));
}

} // namespace tavr::console
