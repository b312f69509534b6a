#include "platform/db.h"

#include "linux/error.h"

#include <sqlite3.h>
#include <sys/stat.h>
#include <syslog.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <vector>

using tavr::Error;
using tavr::Fail;

// The file may have been made by anybody who once could write there: whatever it holds, a question ends soon
// and its answer stays small.
namespace
{

constexpr int kBusyMilliseconds = 500;
constexpr off_t kMaxFile = 16 << 20;
constexpr size_t kMaxRows = 1000;
constexpr int kMaxField = 1 << 20;         // bytes of one field, and of all fields of an answer
constexpr int kMaxInstructions = 10 << 20; // of SQLite's machine, for one statement

struct Close {
    void operator()(sqlite3* db) const noexcept { sqlite3_close_v2(db); }
};
struct Finalize {
    void operator()(sqlite3_stmt* statement) const noexcept { sqlite3_finalize(statement); }
};
using OwnedStatement = std::unique_ptr<sqlite3_stmt, Finalize>;

} // namespace

struct TAVRDB {
    std::unique_ptr<sqlite3, Close> connection;
};

struct TAVRDBRow {
    std::vector<std::string> fields; // as many as the result has columns
};

// A copy of everything that was found: it stays whole when the database is closed.
struct TAVRDBResult {
    std::vector<std::string> columns;
    std::vector<TAVRDBRow> rows;
    size_t next = 0;
};

namespace
{

// The one handle.
std::unique_ptr<TAVRDB>& Current()
{
    static std::unique_ptr<TAVRDB> current;
    return current;
}

// Opening anything but a file could wait for ever, and so could reading one that is far too large.
bool IsReadable(const std::string& path, bool mayBeAbsent)
{
    struct stat entry {
    };
    if (lstat(path.c_str(), &entry) != 0) {
        return errno == ENOENT && mayBeAbsent;
    }
    return S_ISREG(entry.st_mode) && entry.st_size <= kMaxFile;
}

int AllowReading(void* /*unused*/, int action, const char*, const char*, const char*, const char*)
{
    return action == SQLITE_SELECT || action == SQLITE_READ ? SQLITE_OK : SQLITE_DENY;
}

// Before the first statement. Nothing in the schema runs but plain tables, and nothing is written.
bool Restrain(sqlite3* db)
{
    sqlite3_busy_timeout(db, kBusyMilliseconds);
    sqlite3_limit(db, SQLITE_LIMIT_LENGTH, kMaxField);
    sqlite3_limit(db, SQLITE_LIMIT_ATTACHED, 0);
    sqlite3_progress_handler(
        db, kMaxInstructions, [](void*) { return 1; }, nullptr);
    bool restrained = sqlite3_exec(db, "PRAGMA cell_size_check=ON", nullptr, nullptr, nullptr) == SQLITE_OK;
    for (const auto& [option, value] :
         {std::pair(SQLITE_DBCONFIG_DEFENSIVE, 1), std::pair(SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0),
          std::pair(SQLITE_DBCONFIG_ENABLE_VIEW, 0), std::pair(SQLITE_DBCONFIG_ENABLE_LOAD_EXTENSION, 0)}) {
        restrained = sqlite3_db_config(db, option, value, nullptr) == SQLITE_OK && restrained;
    }
    return sqlite3_set_authorizer(db, AllowReading, nullptr) == SQLITE_OK && restrained;
}

int FailOf(sqlite3* db, const char* what)
{
    syslog(LOG_ERR, "%s: %s", what, sqlite3_errmsg(db));
    return Fail(Error::DatabaseFailed);
}

// Null when `sql` is not exactly one statement that can be run here.
OwnedStatement Prepare(sqlite3* db, const char* sql)
{
    sqlite3_stmt* statement = nullptr;
    const char* rest = nullptr;
    if (sqlite3_prepare_v2(db, sql, -1, &statement, &rest) != SQLITE_OK) {
        return nullptr;
    }
    OwnedStatement owned(statement);
    const bool single = std::string_view(rest).find_first_not_of(" \t\r\n;") == std::string_view::npos;
    return single && sqlite3_stmt_readonly(statement) != 0 ? std::move(owned) : nullptr;
}

std::string Field(sqlite3_stmt* statement, int column)
{
    const unsigned char* text = sqlite3_column_text(statement, column);
    const auto size = static_cast<size_t>(sqlite3_column_bytes(statement, column));
    return text == nullptr ? std::string() : std::string(reinterpret_cast<const char*>(text), size);
}

// False when there is more than an answer may hold; `code` is what SQLite said last.
bool ReadRows(sqlite3_stmt* statement, TAVRDBResult& result, int& code)
{
    size_t bytes = 0;
    while ((code = sqlite3_step(statement)) == SQLITE_ROW) {
        TAVRDBRow row;
        for (int i = 0; i < static_cast<int>(result.columns.size()); ++i) {
            row.fields.push_back(Field(statement, i));
            bytes += row.fields.back().size();
        }
        result.rows.push_back(std::move(row));
        if (result.rows.size() > kMaxRows || bytes > kMaxField) {
            return false;
        }
    }
    return true;
}

int Execute(sqlite3* db, const char* sql, TAVRDBResult** result)
{
    const OwnedStatement statement = Prepare(db, sql);
    if (!statement) {
        return FailOf(db, "cannot ask a database");
    }
    auto found = std::make_unique<TAVRDBResult>();
    for (int i = 0; i < sqlite3_column_count(statement.get()); ++i) {
        const char* name = sqlite3_column_name(statement.get(), i);
        found->columns.emplace_back(name == nullptr ? "" : name);
    }
    int code = SQLITE_OK;
    if (!ReadRows(statement.get(), *found, code)) {
        syslog(LOG_ERR, "a database's answer is too large");
        return Fail(Error::DatabaseFailed);
    }
    if (code != SQLITE_DONE) {
        return FailOf(db, "cannot read a database");
    }
    *result = found.release();
    return 0;
}

} // namespace

TAVRDB* TAVRDBConnect(const char* host, const char* user, const char* password, const char* path)
{
    Current().reset();
    if (host != nullptr || user != nullptr || password != nullptr || path == nullptr) {
        Fail(Error::BadParameter);
        return nullptr;
    }
    const std::string file = path;
    if (!IsReadable(file, false) || !IsReadable(file + "-wal", true) ||
        !IsReadable(file + "-journal", true)) {
        Fail(Error::OpenFailed);
        return nullptr;
    }
    sqlite3* connection = nullptr;
    const int code = sqlite3_open_v2(
        path, &connection, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOFOLLOW | SQLITE_OPEN_NOMUTEX, nullptr);
    auto opened = std::make_unique<TAVRDB>();
    opened->connection.reset(connection);
    if (code != SQLITE_OK || !Restrain(connection)) {
        Fail(Error::OpenFailed);
        return nullptr;
    }
    Current() = std::move(opened);
    return Current().get();
}

int TAVRDBExecute(TAVRDB* db, const char* sql, TAVRDBResult** result)
{
    if (db == nullptr || db != Current().get() || sql == nullptr || result == nullptr) {
        return Fail(Error::BadParameter);
    }
    try {
        return Execute(db->connection.get(), sql, result);
    } catch (const std::bad_alloc&) {
        return Fail(Error::OutOfMemory);
    }
}

int64_t TAVRDBNumRows(TAVRDBResult* result)
{
    return result == nullptr ? 0 : static_cast<int64_t>(result->rows.size());
}

int TAVRDBFetchRow(TAVRDBResult* result, TAVRDBRow** row)
{
    if (result == nullptr || row == nullptr) {
        return Fail(Error::BadParameter);
    }
    if (result->next == result->rows.size()) {
        return Fail(Error::NotFound);
    }
    *row = &result->rows[result->next++];
    return 0;
}

const char* TAVRDBFetchField(TAVRDBResult* result, TAVRDBRow* row, const char* column)
{
    if (result == nullptr || row == nullptr || column == nullptr) {
        Fail(Error::BadParameter);
        return nullptr;
    }
    for (size_t i = 0; i < result->columns.size(); ++i) {
        if (result->columns[i] == column) {
            return row->fields[i].c_str();
        }
    }
    Fail(Error::KeyNotFound);
    return nullptr;
}

void TAVRDBFreeResult(TAVRDBResult* result)
{
    delete result;
}
