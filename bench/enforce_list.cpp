// How much do the administrator's lists cost beyond the database's own reading of the same rows, and does
// anything grow with the number of accounts that should not?
#include "bench/local_accounts.h"
#include "bench/measure.h"
#include "bench/service.h"
#include "linux/database.h"
#include "otp/OTPEnforceHandler.h"

#include <json/value.h>
#include <sys/resource.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace
{

constexpr int kPage = 50;
constexpr char kPageSql[] = "SELECT name, uid, description FROM account ORDER BY name LIMIT 50";
constexpr char kScanSql[] = "SELECT name, uid, description FROM account ORDER BY name";
constexpr char kHoldSql[] = "SELECT count(*) FROM account WHERE instr(folded, 'user') > 0";
constexpr char kFoundSql[] =
    "SELECT name, uid, description FROM account WHERE uid IN "
    "(SELECT uid FROM account_gram WHERE gram >= 'r0000042' AND gram < 'r0000043') ORDER BY name";

// Asks the database as any program would: prepares, steps, looks at every column. The number of rows.
int Rows(const char* sql)
{
    sqlite3_stmt* find = nullptr;
    sqlite3* db = tavr::AccountsDatabase().Handle();
    bench::Demand(sqlite3_prepare_v2(db, sql, -1, &find, nullptr) == SQLITE_OK, sqlite3_errmsg(db));
    int count = 0;
    std::size_t bytes = 0;
    for (; sqlite3_step(find) == SQLITE_ROW; ++count) {
        for (int column = sqlite3_column_count(find) - 1; column >= 0; --column) {
            sqlite3_column_text(find, column);
            bytes += static_cast<std::size_t>(sqlite3_column_bytes(find, column));
        }
    }
    sqlite3_finalize(find);
    bench::Demand((bytes > 0) == (count > 0), "rows");
    return count;
}

int List(const char* query, const char* filter)
{
    int total = 0;
    Json::Value rows;
    bench::Demand(OTPEnforceCustomSettingList(0, kPage, "local_user", query, "", filter, total, rows) == 0,
                  "list");
    return total;
}

// A few: what parsing a long file costs is another question (enforce_policy.cpp).
void WritePicks()
{
    std::ofstream(tavr::kPolicyFile) << "{\"local_user\":[\"1026\",\"1029\",\"1500\"]}\n";
}

// Of a process that has answered one list, in MiB.
long PeakOf(const char* program, const char* filter)
{
    FILE* child = popen((std::string(program) + " " + filter).c_str(), "r");
    long kib = 0;
    bench::Demand(child != nullptr && std::fscanf(child, "%ld", &kib) == 1, "memory");
    pclose(child);
    return kib / 1024;
}

int PrintPeak(const char* filter)
{
    bench::Demand(List("", filter) > 0, "rows");
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    std::printf("%ld\n", usage.ru_maxrss);
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 2) {
        return PrintPeak(argv[1]);
    }
    bench::MakeFolders();
    bench::BecomeWorker();
    WritePicks();

    bench::Head();
    bool met = true;
    bench::Growth page("page of 50, all");
    bench::Growth selective("page of 50, selective text");
    bench::Growth filtered("page of 50, unenforced");
    const auto askPage = [] { bench::Demand(Rows(kPageSql) == kPage, "page"); };
    const auto askPageAndTotal = [&] {
        askPage();
        bench::Demand(Rows("SELECT count(*) FROM account") == 1, "total");
    };
    int before = 0;
    for (const int count : bench::kCounts) {
        bench::Grow(before, count);
        before = count;
        const auto list = [&] { bench::Demand(List("", "all") == count, "total"); };
        met &= bench::Row(("page of 50, all, and total, " + std::to_string(count)).c_str(),
                          bench::InTurn(301, askPageAndTotal, list), 1.5);
        page.Row(count, bench::InTurn(301, askPage, list), 0); // counting spoils the cache for the list
        met &= selective.Row(count,
                             bench::InTurn(
                                 301, [] { bench::Demand(Rows(kFoundSql) <= 1, "found"); },
                                 [] { bench::Demand(List("USER0000042", "all") <= 1, "found"); }),
                             1.5);
        for (const char* filter : {"enforced", "unenforced"}) {
            const bench::Figures figures = bench::InTurn(
                bench::RoundsFor(count), [&] { bench::Demand(Rows(kScanSql) == count, "scan"); },
                [&] { bench::Demand(List("", filter) > 0, "list"); });
            met &= std::strcmp(filter, "enforced") == 0
                       ? bench::Row(("page of 50, enforced, " + std::to_string(count)).c_str(), figures, 2.2)
                       : filtered.Row(count, figures, 2.2);
        }
    }
    met &= page.Flat();
    met &= selective.Flat();
    filtered.Print();
    for (const char* filter : {"enforced", "unenforced"}) {
        const long peak = PeakOf(argv[0], filter);
        std::printf("memory, %s, %d: %ld MiB of at most 100\n", filter, before, peak);
        met &= peak <= 100;
    }
    return met ? 0 : 1;
}
