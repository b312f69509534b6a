#include "linux/database.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace tavr
{

namespace
{

constexpr int kBusyMilliseconds = 10'000;

[[noreturn]] void Throw(sqlite3* db)
{
    throw DatabaseError(sqlite3_extended_errcode(db), sqlite3_errmsg(db));
}

// Before the first connection: SQLite would count every allocation, under a lock, and nobody asks for it.
void LeaveMemoryUncounted()
{
    [[maybe_unused]] static const int set = sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
}

// SQLite makes the -wal and -shm files with the database's own mode.
void MakeFile(const char* path)
{
    const int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR);
    if (fd < 0) {
        throw DatabaseError(0, std::string("cannot open ") + path + ": " +
                                   std::generic_category().message(errno));
    }
    close(fd);
}

} // namespace

Statement::~Statement()
{
    sqlite3_reset(statement_);
    sqlite3_clear_bindings(statement_);
}

Statement& Statement::Bind(int index, int64_t value)
{
    if (sqlite3_bind_int64(statement_, index, value) != SQLITE_OK) {
        Throw(sqlite3_db_handle(statement_));
    }
    return *this;
}

Statement& Statement::Bind(int index, std::string_view text)
{
    if (sqlite3_bind_text64(statement_, index, text.data() != nullptr ? text.data() : "", text.size(),
                            SQLITE_TRANSIENT, SQLITE_UTF8) != SQLITE_OK) {
        Throw(sqlite3_db_handle(statement_));
    }
    return *this;
}

Statement& Statement::BindBlob(int index, std::string_view bytes)
{
    if (sqlite3_bind_blob64(statement_, index, bytes.data() != nullptr ? bytes.data() : "", bytes.size(),
                            SQLITE_TRANSIENT) != SQLITE_OK) {
        Throw(sqlite3_db_handle(statement_));
    }
    return *this;
}

Statement& Statement::BindNull(int index)
{
    if (sqlite3_bind_null(statement_, index) != SQLITE_OK) {
        Throw(sqlite3_db_handle(statement_));
    }
    return *this;
}

int Statement::Parameters() const
{
    return sqlite3_bind_parameter_count(statement_);
}

bool Statement::Step()
{
    switch (sqlite3_step(statement_)) {
    case SQLITE_ROW:
        return true;
    case SQLITE_DONE:
        return false;
    default:
        Throw(sqlite3_db_handle(statement_));
    }
}

void Statement::Run()
{
    while (Step()) {
    }
}

int64_t Statement::Int(int column) const
{
    return sqlite3_column_int64(statement_, column);
}

std::string Statement::Text(int column) const
{
    const auto* bytes = static_cast<const char*>(sqlite3_column_blob(statement_, column));
    const auto size = static_cast<size_t>(sqlite3_column_bytes(statement_, column));
    return bytes == nullptr ? std::string() : std::string(bytes, size);
}

std::string_view Statement::Blob(int column) const
{
    const auto* bytes = static_cast<const char*>(sqlite3_column_blob(statement_, column));
    return {bytes, static_cast<size_t>(sqlite3_column_bytes(statement_, column))};
}

const char* Statement::Chars(int column) const
{
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement_, column));
    return text == nullptr ? "" : text;
}

bool Statement::IsNull(int column) const
{
    return sqlite3_column_type(statement_, column) == SQLITE_NULL;
}

Database::Database(const char* path, std::span<const char* const> migrations, void (*prepare)(sqlite3*))
{
    if (geteuid() == 0) {
        throw DatabaseError(0, std::string("not opened as root: ") + path);
    }
    MakeFile(path);
    LeaveMemoryUncounted();
    sqlite3* db = nullptr;
    const int code = sqlite3_open_v2(
        path, &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOFOLLOW | SQLITE_OPEN_NOMUTEX, nullptr);
    db_.reset(db);
    if (code != SQLITE_OK) {
        throw DatabaseError(code, std::string(sqlite3_errstr(code)) + ": " + path);
    }
    sqlite3_extended_result_codes(db, 1);
    sqlite3_busy_timeout(db, kBusyMilliseconds);
    SwitchToLog();
    Execute("PRAGMA synchronous=FULL");
    Execute("PRAGMA foreign_keys=ON");
    Execute("PRAGMA trusted_schema=OFF");
    if (prepare != nullptr) {
        prepare(db);
    }
    Migrate(migrations);
}

Database::~Database() = default;

void Database::Execute(const char* sql)
{
    if (sqlite3_exec(db_.get(), sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
        Throw(db_.get());
    }
}

// Waits by itself: SQLite's own waiting does not cover two that switch a new file at the same time.
void Database::SwitchToLog()
{
    constexpr int kStepMilliseconds = 5;
    for (int waited = 0;; waited += kStepMilliseconds) {
        const int code = sqlite3_exec(db_.get(), "PRAGMA journal_mode=WAL", nullptr, nullptr, nullptr);
        if (code == SQLITE_OK) {
            return;
        }
        if ((code & 0xff) != SQLITE_BUSY || waited >= kBusyMilliseconds) {
            Throw(db_.get());
        }
        sqlite3_sleep(kStepMilliseconds);
    }
}

void Database::Migrate(std::span<const char* const> migrations)
{
    const auto version = [this] {
        Statement ask = Prepare("PRAGMA user_version");
        return ask.Step() ? static_cast<size_t>(ask.Int(0)) : 0;
    };
    while (version() < migrations.size()) {
        Transaction transaction(*this);
        const size_t from = version(); // again, now that no other process can be at it
        if (from < migrations.size()) {
            Execute(migrations[from]);
            Execute(("PRAGMA user_version=" + std::to_string(from + 1)).c_str());
        }
        transaction.Commit();
    }
    if (version() > migrations.size()) {
        throw DatabaseError(0, "made by a newer version of this program");
    }
}

Statement Database::Prepare(const char* sql)
{
    auto& kept = statements_[sql];
    if (!kept) {
        sqlite3_stmt* statement = nullptr;
        if (sqlite3_prepare_v3(db_.get(), sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr) !=
            SQLITE_OK) {
            Throw(db_.get());
        }
        kept.reset(statement);
    }
    return Statement(kept.get());
}

int64_t Database::Changes() const
{
    return sqlite3_changes64(db_.get());
}

int64_t Database::LastInsertId() const
{
    return sqlite3_last_insert_rowid(db_.get());
}

bool Database::CutLog(int longestWaitMilliseconds)
{
    sqlite3_busy_timeout(db_.get(), longestWaitMilliseconds);
    const int code =
        sqlite3_wal_checkpoint_v2(db_.get(), nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr);
    sqlite3_busy_timeout(db_.get(), kBusyMilliseconds);
    return code == SQLITE_OK;
}

Transaction::Transaction(Database& db) : db_(db)
{
    db_.Prepare("BEGIN IMMEDIATE").Run();
}

Transaction::~Transaction()
{
    // SQLite itself undoes the transaction on some errors (a full disk); rolling back again only fails.
    if (open_) {
        sqlite3_exec(db_.Handle(), "ROLLBACK", nullptr, nullptr, nullptr);
    }
}

void Transaction::Commit()
{
    db_.Prepare("COMMIT").Run();
    open_ = false;
}

} // namespace tavr
