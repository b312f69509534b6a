#include "linux/accounts.h"

#include "linux/descriptor.h"
#include "linux/ids.h"
#include "linux/names.h"
#include "linux/paths.h"
#include "linux/searched_table.h"
#include "linux/system_accounts.h"

#include <crypt.h>
#include <fcntl.h>
#include <sodium.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <system_error>

namespace tavr
{

namespace
{

// AUTOINCREMENT gives no number a second time, whatever was removed since; its counters start one below the
// first numbers. The two groups made here get the first two.
constexpr const char* kMigrations[] = {
    R"(
CREATE TABLE account_group (
    gid INTEGER PRIMARY KEY AUTOINCREMENT CHECK (gid BETWEEN 65536 AND 4294967293),
    name TEXT NOT NULL UNIQUE,
    description TEXT NOT NULL DEFAULT ''
) STRICT;
CREATE TABLE account (
    uid INTEGER PRIMARY KEY AUTOINCREMENT CHECK (uid BETWEEN 1026 AND 4294967293),
    name TEXT NOT NULL UNIQUE,
    gid INTEGER NOT NULL REFERENCES account_group (gid),
    description TEXT NOT NULL DEFAULT '',
    mail TEXT NOT NULL DEFAULT '',
    password TEXT NOT NULL                 -- as crypt(5) has it; "*": none
) STRICT;
CREATE INDEX account_of_primary_group ON account (gid);
CREATE TABLE membership (                  -- beside the primary group
    uid INTEGER NOT NULL REFERENCES account (uid) ON DELETE CASCADE,
    gid INTEGER NOT NULL REFERENCES account_group (gid) ON DELETE CASCADE,
    PRIMARY KEY (uid, gid)
) STRICT, WITHOUT ROWID;
CREATE INDEX membership_of_group ON membership (gid, uid);
INSERT INTO sqlite_sequence (name, seq) VALUES ('account', 1025), ('account_group', 65535);
INSERT INTO account_group (name, description) VALUES
    ('administrators', 'May administer this system'),
    ('users', 'All local accounts');
)",
    R"(
ALTER TABLE account ADD COLUMN disabled INTEGER NOT NULL DEFAULT 0 CHECK (disabled IN (0, 1));
)",
    R"(
ALTER TABLE account ADD COLUMN generation INTEGER NOT NULL DEFAULT 0;
)",
};

// The fifth: numbers of what stands in directories (directory_numbers.cpp). Far above those that local
// accounts will ever reach, so that one number means one account; rows stay, so that none is given twice.
constexpr char kDirectoryTables[] = R"(
CREATE TABLE directory_account (
    uid INTEGER PRIMARY KEY AUTOINCREMENT CHECK (uid BETWEEN 2000000000 AND 4294967293),
    kind INTEGER NOT NULL CHECK (kind IN (2, 8)),
    id TEXT NOT NULL,                      -- the directory's own, which neither renaming nor moving changes
    name TEXT UNIQUE,                      -- canonical, as last seen; null: another one has it by now
    UNIQUE (kind, id)
) STRICT;
CREATE TABLE directory_group (
    gid INTEGER PRIMARY KEY AUTOINCREMENT CHECK (gid BETWEEN 2000000000 AND 4294967293),
    kind INTEGER NOT NULL CHECK (kind IN (2, 8)),
    id TEXT NOT NULL,
    UNIQUE (kind, id)
) STRICT;
INSERT INTO sqlite_sequence (name, seq) VALUES
    ('directory_account', 1999999999), ('directory_group', 1999999999);
)";

// The sixth: when accounts of directories have changed their names, which the copy of a domain's directory
// goes by (domain_copy.cpp).
constexpr char kRenamed[] = R"(
ALTER TABLE directory_account ADD COLUMN renamed INTEGER NOT NULL DEFAULT 0;  -- counts; 0: never
CREATE INDEX directory_account_renamed ON directory_account (renamed) WHERE renamed > 0;
)";

// The seventh: where an account's files may stand when somebody was killed while they were moved.
constexpr char kMoving[] = R"(
ALTER TABLE directory_account ADD COLUMN moving TEXT;
CREATE INDEX directory_account_moving ON directory_account (moving) WHERE moving IS NOT NULL;
)";

constexpr uint32_t kAdministratorsGid = 65536;
constexpr uint32_t kUsersGid = 65537;

constexpr char kHashMethod[] = "$y$"; // yescrypt
constexpr unsigned long kHashCost = 5;

#define ACCOUNT_COLUMNS                                                                                      \
    "uid, gid, name, description, mail, "                                                                    \
    "EXISTS (SELECT 1 FROM membership AS m WHERE m.uid = account.uid AND m.gid = 65536), disabled, "         \
    "generation"

Account ReadAccount(const Statement& row)
{
    Account account;
    account.uid = static_cast<uint32_t>(row.Int(0));
    account.gid = static_cast<uint32_t>(row.Int(1));
    account.name = row.Text(2);
    account.description = row.Text(3);
    account.mail = row.Text(4);
    account.isAdmin = row.Int(5) != 0;
    account.disabled = row.Int(6) != 0;
    account.generation = row.Int(7);
    return account;
}

Group ReadGroup(const Statement& row)
{
    Group group;
    group.gid = static_cast<uint32_t>(row.Int(0));
    group.name = row.Text(1);
    group.description = row.Text(2);
    return group;
}

// --- Passwords ---------------------------------------------------------------------------------------------

struct WipeCryptData {
    void operator()(crypt_data* data) const noexcept
    {
        sodium_memzero(data, sizeof *data);
        delete data;
    }
};

// The hash of a password under a stored hash, or under a setting. Throws when it cannot be made: a failure
// must not read as "wrong password".
std::string HashPassword(std::string_view password, const std::string& setting)
{
    struct Phrase {
        char text[kMaxPassword + 1] = {};
        ~Phrase() { sodium_memzero(text, sizeof text); }
    } phrase;
    static_assert(sizeof phrase.text <= CRYPT_MAX_PASSPHRASE_SIZE);
    std::memcpy(phrase.text, password.data(), std::min(password.size(), kMaxPassword));

    const std::unique_ptr<crypt_data, WipeCryptData> data(new crypt_data{});
    const char* hash = crypt_rn(phrase.text, setting.c_str(), data.get(), sizeof *data);
    if (hash == nullptr) {
        throw DatabaseError(0,
                            std::string("cannot hash a password: ") + std::generic_category().message(errno));
    }
    return hash;
}

// Random salt when none is given.
std::string NewSetting(const char* salt = nullptr, int saltSize = 0)
{
    char setting[CRYPT_GENSALT_OUTPUT_SIZE] = {};
    if (crypt_gensalt_rn(kHashMethod, kHashCost, salt, saltSize, setting, sizeof setting) == nullptr) {
        throw DatabaseError(0, std::string("cannot make a salt: ") + std::generic_category().message(errno));
    }
    return setting;
}

// What the password of an unknown name is hashed under: the parameters of every stored hash, a salt of no
// use.
const std::string& DummySetting()
{
    static const std::string setting = NewSetting("sixteen bytes...", 16);
    return setting;
}

bool SameHash(const std::string& a, const std::string& b)
{
    return a.size() == b.size() && sodium_memcmp(a.data(), b.data(), a.size()) == 0;
}

// --- Preference directories --------------------------------------------------------------------------------

constexpr int kOpenFolder = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

// Ours and nobody else's. An entry that is a link or no folder does not open as one.
bool IsOwnFolder(int fd)
{
    struct stat entry {
    };
    if (fstat(fd, &entry) != 0) {
        return false;
    }
    errno = EPERM;
    return entry.st_uid == geteuid() && (entry.st_mode & 0777) == 0700;
}

// An empty settings document, without which a domain user's recovery address cannot be saved.
bool MakeSettings(int folder)
{
    const Descriptor file(
        openat(folder, "usersettings", O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file) {
        return errno == EEXIST;
    }
    return write(file.Get(), "{}\n", 3) == 3 && fsync(file.Get()) == 0;
}

bool MakeFolder(const Account& account)
{
    const Descriptor parent(open(kPreferenceDir, kOpenFolder));
    if (!parent) {
        return false;
    }
    const std::string name = FolderName(account.name);
    const bool made = mkdirat(parent.Get(), name.c_str(), 0700) == 0;
    if (!made && errno != EEXIST) {
        return false;
    }
    const Descriptor folder(openat(parent.Get(), name.c_str(), kOpenFolder));
    if (!folder || (made && fchmod(folder.Get(), 0700) != 0) || !IsOwnFolder(folder.Get())) {
        return false;
    }
    if (account.kind == kKindDomain && !MakeSettings(folder.Get())) {
        return false;
    }
    return fsync(folder.Get()) == 0 && (!made || fsync(parent.Get()) == 0);
}

bool IsNameGiven(Database& db, const std::string& name)
{
    return db.Prepare("SELECT 1 FROM account WHERE name = ?").Bind(1, name).Step();
}

// --- Memberships -------------------------------------------------------------------------------------------

// `sql` writes or deletes one row; false: there was nothing to change.
bool ChangeMembership(const char* sql, const Account& account, const Group& group)
{
    Database& db = AccountsDatabase();
    Transaction transaction(db);
    db.Prepare(sql).Bind(1, account.uid).Bind(2, group.gid).Run();
    if (db.Changes() != 1) {
        return false;
    }
    if (group.gid == kAdministratorsGid) {
        db.Prepare("UPDATE account SET generation = generation + 1 WHERE uid = ?").Bind(1, account.uid).Run();
    }
    transaction.Commit();
    return true;
}

// --- Texts -------------------------------------------------------------------------------------------------

const char* TextProblem(std::string_view text, size_t most)
{
    if (text.size() > most) {
        return "too long";
    }
    return IsPlainText(text) ? nullptr : "holds a character that cannot be shown";
}

} // namespace

Database& LocalAccountsDatabase()
{
    return AreSystemAccounts() ? SystemAccountsDatabase() : AccountsDatabase();
}

Database OpenAccounts()
{
    static const std::string lists = AccountListTables();
    static const std::vector<const char*> migrations = [] {
        std::vector<const char*> all(std::begin(kMigrations), std::end(kMigrations));
        all.push_back(lists.c_str());
        all.push_back(kDirectoryTables);
        all.push_back(kRenamed);
        all.push_back(kMoving);
        return all;
    }();
    return {kAccountsDatabase, migrations, AddSearchText};
}

Database& AccountsDatabase()
{
    static Database database = OpenAccounts();
    return database;
}

namespace
{

// `sql` selects uid, name and kind by one value.
template<class Key>
std::optional<Account> FindDirectoryAccount(const char* sql, Key key)
{
    Statement find = AccountsDatabase().Prepare(sql);
    find.Bind(1, key);
    if (!find.Step()) {
        return std::nullopt;
    }
    Account account;
    account.uid = static_cast<uint32_t>(find.Int(0));
    account.gid = kNoGroup;
    account.name = find.Text(1);
    account.kind = static_cast<int>(find.Int(2));
    return account;
}

} // namespace

std::optional<Account> FindAccount(std::string_view canonicalName)
{
    if (IsDirectoryName(canonicalName)) {
        return FindDirectoryAccount("SELECT uid, name, kind FROM directory_account WHERE name = ?",
                                    canonicalName);
    }
    Statement find =
        LocalAccountsDatabase().Prepare("SELECT " ACCOUNT_COLUMNS " FROM account WHERE name = ?");
    find.Bind(1, canonicalName);
    return find.Step() ? std::optional(ReadAccount(find)) : std::nullopt;
}

std::optional<Account> FindAccount(uint32_t uid)
{
    if (uid >= kFirstDirectoryNumber) {
        return FindDirectoryAccount(
            "SELECT uid, name, kind FROM directory_account WHERE uid = ? AND name IS NOT NULL", int64_t{uid});
    }
    Statement find = LocalAccountsDatabase().Prepare("SELECT " ACCOUNT_COLUMNS " FROM account WHERE uid = ?");
    find.Bind(1, uid);
    return find.Step() ? std::optional(ReadAccount(find)) : std::nullopt;
}

std::optional<Addressee> FindAddressee(std::string_view canonicalName)
{
    Statement find = LocalAccountsDatabase().Prepare("SELECT uid, mail FROM account WHERE name = ?");
    find.Bind(1, canonicalName);
    if (!find.Step()) {
        return std::nullopt;
    }
    return Addressee{static_cast<uint32_t>(find.Int(0)), find.Text(1)};
}

std::optional<Account> CheckPassword(std::string_view canonicalName, std::string_view password)
{
    if (PasswordProblem(password) != nullptr) {
        return std::nullopt;
    }
    if (AreSystemAccounts()) {
        return CheckSystemPassword(canonicalName, password);
    }
    std::optional<Account> account;
    std::string stored;
    {
        Statement find =
            AccountsDatabase().Prepare("SELECT " ACCOUNT_COLUMNS ", password FROM account WHERE name = ?");
        find.Bind(1, canonicalName);
        if (find.Step()) {
            account = ReadAccount(find);
            stored = find.Text(8);
        }
    }
    const bool hashed = !stored.empty() && stored.front() == '$'; // else no password opens it
    const std::string hash = HashPassword(password, hashed ? stored : DummySetting());
    return hashed && SameHash(hash, stored) && !account->disabled ? account : std::nullopt;
}

void ForEachAccount(const std::function<void(const Account&)>& each)
{
    Statement list = LocalAccountsDatabase().Prepare("SELECT " ACCOUNT_COLUMNS " FROM account ORDER BY name");
    while (list.Step()) {
        each(ReadAccount(list));
    }
}

std::optional<Group> FindGroup(std::string_view canonicalName)
{
    Statement find =
        LocalAccountsDatabase().Prepare("SELECT gid, name, description FROM account_group WHERE name = ?");
    find.Bind(1, canonicalName);
    return find.Step() ? std::optional(ReadGroup(find)) : std::nullopt;
}

void ForEachGroup(const std::function<void(const Group&)>& each)
{
    Statement list =
        LocalAccountsDatabase().Prepare("SELECT gid, name, description FROM account_group ORDER BY name");
    while (list.Step()) {
        each(ReadGroup(list));
    }
}

std::vector<uint32_t> GroupsOf(const Account& account)
{
    std::vector<uint32_t> gids{account.gid};
    Statement list =
        LocalAccountsDatabase().Prepare("SELECT gid FROM membership WHERE uid = ? AND gid <> ? ORDER BY gid");
    list.Bind(1, account.uid).Bind(2, account.gid);
    while (list.Step()) {
        gids.push_back(static_cast<uint32_t>(list.Int(0)));
    }
    return gids;
}

std::vector<std::string> MembersOf(const Group& group)
{
    std::vector<std::string> names;
    Statement list = LocalAccountsDatabase().Prepare(
        "SELECT name FROM account WHERE gid = ?1 UNION "
        "SELECT a.name FROM membership AS m JOIN account AS a USING (uid) WHERE m.gid = ?1 ORDER BY name");
    list.Bind(1, group.gid);
    while (list.Step()) {
        names.push_back(list.Text(0));
    }
    return names;
}

const char* PasswordProblem(std::string_view password)
{
    if (password.empty()) {
        return "empty";
    }
    if (password.size() > kMaxPassword) {
        return "too long";
    }
    return password.find('\0') == std::string_view::npos ? nullptr : "holds a NUL";
}

const char* MailProblem(std::string_view mail)
{
    return TextProblem(mail, kMaxMail);
}

const char* DescriptionProblem(std::string_view description)
{
    return TextProblem(description, kMaxDescription);
}

const char* LocalNameProblem(std::string_view canonicalName)
{
    if (CanonicalName(canonicalName) != canonicalName) {
        return "not a name in its canonical spelling";
    }
    return IsDirectoryName(canonicalName) ? "the name of a directory's account" : nullptr;
}

std::optional<Account> AddAccount(const NewAccount& account, std::string_view password)
{
    const std::string hash = HashPassword(password, NewSetting());
    Database& db = AccountsDatabase();
    Transaction transaction(db);
    if (IsNameGiven(db, account.name)) {
        return std::nullopt;
    }
    if (!DeletePreferences(account.name)) {
        throw DatabaseError(0, "a preference directory of a former account of this name cannot be deleted");
    }
    db.Prepare("INSERT INTO account (name, gid, description, mail, password, folded) "
               "VALUES (?1, ?2, ?3, ?4, ?5, search_text(?1, ?3))")
        .Bind(1, account.name)
        .Bind(2, kUsersGid)
        .Bind(3, account.description)
        .Bind(4, account.mail)
        .Bind(5, hash)
        .Run();
    const auto uid = static_cast<uint32_t>(db.LastInsertId());
    if (account.isAdmin) {
        db.Prepare("INSERT INTO membership (uid, gid) VALUES (?, ?)")
            .Bind(1, uid)
            .Bind(2, kAdministratorsGid)
            .Run();
    }
    transaction.Commit();
    return FindAccount(uid);
}

bool ChangeAccount(uint32_t uid, const AccountChange& change)
{
    // One statement, in which a null keeps what is stored: what others change meanwhile is not written back.
    Database& db = LocalAccountsDatabase();
    Statement update =
        db.Prepare("UPDATE account SET description = coalesce(?1, description), mail = coalesce(?2, mail), "
                   "folded = search_text(name, coalesce(?1, description)) WHERE uid = ?3");
    change.description ? update.Bind(1, *change.description) : update.BindNull(1);
    change.mail ? update.Bind(2, *change.mail) : update.BindNull(2);
    update.Bind(3, uid).Run();
    return db.Changes() == 1;
}

bool SetPassword(uint32_t uid, std::string_view password)
{
    Database& db = AccountsDatabase();
    db.Prepare("UPDATE account SET password = ?, generation = generation + 1 WHERE uid = ?")
        .Bind(1, HashPassword(password, NewSetting()))
        .Bind(2, uid)
        .Run();
    return db.Changes() == 1;
}

bool SetDisabled(uint32_t uid, bool disabled)
{
    Database& db = AccountsDatabase();
    db.Prepare("UPDATE account SET disabled = ?1, generation = generation + ?1 WHERE uid = ?2")
        .Bind(1, disabled ? 1 : 0)
        .Bind(2, uid)
        .Run();
    return db.Changes() == 1;
}

Removal RemoveAccount(uint32_t uid)
{
    Database& db = AccountsDatabase();
    std::string name;
    {
        Statement remove = db.Prepare("DELETE FROM account WHERE uid = ? RETURNING name");
        remove.Bind(1, uid);
        if (!remove.Step()) {
            return {};
        }
        name = remove.Text(0);
        remove.Run();
    }
    // Nobody can add an account while this is open, so the folder is the removed one's.
    const Transaction transaction(db);
    return {true, IsNameGiven(db, name) || DeletePreferences(name)};
}

std::optional<Group> AddGroup(std::string_view canonicalName, std::string_view description)
{
    Database& db = AccountsDatabase();
    // Not left to the constraint: a number that was drawn for a refused row would be lost.
    db.Prepare("INSERT INTO account_group (name, description, folded) SELECT ?1, ?2, search_text(?1, ?2) "
               "WHERE NOT EXISTS (SELECT 1 FROM account_group WHERE name = ?1)")
        .Bind(1, canonicalName)
        .Bind(2, description)
        .Run();
    return db.Changes() == 1 ? FindGroup(canonicalName) : std::nullopt;
}

bool IsBuiltIn(const Group& group)
{
    return group.gid == kAdministratorsGid || group.gid == kUsersGid;
}

bool RemoveGroup(const Group& group)
{
    if (IsBuiltIn(group)) {
        return false;
    }
    Database& db = AccountsDatabase();
    db.Prepare(
          "DELETE FROM account_group WHERE gid = ?1 AND NOT EXISTS (SELECT 1 FROM account WHERE gid = ?1)")
        .Bind(1, group.gid)
        .Run();
    return db.Changes() == 1;
}

bool JoinGroup(const Account& account, const Group& group)
{
    if (account.gid == group.gid) {
        return false;
    }
    return ChangeMembership("INSERT INTO membership (uid, gid) VALUES (?, ?) ON CONFLICT DO NOTHING", account,
                            group);
}

bool LeaveGroup(const Account& account, const Group& group)
{
    return ChangeMembership("DELETE FROM membership WHERE uid = ? AND gid = ?", account, group);
}

// Links are removed, not followed.
bool DeletePreferences(const std::string& name)
{
    const EffectiveIds service = EffectiveIds::Service();
    std::error_code problem;
    std::filesystem::remove_all(PreferencePath(name), problem);
    if (problem) {
        syslog(LOG_ERR, "cannot delete the preference directory of %s: %s", name.c_str(),
               problem.message().c_str());
    }
    return service.Changed() && !problem;
}

bool MovePreferences(const std::string& from, const std::string& to)
{
    const EffectiveIds service = EffectiveIds::Service();
    if (!service.Changed()) {
        return false;
    }
    if (rename(PreferencePath(from).c_str(), PreferencePath(to).c_str()) != 0 && errno != ENOENT) {
        syslog(LOG_ERR, "cannot move the preference directory of %s to that of %s: %m", from.c_str(),
               to.c_str());
        return false;
    }
    return true;
}

bool ReplacePreferences(const std::string& from, const std::string& to)
{
    const EffectiveIds service = EffectiveIds::Service();
    std::error_code problem;
    const bool stands =
        std::filesystem::exists(std::filesystem::symlink_status(PreferencePath(from), problem));
    return service.Changed() && (!stands || (DeletePreferences(to) && MovePreferences(from, to)));
}

bool MakePreferenceDirectory(const Account& account)
{
    const EffectiveIds service = EffectiveIds::Service();
    if (!service.Changed()) {
        return false;
    }
    if (!MakeFolder(account)) {
        syslog(LOG_ERR, "cannot make the preference directory of %s: %m", account.name.c_str());
        return false;
    }
    return true;
}

} // namespace tavr
