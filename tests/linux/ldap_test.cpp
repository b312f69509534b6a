// The connection to a directory: encryption that is what it should be, and servers that are not.
#include "linux/ldap.h"

#include "tests/support/directory.h"
#include "tests/support/fresh_server.h"

#include <sys/resource.h>

#include <chrono>
#include <csignal>
#include <new>

using namespace tavr;
using namespace tavr::test;

namespace
{

LdapSettings SettingsOf(const std::string& uri)
{
    LdapSettings settings;
    LdapServer server;
    server.uri = uri;
    server.host = "127.0.0.1";
    server.port = std::stoi(uri.substr(uri.rfind(':') + 1));
    server.tls = uri.starts_with("ldaps:");
    settings.servers.push_back(server);
    settings.caFile = "/etc/ssl/certs/ca-certificates.crt";
    return settings;
}

LdapSettings SettingsOf(const Directory& directory, const std::string& uri)
{
    LdapSettings settings = SettingsOf(uri);
    settings.caFile = directory.CaFile();
    settings.bindName = kOffice.reader;
    settings.bindPassword.text = kReaderPassword;
    return settings;
}

int CountPeople(LdapConnection& connection)
{
    int count = 0;
    connection.Search({"dc=office,dc=example", "(uid=user*)", {"uid"}},
                      [&](const LdapEntry& entry) { count += entry.Values("uid").size() == 1 ? 1 : 0; });
    return count;
}

// Which step failed; "none": none.
std::string Outcome(const LdapSettings& settings)
{
    static constexpr const char* kSteps[] = {"settings", "connect", "encrypt", "bind", "search", "load"};
    try {
        LdapConnection connection(settings);
        return CountPeople(connection) > 0 ? "none" : "nobody";
    } catch (const LdapError& error) {
        return kSteps[static_cast<int>(error.step)];
    }
}

double SecondsOf(const std::function<void()>& work)
{
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

class Ldap : public FreshServer
{
protected:
    void SetUp() override
    {
        FreshServer::SetUp();
        if (!Directory::CanStart()) {
            GTEST_SKIP() << "there is no slapd on this machine: run scripts/setup test first";
        }
    }
};

} // namespace

TEST(KeptSecret, IsOverwrittenWhereACopyOfItEnds)
{
    alignas(KeptSecret) unsigned char place[sizeof(KeptSecret)] = {};
    const auto holdsIt = [&] {
        return std::string_view(reinterpret_cast<const char*>(place), sizeof place).find("pass") !=
               std::string_view::npos;
    };
    LdapSettings settings;
    settings.bindPassword = KeptSecret("a pass");
    auto* copy = new (place) KeptSecret(settings.bindPassword);
    EXPECT_TRUE(holdsIt());
    *copy = KeptSecret("-");
    EXPECT_FALSE(holdsIt()) << "another one has taken its place";
    *copy = settings.bindPassword;
    EXPECT_EQ("a pass", copy->text);
    copy->~KeptSecret();
    EXPECT_FALSE(holdsIt());
}

TEST_F(Ldap, IsEncryptedWithAServerWhoseCertificateIsVerified)
{
    const Directory directory;
    const Directory stranger({"--other-ca"});
    const Directory open({"--plain-only"});
    AsWorker([&] {
        EXPECT_EQ("none", Outcome(SettingsOf(directory, directory.Uri()))) << "StartTLS";
        EXPECT_EQ("none", Outcome(SettingsOf(directory, directory.TlsUri())));

        LdapSettings settings = SettingsOf(directory, directory.Uri());
        settings.caFile = directory.OtherCaFile();
        EXPECT_EQ("encrypt", Outcome(settings)) << "another CA is trusted";
        settings = SettingsOf(directory, directory.TlsUri());
        settings.caFile = directory.OtherCaFile();
        EXPECT_EQ("encrypt", Outcome(settings));
        settings.caFile = "/etc/ssl/certs/ca-certificates.crt";
        EXPECT_EQ("encrypt", Outcome(settings)) << "nobody's CA";
        settings.caFile = "/absent";
        EXPECT_EQ("encrypt", Outcome(settings));
        EXPECT_EQ("encrypt", Outcome(SettingsOf(stranger, stranger.Uri())));
        EXPECT_EQ("encrypt", Outcome(SettingsOf(stranger, stranger.TlsUri())));

        settings = SettingsOf(open, open.Uri());
        settings.caFile = directory.CaFile();
        EXPECT_EQ("encrypt", Outcome(settings)) << "a server without StartTLS gets no password";
        settings.startTls = false;
        EXPECT_EQ("none", Outcome(settings)) << "by the administrator's choice";
    });
}

TEST_F(Ldap, IsEncryptedWithTheServerThatWasMeant)
{
    const Directory directory;
    test::WriteFile("/etc/hosts", "127.0.0.1 localhost directory.example other.example\n");
    chmod("/etc/hosts", 0644);
    AsWorker([&] {
        for (const char* host : {"directory.example", "other.example"}) {
            for (const bool tls : {false, true}) {
                const std::string port = std::to_string(directory.server.Port(tls ? 1 : 0));
                LdapSettings settings =
                    SettingsOf(directory, (tls ? "ldaps://" : "ldap://") + std::string(host) + ':' + port);
                settings.servers[0].host = host;
                EXPECT_EQ(std::string(host) == "directory.example" ? "none" : "encrypt", Outcome(settings))
                    << settings.servers[0].uri;
            }
        }
    });
}

TEST_F(Ldap, DoesNotListenToWhatTheMachineSaysOfLdap)
{
    const Directory stranger({"--other-ca"});
    test::WriteFile("/etc/ldap/ldap.conf", "TLS_REQCERT never\n");
    chmod("/etc/ldap/ldap.conf", 0644);
    setenv("LDAPTLS_REQCERT", "never", 1);
    AsWorker([&] { EXPECT_EQ("encrypt", Outcome(SettingsOf(stranger, stranger.Uri()))); });
    unsetenv("LDAPTLS_REQCERT");
}

TEST_F(Ldap, GoesToTheNextServerAndStaysThere)
{
    const Directory directory;
    const StartedServer faulty("faulty_ldap.py", {"silent"});
    AsWorker([&] {
        LdapSettings settings = SettingsOf(directory, directory.Uri());
        const LdapSettings hanging = SettingsOf("ldap://127.0.0.1:" + std::to_string(faulty.Port()));
        const LdapSettings refusing = SettingsOf("ldap://127.0.0.1:1");
        settings.servers.insert(settings.servers.begin(), {refusing.servers[0], hanging.servers[0]});
        LdapConnection first(settings);
        EXPECT_EQ(20, CountPeople(first));
        EXPECT_EQ(directory.Uri(), first.Server().uri);
        EXPECT_GT(2, SecondsOf([&] { LdapConnection second(settings); }))
            << "no waiting for the one that hangs";
    });
}

TEST_F(Ldap, TellsWhichStepFailed)
{
    const Directory directory;
    AsWorker([&] {
        LdapSettings settings = SettingsOf(directory, directory.Uri());
        settings.bindPassword.text = "wrong";
        EXPECT_EQ("bind", Outcome(settings));
        settings = SettingsOf("ldap://127.0.0.1:1");
        EXPECT_EQ("connect", Outcome(settings));
        settings.servers[0].host = "absent.invalid";
        EXPECT_EQ("connect", Outcome(settings));

        LdapConnection connection(SettingsOf(directory, directory.Uri()));
        EXPECT_THROW(connection.Search({"dc=other", "(uid=*)", {"uid"}}, [](const LdapEntry&) {}), LdapError);
        EXPECT_THROW(connection.Search({"no DN", "(uid=*)", {"uid"}}, [](const LdapEntry&) {}), LdapError);
        int found = 0;
        connection.Search({"cn=none,dc=office,dc=example", "(uid=*)", {"uid"}, true},
                          [&](const LdapEntry&) { ++found; });
        EXPECT_EQ(0, found) << "an entry that is not there is no failure";
        connection.Search({"dc=office,dc=example", "(uid=user*)", {"uid"}, false, 7},
                          [&](const LdapEntry&) { ++found; });
        EXPECT_EQ(7, found);
    });
}

// Each in a worker of its own, side by side.
TEST_F(Ldap, GetsToAnEndWithEveryServerThatMisbehaves)
{
    const struct {
        const char* fault;
        const char* step;
    } cases[] = {
        {"silent", "bind"},
        {"silent-later", "search"},
        {"drip", "bind"},
        {"drop", "search"},
        {"half", "search"},
        {"rubbish", "bind"},
        {"huge", "search"},
        {"endless", "search"},
        {"references", "search"},
        {"referral", "search"},
        {"busy", "bind"},
        {"no-starttls", "encrypt"},
        {"false-starttls", "encrypt"},
        {"silent-starttls", "encrypt"},
    };
    const TempDir told;
    std::filesystem::permissions(told.Path(), std::filesystem::perms(0777));
    setenv("TAVR_FAULTS_TOLD", told.Path().c_str(), 1);
    std::vector<std::string> faults;
    for (const auto& one : cases) {
        faults.emplace_back(one.fault);
    }
    const StartedServer faulty("faulty_ldap.py", faults);
    AsWorkers(static_cast<int>(faults.size()), [&](int i) {
        LdapSettings settings = SettingsOf("ldap://127.0.0.1:" + std::to_string(faulty.Port(i)));
        settings.startTls = faults[i].ends_with("starttls");
        const double seconds = SecondsOf([&] { EXPECT_EQ(cases[i].step, Outcome(settings)) << faults[i]; });
        EXPECT_GT(11, seconds) << faults[i];
#ifndef TAVR_SANITIZED // sanitizers keep what was given back
        rusage used{};
        getrusage(RUSAGE_SELF, &used);
        EXPECT_GT(64 * 1024, used.ru_maxrss) << faults[i] << ": kibibytes";
#endif
    });
    EXPECT_FALSE(std::filesystem::exists(told.Path("huge"))) << "100 MB were taken";
    EXPECT_FALSE(std::filesystem::exists(told.Path("referred"))) << "a referral was followed";
}

TEST_F(Ldap, LeavesTheProcessAloneWhenAConnectionIsCut)
{
    Directory directory;
    LdapConnection connection(SettingsOf(directory, directory.Uri()));
    EXPECT_EQ(20, CountPeople(connection));
    directory.server.Stop();
    EXPECT_THROW(CountPeople(connection), LdapError);
    EXPECT_THROW(CountPeople(connection), LdapError) << "a signal would end the process";
    EXPECT_EQ(SIG_DFL, std::signal(SIGPIPE, SIG_DFL));
}
