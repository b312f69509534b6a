// What does it cost to refresh the copy of a domain of 100,000 accounts, beside nothing but reading them page
// by page with libldap; and are its lists as fast as those of as many local accounts?
#include "linux/domain_copy.h"
#include "bench/bare_ldap.h"
#include "bench/local_accounts.h"
#include "bench/measure.h"
#include "linux/database.h"
#include "otp/OTPEnforceHandler.h"

#include <json/value.h>

#include <cstring>

namespace
{

constexpr int kAccounts = 100'000;
constexpr int kGroups = 1000;
constexpr char kBase[] = "dc=corp,dc=test";
constexpr char kUserFilter[] = "(&(objectClass=user)(sAMAccountType=805306368))";
constexpr char kGroupFilter[] =
    "(&(objectClass=group)(|(sAMAccountType=268435456)(sAMAccountType=536870912)))";

tavr::CopiedDomain Domain(const Directory& controller)
{
    tavr::CopiedDomain domain;
    domain.name = "CORP";
    domain.pageSize = 500;
    tavr::LdapSettings& ldap = domain.ldap;
    tavr::LdapServer server;
    server.uri = controller.Uri();
    server.host = "127.0.0.1";
    server.port = controller.server.Port(0);
    ldap.servers = {server};
    ldap.caFile = controller.CaFile();
    ldap.bindName = kController.reader;
    ldap.bindPassword.text = kReaderPassword;
    ldap.userBase = ldap.groupBase = kBase;
    ldap.userFilter = kUserFilter;
    ldap.groupFilter = kGroupFilter;
    ldap.idAttribute = "objectSid";
    ldap.userName = ldap.groupName = "sAMAccountName";
    ldap.userDescription = "displayName";
    ldap.groupDescription = "description";
    return domain;
}

// As a refresh asks for them.
void ReadAll(const Directory& controller)
{
    const bench::Connection connection =
        bench::Open(controller.Uri(), controller.CaFile(), kController.reader);
    bench::Demand(bench::Search(connection.get(), kBase, kUserFilter,
                                {"objectSid", "sAMAccountName", "displayName"}, 500) >= kAccounts,
                  "accounts");
    bench::Demand(bench::Search(connection.get(), kBase, kGroupFilter,
                                {"objectSid", "sAMAccountName", "description"}, 500) >= kGroups,
                  "groups");
}

void Refresh(const tavr::CopiedDomain& domain)
{
    tavr::CopyRunner runner;
    bench::Demand(static_cast<bool>(runner), "the right to refresh");
    const tavr::CopyCounts counts = runner.Refresh(domain, [](int64_t) { return true; });
    bench::Demand(counts.accounts >= kAccounts && counts.groups == kGroups, "a whole copy");
}

void RunSql(const char* sql)
{
    bench::Demand(sqlite3_exec(tavr::DomainDatabase().Handle(), sql, nullptr, nullptr, nullptr) == SQLITE_OK,
                  sqlite3_errmsg(tavr::DomainDatabase().Handle()));
}

// The administrator's page of 50 from the middle.
void List(const char* type, const char* query, const char* filter, int atLeast)
{
    int total = 0;
    Json::Value rows;
    bench::Demand(OTPEnforceCustomSettingList(kAccounts / 2, 50, type, query, "", filter, total, rows) == 0 &&
                      total >= atLeast && rows.size() == 50,
                  type);
}

bool ListRow(const char* what, int rounds, const char* query, const char* filter)
{
    return bench::Row(what,
                      bench::InTurn(
                          rounds, [=] { List("local_user", query, filter, kAccounts); },
                          [=] { List("domain_user", query, filter, kAccounts); }),
                      1.0);
}

} // namespace

int main()
{
    bench::MakeFolders();
    bench::MakeSettings();
    const Directory controller({"--users", std::to_string(kAccounts), "--groups", std::to_string(kGroups)},
                               kController);
    std::ofstream(tavr::kSettingsFile) << controller.DomainSettingsLines();
    bench::BecomeWorker();
    const tavr::CopiedDomain domain = Domain(controller);
    bench::Head();
    const auto read = [&] { ReadAll(controller); };
    bool met = true;
    const auto timeOfFirst = [&] {
        RunSql("DELETE FROM account; DELETE FROM account_gram; DELETE FROM account_group; "
               "DELETE FROM account_group_gram; PRAGMA wal_checkpoint(TRUNCATE);");
        auto refresh = [&] { Refresh(domain); };
        return bench::Microseconds(refresh);
    };
    std::vector<double> firsts;
    std::vector<double> reads;
    for (int i = 0; i < 3; ++i) {
        firsts.push_back(timeOfFirst());
        reads.push_back(bench::Microseconds(read));
    }
    bench::Row("first copy of 100,000 accounts", {bench::Median(reads), bench::Median(firsts)}, 0);
    met = bench::Row("refresh, nothing has changed", bench::InTurn(5, read, [&] { Refresh(domain); }), 1.3) &&
          met;
    bench::Grow(0, kAccounts);
    std::puts("the administrator's list, floor: of as many local accounts");
    met = ListRow("page of 50, all", 31, "", "all") && met;
    met = ListRow("page of 50, a text that all hold", 31, "user", "all") && met;
    met = ListRow("page of 50, unenforced", 15, "", "unenforced") && met;
    bench::Demand(setresuid(0, 0, 0) == 0, "root");
    return met ? 0 : 1;
}
