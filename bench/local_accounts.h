// As many local accounts as a question needs.
#pragma once

#include "bench/service.h"
#include "linux/database.h"

#include <string>

namespace bench
{

inline void Execute(const std::string& sql)
{
    sqlite3* db = tavr::AccountsDatabase().Handle();
    bench::Demand(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK, sqlite3_errmsg(db));
}

// Adds accounts until there are `count`: user0000000 and so on, in an order that is not the names'.
inline void Grow(int from, int count)
{
    Execute("PRAGMA cache_size = -1500000; PRAGMA synchronous = OFF");
    Execute("WITH RECURSIVE n (i) AS (SELECT " + std::to_string(from) +
            " UNION ALL SELECT i + 1 FROM n WHERE i < " + std::to_string(count - 1) +
            "), a (name, text) AS (SELECT printf('user%07d', (i * 7919) % 10000000), printf('Person number "
            "%d', i) "
            "FROM n) INSERT INTO account (name, gid, description, password, folded) "
            "SELECT name, 65537, text, '*', search_text(name, text) FROM a");
    Execute("PRAGMA wal_checkpoint(TRUNCATE); PRAGMA cache_size = -2000; PRAGMA synchronous = FULL");
}

} // namespace bench
