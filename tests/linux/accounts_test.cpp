#include "linux/accounts.h"

#include "linux/ids.h"
#include "linux/paths.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;
using tavr::Account;
using tavr::DatabaseError;
using tavr::FindAccount;

namespace
{

Account Add(const std::string& name, const std::string& password = "right horse", bool isAdmin = false)
{
    tavr::NewAccount account;
    account.name = name;
    account.isAdmin = isAdmin;
    const auto added = tavr::AddAccount(account, password);
    EXPECT_TRUE(added.has_value()) << name;
    return added.value_or(Account());
}

std::string Folder(const std::string& name)
{
    return std::string(tavr::kPreferenceDir) + "/" + name;
}

std::string StoredHash(uint32_t uid)
{
    tavr::Statement find = tavr::AccountsDatabase().Prepare("SELECT password FROM account WHERE uid = ?");
    find.Bind(1, uid);
    return find.Step() ? find.Text(0) : "";
}

} // namespace

TEST(Groups, AreTwoFromTheStart)
{
    EXPECT_EQ(65536U, tavr::FindGroup("administrators")->gid);
    EXPECT_EQ(65537U, tavr::FindGroup("users")->gid);
    EXPECT_FALSE(tavr::RemoveGroup(*tavr::FindGroup("administrators")));
    EXPECT_FALSE(tavr::RemoveGroup(*tavr::FindGroup("users")));
}

TEST(Accounts, AreFoundByNameAndNumber)
{
    tavr::NewAccount asked;
    asked.name = "found";
    asked.description = "Somebody; \"quoted\" 'too'";
    asked.mail = "found@home.example";
    asked.isAdmin = true;
    const auto added = tavr::AddAccount(asked, "x");
    ASSERT_TRUE(added);
    for (const auto& account : {FindAccount("found"), FindAccount(added->uid)}) {
        ASSERT_TRUE(account);
        EXPECT_EQ("found", account->name);
        EXPECT_EQ(added->uid, account->uid);
        EXPECT_EQ(65537U, account->gid);
        EXPECT_EQ(tavr::kKindLocal, account->kind);
        EXPECT_EQ("Somebody; \"quoted\" 'too'", account->description);
        EXPECT_EQ("found@home.example", account->mail);
        EXPECT_TRUE(account->isAdmin);
    }
    EXPECT_FALSE(FindAccount("not-found"));
    EXPECT_FALSE(FindAccount("FOUND"));
    EXPECT_FALSE(FindAccount(""));
    EXPECT_FALSE(FindAccount(1025));
    EXPECT_FALSE(tavr::AddAccount(asked, "y")) << "taken";
    EXPECT_TRUE(tavr::CheckPassword("found", "x")) << "the first one's password stands";
}

TEST(Accounts, NeverGetANumberASecondTime)
{
    const Account first = Add("short-lived");
    EXPECT_TRUE(tavr::RemoveAccount(first.uid).removed);
    const Account second = Add("short-lived");
    EXPECT_GT(second.uid, first.uid);
    EXPECT_TRUE(tavr::RemoveAccount(second.uid).removed);
    EXPECT_FALSE(tavr::RemoveAccount(second.uid).removed);

    const auto group = tavr::AddGroup("short-lived", "");
    ASSERT_TRUE(group);
    EXPECT_TRUE(tavr::RemoveGroup(*group));
    EXPECT_GT(tavr::AddGroup("short-lived", "")->gid, group->gid);
}

TEST(Accounts, ChangeOnlyInWhatIsGiven)
{
    const Account account = Add("changing");
    EXPECT_TRUE(tavr::ChangeAccount(account.uid, {"text", std::nullopt}));
    EXPECT_TRUE(tavr::ChangeAccount(account.uid, {std::nullopt, "a@b.example"}));
    EXPECT_EQ("text", FindAccount(account.uid)->description);
    EXPECT_EQ("a@b.example", FindAccount(account.uid)->mail);
    EXPECT_TRUE(tavr::ChangeAccount(account.uid, {std::nullopt, ""}));
    EXPECT_EQ("text", FindAccount(account.uid)->description);
    EXPECT_EQ("", FindAccount(account.uid)->mail);
    EXPECT_FALSE(tavr::ChangeAccount(4000000000U, {"x", "x"}));
}

TEST(Passwords, AreKeptAsSaltedYescryptHashes)
{
    const Account one = Add("hash-one", "the same");
    const Account two = Add("hash-two", "the same");
    EXPECT_EQ("$y$j9T$", StoredHash(one.uid).substr(0, 7));
    EXPECT_NE(StoredHash(one.uid), StoredHash(two.uid));
}

TEST(Passwords, AreAcceptedOnlyWhenRight)
{
    const Account account = Add("checked", "Tr\xC3\xBC"
                                           "b 1");
    const auto right = tavr::CheckPassword("checked", "Tr\xC3\xBC"
                                                      "b 1");
    ASSERT_TRUE(right);
    EXPECT_EQ(account.uid, right->uid);
    const std::string wrong[] = {"",
                                 "Tr\xC3\xBC"
                                 "b",
                                 "Tr\xC3\xBC"
                                 "b 1 ",
                                 "tr\xC3\xBC"
                                 "b 1",
                                 std::string("Tr\xC3\xBC"
                                             "b 1\0",
                                             8),
                                 StoredHash(account.uid),
                                 std::string(512, 'x'),
                                 std::string(5000, 'x')};
    for (const std::string& password : wrong) {
        EXPECT_FALSE(tavr::CheckPassword("checked", password)) << password.size();
        EXPECT_FALSE(tavr::CheckPassword("nobody-of-this-name", password)) << password.size();
    }
    EXPECT_TRUE(tavr::SetPassword(account.uid, "another"));
    EXPECT_FALSE(tavr::CheckPassword("checked", "Tr\xC3\xBC"
                                                "b 1"));
    EXPECT_TRUE(tavr::CheckPassword("checked", "another"));
    EXPECT_FALSE(tavr::SetPassword(4000000000U, "x"));
}

TEST(Passwords, OfADisabledAccountAreWrongAfterTheSameWork)
{
    const tavr::Account account = Add("kept-out", "right");
    const auto processorTime = [](const char* password) {
        timespec begin{};
        timespec end{};
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &begin);
        EXPECT_FALSE(tavr::CheckPassword("kept-out", password));
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &end);
        return static_cast<double>(end.tv_sec - begin.tv_sec) * 1e3 +
               static_cast<double>(end.tv_nsec - begin.tv_nsec) / 1e6;
    };
    const double wrong = processorTime("wrong");
    EXPECT_TRUE(tavr::SetDisabled(account.uid, true));
    EXPECT_TRUE(tavr::FindAccount("kept-out")->disabled);
    EXPECT_GT(processorTime("right"), wrong / 4) << "not hashed";
    EXPECT_TRUE(tavr::SetPassword(account.uid, "another"));
    EXPECT_FALSE(tavr::CheckPassword("kept-out", "another"));
    EXPECT_TRUE(tavr::SetDisabled(account.uid, false));
    EXPECT_TRUE(tavr::CheckPassword("kept-out", "another"));
    EXPECT_FALSE(tavr::SetDisabled(4000000000U, true));
}

TEST(Passwords, OfTheGreatestLengthCountToTheLastByte)
{
    const std::string longest(tavr::kMaxPassword, 'x');
    Add("long-password", longest);
    EXPECT_TRUE(tavr::CheckPassword("long-password", longest));
    EXPECT_FALSE(tavr::CheckPassword("long-password", longest.substr(1)));
    EXPECT_FALSE(tavr::CheckPassword("long-password", longest.substr(1) + "y"));
    EXPECT_FALSE(tavr::CheckPassword("long-password", longest + "x"));
    EXPECT_STREQ("too long", tavr::PasswordProblem(longest + "x"));
    EXPECT_STREQ("empty", tavr::PasswordProblem(""));
    EXPECT_STREQ("holds a NUL", tavr::PasswordProblem(std::string_view("a\0b", 3)));
    EXPECT_EQ(nullptr, tavr::PasswordProblem(longest));
}

TEST(Passwords, OfUnknownNamesAreHashedWithTheSameWork)
{
    Add("timed");
    const auto work = [](const char* name) {
        timespec before{};
        timespec after{};
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &before);
        for (int i = 0; i < 10; ++i) {
            EXPECT_FALSE(tavr::CheckPassword(name, "wrong"));
        }
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &after);
        return static_cast<double>(after.tv_sec - before.tv_sec) * 1e9 +
               static_cast<double>(after.tv_nsec - before.tv_nsec);
    };
    work("timed");
    const double known = work("timed");
    const double unknown = work("no-such-name");
    // Without the work the ratio would be some thousand.
    EXPECT_LT(known / unknown, 2.0);
    EXPECT_LT(unknown / known, 2.0);
}

TEST(Texts, AreJudgedBeforeTheyAreStored)
{
    EXPECT_EQ(nullptr, tavr::MailProblem(""));
    EXPECT_EQ(nullptr, tavr::MailProblem(std::string(254, 'm')));
    EXPECT_STREQ("too long", tavr::MailProblem(std::string(255, 'm')));
    for (const char* text : {"a@b.example\nBcc: c@d.example", "a\xC2\x85", "a\xE2\x80\xAE", "\xFF"}) {
        EXPECT_STREQ("holds a character that cannot be shown", tavr::MailProblem(text));
    }
    EXPECT_EQ(nullptr, tavr::DescriptionProblem("\xC3\xBC"));
    EXPECT_STREQ("too long", tavr::DescriptionProblem(std::string(1025, 'd')));
    EXPECT_EQ(nullptr, tavr::LocalNameProblem("alice"));
    EXPECT_NE(nullptr, tavr::LocalNameProblem("Alice"));
    EXPECT_NE(nullptr, tavr::LocalNameProblem("CORP\\alice"));
    EXPECT_NE(nullptr, tavr::LocalNameProblem("alice@x"));
    EXPECT_NE(nullptr, tavr::LocalNameProblem(""));
}

TEST(Groups, KeepTheirMembers)
{
    const Account anna = Add("anna");
    const Account ben = Add("ben");
    const auto group = tavr::AddGroup("crew", "On board");
    ASSERT_TRUE(group);
    EXPECT_FALSE(tavr::AddGroup("crew", "")) << "taken";
    EXPECT_EQ("On board", tavr::FindGroup("crew")->description);
    EXPECT_TRUE(tavr::JoinGroup(ben, *group));
    EXPECT_TRUE(tavr::JoinGroup(anna, *group));
    EXPECT_FALSE(tavr::JoinGroup(anna, *group)) << "already";
    EXPECT_EQ((std::vector<std::string>{"anna", "ben"}), tavr::MembersOf(*group));
    EXPECT_EQ((std::vector<uint32_t>{65537, group->gid}), tavr::GroupsOf(anna));
    EXPECT_FALSE(tavr::JoinGroup(anna, *tavr::FindGroup("users"))) << "the primary group";
    EXPECT_EQ((std::vector<uint32_t>{65537, group->gid}), tavr::GroupsOf(anna));
    EXPECT_TRUE(tavr::LeaveGroup(anna, *group));
    EXPECT_FALSE(tavr::LeaveGroup(anna, *group));
    EXPECT_TRUE(tavr::RemoveAccount(ben.uid).removed);
    EXPECT_TRUE(tavr::MembersOf(*group).empty()) << "removal ends membership";
    EXPECT_TRUE(tavr::JoinGroup(anna, *group));
    EXPECT_TRUE(tavr::RemoveGroup(*group));
    EXPECT_EQ((std::vector<uint32_t>{65537}), tavr::GroupsOf(anna));

    const auto administrators = tavr::FindGroup("administrators");
    EXPECT_FALSE(FindAccount(anna.uid)->isAdmin);
    EXPECT_TRUE(tavr::JoinGroup(anna, *administrators));
    EXPECT_TRUE(FindAccount("anna")->isAdmin);
    EXPECT_TRUE(tavr::LeaveGroup(anna, *administrators));
    EXPECT_FALSE(FindAccount("anna")->isAdmin);
}

// --- Preference directories --------------------------------------------------------------------------------

TEST(PreferenceDirectory, BelongsToTheServiceAlone)
{
    const Account account = Add("prefs");
    for (const bool raised : {false, true}) {
        const tavr::EffectiveIds ids = raised ? tavr::EffectiveIds::Root() : tavr::EffectiveIds::Service();
        const uid_t before = geteuid();
        const mode_t mask = umask(0);
        EXPECT_TRUE(tavr::MakePreferenceDirectory(account));
        umask(mask);
        struct stat entry {
        };
        ASSERT_EQ(0, lstat(Folder("prefs").c_str(), &entry));
        EXPECT_TRUE(S_ISDIR(entry.st_mode));
        EXPECT_EQ(0700U, entry.st_mode & 07777U);
        EXPECT_EQ(getuid(), entry.st_uid);
        EXPECT_EQ(getgid(), entry.st_gid);
        EXPECT_TRUE(fs::is_empty(Folder("prefs")));
        EXPECT_EQ(before, geteuid());
        if (!raised) {
            fs::remove(Folder("prefs"));
        }
    }
    EXPECT_TRUE(tavr::MakePreferenceDirectory(account)) << "it is there";
}

TEST(PreferenceDirectory, HasTheSettingsThatADomainUserNeeds)
{
    Account account;
    account.name = "CORP\\dora";
    account.kind = tavr::kKindDomain;
    const std::string file = Folder("%43%4F%52%50%5Cdora/usersettings");
    EXPECT_TRUE(tavr::MakePreferenceDirectory(account));
    std::string text;
    std::ifstream(file) >> text;
    EXPECT_EQ("{}", text);
    struct stat entry {
    };
    ASSERT_EQ(0, stat(file.c_str(), &entry));
    EXPECT_EQ(0600U, entry.st_mode & 07777U);
    std::ofstream(file) << "{\"kept\":1}";
    EXPECT_TRUE(tavr::MakePreferenceDirectory(account));
    std::ifstream(file) >> text;
    EXPECT_EQ("{\"kept\":1}", text);
}

TEST(PreferenceDirectory, IsNeverMadeThroughALinkOrTakenFromSomebody)
{
    const Account account = Add("trapped");
    fs::create_directory("/tmp/elsewhere");
    fs::create_directory_symlink("/tmp/elsewhere", Folder("trapped"));
    EXPECT_FALSE(tavr::MakePreferenceDirectory(account)) << "a link";
    EXPECT_TRUE(fs::is_empty("/tmp/elsewhere"));
    fs::remove(Folder("trapped"));

    std::ofstream(Folder("trapped")) << "x";
    EXPECT_FALSE(tavr::MakePreferenceDirectory(account)) << "a file";
    fs::remove(Folder("trapped"));

    {
        const tavr::EffectiveIds root = tavr::EffectiveIds::Root();
        fs::create_directory(Folder("trapped"));
    }
    EXPECT_FALSE(tavr::MakePreferenceDirectory(account)) << "root's";
    fs::remove(Folder("trapped"));

    fs::create_directory(Folder("trapped"));
    fs::permissions(Folder("trapped"), fs::perms(0750));
    EXPECT_FALSE(tavr::MakePreferenceDirectory(account)) << "open to others";
    fs::remove(Folder("trapped"));
    EXPECT_TRUE(tavr::MakePreferenceDirectory(account));
}

TEST(PreferenceDirectory, GoesWithItsAccount)
{
    const Account account = Add("leaving");
    EXPECT_TRUE(tavr::MakePreferenceDirectory(account));
    fs::create_directory("/tmp/others");
    std::ofstream("/tmp/others/file") << "x";
    fs::create_directories(Folder("leaving") + "/deep/down");
    std::ofstream(Folder("leaving") + "/deep/down/otp_secret") << "x";
    fs::create_directory_symlink("/tmp/others", Folder("leaving") + "/link");
    const tavr::Removal removal = tavr::RemoveAccount(account.uid);
    EXPECT_TRUE(removal.removed);
    EXPECT_TRUE(removal.cleaned);
    EXPECT_FALSE(fs::exists(Folder("leaving")));
    EXPECT_TRUE(fs::exists("/tmp/others/file")) << "links are removed, not followed";
}

TEST(PreferenceDirectory, OfAFormerAccountIsNotInherited)
{
    // As a crash in the middle of a removal leaves it.
    fs::create_directory(Folder("reborn"));
    std::ofstream(Folder("reborn/otp_secret")) << "old";
    const Account account = Add("reborn");
    EXPECT_FALSE(fs::exists(Folder("reborn")));

    tavr::RemoveAccount(account.uid);
    {
        const tavr::EffectiveIds root = tavr::EffectiveIds::Root();
        fs::create_directories(Folder("reborn/roots"));
        fs::permissions(Folder("reborn"), fs::perms(0700));
    }
    tavr::NewAccount again;
    again.name = "reborn";
    EXPECT_THROW(tavr::AddAccount(again, "x"), DatabaseError)
        << "what cannot be deleted is not inherited either";
    EXPECT_FALSE(FindAccount("reborn"));
    const tavr::EffectiveIds root = tavr::EffectiveIds::Root();
    fs::remove_all(Folder("reborn"));
}

// --- Size --------------------------------------------------------------------------------------------------

TEST(AHundredThousandAccounts, AreAskedThroughAnIndex)
{
    tavr::Database& db = tavr::AccountsDatabase();
    {
        tavr::Transaction transaction(db);
        db.Prepare(
              "WITH RECURSIVE n (i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 100000) "
              "INSERT INTO account (name, gid, password) SELECT printf('many%06d', i), 65537, '*' FROM n")
            .Run();
        db.Prepare("INSERT INTO membership (uid, gid) SELECT uid, 65536 FROM account WHERE name LIKE 'many%' "
                   "AND uid % 10 = 0")
            .Run();
        transaction.Commit();
    }
    EXPECT_EQ("many050000", FindAccount("many050000")->name);
    EXPECT_FALSE(FindAccount("many100001"));
    EXPECT_FALSE(tavr::CheckPassword("many000001", "*")) << "no password set";
    const char* const questions[] = {
        "EXPLAIN QUERY PLAN SELECT uid FROM account WHERE name = ?",
        "EXPLAIN QUERY PLAN SELECT uid FROM account WHERE uid = ?",
        "EXPLAIN QUERY PLAN SELECT gid FROM membership WHERE uid = ?",
        "EXPLAIN QUERY PLAN SELECT uid FROM membership WHERE gid = ?",
        "EXPLAIN QUERY PLAN SELECT uid FROM account WHERE gid = ?",
        "EXPLAIN QUERY PLAN SELECT gid FROM account_group WHERE name = ?",
    };
    for (const char* question : questions) {
        tavr::Statement plan = db.Prepare(question);
        while (plan.Step()) {
            EXPECT_EQ(0U, plan.Text(3).rfind("SEARCH", 0)) << question << ": " << plan.Text(3);
        }
    }
    size_t count = 0;
    tavr::ForEachAccount([&](const Account&) { ++count; });
    EXPECT_GE(count, 100000U);
}
