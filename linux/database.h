// SQLite with owners: a connection, its statements, a transaction that ends undone unless committed.
//
// Failure is an exception here, so that no step can be forgotten: nothing was stored, and nothing may be
// granted on it. The functions that other areas call catch DatabaseError and answer a fault.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>

namespace tavr
{

class DatabaseError : public std::runtime_error
{
public:
    DatabaseError(int sqliteCode, const std::string& text) : std::runtime_error(text), code(sqliteCode) {}
    const int code; // SQLite's extended result code; 0 where SQLite was not asked
};

// One prepared statement. Values are bound from 1, columns are read from 0. Reset when it leaves the scope.
class Statement
{
public:
    explicit Statement(sqlite3_stmt* statement) : statement_(statement) {}
    ~Statement();
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    Statement& Bind(int index, int64_t value);
    Statement& Bind(int index, std::string_view text);      // copied
    Statement& BindBlob(int index, std::string_view bytes); // copied
    Statement& BindNull(int index);

    [[nodiscard]] int Parameters() const; // the highest index that values can be bound to

    bool Step(); // true: a row is there to be read; false: done
    void Run();  // for statements without rows

    [[nodiscard]] int64_t Int(int column) const;
    [[nodiscard]] std::string Text(int column) const;      // text or blob, NULs kept; empty for null
    [[nodiscard]] const char* Chars(int column) const;     // likewise, but not copied: until the next step
    [[nodiscard]] std::string_view Blob(int column) const; // likewise
    [[nodiscard]] bool IsNull(int column) const;

private:
    sqlite3_stmt* statement_; // the connection's, kept prepared
};

class Database
{
public:
    // Opens the file, makes it when absent (mode 0600) and brings its tables up to date: migrations[i] leads
    // from version i to i + 1, each in a transaction of its own. WAL, foreign keys, every commit synced.
    // Refuses to open with effective uid 0, so that no file of it ever belongs to root, and a file whose
    // version is newer than the last migration. `prepare` gives the connection what the migrations and later
    // statements need beyond SQLite's own.
    Database(const char* path, std::span<const char* const> migrations, void (*prepare)(sqlite3*) = nullptr);
    ~Database();
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    // `sql` is a literal: its address is what a prepared statement is kept under. One use at a time.
    Statement Prepare(const char* sql);

    [[nodiscard]] int64_t Changes() const; // rows that the last statement changed
    [[nodiscard]] int64_t LastInsertId() const;

    // Writes the write-ahead log back into the database and cuts it to nothing. False: somebody is in the
    // way.
    bool CutLog(int longestWaitMilliseconds);

    sqlite3* Handle() { return db_.get(); }

private:
    struct Close {
        void operator()(sqlite3* db) const noexcept { sqlite3_close_v2(db); }
    };
    struct Finalize {
        void operator()(sqlite3_stmt* statement) const noexcept { sqlite3_finalize(statement); }
    };
    void Execute(const char* sql);
    void SwitchToLog();
    void Migrate(std::span<const char* const> migrations);

    std::unique_ptr<sqlite3, Close> db_;
    std::unordered_map<const char*, std::unique_ptr<sqlite3_stmt, Finalize>> statements_;
};

// A write transaction (BEGIN IMMEDIATE). Undone at the end of the scope unless Commit was called.
class Transaction
{
public:
    explicit Transaction(Database& db);
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    void Commit(); // durable when it returns

private:
    Database& db_;
    bool open_ = true;
};

// The process's connections, opened at the first call (see Database about ids) and kept. A call that fails
// throws, and the next one tries again.
Database& AccountsDatabase();      // its tables: accounts.cpp
Database OpenAccounts();           // a connection of its own to the same file, for a thread
Database& LocalAccountsDatabase(); // the first, or the store of the system's accounts (system_accounts.h)
Database& SigninDatabase();        // its tables: signin_schema.cpp
Database& MailDatabase();          // its tables: mail_queue.cpp
Database& DomainDatabase();        // its tables: domain_copy.cpp

} // namespace tavr
