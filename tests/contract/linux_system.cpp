// The system of our own platform, for the contract tests. It runs in a view, with a web worker's ids.
#include "tests/contract/system.h"

#include "linux/accounts.h"
#include "linux/cipher.h"
#include "linux/domain_copy.h"
#include "linux/enrolment.h"
#include "linux/ids.h"
#include "linux/mail_queue.h"
#include "linux/paths.h"
#include "linux/request.h"
#include "linux/session.h"
#include "linux/settings.h"
#include "linux/webapi_frame.h"
#include "tests/support/directory.h"
#include "tests/support/domain.h"
#include "tests/support/in_view.h"

#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>

#include <sodium.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace contract
{

namespace
{

constexpr char kSettings[] = "/etc/tavr/tavrinfo.conf"; // kSettingsFile is a link to it

void Require(bool done, const std::string& what)
{
    if (!done) {
        throw std::runtime_error(what);
    }
}

tavr::Account FindPerson(const std::string& name)
{
    const auto account = tavr::FindAccount(name);
    Require(account.has_value(), "no account " + name);
    return *account;
}

tavr::Group FindPeople(const std::string& name)
{
    const auto group = tavr::FindGroup(name);
    Require(group.has_value(), "no group " + name);
    return *group;
}

std::string ReadBytes(int connection, size_t size)
{
    std::string bytes(size, '\0');
    for (size_t done = 0; done < size;) {
        const ssize_t got = recv(connection, bytes.data() + done, size - done, 0);
        if (got <= 0) {
            return {};
        }
        done += static_cast<size_t>(got);
    }
    return bytes;
}

// SSSD is root's.
struct StopAsRoot {
    void operator()(::Domain* domain) const
    {
        const tavr::EffectiveIds root = tavr::EffectiveIds::Root();
        delete domain;
    }
};

Entry Named(const std::string& name, const std::string& description)
{
    Entry entry;
    entry.name = name;
    entry.description = description;
    return entry;
}

std::unique_ptr<::Domain, StopAsRoot> StartDomain()
{
    std::unique_ptr<::Domain, StopAsRoot> domain;
    {
        const tavr::EffectiveIds root = tavr::EffectiveIds::Root();
        domain.reset(new ::Domain({"--users", "2", "--groups", "0"}));
        std::ofstream(kSettings, std::ios::app) << domain->SettingsLines();
        Directory::WriteSecret();
    }
    tavr::CopyRunner().Refresh(tavr::ReadCopyPlan().domains.at(0), [](int64_t) { return true; });
    SetSetting("domain_trusted", "OTHER=other.test"); // of which there is no copy
    return domain;
}

} // namespace

Features Has()
{
    return {.cipher = true, .hardwareId = true, .tokens = true, .safeMode = true, .accountsAway = true};
}

void SetUp()
{
    const tavr::EffectiveIds root = tavr::EffectiveIds::Root();
    Require(root.Changed() && InView() && sodium_init() >= 0, "needs a private root view");
    for (const char* folder : {tavr::kStateDir, tavr::kPreferenceDir}) { // what a killed program has left
        for (const auto& entry : std::filesystem::directory_iterator(folder)) {
            std::filesystem::remove_all(entry);
        }
    }
    unlink(tavr::kSettingsFile);
    Require(symlink("tavr/tavrinfo.conf", tavr::kSettingsFile) == 0, tavr::kSettingsFile);
    std::ofstream(kSettings, std::ios::trunc) << "maillang=\"enu\"\n";
    std::ofstream(tavr::kMachineIdFile) << "0123456789abcdef0123456789abcdef\n";
    std::ofstream(tavr::kMachineKeyFile)
        << "tavr-machine-key-1 000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f\n";
    Require(chown(tavr::kMachineKeyFile, 0, getgid()) == 0 && chmod(tavr::kMachineKeyFile, 0440) == 0,
            tavr::kMachineKeyFile);
}

void StartRequest(const std::string& account)
{
    tavr::StartRequest();
    if (account.empty()) {
        return;
    }
    const tavr::Account found = FindPerson(account);
    const tavr::EnrolmentState state = tavr::Settle(found);
    Require(state.enrolment != tavr::Enrolment::Fault &&
                tavr::NameAccountToCipher(found) == tavr::Fault::None,
            tavr::FaultText(state.fault));
    tavr::CurrentRequest().facts =
        tavr::Request::Facts{found.uid, state.enrolment == tavr::Enrolment::Yes, false};
}

// --- Accounts and groups ---

void AddPerson(const Person& person)
{
    const auto account = tavr::AddAccount(
        {person.name, person.description, person.mail, person.administrator}, person.password);
    Require(account.has_value(), "cannot add " + person.name);
    for (const std::string& group : person.groups) {
        tavr::JoinGroup(*account, FindPeople(group));
    }
}

void RemovePerson(const std::string& name)
{
    tavr::RemoveAccount(FindPerson(name).uid);
}

void AddGroup(const std::string& name, const std::string& description)
{
    Require(tavr::AddGroup(name, description).has_value(), "cannot add " + name);
}

void RemoveGroup(const std::string& name)
{
    tavr::RemoveGroup(FindPeople(name));
}

// Its tables have other names for a while.
void TakeAccountsAway(bool away)
{
    sqlite3* db = nullptr;
    const bool opened =
        sqlite3_open_v2(tavr::kAccountsDatabase, &db, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK;
    const char* const sql = away ? "ALTER TABLE account RENAME TO account_away;"
                                   "ALTER TABLE account_group RENAME TO account_group_away;"
                                 : "ALTER TABLE account_away RENAME TO account;"
                                   "ALTER TABLE account_group_away RENAME TO account_group;";
    const bool done = opened && sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
    const std::string why = sqlite3_errmsg(db);
    sqlite3_close(db);
    Require(done, why);
}

std::string OwnerOfSession(const std::string& identifier)
{
    const auto session = tavr::FindSession(identifier);
    return session ? session->account.name : "";
}

// --- State and settings ---

void SetSetting(const std::string& key, const std::string& value)
{
    Require(tavr::WriteSetting(key, value), "cannot set " + key);
}

void SetSafeMode(bool on)
{
    SetSetting("ha_safemode", on ? "yes" : "no");
}

void SetMailServer(const std::string& server)
{
    SetSetting("mail_server", server);
    SetSetting("mail_from", "server@office.example");
}

// Taking mails out of the queue is for good, in one process.
std::vector<Mail> WaitingMails()
{
    static std::vector<Mail> mails;
    for (const tavr::QueuedMail& mail : tavr::DueMails(1000)) {
        mails.push_back({mail.to, mail.subject, mail.html});
    }
    return mails;
}

// --- The web API ---

std::string TakeRequest(int connection)
{
    tavr::FrameHead head{};
    const std::string bytes = ReadBytes(connection, head.size());
    bytes.copy(head.data(), head.size());
    return ReadBytes(connection, tavr::SizeInFrameHead(head));
}

void GiveAnswer(int connection, const std::string& text)
{
    const tavr::FrameHead head = tavr::MakeFrameHead(text.size());
    const std::string message = std::string(head.data(), head.size()) + text;
    for (size_t done = 0; done < message.size();) {
        const ssize_t sent = send(connection, message.data() + done, message.size() - done, MSG_NOSIGNAL);
        if (sent < 0) {
            return; // the client has had enough
        }
        done += static_cast<size_t>(sent);
    }
}

// --- Directories ---

std::optional<Ldap> SetUpLdap()
{
    static const std::unique_ptr<Directory> directory = [] {
        auto started = Directory::CanStart() ? std::make_unique<Directory>() : nullptr;
        if (started) {
            const tavr::EffectiveIds root = tavr::EffectiveIds::Root();
            std::ofstream(kSettings, std::ios::app) << started->SettingsLines();
            Directory::WriteSecret();
        }
        return started;
    }();
    if (!directory) {
        return std::nullopt;
    }
    Ldap ldap;
    ldap.person = {.name = "lea@office.example",
                   .description = "Lea B.",
                   .mail = "lea@home.example",
                   .password = "lea-password",
                   .bare = "lea",
                   .dn = "uid=Lea,ou=people,dc=office,dc=example"};
    ldap.withoutMail = {.name = "nomail@office.example",
                        .description = "No Mail",
                        .mail = "",
                        .password = "nomail-password",
                        .bare = "nomail",
                        .dn = "uid=nomail,ou=people,dc=office,dc=example"};
    ldap.twice = "twin";
    ldap.specials = "a(b)";
    ldap.group.name = "inner@office.example";
    ldap.group.description = "Inner ring";
    return ldap;
}

std::optional<Domain> SetUpDomain()
{
    if (!::Domain::CanStart()) {
        return std::nullopt;
    }
    static const std::unique_ptr<::Domain, StopAsRoot> domain = StartDomain();
    SetSetting("domain_name", "CORP");
    contract::Domain joined;
    joined.name = "CORP";
    joined.users = {Named("CORP\\dan", "Dan, the Man"), Named("CORP\\user000001", "User 000001"),
                    Named("CORP\\user000002", "User 000002")};
    joined.users[0].password = "dan-password";
    joined.groups = {Named("CORP\\inner circle", "Dan and nobody else"), Named("CORP\\storage", "")};
    joined.part = "THE MAN";
    joined.trustedDomains = true;
    return joined;
}

bool LeaveDomain()
{
    SetSetting("domain_name", "");
    return true;
}

} // namespace contract
