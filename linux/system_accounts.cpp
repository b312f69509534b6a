#include "linux/system_accounts.h"

#include "linux/apart.h"
#include "linux/audit.h"
#include "linux/clock.h"
#include "linux/enrolment.h"
#include "linux/file_stamp.h"
#include "linux/ids.h"
#include "linux/kept_secret.h"
#include "linux/names.h"
#include "linux/pam.h"
#include "linux/paths.h"
#include "linux/request.h"
#include "linux/searched_table.h"
#include "linux/session.h"
#include "linux/settings.h"
#include "linux/vault.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sodium.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <memory>
#include <set>
#include <thread>
#include <unordered_map>
#include <utility>

namespace tavr
{

namespace
{

constexpr size_t kMostBytes = 16 << 20; // of one file
constexpr int64_t kDay = 86400;
constexpr std::chrono::milliseconds kLongestPam{8'000};
// Longer than PAM takes as a rule, who hashes twice for one account and not at all for a locked one.
constexpr std::chrono::milliseconds kRefusalTime{250};

// Numbers of the embedded store stay below, those of directories begin above; so one number means one
// account, whichever store is in use. 65536 is the administrators' in both.
constexpr char kTables[] = R"(
CREATE TABLE account_group (
    gid INTEGER PRIMARY KEY AUTOINCREMENT CHECK (gid = 65536 OR gid BETWEEN 1000000000 AND 1999999999),
    name TEXT NOT NULL UNIQUE,
    description TEXT NOT NULL DEFAULT '',  -- the system knows none
    system_gid INTEGER                     -- null: the system has no such group
) STRICT;
CREATE TABLE account (
    uid INTEGER PRIMARY KEY AUTOINCREMENT CHECK (uid BETWEEN 1000000000 AND 1999999999),
    name TEXT NOT NULL UNIQUE,
    system_uid INTEGER NOT NULL,
    gid INTEGER NOT NULL,                  -- of an account_group, else 65534
    description TEXT NOT NULL DEFAULT '',
    mail TEXT NOT NULL DEFAULT '',
    disabled INTEGER NOT NULL DEFAULT 0 CHECK (disabled IN (0, 1)),
    generation INTEGER NOT NULL DEFAULT 0,
    seal BLOB NOT NULL                     -- of password and its dates: another one ends the sessions
) STRICT;
CREATE INDEX account_of_primary_group ON account (gid);
CREATE TABLE membership (                  -- beside the primary group, but for administrators
    uid INTEGER NOT NULL REFERENCES account (uid) ON DELETE CASCADE,
    gid INTEGER NOT NULL REFERENCES account_group (gid) ON DELETE CASCADE,
    PRIMARY KEY (uid, gid)
) STRICT, WITHOUT ROWID;
CREATE INDEX membership_of_group ON membership (gid, uid);
INSERT INTO sqlite_sequence (name, seq) VALUES ('account', 999999999), ('account_group', 999999999);
)";
constexpr char kAdministratorsRow[] = "INSERT INTO account_group (gid, name, folded) VALUES"
                                      " (65536, 'sudo', search_text('sudo', ''))";
constexpr uint32_t kAdministratorsGid = 65536;

[[noreturn]] void Refuse(const std::string& problem)
{
    throw DatabaseError(0, problem);
}

// --- The system's files ------------------------------------------------------------------------------------

// What tells whether anything may have changed: states of the files, and the day, on which accounts expire.
struct Look {
    std::array<FileStamp, 4> files; // all -1: there is none
    int64_t day = 0;
    bool operator==(const Look&) const = default;
};

Look LookAtFiles()
{
    Look look;
    look.day = WallSeconds() / kDay;
    auto* stamp = look.files.begin();
    for (const char* path : {kPasswdFile, kGroupFile, kShadowFile, kLoginDefsFile}) {
        struct stat entry {
        };
        if (stat(path, &entry) == 0) {
            *stamp = StampOf(entry);
        }
        ++stamp;
    }
    return look;
}

// Whether what was read after this look is what the files will hold for as long as they look the same.
bool IsSettled(const Look& look)
{
    return std::none_of(look.files.begin(), look.files.end(),
                        [](const FileStamp& stamp) { return IsJustNow(stamp.changed); });
}

// Whole: with less, accounts would seem to be gone. A file that is being rewritten in place, or was when the
// power went, has a last line without an end or zeros in it.
std::string ReadWhole(const char* path)
{
    std::string text;
    FileStamp stamp;
    if (ReadStamped(path, 0, kMostBytes, text, stamp) != StampedRead::Done) {
        Refuse(std::string(path) + " cannot be read");
    }
    if ((!text.empty() && text.back() != '\n') || text.find('\0') != std::string::npos) {
        Refuse(std::string(path) + " is not whole: its last line has no end, or it holds a NUL");
    }
    return text;
}

// Calls each(line, without its end).
template<class Each>
void ForEachLine(std::string_view text, Each each)
{
    while (!text.empty()) {
        const size_t end = std::min(text.find('\n'), text.size());
        each(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
}

// Calls each(entry) for every line that the C library takes for one.
template<class Entry, class Each>
void ForEachEntry(std::string& text, int (*read)(FILE*, Entry*, char*, size_t, Entry**), Each each)
{
    if (text.empty()) {
        return;
    }
    size_t longest = 0;
    ForEachLine(text, [&](std::string_view line) { longest = std::max(longest, line.size()); });
    std::vector<char> room(longest * (1 + sizeof(char*)) + 1024); // a member takes a pointer besides
    const std::unique_ptr<FILE, int (*)(FILE*)> file(fmemopen(text.data(), text.size(), "r"), std::fclose);
    if (!file) {
        Refuse("no memory to read the system's accounts");
    }
    Entry entry{};
    for (Entry* found = nullptr;;) {
        const int code = read(file.get(), &entry, room.data(), room.size(), &found);
        if (code == ENOENT || (code == 0 && found == nullptr)) {
            return;
        }
        if (code != 0) {
            Refuse("the system's accounts cannot be read");
        }
        each(entry);
    }
}

// Names that mean the same here as in the system, where case counts; "+" and "-" begin no name but an order
// to look elsewhere.
bool IsName(const char* name)
{
    return name != nullptr && *name != '+' && *name != '-' && LocalNameProblem(name) == nullptr;
}

struct Range {
    uint32_t least = 1000;
    uint32_t most = 60000;
    [[nodiscard]] bool Holds(uint32_t number) const
    {
        return number != 0 && number >= least && number <= most;
    }
};

struct Ranges {
    Range users, groups;
};

Ranges ReadRanges()
{
    Ranges ranges;
    const std::pair<std::string_view, uint32_t*> settings[] = {{"UID_MIN", &ranges.users.least},
                                                               {"UID_MAX", &ranges.users.most},
                                                               {"GID_MIN", &ranges.groups.least},
                                                               {"GID_MAX", &ranges.groups.most}};
    if (access(kLoginDefsFile, F_OK) != 0 && errno == ENOENT) {
        return ranges; // of those that it has without a word in the file
    }
    ForEachLine(ReadWhole(kLoginDefsFile), [&](std::string_view line) {
        constexpr std::string_view blanks = " \t\r";
        const auto word = [&] {
            line.remove_prefix(std::min(line.find_first_not_of(blanks), line.size()));
            const std::string_view found = line.substr(0, line.find_first_of(blanks));
            line.remove_prefix(found.size());
            return found;
        };
        const std::string_view key = word();
        const std::string_view value = word();
        for (const auto& [name, number] : settings) {
            if (key != name) {
                continue;
            }
            const auto [end, problem] = std::from_chars(value.data(), value.data() + value.size(), *number);
            if (problem != std::errc() || end != value.data() + value.size()) {
                Refuse(std::string(name) + " in " + kLoginDefsFile + " is no decimal number");
            }
        }
    });
    return ranges;
}

// What stands in the file of passwords, none of which is kept.
struct Shadow {
    std::string seal;
    bool expired = false;
};

std::string SealOf(std::string_view use, std::string_view text)
{
    std::string seal(crypto_generichash_BYTES, '\0');
    crypto_generichash(reinterpret_cast<unsigned char*>(seal.data()), seal.size(),
                       reinterpret_cast<const unsigned char*>(text.data()), text.size(),
                       reinterpret_cast<const unsigned char*>(use.data()), use.size());
    return seal;
}

// The eighth field: days since 1970. What is no number has expired.
bool IsExpired(std::string_view line, int64_t today)
{
    for (int i = 0; i < 7; ++i) {
        line.remove_prefix(std::min(line.find(':'), line.size() - 1) + 1);
        if (line.empty()) {
            return false;
        }
    }
    const std::string_view field = line.substr(0, line.find(':'));
    int64_t day = 0;
    const auto [end, problem] = std::from_chars(field.data(), field.data() + field.size(), day);
    const bool isNumber = problem == std::errc() && end == field.data() + field.size();
    return !field.empty() && (!isNumber || (day >= 0 && today >= day));
}

std::unordered_map<std::string, Shadow> ReadShadows(int64_t today)
{
    KeptSecret file;
    {
        const EffectiveIds root = EffectiveIds::Root();
        if (!root.Changed()) {
            Refuse(std::string(kShadowFile) + " can be read by root alone");
        }
        file.text = ReadWhole(kShadowFile);
    }
    std::unordered_map<std::string, Shadow> shadows;
    ForEachLine(file.text, [&](std::string_view line) {
        const std::string name(line.substr(0, line.find(':')));
        if (!line.empty()) {
            shadows.try_emplace(name, Shadow{SealOf("tavr shadow line", line), IsExpired(line, today)});
        }
    });
    return shadows;
}

struct SystemUser {
    std::string name;
    uid_t uid = 0;
    gid_t gid = 0;
    std::string description;
    Shadow shadow;
};

struct SystemGroup {
    std::string name;
    gid_t gid = 0;
    std::vector<std::string> members; // that there are
};

struct SystemAccounts {
    std::vector<SystemUser> users;   // people's
    std::vector<SystemGroup> groups; // all of them
    Range peoplesGroups;
};

void TellLeftOut(const char* what, const char* name)
{
    syslog(LOG_WARNING, "the system's %s \"%s\" is left out: only lower case, without \"@\", is a name here",
           what, IsPlainText(name) ? name : "?");
}

std::vector<SystemUser> ReadUsers(const Range& people, int64_t today)
{
    const auto shadows = ReadShadows(today);
    std::string text = ReadWhole(kPasswdFile);
    std::vector<SystemUser> users;
    std::set<std::string> names;
    bool hasRoot = false;
    ForEachEntry(text, fgetpwent_r, [&](const passwd& entry) {
        hasRoot = hasRoot || entry.pw_uid == 0;
        if (!people.Holds(entry.pw_uid)) {
            return;
        }
        if (!IsName(entry.pw_name)) {
            TellLeftOut("user", entry.pw_name);
            return;
        }
        SystemUser user{entry.pw_name, entry.pw_uid, entry.pw_gid, {}, {}};
        if (!names.insert(user.name).second) {
            return; // the first line counts
        }
        const std::string_view gecos = entry.pw_gecos != nullptr ? entry.pw_gecos : "";
        const std::string_view fullName = gecos.substr(0, gecos.find(','));
        user.description = DescriptionProblem(fullName) == nullptr ? fullName : "";
        if (const auto shadow = shadows.find(user.name); shadow != shadows.end()) {
            user.shadow = shadow->second;
        }
        user.shadow.seal = SealOf(user.shadow.seal.empty() ? "tavr passwd line" : user.shadow.seal,
                                  entry.pw_passwd != nullptr ? entry.pw_passwd : "");
        users.push_back(std::move(user));
    });
    sodium_memzero(text.data(), text.size());
    if (!hasRoot) {
        Refuse(std::string(kPasswdFile) + " is not whole: it has no root");
    }
    return users;
}

std::vector<SystemGroup> ReadGroups(const Range& peoples, const std::vector<SystemUser>& users)
{
    std::set<std::string_view> people;
    for (const SystemUser& user : users) {
        people.insert(user.name);
    }
    std::string text = ReadWhole(kGroupFile);
    std::vector<SystemGroup> groups;
    std::set<std::string> names;
    ForEachEntry(text, fgetgrent_r, [&](const group& entry) {
        SystemGroup found{entry.gr_name, entry.gr_gid, {}};
        for (char** member = entry.gr_mem; member != nullptr && *member != nullptr; ++member) {
            if (people.contains(*member)) {
                found.members.emplace_back(*member);
            }
        }
        if (!IsName(entry.gr_name)) {
            if (peoples.Holds(found.gid) || !found.members.empty()) {
                TellLeftOut("group", entry.gr_name);
            }
        } else if (names.insert(found.name).second) {
            groups.push_back(std::move(found));
        }
    });
    return groups;
}

SystemAccounts ReadSystem(int64_t today)
{
    const Ranges ranges = ReadRanges();
    SystemAccounts system;
    system.users = ReadUsers(ranges.users, today);
    system.groups = ReadGroups(ranges.groups, system.users);
    system.peoplesGroups = ranges.groups;
    return system;
}

// --- The store, brought in step ----------------------------------------------------------------------------

struct KnownUser {
    uint32_t number = 0;
    uid_t uid = 0;
    uint32_t gid = 0;
    std::string description;
    std::string seal;
    bool disabled = false;
};

struct KnownGroup {
    uint32_t number = 0;
    std::optional<gid_t> gid;
};

template<class Known>
using ByName = std::unordered_map<std::string, Known>;

ByName<KnownUser> KnownUsers(Database& db)
{
    ByName<KnownUser> known;
    Statement list =
        db.Prepare("SELECT name, uid, system_uid, gid, description, seal, disabled FROM account");
    while (list.Step()) {
        known[list.Text(0)] = {static_cast<uint32_t>(list.Int(1)),
                               static_cast<uid_t>(list.Int(2)),
                               static_cast<uint32_t>(list.Int(3)),
                               list.Text(4),
                               list.Text(5),
                               list.Int(6) != 0};
    }
    return known;
}

ByName<KnownGroup> KnownGroups(Database& db)
{
    ByName<KnownGroup> known;
    Statement list = db.Prepare("SELECT name, gid, system_gid FROM account_group");
    while (list.Step()) {
        known[list.Text(0)] = {static_cast<uint32_t>(list.Int(1)),
                               list.IsNull(2) ? std::nullopt
                                              : std::optional(static_cast<gid_t>(list.Int(2)))};
    }
    return known;
}

// The accounts that are gone, with all that was theirs.
std::vector<Account> RemoveGoneUsers(Database& db, AccountLocks& locks, const std::vector<SystemUser>& users,
                                     ByName<KnownUser>& known)
{
    ByName<uid_t> there;
    for (const SystemUser& user : users) {
        there[user.name] = user.uid;
    }
    std::vector<Account> gone;
    for (auto at = known.begin(); at != known.end();) {
        const auto found = there.find(at->first);
        if (found != there.end() && found->second == at->second.uid) {
            ++at;
            continue;
        }
        Account account;
        account.name = at->first;
        account.uid = at->second.number;
        account.gid = at->second.gid;
        locks.Take(account.uid);
        EndSessionsOf(account.uid);
        FinishSwitchingOff(account.uid);
        db.Prepare("DELETE FROM account WHERE uid = ?").Bind(1, account.uid).Run();
        DeletePreferences(account.name); // once more before somebody else gets the name
        syslog(LOG_NOTICE, "account %s, number %u, is gone from the system, or has another uid",
               account.name.c_str(), account.uid);
        gone.push_back(std::move(account));
        at = known.erase(at);
    }
    return gone;
}

void RemoveGoneGroups(Database& db, const std::vector<SystemGroup>& groups, ByName<KnownGroup>& known)
{
    ByName<gid_t> there;
    for (const SystemGroup& group : groups) {
        there[group.name] = group.gid;
    }
    for (auto at = known.begin(); at != known.end();) {
        const auto found = there.find(at->first);
        const bool isThere = found != there.end() && found->second == at->second.gid;
        if (isThere || at->second.number == kAdministratorsGid) {
            ++at;
            continue;
        }
        db.Prepare("DELETE FROM account_group WHERE gid = ?").Bind(1, at->second.number).Run();
        at = known.erase(at);
    }
}

// The administrators' number is theirs whatever the system's is.
void SetAdministratorsGid(Database& db, const std::vector<SystemGroup>& groups)
{
    const auto found = std::find_if(groups.begin(), groups.end(), [](const SystemGroup& group) {
        return group.name == kSystemAdministrators;
    });
    Statement set = db.Prepare("UPDATE account_group SET system_gid = ?1 WHERE gid = ?2 AND"
                               " system_gid IS NOT ?1");
    found != groups.end() ? set.Bind(1, int64_t{found->gid}) : set.BindNull(1);
    set.Bind(2, kAdministratorsGid).Run();
}

// People's groups, and those that people are in; one that was here stays, whoever leaves it.
void AddGroups(Database& db, const SystemAccounts& system, ByName<KnownGroup>& known)
{
    std::set<gid_t> primary;
    for (const SystemUser& user : system.users) {
        primary.insert(user.gid);
    }
    for (const SystemGroup& group : system.groups) {
        const bool isTaken =
            system.peoplesGroups.Holds(group.gid) || !group.members.empty() || primary.contains(group.gid);
        if (!isTaken || known.contains(group.name)) {
            continue;
        }
        db.Prepare(
              "INSERT INTO account_group (name, system_gid, folded) VALUES (?1, ?2, search_text(?1, ''))")
            .Bind(1, group.name)
            .Bind(2, int64_t{group.gid})
            .Run();
        known[group.name] = {static_cast<uint32_t>(db.LastInsertId()), group.gid};
    }
}

KnownUser AddUser(Database& db, const SystemUser& user, uint32_t gid)
{
    if (!DeletePreferences(user.name)) {
        Refuse("a preference directory of a former account of this name cannot be deleted");
    }
    db.Prepare("INSERT INTO account (name, system_uid, gid, description, seal, disabled, folded)"
               " VALUES (?1, ?2, ?3, ?4, ?5, ?6, search_text(?1, ?4))")
        .Bind(1, user.name)
        .Bind(2, int64_t{user.uid})
        .Bind(3, gid)
        .Bind(4, user.description)
        .BindBlob(5, user.shadow.seal)
        .Bind(6, user.shadow.expired ? 1 : 0)
        .Run();
    return {static_cast<uint32_t>(db.LastInsertId()),
            user.uid,
            gid,
            user.description,
            user.shadow.seal,
            user.shadow.expired};
}

void ChangeUser(Database& db, const SystemUser& user, uint32_t gid, const KnownUser& known)
{
    const bool isSame = known.gid == gid && known.description == user.description &&
                        known.seal == user.shadow.seal && known.disabled == user.shadow.expired;
    if (isSame) {
        return;
    }
    const bool endsSessions = known.seal != user.shadow.seal || (user.shadow.expired && !known.disabled);
    db.Prepare("UPDATE account SET gid = ?2, description = ?3, folded = search_text(name, ?3), seal = ?4,"
               " disabled = ?5, generation = generation + ?6 WHERE uid = ?1")
        .Bind(1, known.number)
        .Bind(2, gid)
        .Bind(3, user.description)
        .BindBlob(4, user.shadow.seal)
        .Bind(5, user.shadow.expired ? 1 : 0)
        .Bind(6, endsSessions ? 1 : 0)
        .Run();
}

void SetUsers(Database& db, const SystemAccounts& system, const ByName<KnownGroup>& groups,
              ByName<KnownUser>& users)
{
    std::unordered_map<gid_t, uint32_t> numbers;
    for (const SystemGroup& group : system.groups) {
        if (const auto known = groups.find(group.name); known != groups.end()) {
            numbers.try_emplace(group.gid, known->second.number);
        }
    }
    for (const SystemUser& user : system.users) {
        const auto primary = numbers.find(user.gid);
        const uint32_t gid = primary != numbers.end() ? primary->second : kNoGroup;
        const auto known = users.find(user.name);
        if (known == users.end()) {
            users[user.name] = AddUser(db, user, gid);
        } else {
            ChangeUser(db, user, gid, known->second);
        }
    }
}

using Memberships = std::set<std::pair<uint32_t, uint32_t>>; // of account and group, by their numbers

Memberships WantedMemberships(const SystemAccounts& system, const ByName<KnownUser>& users,
                              const ByName<KnownGroup>& groups)
{
    Memberships wanted;
    std::optional<gid_t> administrators;
    for (const SystemGroup& group : system.groups) {
        const auto known = groups.find(group.name);
        if (known == groups.end()) {
            continue;
        }
        for (const std::string& member : group.members) {
            wanted.emplace(users.at(member).number, known->second.number);
        }
        if (known->second.number == kAdministratorsGid) {
            administrators = group.gid;
        }
    }
    for (const SystemUser& user : system.users) {
        if (user.gid == administrators) {
            wanted.emplace(users.at(user.name).number, kAdministratorsGid);
        }
    }
    return wanted;
}

// `sql` adds or removes one. Other rights want a new session.
void ChangeMembership(Database& db, const char* sql, std::pair<uint32_t, uint32_t> membership)
{
    db.Prepare(sql).Bind(1, membership.first).Bind(2, membership.second).Run();
    if (membership.second == kAdministratorsGid) {
        db.Prepare("UPDATE account SET generation = generation + 1 WHERE uid = ?")
            .Bind(1, membership.first)
            .Run();
    }
}

void SetMemberships(Database& db, const Memberships& wanted)
{
    Memberships known;
    {
        Statement list = db.Prepare("SELECT uid, gid FROM membership");
        while (list.Step()) {
            known.emplace(static_cast<uint32_t>(list.Int(0)), static_cast<uint32_t>(list.Int(1)));
        }
    }
    for (const auto& membership : known) {
        if (!wanted.contains(membership)) {
            ChangeMembership(db, "DELETE FROM membership WHERE uid = ?1 AND gid = ?2", membership);
        }
    }
    for (const auto& membership : wanted) {
        if (!known.contains(membership)) {
            ChangeMembership(db, "INSERT INTO membership (uid, gid) VALUES (?1, ?2)", membership);
        }
    }
}

std::vector<Account> Bring(Database& db, AccountLocks& locks, const SystemAccounts& system)
{
    ByName<KnownUser> users = KnownUsers(db);
    ByName<KnownGroup> groups = KnownGroups(db);
    std::vector<Account> gone = RemoveGoneUsers(db, locks, system.users, users);
    RemoveGoneGroups(db, system.groups, groups);
    SetAdministratorsGid(db, system.groups);
    AddGroups(db, system, groups);
    SetUsers(db, system, groups, users);
    SetMemberships(db, WantedMemberships(system, users, groups));
    return gone;
}

// The files are read inside the transaction: who comes later never writes what stood in them earlier.
void BringInStep(Database& db)
{
    static std::optional<Look> inStep; // by this process
    if (inStep && *inStep == LookAtFiles()) {
        return;
    }
    AccountLocks locks;
    Transaction transaction(db);
    const Look look = LookAtFiles();
    std::vector<Account> gone;
    try {
        gone = Bring(db, locks, ReadSystem(look.day));
    } catch (const AccountInUse&) {
        Refuse("an account that is gone is still in use by a request");
    }
    transaction.Commit();
    inStep = IsSettled(look) ? std::optional(look) : std::nullopt;
    for (const Account& account : gone) {
        Audit(AuditEvent::AccountRemoved, account, "system"); // by whoever came next
    }
}

bool CanBeRoot()
{
    uid_t real = 0;
    uid_t effective = 0;
    uid_t saved = 0;
    return getresuid(&real, &effective, &saved) == 0 && (effective == 0 || saved == 0);
}

// --- Passwords, in the process apart -----------------------------------------------------------------------

// PAM asks the C library for the account, which may have heard of another one of this name elsewhere.
bool IsKnownAs(const std::string& name, uid_t uid)
{
    std::vector<char> texts(1 << 16);
    passwd entry{};
    passwd* found = nullptr;
    return getpwnam_r(name.c_str(), &entry, texts.data(), texts.size(), &found) == 0 && found != nullptr &&
           found->pw_uid == uid && found->pw_name == name;
}

constexpr char kRight[] = "right";
constexpr char kWrong[] = "wrong";

std::string AskPam(const std::string& name, uid_t uid, const std::string& password)
{
    try {
        if (!IsKnownAs(name, uid)) {
            return "the C library knows another account of this name, or none; see /etc/nsswitch.conf";
        }
        return IsPamPassword(kSystemPamDir, name, password) ? kRight : kWrong;
    } catch (const PamError& reason) {
        return reason.what();
    }
}

bool IsPassword(const Account& account, std::string_view password)
{
    Statement find = SystemAccountsDatabase().Prepare("SELECT system_uid FROM account WHERE uid = ?");
    find.Bind(1, account.uid);
    if (!find.Step()) {
        return false; // just gone
    }
    const auto uid = static_cast<uid_t>(find.Int(0));
    const KeptSecret phrase{std::string(password)};
    const auto answer = RunApart(kLongestPam, [&] { return AskPam(account.name, uid, phrase.text); });
    if (answer != kRight && answer != kWrong) {
        Refuse("PAM was asked for a password: " + answer.value_or("no answer"));
    }
    return answer == kRight;
}

} // namespace

bool AreSystemAccounts()
{
    static std::optional<bool> lastKnown; // by this process
    std::optional<bool>& known = CurrentRequest().hasSystemAccounts;
    if (!known) {
        const std::string setting = Setting("accounts", "embedded");
        if (setting != "system" && setting != "embedded") {
            Refuse("setting accounts is neither embedded nor system");
        }
        if (SettingsKnown()) {
            lastKnown = setting == "system";
        } else if (!lastKnown && (access(kSystemAccountsDatabase, F_OK) == 0 || errno != ENOENT)) {
            Refuse("whose accounts sign in is unknown: " + std::string(kSettingsFile) +
                   " is gone, empty or cannot be read");
        }
        known = lastKnown.value_or(setting == "system");
    }
    return *known;
}

Database& SystemAccountsDatabase()
{
    static const std::string lists = AccountListTables() + kAdministratorsRow;
    static const std::vector<const char*> migrations{kTables, lists.c_str()};
    static Database database(kSystemAccountsDatabase, migrations, AddSearchText);
    Request& request = CurrentRequest();
    if (!request.systemAccountsLookedAt && CanBeRoot()) {
        BringInStep(database);
        request.systemAccountsLookedAt = true;
    }
    return database;
}

std::optional<Account> CheckSystemPassword(std::string_view canonicalName, std::string_view password)
{
    const auto start = std::chrono::steady_clock::now();
    std::optional<Account> account = FindAccount(canonicalName);
    const bool canSignIn = account && account->kind == kKindLocal && !account->disabled;
    if (canSignIn && IsPassword(*account, password)) {
        return account;
    }
    std::this_thread::sleep_until(start + kRefusalTime);
    return std::nullopt;
}

} // namespace tavr
