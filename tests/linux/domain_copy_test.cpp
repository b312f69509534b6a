// The copy of a domain's directory: made of a server with a controller's attributes, kept in step with it,
// and searched.
#include "linux/domain_copy.h"

#include "linux/accounts.h"
#include "linux/directory_numbers.h"
#include "linux/domain_entries.h"
#include "linux/ids.h"
#include "linux/names.h"
#include "linux/paths.h"
#include "linux/request.h"
#include "tests/support/directory.h"
#include "tests/support/fresh_server.h"

#include <sys/resource.h>
#include <sys/wait.h>

#include <csignal>
#include <fstream>
#include <random>
#include <set>

using namespace tavr;
using namespace tavr::test;

namespace
{

using Names = std::vector<std::string>;

struct Found {
    int64_t total = -1; // there is no copy
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

using List = std::optional<int64_t> (*)(const CopyPart&, std::string_view, const ListPage&, const EachEntry&);

Found Search(const std::string& text, const CopyPart& part = {}, ListPage page = {},
             List list = ListCopiedAccounts)
{
    Found found;
    const auto total =
        list(part, text, page, [&](const ListEntry& entry) { found.names.emplace_back(entry.name); });
    found.total = total.value_or(-1);
    return found;
}

std::string IdOf(const std::string& name)
{
    Statement find = DomainDatabase().Prepare("SELECT id FROM account WHERE name = 'CORP\\' || ?");
    find.Bind(1, name);
    return find.Step() ? find.Text(0) : "none";
}

uint32_t NumberOf(const std::string& name)
{
    uint32_t number = 1;
    ListCopiedAccounts({}, name, {}, [&](const ListEntry& entry) {
        EXPECT_EQ(name, entry.name);
        number = entry.number;
    });
    return number;
}

CopyCounts Refresh(size_t which = 0)
{
    CopyRunner runner;
    EXPECT_TRUE(runner);
    return runner.Refresh(ReadCopyPlan().domains.at(which), [](int64_t) { return true; });
}

std::string Failure(const std::function<bool(int64_t)>& goOn = [](int64_t) { return true; })
{
    try {
        CopyRunner().Refresh(ReadCopyPlan().domains.at(0), goOn);
    } catch (const LdapError& error) {
        return error.what();
    }
    return {};
}

int64_t Number(const char* sql)
{
    Statement find = DomainDatabase().Prepare(sql);
    return find.Step() ? find.Int(0) : -1;
}

// Whether every list's grams are those of its rows, no more and no fewer.
void ExpectWholeIndex()
{
    EXPECT_EQ(0, Number("SELECT count(*) FROM (SELECT gram, at FROM account_gram EXCEPT "
                        "SELECT substr(folded, p.at, 8), t.at FROM account AS t JOIN text_position AS p "
                        "ON p.at <= length(folded))"));
    EXPECT_EQ(0, Number("SELECT count(*) FROM (SELECT substr(folded, p.at, 8), t.at FROM account AS t "
                        "JOIN text_position AS p ON p.at <= length(folded) EXCEPT "
                        "SELECT gram, at FROM account_gram)"));
    EXPECT_EQ(Number("SELECT count(*) FROM (SELECT DISTINCT substr(folded, p.at, 8), t.at FROM account_group "
                     "AS t JOIN text_position AS p ON p.at <= length(folded))"),
              Number("SELECT count(*) FROM account_group_gram"));
}

std::string DnOf(int number)
{
    char dn[64];
    std::snprintf(dn, sizeof dn, "cn=User %06d,ou=%s", number, number % 2 == 0 ? "Berlin" : "Sales");
    return dn;
}

class DomainCopy : public FreshServer
{
protected:
    void SetUp() override
    {
        FreshServer::SetUp();
        if (!Directory::CanStart()) {
            GTEST_SKIP() << "there is no slapd on this machine: run scripts/setup test first";
        }
    }

    static void SetUpFor(const Directory& directory, const std::string& more = "")
    {
        WriteSettings(directory.DomainSettingsLines() + more);
        Directory::WriteSecret();
    }
};

} // namespace

TEST_F(DomainCopy, HasTheAccountsAndGroupsThatHaveOneNameAndASid)
{
    const Directory directory({"--users", "1200", "--groups", "7"}, kController);
    SetUpFor(directory);
    AsWorker([] {
        EXPECT_EQ((Found{}), Search("")) << "no copy is not an empty one";
        EXPECT_TRUE(CopyStates().empty());

        const CopyCounts counts = Refresh();

        // Without name, without SID, with none that is one, with an @; two twins.
        EXPECT_EQ((CopyCounts{1201, 7, 6}), counts);
        EXPECT_EQ((Found{1, {"CORP\\dan"}}), Search("the man"));
        EXPECT_EQ("S-1-5-21-1-2-3-1111", IdOf("dan"));
        EXPECT_EQ((Found{1201, {"CORP\\dan", "CORP\\user000001"}}), Search("", {}, {0, 2}));
        EXPECT_EQ((Found{1201, {"CORP\\user001199", "CORP\\user001200"}}), Search("", {}, {1199, -1}));
        EXPECT_EQ((Found{1, {"CORP\\user000777"}}), Search("USER 000777"));
        EXPECT_EQ((Found{1201, {"CORP\\user000010"}}), Search("corp\\", {}, {10, 1}));
        for (const char* text : {"twin", "pc1", "bent", "sidless", "nameless", "a@b", "*", "user%"}) {
            EXPECT_EQ((Found{0, {}}), Search(text)) << text;
        }
        EXPECT_EQ((Found{7, {"CORP\\group0003"}}), Search("group", {}, {2, 1}, ListCopiedGroups));
        EXPECT_EQ((Found{0, {}}), Search("admin", {}, {}, ListCopiedGroups));

        const std::vector<CopyState> states = CopyStates();
        ASSERT_EQ(1U, states.size());
        EXPECT_EQ("CORP", states[0].domain);
        EXPECT_EQ(counts, states[0].counts);
        EXPECT_TRUE(states[0].made && states[0].tried == states[0].made);
        EXPECT_EQ("", states[0].failure);
        ExpectWholeIndex();
    });
}

TEST(DomainEntries, HaveASidInOneSpelling)
{
    using namespace std::string_literals;
    const struct {
        std::string value;
        const char* sid;
        const char* reason;
    } cases[] = {
        {"S-1-5-21-1-2-3-1103", "S-1-5-21-1-2-3-1103", "text"},
        {"\1\2\0\0\0\0\0\5\x15\0\0\0\xFF\xFF\xFF\xFF"s, "S-1-5-21-4294967295", "bytes"},
        {"\1\2\0\0\0\0\0\5\x15\0\0\0"s, "", "a part is missing"},
        {"S-1-05-32-544", "", "a zero in front, of what every machine has"},
        {"S-1-5--21", "", "an empty part"},
        {"S-1-5-21-", "", "an empty part at the end"},
        {"S-1-S-5", "", "no number"},
        {"S-1", "", "no authority"},
        {"S-1-5-" + std::string(180, '1'), "", "too long"},
    };
    for (const auto& one : cases) {
        EXPECT_EQ(one.sid, SidOf(one.value)) << one.reason;
    }
}

TEST(DomainEntries, AreInUnitsThatCanBeShown)
{
    using namespace std::string_literals;
    EXPECT_EQ("berlin/sales/", UnitsOfDn("CN=Dan,OU=Sales,OU=Berlin,DC=corp,DC=test", 1));
    EXPECT_EQ("berlin/?/", UnitsOfDn("CN=Dan,OU=Sal\\0Aes,OU=Berlin,DC=corp,DC=test", 1)) << "a line feed";
    EXPECT_EQ("berlin/?/", UnitsOfDn("CN=Dan,OU=\\80,OU=Berlin,DC=corp,DC=test", 1)) << "not UTF-8";
    EXPECT_EQ("", UnitsOfDn("CN=Dan,OU=Sales\0,OU=Berlin,DC=corp"s, 1)) << "not to be read to its end";
}

TEST_F(DomainCopy, IsSearchedByNameOrDescriptionAndInUnits)
{
    const Directory directory({"--users", "10"}, kController);
    SetUpFor(directory);
    AsWorker([] {
        Refresh();
        const auto inUnit = [](const char* unit) {
            CopyPart part;
            part.unit = UnitOf(unit);
            return Search("", part, {0, 1}).total;
        };
        EXPECT_EQ(5, inUnit("Berlin"));
        EXPECT_EQ(5, inUnit("/BERLIN/"));
        EXPECT_EQ(6, inUnit("sales")) << "and what is below it";
        EXPECT_EQ(1, inUnit("Sales/Inner"));
        EXPECT_EQ(1, inUnit("ou=Inner,ou=Sales"));
        EXPECT_EQ(1, inUnit("OU=Inner,OU=Sales,DC=corp,DC=test"));
        EXPECT_EQ(0, inUnit("Inner"));
        EXPECT_EQ(0, inUnit("Sal"));
        EXPECT_EQ(0, inUnit("%"));
        CopyPart part;
        part.unit = UnitOf("Berlin");
        EXPECT_EQ((Found{5, {"CORP\\user000004"}}), Search("user", part, {1, 1}));
        EXPECT_EQ((Found{1, {"CORP\\user000008"}}), Search("000008", part));
        EXPECT_EQ((Found{0, {}}), Search("000009", part));

        part = {};
        part.byDescription = false;
        EXPECT_EQ((Found{0, {}}), Search("the man", part));
        EXPECT_EQ((Found{1, {"CORP\\dan"}}), Search("p\\dan", part));
        part = {};
        part.byName = false;
        EXPECT_EQ((Found{1, {"CORP\\dan"}}), Search("the man", part));
        EXPECT_EQ((Found{0, {}}), Search("p\\dan", part));
    });
}

TEST_F(DomainCopy, FollowsWhatIsRenamedMovedChangedRemovedAndMadeAnew)
{
    const Directory directory({"--users", "1500"}, kController);
    SetUpFor(directory);
    AsWorker([&] {
        Refresh();
        const std::string first = IdOf("user000001");
        directory.Set(DnOf(1), "sAMAccountName", {"renamed"});
        directory.Rename(DnOf(2), "cn=User 000002", "ou=Inner,ou=Sales");
        directory.Set(DnOf(3), "displayName", {"Somebody else"});
        directory.Remove(DnOf(4));
        directory.Set(DnOf(5), "sAMAccountName", {"user000004"}); // a name that has become free
        directory.Set(DnOf(1500), "displayName", {});

        const CopyCounts counts = Refresh();

        EXPECT_EQ(1500, counts.accounts) << "one of 1,501 has gone";
        EXPECT_EQ((Found{0, {}}), Search("p\\user000001"));
        EXPECT_EQ((Found{1, {"CORP\\renamed"}}), Search("user 000001"));
        EXPECT_EQ(first, IdOf("renamed")) << "the same account";
        CopyPart inner;
        inner.unit = UnitOf("Sales/Inner");
        EXPECT_EQ((Found{2, {"CORP\\dan", "CORP\\user000002"}}), Search("", inner));
        EXPECT_EQ((Found{1, {"CORP\\user000003"}}), Search("somebody"));
        EXPECT_EQ((Found{0, {}}), Search("user 000003"));
        EXPECT_EQ((Found{1, {"CORP\\user000004"}}), Search("user 000005"));
        EXPECT_EQ((Found{0, {}}), Search("user 001500"));
        EXPECT_EQ(1500, Search("").total);
        ExpectWholeIndex();
    });
}

// Who signs in may be called otherwise than the copy says, and somebody else may have got the name.
TEST_F(DomainCopy, HasNumbersOnlyForNamesThatTheStoreKnowsToBeTheirs)
{
    const Directory directory({"--users", "4"}, kController);
    SetUpFor(directory);
    AsWorker([&] {
        Refresh();
        const std::string first = IdOf("user000001");
        const uint32_t numbers[] = {NumberOf("CORP\\user000001"), NumberOf("CORP\\user000002"),
                                    NumberOf("CORP\\user000003")};
        EXPECT_EQ(4U, (std::set<uint32_t>{0, numbers[0], numbers[1], numbers[2]}.size()));
        EXPECT_EQ(numbers[0], NumberOfAccount(kKindDomain, {first, "CORP\\user000001"}));

        NumberOfAccount(kKindDomain, {first, "CORP\\renamed"});
        NumberOfAccount(kKindDomain, {"S-1-5-21-1-2-3-9999", "CORP\\user000002"});
        NumberOfAccount(kKindDomain, {IdOf("user000003"), "CORP\\for a while"});
        NumberOfAccount(kKindDomain, {IdOf("user000003"), "CORP\\user000003"});

        EXPECT_EQ(0U, NumberOf("CORP\\user000001")) << "it is called otherwise";
        EXPECT_EQ(0U, NumberOf("CORP\\user000002")) << "the name is another one's";
        EXPECT_EQ(numbers[2], NumberOf("CORP\\user000003"));
        EXPECT_EQ(numbers[0], FindAccount("CORP\\renamed")->uid) << "a list renames nobody";

        directory.Set(DnOf(1), "sAMAccountName", {"renamed"});
        for (int i = 0; i < 2; ++i) {
            Refresh();
            EXPECT_EQ(numbers[0], NumberOf("CORP\\renamed"));
            EXPECT_EQ(0U, NumberOf("CORP\\user000002"));
            EXPECT_EQ(numbers[2], NumberOf("CORP\\user000003"));
        }
        NumberOfAccount(kKindDomain, {IdOf("user000002"), "CORP\\user000002"});
        EXPECT_EQ(numbers[1], NumberOf("CORP\\user000002"));
        Refresh();
        EXPECT_EQ(numbers[1], NumberOf("CORP\\user000002"));
    });
}

TEST_F(DomainCopy, IsMadeAnewWhereOneOfAnEarlierVersionStands)
{
    const Directory directory({"--users", "3"}, kController);
    SetUpFor(directory);
    AsWorker([] { Refresh(); });
    RunSql("/var/lib/tavr/domain.db",
           "DROP INDEX account_unnumbered; DROP INDEX account_listed; DROP INDEX account_of_domain;"
           "DROP INDEX account_of_unit; ALTER TABLE account DROP COLUMN number;"
           "ALTER TABLE domain DROP COLUMN renamed; PRAGMA user_version = 1");
    AsWorker([] {
        EXPECT_EQ((Found{}), Search("")) << "no copy is not an empty one";
        EXPECT_EQ(0, CopyStates().at(0).tried) << "so it is due";
        Refresh();
        EXPECT_EQ(4, Search("").total);
        EXPECT_NE(0U, NumberOf("CORP\\dan"));
        ExpectWholeIndex();
    });
}

// A name is one only while one entry has it: who came first keeps it no more than the other.
TEST_F(DomainCopy, LeavesOutANameThatTwoHave)
{
    const Directory directory({"--users", "3"}, kController);
    SetUpFor(directory);
    AsWorker([&] {
        EXPECT_EQ(6, Refresh().leftOut);
        directory.Set(DnOf(2), "sAMAccountName", {"USER000001"});
        EXPECT_EQ(8, Refresh().leftOut);
        EXPECT_EQ((Found{2, {"CORP\\dan", "CORP\\user000003"}}), Search(""));
        EXPECT_EQ(8, Refresh().leftOut);
        directory.Set(DnOf(1), "sAMAccountName", {"free"});
        EXPECT_EQ(6, Refresh().leftOut);
        EXPECT_EQ((Found{4, {"CORP\\dan", "CORP\\free", "CORP\\user000001", "CORP\\user000003"}}),
                  Search(""));
        ExpectWholeIndex();
    });
}

// What stands in the copy after each refresh is what a copy made from nothing has.
TEST_F(DomainCopy, IsAfterManyChangesWhatANewOneWouldBe)
{
    constexpr int kUsers = 400;
    const Directory directory({"--users", std::to_string(kUsers)}, kController);
    SetUpFor(directory);
    AsWorker([&] {
        constexpr char kRows[] =
            "SELECT group_concat(row, '|') FROM (SELECT id || name || description || unit "
            "|| folded AS row FROM account ORDER BY id)";
        const auto rows = [&] {
            Statement find = DomainDatabase().Prepare(kRows);
            find.Step();
            return find.Text(0);
        };
        std::mt19937 random(7); // NOLINT(cert-msc51-cpp): the same each time
        for (int round = 0; round < 6; ++round) {
            for (int i = 0; i < 40; ++i) {
                const int number = static_cast<int>(random() % kUsers) + 1;
                const std::string value = std::to_string(random() % 200);
                try {
                    if (random() % 8 == 0) {
                        directory.Remove(DnOf(number));
                    } else if (random() % 2 == 0) {
                        directory.Set(DnOf(number), "displayName", {"Changed " + value});
                    } else {
                        directory.Set(DnOf(number), "sAMAccountName", {"changed" + value});
                    }
                } catch (const std::runtime_error&) { // it has been removed before
                }
            }
            Refresh();
            ExpectWholeIndex();
            const std::string kept = rows();
            CopyRunner().KeepOnly({});
            EXPECT_EQ("", rows());
            EXPECT_EQ(0, Number("SELECT count(*) FROM account_gram"));
            Refresh();
            EXPECT_EQ(kept, rows()) << "round " << round;
        }
    });
}

TEST_F(DomainCopy, IsTheFormerOneAndSaysWhyWhenARefreshFails)
{
    Directory directory({"--users", "2600"}, kController);
    SetUpFor(directory);
    AsWorker([&] {
        Refresh();
        directory.Set(DnOf(1), "displayName", {"Not to be seen"});
        const int64_t made = *CopyStates()[0].made;

        EXPECT_THROW(
            CopyRunner().Refresh(ReadCopyPlan().domains[0], [](int64_t count) { return count < 1000; }),
            Interrupted);
        EXPECT_EQ("", CopyStates()[0].failure) << "nothing has failed";
        EXPECT_EQ(2601, Search("").total);

        const std::string failure = Failure([&](int64_t count) {
            EXPECT_EQ(count, CopyProgress());
            if (count >= 1000) {
                const EffectiveIds root = EffectiveIds::Root(); // whose the server is
                directory.server.Pause(true);
            }
            return true;
        });
        EXPECT_NE(std::string::npos, failure.find("did not answer in time")) << failure;
        EXPECT_EQ(failure, CopyStates()[0].failure);
        EXPECT_EQ(made, CopyStates()[0].made);
        EXPECT_EQ((Found{2601, {"CORP\\dan"}}), Search("", {}, {0, 1}));
        EXPECT_EQ((Found{0, {}}), Search("not to be seen"));
        EXPECT_EQ(std::nullopt, CopyProgress());
        {
            const EffectiveIds root = EffectiveIds::Root();
            directory.server.Pause(false);
        }

        directory.Rename("ou=Berlin", "ou=Paris", "ou=Sales");
        Refresh();
        EXPECT_EQ("", CopyStates()[0].failure);
        EXPECT_EQ((Found{1, {"CORP\\user000001"}}), Search("not to be seen"));
        ExpectWholeIndex();
    });
    directory.server.Stop();
    AsWorker([&] {
        EXPECT_NE(std::string::npos, Failure().find("cannot connect"));
        EXPECT_EQ(2601, Search("").total);
    });
}

TEST_F(DomainCopy, IsNotEmptiedByADirectoryThatShowsNobody)
{
    const Directory directory({"--users", "3"}, kController);
    SetUpFor(directory);
    AsWorker([] { Refresh(); });
    SetUpFor(directory, "domain_base=\"ou=Inner,ou=Sales,dc=corp,dc=test\"\n");
    AsWorker([] { EXPECT_EQ(2, Refresh().accounts); });
    SetUpFor(directory, "domain_base=\"dc=none,dc=corp,dc=test\"\n");
    AsWorker([] { EXPECT_NE("", Failure()); });
    SetUpFor(directory, "domain_base=\"cn=reader,dc=test\"\n");
    AsWorker([] {
        EXPECT_EQ("there are no accounts below cn=reader,dc=test", Failure());
        EXPECT_EQ(2, Search("").total);
    });
}

TEST_F(DomainCopy, HasTrustedDomainsToo)
{
    const Directory directory({"--users", "3"}, kController);
    SetUpFor(directory, "domain_trusted=\"OTHER=other.test AWAY=away.test\"\n");
    AsWorker([] {
        Refresh(0);
        Refresh(1);
        EXPECT_THROW(Refresh(2), LdapError);
        const auto inDomain = [](const char* domain) {
            CopyPart part;
            part.domain = domain;
            return Search("dan", part);
        };
        EXPECT_EQ((Found{1, {"CORP\\dan"}}), inDomain("CORP"));
        EXPECT_EQ((Found{1, {"OTHER\\dan"}}), inDomain("OTHER"));
        EXPECT_EQ((Found{2, {"CORP\\dan", "OTHER\\dan"}}), inDomain(""));
        EXPECT_EQ((Found{}), inDomain("AWAY")) << "was never reached";
        EXPECT_EQ((Found{}), inDomain("NONE"));
        CopyPart other;
        other.domain = "OTHER";
        EXPECT_EQ((Found{1, {"OTHER\\dan"}}), Search("", other));
        EXPECT_EQ(5, Search("").total);
    });
    SetUpFor(directory);
    AsWorker([] {
        CopyRunner().KeepOnly(ReadCopyPlan().domains);
        EXPECT_EQ(4, Search("").total) << "it is not trusted any more";
        ExpectWholeIndex();
    });
}

TEST_F(DomainCopy, IsRefreshedByOneAtATime)
{
    const Directory directory({"--users", "3"}, kController);
    SetUpFor(directory);
    AsWorker([&] {
        const CopyRunner first;
        EXPECT_TRUE(first);
        EXPECT_FALSE(CopyRunner());
        const pid_t child = fork();
        if (child == 0) {
            _exit(CopyRunner() ? 1 : 0);
        }
        int status = -1;
        waitpid(child, &status, 0);
        EXPECT_EQ(0, status) << "another process";
        EXPECT_TRUE(CopyProgress());
        EXPECT_FALSE(CopyRunner()) << "asking took nothing away";
    });
    AsWorker([] { EXPECT_TRUE(CopyRunner()); });
}

// Killed while it reads, and while it writes.
TEST_F(DomainCopy, IsTheFormerOneOrTheNewOneAfterAKill)
{
    const Directory directory({"--users", "1000"}, kController);
    SetUpFor(directory);
    AsWorker([] { Refresh(); });
    const CopyCounts before{1001, 5, 6};
    for (int i = 1; i <= 12; ++i) {
        directory.Set(DnOf(i), "displayName", {"Killed " + std::to_string(i)});
        directory.Remove(DnOf(100 + i));
        const pid_t child = fork();
        if (child == 0) {
            RunLowered([] {
                Refresh();
                return 0;
            });
            _exit(0);
        }
        usleep(static_cast<useconds_t>(i) * 4000);
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        AsWorker([&] {
            const int64_t total = Search("").total;
            EXPECT_EQ(CopyStates()[0].counts.accounts, total);
            EXPECT_GE(before.accounts, total);
            EXPECT_LE(before.accounts - i, total);
            ExpectWholeIndex();
        });
    }
    AsWorker([&] {
        EXPECT_EQ(before.accounts - 12, Refresh().accounts);
        EXPECT_EQ(12, Search("killed").total);
        ExpectWholeIndex();
    });
}

TEST_F(DomainCopy, GetsToAnEndWithEveryServerThatMisbehaves)
{
    const TempDir told;
    std::filesystem::permissions(told.Path(), std::filesystem::perms(0777));
    setenv("TAVR_FAULTS_TOLD", told.Path().c_str(), 1);
    const std::vector<std::string> faults = {"drop",       "half",     "huge", "endless",
                                             "references", "referral", "busy"};
    const StartedServer faulty("faulty_ldap.py", faults);
    for (size_t i = 0; i < faults.size(); ++i) {
        WriteSettings("domain_name=\"CORP\"\ndomain_realm=\"corp.test\"\ndomain_starttls=\"no\"\n"
                      "domain_uri=\"ldap://127.0.0.1:" +
                      std::to_string(faulty.Port(i)) + "\"\n");
        AsWorker([&] {
            EXPECT_NE("", Failure()) << faults[i];
            EXPECT_EQ(-1, Search("").total);
#ifndef TAVR_SANITIZED // sanitizers keep what was given back
            rusage used{};
            getrusage(RUSAGE_SELF, &used);
            EXPECT_GT(80 * 1024, used.ru_maxrss) << faults[i] << ": kibibytes";
#endif
        });
    }
    EXPECT_FALSE(std::filesystem::exists(told.Path("huge"))) << "100 MB were taken";
    EXPECT_FALSE(std::filesystem::exists(told.Path("referred"))) << "a referral was followed";
}

TEST_F(DomainCopy, SaysSoWhenThereIsNoRoomForIt)
{
    const Directory directory({"--users", "3000"}, kController);
    SetUpFor(directory);
    LimitFolder(kStateDir, 600'000);
    AsWorker([] {
        EXPECT_THROW(Refresh(), DatabaseError);
        EXPECT_EQ(-1, Search("").total);
    });
}
