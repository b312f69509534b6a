// What do an account's record, a DN by name and a list cost beside the same questions asked with libldap
// alone, of the same directory of 5,000 people? Record and password with connection, StartTLS and binds, as a
// request has them; the others over a connection that is open.
#include "bench/bare_ldap.h"
#include "bench/measure.h"
#include "linux/ldap_accounts.h"
#include "linux/paths.h"
#include "linux/request.h"
#include "platform/directory.h"

#include <fstream>

namespace
{

constexpr char kBase[] = "dc=office,dc=example";
constexpr char kFilter[] = "(&(|(objectClass=posixAccount)(objectClass=inetOrgPerson))(uid=user4000))";
constexpr char kAllFilter[] = "(&(|(objectClass=posixAccount)(objectClass=inetOrgPerson))(uid=*))";
using bench::Connection;

Connection Open(const Directory& directory)
{
    return bench::Open(directory.Uri(), directory.CaFile(), kOffice.reader);
}

int Search(LDAP* connection, const char* filter, int page = 0)
{
    return bench::Search(connection, kBase, filter,
                         {"entryUUID", "uid", "cn", "mail", "gidNumber", "memberOf"}, page);
}

constexpr char kName[] = "user4000@office.example";

bool Record(const Directory& directory)
{
    return bench::Row("account record, with its connection",
                      bench::InTurn(
                          301,
                          [&] {
                              const Connection connection = Open(directory);
                              bench::Demand(Search(connection.get(), kFilter) == 1, "one entry");
                          },
                          [] {
                              tavr::StartRequest();
                              TAVRUser* record = nullptr;
                              bench::Demand(TAVRUserGet(kName, &record) == 0, "the record");
                              TAVRUserFree(record);
                              tavr::StartRequest();
                          }),
                      1.3);
}

bool SignIn(const Directory& directory)
{
    return bench::Row(
        "password of an account",
        bench::InTurn(
            301,
            [&] {
                const Connection connection = Open(directory);
                bench::Demand(Search(connection.get(), kFilter) == 1, "one entry");
                bench::Bind(connection.get(), "uid=user4000,ou=people,dc=office,dc=example", "pw-4000");
            },
            [] {
                tavr::StartRequest();
                bench::Demand(tavr::CheckLdapPassword(kName, "pw-4000").has_value(), "the password");
                tavr::StartRequest();
            }),
        1.3);
}

bool DnByName(const Directory& directory)
{
    const Connection connection = Open(directory);
    tavr::StartRequest();
    TAVRLDAPSearchOption* options = TAVRLDAPSearchOptionAlloc();
    TAVRLDAPHost host{};
    bench::Demand(TAVRLDAPSearchOptionGet(options, 0) == 0 && TAVRLDAPHostInitByBindConfigOnly(&host) == 0,
                  "the host");
    // A connection lasts ten seconds.
    const bool met = bench::Row(
        "DN by name",
        bench::InTurn(
            1001, [&] { bench::Demand(Search(connection.get(), kFilter) == 1, "one entry"); },
            [&] {
                char dn[1024];
                bench::Demand(TAVRLDAPBrowserGetDNByUserUID(&host, "user4000", dn, sizeof dn, options) == 1,
                              "one DN");
            }),
        1.2);
    TAVRLDAPHostFree(&host);
    TAVRLDAPSearchOptionFree(options);
    return met;
}

bool List(const Directory& directory)
{
    const Connection connection = Open(directory);
    return bench::Row(
        "50 of all accounts, and their number",
        bench::InTurn(
            31, [&] { bench::Demand(Search(connection.get(), kAllFilter, 500) > 5000, "everybody"); },
            [] {
                tavr::StartRequest();
                bench::Demand(tavr::ListLdapAccounts("", {2500, 50}, [](const tavr::ListEntry&) {}) > 5000,
                              "everybody");
            }),
        0);
}

} // namespace

int main()
{
    bench::MakeFolders();
    bench::MakeSettings();
    const Directory directory({"--users", "5000", "--groups", "200"});
    std::ofstream(tavr::kSettingsFile, std::ios::app) << directory.SettingsLines();
    Directory::WriteSecret();
    bench::BecomeWorker();
    bench::Head();
    bool met = Record(directory);
    met = SignIn(directory) && met;
    met = DnByName(directory) && met;
    met = List(directory) && met;
    // Root again, or the directory cannot be ended.
    bench::Demand(setresuid(0, 0, 0) == 0, "root");
    return met ? 0 : 1;
}
