#include "linux/directory_numbers.h"

#include "linux/accounts.h"

namespace tavr
{

namespace
{

#define RENAMED "(SELECT coalesce(max(renamed), 0) FROM directory_account WHERE renamed > 0)"
#define NEXT_RENAMED RENAMED " + 1"

struct Row {
    uint32_t uid = 0;
    std::string name; // empty: it has none any more
};

std::optional<Row> RowOf(Database& db, int kind, const std::string& id)
{
    Statement find = db.Prepare("SELECT uid, name FROM directory_account WHERE kind = ? AND id = ?");
    find.Bind(1, kind).Bind(2, id);
    return find.Step() ? std::optional(Row{static_cast<uint32_t>(find.Int(0)), find.Text(1)}) : std::nullopt;
}

bool IsTaken(Database& db, const std::string& name)
{
    return db.Prepare("SELECT 1 FROM directory_account WHERE name = ?").Bind(1, name).Step();
}

// What a former owner has left at the name's place goes first: it must not come to the new one.
void ClearPlaceOf(const std::string& name)
{
    if (!DeletePreferences(name)) {
        throw DatabaseError(0, "a preference directory of a former account of this name cannot be deleted");
    }
}

uint32_t Add(Database& db, int kind, const DirectoryEntry& entry)
{
    ClearPlaceOf(entry.name);
    db.Prepare("INSERT INTO directory_account (kind, id, name) VALUES (?, ?, ?)")
        .Bind(1, kind)
        .Bind(2, entry.id)
        .Bind(3, entry.name)
        .Run();
    return static_cast<uint32_t>(db.LastInsertId());
}

void Rename(Database& db, const Row& row, const std::string& name)
{
    ClearPlaceOf(name);
    if (!row.name.empty() && !MovePreferences(row.name, name)) {
        throw DatabaseError(0, "a preference directory cannot be moved");
    }
    db.Prepare("UPDATE directory_account SET name = ?1, renamed = " NEXT_RENAMED " WHERE uid = ?2")
        .Bind(1, name)
        .Bind(2, row.uid)
        .Run();
}

// Empty: the name is another one's. In a transaction.
std::optional<uint32_t> Number(Database& db, int kind, const DirectoryEntry& entry)
{
    const std::optional<Row> row = RowOf(db, kind, entry.id);
    if (row && row->name == entry.name) {
        return row->uid;
    }
    if (IsTaken(db, entry.name)) {
        return std::nullopt;
    }
    if (!row) {
        return Add(db, kind, entry);
    }
    Rename(db, *row, entry.name);
    return row->uid;
}

std::optional<uint32_t> NumberOfGroup(Database& db, int kind, const std::string& id)
{
    Statement find = db.Prepare("SELECT gid FROM directory_group WHERE kind = ? AND id = ?");
    find.Bind(1, kind).Bind(2, id);
    return find.Step() ? std::optional(static_cast<uint32_t>(find.Int(0))) : std::nullopt;
}

} // namespace

std::vector<std::optional<uint32_t>> NumbersOfAccounts(int kind, std::span<const DirectoryEntry> entries,
                                                       Database& store)
{
    std::vector<std::optional<uint32_t>> numbers;
    bool complete = true;
    for (const DirectoryEntry& entry : entries) {
        const std::optional<Row> row = RowOf(store, kind, entry.id);
        const bool known = row && row->name == entry.name;
        numbers.push_back(known ? std::optional(row->uid) : std::nullopt);
        complete = complete && known;
    }
    if (complete) {
        return numbers; // as nearly always: nothing is written
    }
    Transaction transaction(store);
    for (size_t i = 0; i < entries.size(); ++i) {
        numbers[i] = Number(store, kind, entries[i]);
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
    Transaction transaction(db);
    db.Prepare("UPDATE directory_account SET name = NULL, renamed = " NEXT_RENAMED
               " WHERE name = ?1 AND NOT (kind = ?2 AND id = ?3)")
        .Bind(1, entry.name)
        .Bind(2, kind)
        .Bind(3, entry.id)
        .Run();
    const std::optional<uint32_t> number = Number(db, kind, entry);
    transaction.Commit();
    return *number; // nobody else has the name any more
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
