// Lists of accounts and groups by a text, on tables that an older version made.
#include "linux/account_list.h"

#include "linux/accounts.h"
#include "linux/names.h"
#include "linux/paths.h"
#include "platform/users.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <vector>

using namespace tavr;

namespace
{

using Names = std::vector<std::string>;

struct Found {
    int64_t total = 0;
    Names names;
    bool operator==(const Found&) const = default;
};

void PrintTo(const Found& found, std::ostream* out)
{
    *out << found.total << ":";
    for (const std::string& name : found.names) {
        *out << " " << name;
    }
}

using List = int64_t (*)(std::string_view, const ListPage&, const EachEntry&);

Found Search(const std::string& text, ListPage page = {}, List list = ListAccounts)
{
    Found found;
    found.total = list(text, page, [&](const ListEntry& entry) { found.names.push_back(entry.name); });
    return found;
}

void Execute(const char* sql)
{
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(AccountsDatabase().Handle(), sql, nullptr, nullptr, nullptr))
        << sqlite3_errmsg(AccountsDatabase().Handle());
}

// Without a password, which takes long to hash.
void Insert(const std::string& name, const std::string& description)
{
    AccountsDatabase()
        .Prepare("INSERT INTO account (name, gid, description, password, folded) "
                 "VALUES (?1, 65537, ?2, '*', search_text(?1, ?2))")
        .Bind(1, name)
        .Bind(2, description)
        .Run();
}

void InsertMany(const std::string& prefix, int from, int to)
{
    Transaction transaction(AccountsDatabase());
    for (int i = from; i < to; ++i) {
        std::string number = std::to_string(i);
        number.insert(0, 6 - number.size(), '0');
        Insert(prefix + number, "One of many, " + number);
    }
    transaction.Commit();
}

// The version before lists were searched by an index.
void MakeOldTables()
{
    Insert("olga", "Olga \xC3\x96st");
    AddGroup("old boys", "Since 1950");
    Execute("DROP TRIGGER account_added; DROP TRIGGER account_changed; DROP TRIGGER account_removed;"
            "DROP TRIGGER account_group_added; DROP TRIGGER account_group_changed;"
            "DROP TRIGGER account_group_removed; DROP INDEX account_listed; DROP INDEX account_group_listed;"
            "DROP TABLE account_gram; DROP TABLE group_gram; DROP TABLE list_size; DROP TABLE text_position;"
            "ALTER TABLE account DROP COLUMN folded; ALTER TABLE account_group DROP COLUMN folded;"
            "DROP TABLE directory_account; DROP TABLE directory_group; PRAGMA user_version=3");
}

class Lists : public testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        const pid_t child = fork(); // the connection is one for the whole life of a process
        if (child == 0) {
            MakeOldTables();
            _exit(testing::Test::HasFailure() ? 1 : 0);
        }
        int status = 1;
        waitpid(child, &status, 0);
        ASSERT_EQ(0, status);
    }
};

} // namespace

TEST_F(Lists, FindWhatAnOlderVersionStored)
{
    EXPECT_EQ((Found{1, {"olga"}}), Search("\xC3\xB6ST"));
    EXPECT_EQ((Found{1, {"olga"}}), Search(""));
    EXPECT_EQ((Found{1, {"old boys"}}), Search("1950", {}, ListGroups));
    EXPECT_EQ((Found{3, {"administrators", "old boys", "users"}}), Search("", {}, ListGroups));
}

TEST_F(Lists, FindEverySpellingOfATextAndNothingElse)
{
    Insert("zo\xC3\xAB",
           "100% \"Zo\xC3\xAB\" _ 'Z' * O'Neil (\xCE\xA3\xCE\x95\xCE\xA3) \xE4\xB8\xAD\xE6\x96\x87");
    const struct {
        const char* text;
        bool found;
    } cases[] = {
        {"z", true},
        {"Z", true},
        {"zo\xC3\xAB", true},
        {"ZO\xC3\x8B", true},
        {"zoe\xCC\x88", true},              // letter and diaeresis apart
        {"\xEF\xBC\xBA\xEF\xBC\xAF", true}, // wide letters
        {"100%", true},
        {"%", true},
        {"_", true},
        {"*", true},
        {"\"", true},
        {"'", true},
        {"\"zo\xC3\xAB\" _ 'Z' * o'nEIL (", true}, // longer than what the index holds of a text
        {"\xCF\x83\xCE\xB5\xCF\x83", true},
        {"\xE4\xB8\xAD", true},
        {"\xE6\x96\x87", true},
        {" ", true},
        {"zoe", false},
        {"1%0", false},
        {"100_", false},
        {"1*0", false},
        {"z_", false},
        {"neil )", false},
        {"\"zo\xC3\xAB\" _ 'Z' + o'neil (", false},
        {"zo\xC3\xAB\n100%", false}, // from the name into the description
        {"\n", false},
        {"\t", false},
        {"\xC3", false}, // no UTF-8
        {"\xFF", false},
        {"'; DROP TABLE account; --", false},
    };
    for (const auto& c : cases) {
        const Names names = Search(c.text).names;
        EXPECT_EQ(c.found, std::count(names.begin(), names.end(), "zo\xC3\xAB") == 1) << c.text;
    }
    EXPECT_EQ((Found{0, {}}), Search(std::string(100000, 'z')));
    EXPECT_EQ((Found{0, {}}), Search(std::string("z\0o", 3)));
}

TEST_F(Lists, FollowEveryChange)
{
    NewAccount account;
    account.name = "changing";
    account.description = "First words";
    const auto added = AddAccount(account, "x");
    ASSERT_TRUE(added);
    EXPECT_EQ((Found{1, {"changing"}}), Search("first WORDS"));

    ChangeAccount(added->uid, {"Other words", std::nullopt});
    EXPECT_EQ((Found{0, {}}), Search("first words"));
    EXPECT_EQ((Found{1, {"changing"}}), Search("other words"));
    EXPECT_EQ((Found{1, {"changing"}}), Search("changing"));
    ChangeAccount(added->uid, {std::nullopt, "a@b.example"});
    EXPECT_EQ((Found{1, {"changing"}}), Search("other words"));

    const int64_t all = Search("").total;
    {
        const Transaction undone(AccountsDatabase());
        Insert("undone", "Other words");
        EXPECT_EQ(2, Search("other words").total);
    }
    EXPECT_EQ(all, Search("").total);
    EXPECT_TRUE(RemoveAccount(added->uid).removed);
    EXPECT_EQ((Found{0, {}}), Search("other words"));
    EXPECT_EQ(all - 1, Search("").total);

    const auto group = AddGroup("crew", "On board");
    EXPECT_EQ((Found{1, {"crew"}}), Search("ON B", {}, ListGroups));
    const int64_t groups = Search("", {}, ListGroups).total;
    EXPECT_TRUE(RemoveGroup(*group));
    EXPECT_EQ((Found{0, {}}), Search("ON B", {}, ListGroups));
    EXPECT_EQ(groups - 1, Search("", {}, ListGroups).total);
}

TEST_F(Lists, AreTheSameByIndexAndByGoingThroughAll)
{
    // Few letters, so that texts meet often.
    std::mt19937 random(20260707);
    const Names letters = {"a", "b", "A", "\xC3\xB6", "\xC3\x96", " ", "1", "%"};
    const auto text = [&](size_t most) {
        std::string made;
        for (size_t i = random() % (most + 1); i > 0; --i) {
            made += letters[random() % letters.size()];
        }
        return made;
    };
    {
        Transaction transaction(AccountsDatabase());
        for (int i = 0; i < 1500; ++i) {
            Insert("r" + std::to_string(i), text(24));
        }
        transaction.Commit();
    }
    Execute("DELETE FROM account WHERE name LIKE 'r%7'");
    Execute("UPDATE account SET description = 'changed ' || name, "
            "folded = search_text(name, 'changed ' || name) WHERE name LIKE 'r%8'");

    Names names;
    Names searched;
    ForEachAccount([&](const Account& account) {
        names.push_back(account.name);
        searched.push_back(*SearchText(account.name) + "\n" + *SearchText(account.description));
    });
    for (int i = 0; i < 300; ++i) {
        const std::string sought = i % 10 == 0 ? "changed r" + std::to_string(i) : text(12);
        Found expected;
        for (size_t j = 0; j < names.size(); ++j) {
            if (searched[j].find(*SearchText(sought)) != std::string::npos) {
                expected.names.push_back(names[j]);
            }
        }
        expected.total = static_cast<int64_t>(expected.names.size());
        EXPECT_EQ(expected, Search(sought)) << "\"" << sought << "\"";
    }
}

TEST_F(Lists, ComeInPages)
{
    InsertMany("page", 0, 3000);
    const struct {
        const char* text;
        int64_t least;
    } cases[] = {{"", 3000},        {"page", 3000},      {"g", 3000},
                 {"page0001", 100}, {"many, 0029", 100}, {"page002999", 1}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        const Found all = Search(c.text);
        ASSERT_EQ(static_cast<int64_t>(all.names.size()), all.total);
        ASSERT_GE(all.total, c.least);
        EXPECT_TRUE(std::is_sorted(all.names.begin(), all.names.end()));
        const auto size = static_cast<int>(all.total);
        for (const int offset : {0, 1, 7, size - 1, size, size + 5, 2147483647}) {
            for (const int limit : {0, 1, 50, size, 2147483647, -1}) {
                const int first = std::min(offset, size);
                const int count = limit < 0 ? size - first : std::min(limit, size - first);
                const Names part(all.names.begin() + first, all.names.begin() + first + count);
                EXPECT_EQ((Found{all.total, part}), Search(c.text, {offset, limit}))
                    << offset << " " << limit;
            }
        }
    }
}

namespace
{

int CountStep(void* steps)
{
    ++*static_cast<int64_t*>(steps);
    return 0;
}

// Of the database's own machine, in hundreds of instructions.
int64_t Work(const std::string& text)
{
    int64_t steps = 0;
    sqlite3_progress_handler(AccountsDatabase().Handle(), 100, CountStep, &steps);
    Search(text, {0, 50});
    sqlite3_progress_handler(AccountsDatabase().Handle(), 0, nullptr, nullptr);
    return steps;
}

} // namespace

TEST_F(Lists, CostNoMoreAmongMoreAccounts)
{
    InsertMany("few", 0, 1000);
    Insert("zz-needle", "In the haystack");
    const Names texts = {"",          "zz-needle",         "needle",       "EEDL",          "ZZ-", "haystack",
                         "few000042", "e of many, 000042", "\xE4\xB8\xAD", "nowhere at all"};
    std::vector<int64_t> before;
    std::transform(texts.begin(), texts.end(), std::back_inserter(before), Work);
    InsertMany("few", 1000, 9000);
    for (size_t i = 0; i < texts.size(); ++i) {
        EXPECT_LE(Work(texts[i]), before[i] + 2) << texts[i];
    }
}

// --- Groups, as the platform lists them ---

namespace
{

int AppendDescription(const KLIBGroupInfo* entry, void* data)
{
    char* description = nullptr;
    char* second = nullptr;
    EXPECT_EQ(0, TAVRGroupDescGet(entry->name, &description, &second));
    EXPECT_EQ(nullptr, second);
    char* other = nullptr;
    EXPECT_EQ(0, TAVRGroupDescGet("users", &other, nullptr));
    EXPECT_STREQ("All local accounts", other);
    static_cast<Names*>(data)->push_back(std::string(entry->name) + ": " + description);
    std::free(description);
    std::free(other);
    return 0;
}

} // namespace

TEST_F(Lists, OfGroupsGiveTheirDescriptionsOut)
{
    AddGroup("described", "What it is for");
    AddGroup("undescribed", "");
    Names rows;
    EXPECT_EQ(2, KLIBGroupInfoEnumBySubstr(1, "", 0, -1, "described", 1, AppendDescription, &rows));
    EXPECT_EQ((Names{"described: What it is for", "undescribed: "}), rows);
    EXPECT_TRUE(RemoveGroup(*FindGroup("described")));
    char* description = nullptr;
    EXPECT_EQ(-1, TAVRGroupDescGet("described", &description, nullptr)) << "nothing is kept of a list";
}
