#include "linux/directory_numbers.h"

#include "linux/accounts.h"
#include "linux/enrolment.h"

#include <chrono>
#include <thread>

namespace tavr
{

namespace
{

#define RENAMED "(SELECT coalesce(max(renamed), 0) FROM directory_account WHERE renamed > 0)"
#define NEXT_RENAMED RENAMED " + 1"

struct Row {
    uint32_t uid = 0;
    std::string name;   // empty: it has none any more
    std::string moving; // the name at whose place its files may stand, if their move was cut short
};

#define ROWS "SELECT uid, name, moving FROM directory_account"

std::optional<Row> OnlyRow(Statement& find)
{
    return find.Step() ? std::optional(Row{static_cast<uint32_t>(find.Int(0)), find.Text(1), find.Text(2)})
                       : std::nullopt;
}

std::optional<Row> RowOf(Database& db, int kind, const std::string& id)
{
    Statement find = db.Prepare(ROWS " WHERE kind = ? AND id = ?");
    return OnlyRow(find.Bind(1, kind).Bind(2, id));
}

std::optional<Row> RowMovingTo(Database& db, const std::string& name)
{
    Statement find = db.Prepare(ROWS " WHERE moving = ?");
    return OnlyRow(find.Bind(1, name));
}

bool IsTaken(Database& db, const std::string& name)
{
    return db.Prepare("SELECT 1 FROM directory_account WHERE name = ?").Bind(1, name).Step();
}

constexpr std::chrono::milliseconds kLongestInUse{10'000};
constexpr std::chrono::milliseconds kPause{10};

// --- Files that go with names ---
//
// A move is announced in a transaction of its own, which leaves the new place empty. Whoever is killed before
// the name is stored has files at one of the two places; who comes next brings them back first.

void BringBack(Database& db, AccountLocks& locks, const Row& row)
{
    locks.Take(row.uid);
    if (!ReplacePreferences(row.moving, row.name)) {
        throw DatabaseError(0, "a preference directory cannot be brought back");
    }
    db.Prepare("UPDATE directory_account SET moving = NULL WHERE uid = ?").Bind(1, row.uid).Run();
}

// What a former owner has left at the name's place goes first: it must not come to the new one.
void ClearPlaceOf(Database& db, AccountLocks& locks, const std::string& name)
{
    if (const std::optional<Row> onTheWay = RowMovingTo(db, name)) {
        BringBack(db, locks, *onTheWay);
    }
    if (!DeletePreferences(name)) {
        throw DatabaseError(0, "a preference directory of a former account of this name cannot be deleted");
    }
}

bool IsRenamed(const std::optional<Row>& row, const std::string& name)
{
    return row && !row->name.empty() && row->name != name;
}

void AnnounceMove(Database& db, AccountLocks& locks, const Row& row, const std::string& name)
{
    locks.Take(row.uid);
    if (!row.moving.empty()) {
        BringBack(db, locks, row);
    }
    ClearPlaceOf(db, locks, name);
    db.Prepare("UPDATE directory_account SET moving = ? WHERE uid = ?").Bind(1, name).Bind(2, row.uid).Run();
}

// --- Numbers ---

uint32_t Add(Database& db, AccountLocks& locks, int kind, const DirectoryEntry& entry)
{
    ClearPlaceOf(db, locks, entry.name);
    db.Prepare("INSERT INTO directory_account (kind, id, name) VALUES (?, ?, ?)")
        .Bind(1, kind)
        .Bind(2, entry.id)
        .Bind(3, entry.name)
        .Run();
    return static_cast<uint32_t>(db.LastInsertId());
}

void Rename(Database& db, AccountLocks& locks, const Row& row, const std::string& name)
{
    locks.Take(row.uid);
    if (row.name.empty()) {
        ClearPlaceOf(db, locks, name);
    } else if (row.moving != name) {
        throw AccountInUse(); // named otherwise since the move was announced
    } else if (!MovePreferences(row.name, name)) {
        throw DatabaseError(0, "a preference directory cannot be moved");
    }
    db.Prepare("UPDATE directory_account SET name = ?1, moving = NULL, renamed = " NEXT_RENAMED
               " WHERE uid = ?2")
        .Bind(1, name)
        .Bind(2, row.uid)
        .Run();
}

// Empty: the name is another one's. In a transaction, which the locks outlast.
std::optional<uint32_t> Number(Database& db, AccountLocks& locks, int kind, const DirectoryEntry& entry)
{
    const std::optional<Row> row = RowOf(db, kind, entry.id);
    if (row && row->name == entry.name) {
        return row->uid;
    }
    if (IsTaken(db, entry.name)) {
        return std::nullopt;
    }
    if (!row) {
        return Add(db, locks, kind, entry);
    }
    Rename(db, locks, *row, entry.name);
    return row->uid;
}

std::optional<uint32_t> NumberOfGroup(Database& db, int kind, const std::string& id)
{
    Statement find = db.Prepare("SELECT gid FROM directory_group WHERE kind = ? AND id = ?");
    find.Bind(1, kind).Bind(2, id);
    return find.Step() ? std::optional(static_cast<uint32_t>(find.Int(0))) : std::nullopt;
}

std::optional<uint32_t> FormerOwner(Database& db, int kind, const DirectoryEntry& entry)
{
    Statement find =
        db.Prepare("SELECT uid FROM directory_account WHERE name = ?1 AND NOT (kind = ?2 AND id = ?3)");
    find.Bind(1, entry.name).Bind(2, kind).Bind(3, entry.id);
    return find.Step() ? std::optional(static_cast<uint32_t>(find.Int(0))) : std::nullopt;
}

void TakeNameAway(Database& db, AccountLocks& locks, int kind, const DirectoryEntry& entry)
{
    if (const std::optional<uint32_t> owner = FormerOwner(db, kind, entry)) {
        locks.Take(*owner);
        db.Prepare("UPDATE directory_account SET name = NULL, moving = NULL, renamed = " NEXT_RENAMED
                   " WHERE uid = ?")
            .Bind(1, *owner)
            .Run();
    }
}

uint32_t TakeName(Database& db, int kind, const DirectoryEntry& entry)
{
    AccountLocks locks;
    if (IsRenamed(RowOf(db, kind, entry.id), entry.name)) {
        Transaction announcing(db);
        TakeNameAway(db, locks, kind, entry);
        AnnounceMove(db, locks, *RowOf(db, kind, entry.id), entry.name);
        announcing.Commit();
    }
    Transaction transaction(db);
    TakeNameAway(db, locks, kind, entry);
    const std::optional<uint32_t> number = Number(db, locks, kind, entry);
    transaction.Commit();
    return *number; // nobody else has the name any more
}

void AnnounceMoves(Database& db, AccountLocks& locks, int kind,
                   const std::vector<const DirectoryEntry*>& renamed)
{
    Transaction transaction(db);
    for (const DirectoryEntry* entry : renamed) {
        const std::optional<Row> row = RowOf(db, kind, entry->id);
        try {
            if (IsRenamed(row, entry->name) && !IsTaken(db, entry->name)) {
                AnnounceMove(db, locks, *row, entry->name);
            }
        } catch (const AccountInUse&) {
            continue; // it can be renamed another time
        }
    }
    transaction.Commit();
}

} // namespace

std::vector<std::optional<uint32_t>> NumbersOfAccounts(int kind, std::span<const DirectoryEntry> entries,
                                                       Database& store)
{
    std::vector<std::optional<uint32_t>> numbers;
    bool complete = true;
    std::vector<const DirectoryEntry*> renamed;
    for (const DirectoryEntry& entry : entries) {
        const std::optional<Row> row = RowOf(store, kind, entry.id);
        const bool known = row && row->name == entry.name;
        numbers.push_back(known ? std::optional(row->uid) : std::nullopt);
        complete = complete && known;
        if (IsRenamed(row, entry.name)) {
            renamed.push_back(&entry);
        }
    }
    if (complete) {
        return numbers; // as nearly always: nothing is written
    }
    AccountLocks locks;
    if (!renamed.empty()) {
        AnnounceMoves(store, locks, kind, renamed);
    }
    Transaction transaction(store);
    for (size_t i = 0; i < entries.size(); ++i) {
        try {
            numbers[i] = Number(store, locks, kind, entries[i]);
        } catch (const AccountInUse&) {
            numbers[i] = std::nullopt; // it can be renamed another time
        }
    }
    transaction.Commit();
    return numbers;
}

uint32_t NumberOfAccount(int kind, const DirectoryEntry& entry)
{
    Database& db = AccountsDatabase();
    if (const std::optional<Row> row = RowOf(db, kind, entry.id); row && row->name == entry.name) {
        return row->uid;
    }
    const auto end = std::chrono::steady_clock::now() + kLongestInUse;
    while (true) {
        try {
            return TakeName(db, kind, entry);
        } catch (const AccountInUse&) {
            if (std::chrono::steady_clock::now() > end) {
                throw DatabaseError(0, entry.name + " cannot be renamed: somebody is writing its files");
            }
            std::this_thread::sleep_for(kPause);
        }
    }
}

std::vector<uint32_t> NumbersOfGroups(int kind, std::span<const std::string> ids, Database& store)
{
    std::vector<uint32_t> numbers;
    std::optional<Transaction> transaction; // once one has to be given
    for (const std::string& id : ids) {
        std::optional<uint32_t> number = NumberOfGroup(store, kind, id);
        if (!number && !transaction) {
            transaction.emplace(store);
            number = NumberOfGroup(store, kind, id);
        }
        if (!number) {
            store.Prepare("INSERT INTO directory_group (kind, id) VALUES (?, ?)")
                .Bind(1, kind)
                .Bind(2, id)
                .Run();
            number = static_cast<uint32_t>(store.LastInsertId());
        }
        numbers.push_back(*number);
    }
    if (transaction) {
        transaction->Commit();
    }
    return numbers;
}

int64_t RenamedUntilNow(Database& store)
{
    Statement find = store.Prepare("SELECT " RENAMED);
    return find.Step() ? find.Int(0) : 0;
}

void ForEachRenamedSince(int64_t count, int kind,
                         const std::function<void(uint32_t uid, const std::string& id)>& each,
                         Database& store)
{
    Statement find =
        store.Prepare("SELECT uid, id FROM directory_account INDEXED BY directory_account_renamed"
                      " WHERE renamed > 0 AND renamed > ? AND kind = ?");
    find.Bind(1, count).Bind(2, kind);
    while (find.Step()) {
        each(static_cast<uint32_t>(find.Int(0)), find.Text(1));
    }
}

} // namespace tavr
