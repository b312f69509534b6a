// What do an account's record, a DN by name and a list cost beside the same questions asked with libldap
// alone, of the same directory of 5,000 people? Record and password with connection, StartTLS and binds, as a
// request has them; the others over a connection that is open.
#include "bench/measure.h"
#include "bench/service.h"
#include "linux/ldap_accounts.h"
#include "linux/paths.h"
#include "linux/request.h"
#include "platform/directory.h"
#include "tests/support/directory.h"

#include <ldap.h>

#include <fstream>
#include <memory>

namespace
{

constexpr char kBase[] = "dc=office,dc=example";
constexpr char kFilter[] = "(&(|(objectClass=posixAccount)(objectClass=inetOrgPerson))(uid=user4000))";
constexpr char kAllFilter[] = "(&(|(objectClass=posixAccount)(objectClass=inetOrgPerson))(uid=*))";
constexpr char kName[] = "user4000@office.example";

struct Unbind {
    void operator()(LDAP* connection) const noexcept { ldap_unbind_ext(connection, nullptr, nullptr); }
};
using Connection = std::unique_ptr<LDAP, Unbind>;

void Succeed(int code, const char* what)
{
    bench::Demand(code == LDAP_SUCCESS, what);
}

void Bind(LDAP* connection, const char* dn, std::string password)
{
    berval secret{password.size(), password.data()};
    Succeed(ldap_sasl_bind_s(connection, dn, LDAP_SASL_SIMPLE, &secret, nullptr, nullptr, nullptr), "bind");
}

Connection Open(const Directory& directory)
{
    LDAP* made = nullptr;
    Succeed(ldap_initialize(&made, directory.Uri().c_str()), "initialize");
    Connection connection(made);
    const int version = LDAP_VERSION3;
    const int demand = LDAP_OPT_X_TLS_HARD;
    const int client = 0;
    ldap_set_option(made, LDAP_OPT_PROTOCOL_VERSION, &version);
    ldap_set_option(made, LDAP_OPT_X_TLS_CACERTFILE, directory.CaFile().c_str());
    ldap_set_option(made, LDAP_OPT_X_TLS_REQUIRE_CERT, &demand);
    ldap_set_option(made, LDAP_OPT_X_TLS_NEWCTX, &client);
    Succeed(ldap_start_tls_s(made, nullptr, nullptr), "StartTLS");
    Bind(made, kReaderDn, kReaderPassword);
    return connection;
}

// Entries of a search, paged when `page` is given; the values are taken out as a record needs them.
int Search(LDAP* connection, const char* filter, int page = 0)
{
    std::vector<std::string> names = {"entryUUID", "uid", "cn", "mail", "gidNumber", "memberOf"};
    std::vector<char*> attributes;
    for (std::string& name : names) {
        attributes.push_back(name.data());
    }
    attributes.push_back(nullptr);
    int count = 0;
    berval cookie{0, nullptr};
    do {
        LDAPControl* control = nullptr;
        if (page > 0) {
            Succeed(ldap_create_page_control(connection, page, cookie.bv_len > 0 ? &cookie : nullptr, 0,
                                             &control),
                    "page");
        }
        LDAPControl* controls[] = {control, nullptr};
        LDAPMessage* found = nullptr;
        Succeed(ldap_search_ext_s(connection, kBase, LDAP_SCOPE_SUBTREE, filter, attributes.data(), 0,
                                  controls, nullptr, nullptr, 0, &found),
                "search");
        if (control != nullptr) {
            ldap_control_free(control);
        }
        for (LDAPMessage* entry = ldap_first_entry(connection, found); entry != nullptr;
             entry = ldap_next_entry(connection, entry)) {
            ldap_memfree(ldap_get_dn(connection, entry));
            for (const std::string& name : names) {
                ldap_value_free_len(ldap_get_values_len(connection, entry, name.c_str()));
            }
            ++count;
        }
        LDAPControl** answered = nullptr;
        LDAPMessage* last = found;
        for (LDAPMessage* one = found; one != nullptr; one = ldap_next_message(connection, one)) {
            last = one;
        }
        ldap_parse_result(connection, last, nullptr, nullptr, nullptr, nullptr, &answered, 0);
        ber_memfree(cookie.bv_val);
        cookie = {0, nullptr};
        ber_int_t estimate = 0;
        LDAPControl* next =
            answered != nullptr ? ldap_control_find(LDAP_CONTROL_PAGEDRESULTS, answered, nullptr) : nullptr;
        if (next != nullptr) {
            ldap_parse_pageresponse_control(connection, next, &estimate, &cookie);
        }
        ldap_controls_free(answered);
        ldap_msgfree(found);
    } while (cookie.bv_len > 0);
    ber_memfree(cookie.bv_val);
    return count;
}

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
                Bind(connection.get(), "uid=user4000,ou=people,dc=office,dc=example", "pw-4000");
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
