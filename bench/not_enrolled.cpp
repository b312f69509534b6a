// How much does it cost to count who is not enrolled, beyond going through the accounts and the secrets once?
// At worst: everybody is enrolled, and everybody is demanded to be, as the member of one picked group.
#include "linux/not_enrolled.h"
#include "bench/measure.h"
#include "bench/service.h"
#include "linux/database.h"

#include <json/value.h>

#include <cstdint>
#include <string>

namespace
{

constexpr char kAccountsSql[] = "SELECT uid FROM account";
constexpr char kSecretsSql[] = "SELECT account FROM secret WHERE state IN ('active', 'confirmed')";

void Execute(tavr::Database& db, const std::string& sql)
{
    bench::Demand(sqlite3_exec(db.Handle(), sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK,
                  sqlite3_errmsg(db.Handle()));
}

// n (i): the numbers from `from` to below `to`.
std::string Numbers(int from, int to)
{
    return "WITH RECURSIVE n (i) AS (SELECT " + std::to_string(from) +
           " UNION ALL SELECT i + 1 FROM n WHERE i < " + std::to_string(to - 1) + ") ";
}

// Adds accounts that are enrolled until there are `to` of them. Nothing here searches by a text, so the index
// for that is left out.
void Grow(int from, int to)
{
    tavr::Database& accounts = tavr::AccountsDatabase();
    Execute(accounts, "PRAGMA synchronous = OFF; DROP TRIGGER IF EXISTS account_added");
    Execute(accounts,
            Numbers(from, to) +
                "INSERT INTO account (uid, name, gid, description, password) "
                "SELECT 1026 + i, printf('user%07d', (i * 7919) % 10000000), 65537, 'Person', '*' FROM n");
    Execute(accounts, "UPDATE list_size SET number = " + std::to_string(to) +
                          " WHERE list = 'account'; PRAGMA wal_checkpoint(TRUNCATE)");
    tavr::Database& signin = tavr::SigninDatabase();
    Execute(signin, "PRAGMA synchronous = OFF");
    Execute(signin, Numbers(from, to) +
                        "INSERT INTO secret (reference, account, sealed, state, made_boot, made) "
                        "SELECT hex(randomblob(8)), 1026 + i, randomblob(60), 'active', '', 0 FROM n");
    Execute(signin, Numbers(from, to) + "INSERT INTO account_mark (account) SELECT 1026 + i FROM n");
    Execute(signin, "PRAGMA wal_checkpoint(TRUNCATE)");
}

int64_t Rows(tavr::Database& db, const char* sql)
{
    tavr::Statement list = db.Prepare(sql);
    int64_t count = 0;
    for (; list.Step(); ++count) {
        bench::Demand(list.Int(0) > 0, "a number");
    }
    return count;
}

} // namespace

int main()
{
    bench::MakeFolders();
    bench::BecomeWorker();
    Json::Value picks;
    picks["local_group"].append("65537");

    bench::Head();
    bench::Growth everybody("option user");
    bench::Growth members("option custom, a group of all");
    bool met = true;
    int before = 0;
    for (const int count : bench::kCounts) {
        Grow(before, count);
        before = count;
        const auto scan = [&] {
            bench::Demand(Rows(tavr::AccountsDatabase(), kAccountsSql) == count, "accounts");
            bench::Demand(Rows(tavr::SigninDatabase(), kSecretsSql) == count, "secrets");
        };
        const auto ask = [&](const char* option) {
            bench::Demand(tavr::CountNotEnrolled(option, picks) == 0, "nobody");
        };
        const double goal = count <= 1000 ? 0 : 2; // a few are looked up one by one
        met &= everybody.Row(count, bench::InTurn(bench::RoundsFor(count), scan, [&] { ask("user"); }), goal);
        met &= members.Row(count, bench::InTurn(bench::RoundsFor(count), scan, [&] { ask("custom"); }), goal);
    }
    everybody.Print();
    members.Print();
    return met ? 0 : 1;
}
