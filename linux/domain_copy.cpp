#include "linux/domain_copy.h"

#include "linux/accounts.h"
#include "linux/clock.h"
#include "linux/database.h"
#include "linux/directory_numbers.h"
#include "linux/domain_entries.h"
#include "linux/domain_settings.h"
#include "linux/file_lock.h"
#include "linux/ldap_accounts.h"
#include "linux/names.h"
#include "linux/paths.h"
#include "linux/searched_table.h"

#include <fcntl.h>
#include <sodium.h>
#include <syslog.h>

#include <algorithm>
#include <array>
#include <charconv>

namespace tavr
{

namespace
{

constexpr std::chrono::minutes kWholeTime{30}; // for one directory
constexpr size_t kBatch = 2000;                // entries that get numbers in one transaction
constexpr char kBuiltIn[] = "S-1-5-32-";

// Both tables of entries are alike. `seal` tells whether an entry is what it was; `number` is null where the
// name is another one's.
#define ENTRY_TABLE(TABLE)                                                                                   \
    "CREATE TABLE " TABLE " ("                                                                               \
    "    at INTEGER PRIMARY KEY, domain INTEGER NOT NULL REFERENCES domain (at), id TEXT NOT NULL,"          \
    "    name TEXT NOT NULL, description TEXT NOT NULL, unit TEXT NOT NULL,"                                 \
    "    folded TEXT NOT NULL, seal BLOB NOT NULL, number INTEGER, UNIQUE (domain, id)) STRICT;"             \
    "CREATE TABLE " TABLE "_gram (gram TEXT NOT NULL, at INTEGER NOT NULL, PRIMARY KEY (gram, at))"          \
    "    STRICT, WITHOUT ROWID;"                                                                             \
    "CREATE INDEX " TABLE "_unnumbered ON " TABLE " (domain) WHERE number IS NULL;" PAGE_INDEXES(TABLE)

// Each has all that a page shows.
#define PAGE_INDEXES(TABLE)                                                                                  \
    "CREATE INDEX " TABLE "_listed ON " TABLE " (name, description, number);"                                \
    "CREATE INDEX " TABLE "_of_domain ON " TABLE " (domain, name, description, number);"                     \
    "CREATE INDEX " TABLE "_of_unit ON " TABLE " (unit, name, description, number);"
#define DROP_PAGE_INDEXES(TABLE)                                                                             \
    "DROP INDEX " TABLE "_listed; DROP INDEX " TABLE "_of_domain; DROP INDEX " TABLE "_of_unit;"

constexpr const char* kMigrations[] = {
    R"(
CREATE TABLE domain (
    at INTEGER PRIMARY KEY,
    name TEXT NOT NULL UNIQUE,             -- what stands before the backslash
    made INTEGER,                          -- seconds since 1970; null: there is no copy yet
    accounts INTEGER NOT NULL DEFAULT 0,
    groups INTEGER NOT NULL DEFAULT 0,
    left_out INTEGER NOT NULL DEFAULT 0,
    tried INTEGER NOT NULL DEFAULT 0,
    failure TEXT NOT NULL DEFAULT ''       -- of the last try
) STRICT;
CREATE TABLE text_position (at INTEGER PRIMARY KEY) STRICT;
WITH RECURSIVE every (at) AS (SELECT 1 UNION ALL SELECT at + 1 FROM every WHERE at < 4096)
    INSERT INTO text_position SELECT at FROM every;
)",
    // A copy without numbers is made anew.
    R"(
DROP TABLE IF EXISTS account;
DROP TABLE IF EXISTS account_gram;
DROP TABLE IF EXISTS account_group;
DROP TABLE IF EXISTS account_group_gram;
UPDATE domain SET made = NULL, accounts = 0, groups = 0, left_out = 0, tried = 0;
ALTER TABLE domain ADD COLUMN renamed INTEGER NOT NULL DEFAULT 0; -- RenamedUntilNow, when it was made
)" ENTRY_TABLE("account") ENTRY_TABLE("account_group")};

// --- What is written ---------------------------------------------------------------------------------------
//
// What a directory says is first put beside the copy, into tables of the connection's own: in `staged`
// whatever is not as it stands in the copy, in `seen` the ranges of rows that are. SQLite keeps them in a
// file without a name, so they take no memory, and go with the process.

#define TABLES_BESIDE(TABLE)                                                                                 \
    "CREATE TABLE temp." TABLE "_seen (first INTEGER PRIMARY KEY, last INTEGER) STRICT;"                     \
    "CREATE TABLE temp." TABLE "_staged (id TEXT PRIMARY KEY, at INTEGER, name TEXT, description TEXT,"      \
    "    unit TEXT, folded TEXT, seal BLOB) STRICT, WITHOUT ROWID;"
constexpr char kBeside[] =
    "PRAGMA temp_store=FILE; PRAGMA cache_size=-16384;" /* KiB */ TABLES_BESIDE("account")
        TABLES_BESIDE("account_group") "CREATE TABLE temp.gone (at INTEGER PRIMARY KEY) STRICT;";

struct EntryStatements {
    const char* walk; // in the order in which they came
    const char* find;
    const char* isSeen; // if the range that begins nearest before it ends behind it
    const char* see;
    const char* stage;
    const char* markGone;    // what was not seen
    const char* markChanged; // rows that are put in anew
    const char* removeGrams;
    const char* removeGone;
    const char* put;
    const char* markTwins; // entries with one name between them
    const char* addGrams;
    const char* count;
    const char* forgetNumber;
    const char* unnumbered;
    const char* setNumber;
};

// The grams go in and out in their own order: at random places, one takes ten times as long.
// clang-format off
#define ENTRY_STATEMENTS(TABLE)                                                                              \
    {                                                                                                        \
        "SELECT at, id, seal FROM " TABLE " NOT INDEXED WHERE domain = ?1 ORDER BY at",                      \
        "SELECT at, seal FROM " TABLE " WHERE domain = ?1 AND id = ?2",                                      \
        "SELECT last FROM temp." TABLE "_seen WHERE first <= ?1 ORDER BY first DESC LIMIT 1",                \
        "INSERT INTO temp." TABLE "_seen (first, last) VALUES (?1, ?2)"                                      \
            " ON CONFLICT (first) DO UPDATE SET last = max(last, ?2)",                                       \
        "INSERT OR REPLACE INTO temp." TABLE "_staged (id, at, name, description, unit, folded, seal)"       \
            " VALUES (?, ?, ?, ?, ?, ?, ?)",                                                                 \
        "INSERT INTO temp.gone SELECT at FROM " TABLE " AS t WHERE domain = ?1 AND NOT EXISTS"               \
            " (SELECT 1 FROM (SELECT last FROM temp." TABLE "_seen WHERE first <= t.at"                      \
            " ORDER BY first DESC LIMIT 1) WHERE last >= t.at)",                                             \
        "INSERT OR IGNORE INTO temp.gone SELECT at FROM temp." TABLE "_staged WHERE at IS NOT NULL",         \
        "DELETE FROM " TABLE "_gram WHERE (gram, at) IN"                                                     \
            " (SELECT substr(t.folded, p.at, 8) AS gram, t.at"                                               \
            " FROM temp.gone AS g JOIN " TABLE " AS t ON t.at = g.at"                                        \
            " JOIN text_position AS p ON p.at <= length(t.folded))",                                         \
        "DELETE FROM " TABLE " WHERE at IN (SELECT at FROM temp.gone)",                                      \
        "INSERT INTO " TABLE " (at, domain, id, name, description, unit, folded, seal)"                      \
            " SELECT at, ?1, id, name, description, unit, folded, seal FROM temp." TABLE "_staged",          \
        "INSERT INTO temp.gone SELECT at FROM " TABLE " WHERE domain = ?1 AND name IN"                       \
            " (SELECT name FROM " TABLE " WHERE domain = ?1 AND name IN"                                     \
            " (SELECT name FROM temp." TABLE "_staged) GROUP BY name HAVING count(*) > 1)",                  \
        "INSERT OR IGNORE INTO " TABLE "_gram SELECT substr(t.folded, p.at, 8) AS gram, t.at"                \
            " FROM temp." TABLE "_staged AS s JOIN " TABLE " AS t ON t.domain = ?1 AND t.id = s.id"          \
            " JOIN text_position AS p ON p.at <= length(t.folded) ORDER BY gram, t.at",                      \
        "SELECT count(*) FROM " TABLE " WHERE domain = ?1",                                                  \
        "UPDATE " TABLE " SET number = NULL WHERE domain = ?1 AND id = ?2",                                  \
        "SELECT at, id, name FROM " TABLE " INDEXED BY " TABLE "_unnumbered"                                 \
            " WHERE domain = ?1 AND number IS NULL AND at > ?2 ORDER BY at LIMIT ?3",                        \
        "UPDATE " TABLE " SET number = ?2 WHERE at = ?1"                                                     \
    }
// clang-format on

constexpr EntryStatements kAccountEntries = ENTRY_STATEMENTS("account");
constexpr EntryStatements kGroupEntries = ENTRY_STATEMENTS("account_group");

void Execute(Database& db, const char* sql)
{
    if (sqlite3_exec(db.Handle(), sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
        throw DatabaseError(sqlite3_extended_errcode(db.Handle()), sqlite3_errmsg(db.Handle()));
    }
}

// Numbers of a statement whose first parameter is the domain.
int64_t Number(Database& db, const char* sql, int64_t domain)
{
    Statement find = db.Prepare(sql);
    find.Bind(1, domain);
    return find.Step() ? find.Int(0) : 0;
}

void Run(Database& db, const char* sql, int64_t domain)
{
    db.Prepare(sql).Bind(1, domain).Run();
}

int64_t RowOfDomain(Database& db, const std::string& name)
{
    db.Prepare("INSERT OR IGNORE INTO domain (name) VALUES (?)").Bind(1, name).Run();
    Statement find = db.Prepare("SELECT at FROM domain WHERE name = ?");
    find.Bind(1, name);
    find.Step();
    return find.Int(0);
}

void RemoveRows(Database& db, const EntryStatements& entries)
{
    db.Prepare(entries.removeGrams).Run();
    db.Prepare(entries.removeGone).Run();
    db.Prepare("DELETE FROM temp.gone").Run();
}

// In a transaction. Gives the number of entries that have a name that others have too.
int64_t PutInPlace(Database& db, const EntryStatements& entries, int64_t domain)
{
    Run(db, entries.markGone, domain);
    db.Prepare(entries.markChanged).Run();
    RemoveRows(db, entries);
    Run(db, entries.put, domain);
    Run(db, entries.markTwins, domain);
    const int64_t twins = db.Changes();
    RemoveRows(db, entries);
    Run(db, entries.addGrams, domain);
    return twins;
}

// Numbers what has none by give(entries), which tells them in their order.
template<class Give>
void NumberRows(Database& db, const EntryStatements& entries, int64_t domain, Give give)
{
    std::vector<int64_t> rows{0};
    do {
        const int64_t behind = rows.back();
        rows.clear();
        std::vector<DirectoryEntry> batch;
        {
            Statement find = db.Prepare(entries.unnumbered);
            find.Bind(1, domain).Bind(2, behind).Bind(3, kBatch);
            while (find.Step()) {
                rows.push_back(find.Int(0));
                batch.push_back({find.Text(1), find.Text(2)});
            }
        }
        const std::vector<std::optional<uint32_t>> numbers = give(batch);
        for (size_t i = 0; i < rows.size(); ++i) {
            if (numbers[i]) {
                db.Prepare(entries.setNumber).Bind(1, rows[i]).Bind(2, *numbers[i]).Run();
            }
        }
    } while (rows.size() == kBatch);
}

// In a transaction. Who has been called otherwise since the former copy is numbered anew too.
void NumberEntries(Database& db, Database& store, int64_t domain)
{
    ForEachRenamedSince(
        Number(db, "SELECT renamed FROM domain WHERE at = ?", domain), kKindDomain,
        [&](uint32_t /*uid*/, const std::string& id) {
            db.Prepare(kAccountEntries.forgetNumber).Bind(1, domain).Bind(2, id).Run();
        },
        store);
    NumberRows(db, kAccountEntries, domain, [&](std::span<const DirectoryEntry> batch) {
        return NumbersOfAccounts(kKindDomain, batch, store);
    });
    NumberRows(db, kGroupEntries, domain, [&](std::span<const DirectoryEntry> batch) {
        std::vector<std::string> ids;
        for (const DirectoryEntry& entry : batch) {
            ids.push_back(entry.id);
        }
        const std::vector<uint32_t> numbers = NumbersOfGroups(kKindDomain, ids, store);
        return std::vector<std::optional<uint32_t>>(numbers.begin(), numbers.end());
    });
}

// --- What an entry says ------------------------------------------------------------------------------------

using SealBytes = std::array<unsigned char, 16>;

// Everything that is made of an entry is made of these, so it need not be looked at again while they stay.
SealBytes Seal(std::span<const std::string_view> texts)
{
    crypto_generichash_state state;
    SealBytes seal;
    crypto_generichash_init(&state, nullptr, 0, seal.size());
    for (const std::string_view text : texts) {
        const uint64_t size = text.size();
        crypto_generichash_update(&state, reinterpret_cast<const unsigned char*>(&size), sizeof size);
        crypto_generichash_update(&state, reinterpret_cast<const unsigned char*>(text.data()), text.size());
    }
    crypto_generichash_final(&state, seal.data(), seal.size());
    return seal;
}

// --- Reading a directory -----------------------------------------------------------------------------------

// The rows of a copy in the order in which a directory gave them, which is mostly the one in which it gives
// them again: so each is met by one step, and a whole stretch of them is noted at once.
class Walk
{
public:
    Walk(Database& db, int64_t row, const EntryStatements& entries)
        : db_(db), row_(row), entries_(entries), rows_(db.Prepare(entries.walk))
    {
        rows_.Bind(1, row);
        isAtRow_ = rows_.Step();
    }

    struct Met {
        int64_t at = 0;
        bool isSame = false;
    };

    // The row of an entry; empty: there is none.
    std::optional<Met> Meet(const std::string& id, std::string_view seal)
    {
        if (!isAtRow_ || rows_.Blob(1) != id) {
            Statement find = db_.Prepare(entries_.find);
            find.Bind(1, row_).Bind(2, id);
            if (!find.Step()) {
                return std::nullopt;
            }
            EndStretch();
            if (!GoTo(find.Int(0))) {
                const Met met{find.Int(0), find.Blob(1) == seal};
                if (met.isSame && !IsSeen(met.at)) {
                    See(met.at, met.at);
                }
                return met;
            }
        }
        const Met met{rows_.Int(0), rows_.Blob(2) == seal};
        isAtRow_ = rows_.Step();
        if (met.isSame) {
            first_ = first_ == 0 ? met.at : first_;
            last_ = met.at;
        } else {
            EndStretch();
        }
        return met;
    }

    void EndStretch()
    {
        if (first_ != 0) {
            See(first_, last_);
            first_ = 0;
        }
    }

private:
    // False: that row lies behind.
    bool GoTo(int64_t at)
    {
        while (isAtRow_ && rows_.Int(0) < at) {
            isAtRow_ = rows_.Step();
        }
        return isAtRow_ && rows_.Int(0) == at;
    }

    // A directory that changes meanwhile may give an entry twice; stretches must not overlap.
    bool IsSeen(int64_t at)
    {
        Statement find = db_.Prepare(entries_.isSeen);
        find.Bind(1, at);
        return find.Step() && find.Int(0) >= at;
    }

    void See(int64_t first, int64_t last) { db_.Prepare(entries_.see).Bind(1, first).Bind(2, last).Run(); }

    Database& db_;
    const int64_t row_;
    const EntryStatements& entries_;
    Statement rows_;
    bool isAtRow_ = false;
    int64_t first_ = 0; // of the stretch of rows that are as they were; 0: there is none
    int64_t last_ = 0;
};

// One list of one directory, on its way into the tables beside the copy.
class Reading
{
public:
    Reading(Database& db, int64_t row, const std::string& domain, const EntryStatements& entries,
            std::vector<std::string> attributes)
        : db_(db),
          domain_(domain),
          entries_(entries),
          attributes_(std::move(attributes)),
          walk_(std::in_place, db, row, entries)
    {
    }

    void Take(const LdapEntry& entry)
    {
        if (!page_) {
            page_.emplace(db_);
        }
        ++count_;
        const LdapEntry::Texts texts = entry.OnlyValues(attributes_);
        const auto& [id, name, description, unused] = texts.values;
        const std::string sid = SidOf(id);
        if (sid.starts_with(kBuiltIn)) {
            return; // every machine has its own
        }
        if (sid.empty() || name.empty()) {
            ++leftOut_;
            return;
        }
        const std::string_view sealed[] = {domain_, name, description, texts.dn};
        const SealBytes bytes = Seal(sealed);
        const std::string_view seal(reinterpret_cast<const char*>(bytes.data()), bytes.size());
        const std::optional<Walk::Met> met = walk_->Meet(sid, seal);
        if (!met || !met->isSame) {
            Stage(met, sid, texts, seal);
        }
    }

    void EndPage()
    {
        if (page_) {
            page_->Commit();
            page_.reset();
        }
    }

    void End()
    {
        walk_->EndStretch();
        walk_.reset(); // one that is under way keeps the former copy's pages
    }

    [[nodiscard]] int64_t Count() const { return count_; }
    [[nodiscard]] int64_t LeftOut() const { return leftOut_; }

private:
    void Stage(const std::optional<Walk::Met>& met, const std::string& sid, const LdapEntry::Texts& texts,
               std::string_view seal)
    {
        const std::optional<DomainEntry> entry =
            DomainEntryOf(domain_, texts.values[1], texts.values[2], texts.dn);
        if (!entry) {
            ++leftOut_;
            return;
        }
        Statement stage = db_.Prepare(entries_.stage);
        stage.Bind(1, sid).Bind(3, entry->name).Bind(4, entry->description).Bind(5, entry->unit);
        stage.Bind(6, entry->folded).BindBlob(7, seal);
        if (met) {
            stage.Bind(2, met->at);
        }
        stage.Run();
    }

    Database& db_;
    const std::string& domain_;
    const EntryStatements& entries_;
    const std::vector<std::string> attributes_; // identifier, name, description
    std::optional<Transaction> page_;           // once for a page, not for each of its entries
    std::optional<Walk> walk_;
    int64_t count_ = 0;
    int64_t leftOut_ = 0;
};

} // namespace

std::string UnitOf(std::string_view text)
{
    if (text.empty() || !IsPlainText(text)) {
        return {};
    }
    if (text.find('=') != std::string_view::npos) {
        return UnitsOfDn(text, 0);
    }
    while (text.starts_with('/')) {
        text.remove_prefix(1);
    }
    while (text.ends_with('/')) {
        text.remove_suffix(1);
    }
    return text.empty() ? "" : SearchText(text).value_or("") + '/';
}

// --- The runner --------------------------------------------------------------------------------------------

namespace
{

struct flock WholeFile(short type)
{
    struct flock lock {
    };
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    return lock;
}

void ShowProgress(const Descriptor& lock, int64_t count)
{
    const std::string text = std::to_string(count);
    if (ftruncate(lock.Get(), 0) != 0 ||
        pwrite(lock.Get(), text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
        syslog(LOG_WARNING, "cannot write %s: %m", kDomainLockFile);
    }
}

// As it was when the reading began.
struct Beginning {
    int64_t time = 0;    // WallSeconds
    int64_t renamed = 0; // RenamedUntilNow
};

// All that readers see of a refresh.
CopyCounts Publish(Database& db, Database& store, int64_t row, const Beginning& beginning,
                   const Reading& accounts, const Reading& groups)
{
    Transaction transaction(db);
    const bool isFirst = !db.Prepare("SELECT 1 FROM account UNION ALL SELECT 1 FROM account_group").Step();
    if (isFirst) {
        Execute(db, DROP_PAGE_INDEXES("account") DROP_PAGE_INDEXES("account_group"));
    }
    CopyCounts counts;
    counts.leftOut = accounts.LeftOut() + groups.LeftOut();
    counts.leftOut += PutInPlace(db, kAccountEntries, row);
    counts.leftOut += PutInPlace(db, kGroupEntries, row);
    NumberEntries(db, store, row);
    if (isFirst) { // an index takes less when it is made of all its rows
        Execute(db, PAGE_INDEXES("account") PAGE_INDEXES("account_group"));
    }
    counts.accounts = Number(db, kAccountEntries.count, row);
    counts.groups = Number(db, kGroupEntries.count, row);
    db.Prepare("UPDATE domain SET made = ?2, tried = ?2, failure = '', accounts = ?3, groups = ?4,"
               " left_out = ?5, renamed = ?6 WHERE at = ?1")
        .Bind(1, row)
        .Bind(2, beginning.time)
        .Bind(3, counts.accounts)
        .Bind(4, counts.groups)
        .Bind(5, counts.leftOut)
        .Bind(6, beginning.renamed)
        .Run();
    transaction.Commit();
    return counts;
}

void ReadList(LdapConnection& connection, Reading& reading, LdapSearch search, int pageSize,
              const std::function<void()>& pageDone)
{
    search.ahead = true;
    search.page = pageSize;
    connection.Search(
        search, [&](const LdapEntry& entry) { reading.Take(entry); },
        [&] {
            reading.EndPage();
            pageDone();
        });
    reading.End();
}

CopyCounts Read(Database& db, int64_t row, const CopiedDomain& domain,
                const std::function<void(int64_t)>& pageDone)
{
    Database store = OpenAccounts(); // this may be a thread
    const Beginning beginning{WallSeconds(), RenamedUntilNow(store)};
    const LdapSettings& settings = domain.ldap;
    const std::vector<std::string> ofAccount = {settings.idAttribute, settings.userName,
                                                settings.userDescription};
    const std::vector<std::string> ofGroup = {settings.idAttribute, settings.groupName,
                                              settings.groupDescription};
    LdapConnection connection(settings, kWholeTime);
    Reading accounts(db, row, domain.name, kAccountEntries, ofAccount);
    Reading groups(db, row, domain.name, kGroupEntries, ofGroup);
    const auto tell = [&] { pageDone(accounts.Count() + groups.Count()); };
    ReadList(connection, accounts, {settings.userBase, settings.userFilter, ofAccount}, domain.pageSize,
             tell);
    ReadList(connection, groups, {settings.groupBase, settings.groupFilter, ofGroup}, domain.pageSize, tell);
    if (accounts.Count() == accounts.LeftOut()) { // rather something that may not be read than nobody
        throw LdapError(LdapStep::Search, "there are no accounts below " + settings.userBase);
    }
    return Publish(db, store, row, beginning, accounts, groups);
}

void NoteFailure(Database& db, int64_t row, const char* failure)
{
    try {
        db.Prepare("UPDATE domain SET tried = ?2, failure = ?3 WHERE at = ?1")
            .Bind(1, row)
            .Bind(2, WallSeconds())
            .Bind(3, failure)
            .Run();
    } catch (const DatabaseError& error) {
        syslog(LOG_ERR, "the copy of the domain does not take why it failed: %s", error.what());
    }
}

} // namespace

CopyRunner::CopyRunner() : lock_(OpenLockFile(kDomainLockFile))
{
    if (!lock_) {
        throw DatabaseError(0, std::string("cannot open ") + kDomainLockFile);
    }
    struct flock lock = WholeFile(F_WRLCK);
    if (fcntl(lock_.Get(), F_OFD_SETLK, &lock) != 0) {
        lock_ = Descriptor();
    }
}

CopyCounts CopyRunner::Refresh(const CopiedDomain& domain, const std::function<bool(int64_t)>& goOn)
{
    Database db(kDomainDatabase, kMigrations);
    Execute(db, kBeside);
    const int64_t row = RowOfDomain(db, domain.name);
    ShowProgress(lock_, 0);
    try {
        const CopyCounts counts = Read(db, row, domain, [&](int64_t count) {
            ShowProgress(lock_, count);
            if (!goOn(count)) {
                throw Interrupted();
            }
        });
        db.CutLog(0); // a first copy's would stay as large as the copy
        return counts;
    } catch (const DirectoryError& error) {
        NoteFailure(db, row, error.what());
        throw;
    } catch (const DatabaseError& error) {
        NoteFailure(db, row, error.what());
        throw;
    }
}

void CopyRunner::KeepOnly(std::span<const CopiedDomain> domains)
{
    Database db(kDomainDatabase, kMigrations);
    Execute(db, kBeside);
    std::vector<int64_t> others;
    {
        Statement find = db.Prepare("SELECT at, name FROM domain");
        while (find.Step()) {
            const bool isKept = std::any_of(domains.begin(), domains.end(), [&](const CopiedDomain& domain) {
                return find.Blob(1) == domain.name;
            });
            if (!isKept) {
                others.push_back(find.Int(0));
            }
        }
    }
    for (const int64_t row : others) {
        Transaction transaction(db);
        PutInPlace(db, kAccountEntries, row); // of which nothing was seen
        PutInPlace(db, kGroupEntries, row);
        Run(db, "DELETE FROM domain WHERE at = ?1", row);
        transaction.Commit();
    }
}

std::optional<int64_t> CopyProgress()
{
    const Descriptor file(open(kDomainLockFile, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    struct flock lock = WholeFile(F_RDLCK); // asked about, not taken: nobody may miss his turn for it
    if (!file || fcntl(file.Get(), F_OFD_GETLK, &lock) != 0 || lock.l_type == F_UNLCK) {
        return std::nullopt;
    }
    char text[32] = {};
    int64_t count = 0;
    const ssize_t size = pread(file.Get(), text, sizeof text - 1, 0);
    std::from_chars(text, text + std::max<ssize_t>(size, 0), count);
    return count;
}

// --- Asking ------------------------------------------------------------------------------------------------

Database& DomainDatabase()
{
    static Database database(kDomainDatabase, kMigrations);
    return database;
}

std::vector<CopyState> CopyStates()
{
    Statement find = DomainDatabase().Prepare(
        "SELECT name, made, accounts, groups, left_out, tried, failure FROM domain ORDER BY name");
    std::vector<CopyState> states;
    while (find.Step()) {
        CopyState state;
        state.domain = find.Text(0);
        state.made = find.IsNull(1) ? std::nullopt : std::optional(find.Int(1));
        state.counts = {find.Int(2), find.Int(3), find.Int(4)};
        state.tried = find.Int(5);
        state.failure = find.Text(6);
        states.push_back(std::move(state));
    }
    return states;
}

namespace
{

// ?6: a domain, or the first unit's text; ?7: the end of the range of units; ?8: where the text is looked
// for.
#define SOUGHT                                                                                               \
    "instr(CASE ?8 WHEN 1 THEN substr(folded, 1, instr(folded, char(10)) - 1)"                               \
    " WHEN 2 THEN substr(folded, instr(folded, char(10)) + 1) ELSE folded END, ?3) > 0"
#define OF_DOMAIN "domain = (SELECT at FROM domain WHERE name = ?6)"
#define IN_UNIT "unit >= ?6 AND unit < ?7"

struct Scopes {
    SearchedTable everything;
    SearchedTable domain;
    SearchedTable unit;
};

// A plus keeps SQLite from going through a whole domain where a few rows are known by their grams.
#define SCOPES(TABLE, COUNT)                                                                                 \
    {                                                                                                        \
        SEARCHED_TABLE(TABLE, "at", "number", TABLE "_gram", "SELECT sum(" COUNT ") FROM domain", "TRUE",    \
                       "TRUE", SOUGHT),                                                                      \
            SEARCHED_TABLE(TABLE, "at", "number", TABLE "_gram",                                             \
                           "SELECT " COUNT " FROM domain WHERE name = ?6", OF_DOMAIN, "+" OF_DOMAIN,         \
                           SOUGHT),                                                                          \
            SEARCHED_TABLE(TABLE, "at", "number", TABLE "_gram",                                             \
                           "SELECT count(*) FROM " TABLE " WHERE " IN_UNIT, IN_UNIT,                         \
                           "+unit >= ?6 AND +unit < ?7", SOUGHT)                                             \
    }
constexpr Scopes kAccountScopes = SCOPES("account", "accounts");
constexpr Scopes kGroupScopes = SCOPES("account_group", "groups");

bool HasCopy(Database& db, const std::string& domain)
{
    Statement find = db.Prepare("SELECT 1 FROM domain WHERE made IS NOT NULL AND ?1 IN ('', name)");
    find.Bind(1, domain);
    return find.Step();
}

void BindPart(Statement& find, const CopyPart& part)
{
    const int parameters = find.Parameters(); // which of them there are differs from statement to statement
    if (parameters >= 6) {
        find.Bind(6, part.unit.empty() ? part.domain : part.unit);
    }
    if (parameters >= 7) {
        std::string end = part.unit.empty() ? "/" : part.unit;
        end.back() = '/' + 1;
        find.Bind(7, end);
    }
    if (parameters >= 8) {
        find.Bind(8, part.byName && part.byDescription ? 0 : part.byName ? 1 : 2);
    }
}

std::optional<int64_t> ListCopied(const Scopes& scopes, const CopyPart& part, std::string_view text,
                                  const ListPage& page, const EachEntry& each)
{
    Database& db = DomainDatabase();
    if (!HasCopy(db, part.domain)) {
        return std::nullopt;
    }
    const SearchedTable& table = !part.unit.empty()     ? scopes.unit
                                 : !part.domain.empty() ? scopes.domain
                                                        : scopes.everything;
    return ListSearched(db, table, text, page, each, [&](Statement& find) { BindPart(find, part); });
}

// Accounts that have been called otherwise since the copy was made, in order.
std::vector<uint32_t> RenamedSinceCopy(Database& db)
{
    Statement find = db.Prepare("SELECT min(renamed) FROM domain WHERE made IS NOT NULL");
    std::vector<uint32_t> renamed;
    if (find.Step()) {
        ForEachRenamedSince(find.Int(0), kKindDomain,
                            [&](uint32_t uid, const std::string& /*id*/) { renamed.push_back(uid); });
    }
    std::sort(renamed.begin(), renamed.end());
    return renamed;
}

// As the store has it by now. 0: the name is another one's.
uint32_t NumberByNow(Database& db, const ListEntry& entry)
{
    if (entry.number != 0) {
        const std::optional<Account> account = FindAccount(entry.number);
        return account && account->name == entry.name ? entry.number : 0;
    }
    Statement find = db.Prepare("SELECT id FROM account WHERE name = ?");
    find.Bind(1, entry.name);
    if (!find.Step()) {
        return 0;
    }
    const DirectoryEntry known[] = {{find.Text(0), entry.name}};
    return NumbersOfAccounts(kKindDomain, known)[0].value_or(0);
}

} // namespace

std::optional<int64_t> ListCopiedAccounts(const CopyPart& part, std::string_view text, const ListPage& page,
                                          const EachEntry& each)
{
    Database& db = DomainDatabase();
    const std::vector<uint32_t> renamed = RenamedSinceCopy(db);
    return ListCopied(kAccountScopes, part, text, page, [&](const ListEntry& found) {
        if (found.number != 0 && !std::binary_search(renamed.begin(), renamed.end(), found.number)) {
            each(found);
        } else {
            each({found.name, NumberByNow(db, found), found.description});
        }
    });
}

std::optional<int64_t> ListCopiedGroups(const CopyPart& part, std::string_view text, const ListPage& page,
                                        const EachEntry& each)
{
    return ListCopied(kGroupScopes, part, text, page, each);
}

// --- Settings ----------------------------------------------------------------------------------------------

CopyPlan ReadCopyPlan()
{
    CopyPlan plan;
    const std::optional<DomainCopySettings> settings = ReadDomainCopySettings();
    const std::optional<DomainSettings> domain = ReadDomainSettings();
    if (!settings || !domain) {
        return plan;
    }
    plan.refreshSeconds = settings->refreshSeconds;
    for (const DomainName& name : domain->names) {
        CopiedDomain copied{name.name, settings->ldap, settings->pageSize};
        if (!plan.domains.empty()) { // a trusted one stands below its own name
            copied.ldap.userBase = copied.ldap.groupBase = BaseOfRealm(name.realm);
        }
        // Normal accounts; groups of the forest and of the domain that have rights.
        copied.ldap.userFilter = "(&(objectClass=user)(sAMAccountType=805306368))";
        copied.ldap.groupFilter =
            "(&(objectClass=group)(|(sAMAccountType=268435456)(sAMAccountType=536870912)))";
        copied.ldap.idAttribute = "objectSid";
        copied.ldap.userName = copied.ldap.groupName = "sAMAccountName";
        copied.ldap.userDescription = "displayName";
        copied.ldap.groupDescription = "description";
        plan.domains.push_back(std::move(copied));
    }
    return plan;
}

} // namespace tavr
