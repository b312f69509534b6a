#include "linux/directory_numbers.h"

#include "linux/database.h"
#include "linux/enrolment.h"
#include "linux/names.h"
#include "linux/paths.h"
#include "linux/user_settings.h"
#include "tests/support/fresh_server.h"

#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <set>

using namespace tavr;
using namespace tavr::test;

namespace
{

constexpr uint32_t kFirst = 2000000000;
constexpr char kLeaId[] = "0b6ea5a8-0a1f-103f-8a5d-0d2f2f3c0001";
constexpr char kMiaId[] = "0b6ea5a8-0a1f-103f-8a5d-0d2f2f3c0002";
constexpr char kLea[] = "lea@office.example";
constexpr char kMia[] = "mia@office.example";

void LeaveMark(const char* name)
{
    ASSERT_TRUE(MakePreferenceDirectory(*FindAccount(name)));
    test::WriteFile(PreferencePath(name) + "/mark", name);
}

std::string Mark(const char* name)
{
    const std::string path = PreferencePath(name) + "/mark";
    return std::filesystem::exists(path) ? test::ReadFile(path) : "none";
}

} // namespace

using DirectoryNumbers = FreshServer;

TEST_F(DirectoryNumbers, AreGivenOncePerIdentifierAndKind)
{
    AsWorker([] {
        EXPECT_EQ(kFirst, NumberOfAccount(kKindLdap, {kLeaId, kLea}));
        EXPECT_EQ(kFirst + 1, NumberOfAccount(kKindLdap, {kMiaId, kMia}));
        EXPECT_EQ(kFirst, NumberOfAccount(kKindLdap, {kLeaId, kLea}));
        EXPECT_EQ(kFirst + 2, NumberOfAccount(kKindDomain, {kLeaId, "CORP\\lea"})) << "another directory's";
        EXPECT_EQ(kFirst, FindAccount(kLea)->uid);
        EXPECT_EQ(8, FindAccount(kFirst)->kind);
        EXPECT_EQ(kMia, FindAccount(kFirst + 1)->name);
        EXPECT_EQ("CORP\\lea", FindAccount(kFirst + 2)->name);
        EXPECT_EQ(2, FindAccount(kFirst + 2)->kind);
        EXPECT_FALSE(FindAccount(kFirst + 3));
        EXPECT_FALSE(FindAccount("zoe@office.example"));
    });
}

TEST_F(DirectoryNumbers, OfGroupsAreApartFromThoseOfAccounts)
{
    AsWorker([] {
        const std::string ids[] = {kLeaId, kMiaId, kLeaId};
        EXPECT_EQ((std::vector<uint32_t>{kFirst, kFirst + 1, kFirst}), NumbersOfGroups(kKindLdap, ids));
        EXPECT_EQ((std::vector<uint32_t>{kFirst, kFirst + 1, kFirst}), NumbersOfGroups(kKindLdap, ids));
        EXPECT_EQ(kFirst, NumberOfAccount(kKindLdap, {kLeaId, kLea}));
        EXPECT_TRUE(NumbersOfGroups(kKindLdap, {}).empty());
    });
}

TEST_F(DirectoryNumbers, StayWithAnAccountThatIsRenamedAndSoDoItsFiles)
{
    AsWorker([] {
        const uint32_t uid = NumberOfAccount(kKindLdap, {kLeaId, kLea});
        LeaveMark(kLea);
        EXPECT_EQ(uid, NumberOfAccount(kKindLdap, {kLeaId, "lea.b@office.example"}));
        EXPECT_EQ("lea.b@office.example", FindAccount(uid)->name);
        EXPECT_FALSE(FindAccount(kLea));
        EXPECT_EQ(kLea, Mark("lea.b@office.example"));
        EXPECT_EQ("none", Mark(kLea));
        EXPECT_EQ(uid, NumberOfAccount(kKindLdap, {kLeaId, kLea})) << "and back";
        EXPECT_EQ(kLea, Mark(kLea));
    });
}

TEST_F(DirectoryNumbers, AndFilesDoNotPassToWhoGetsANameAnew)
{
    AsWorker([] {
        const uint32_t former = NumberOfAccount(kKindLdap, {kLeaId, kLea});
        LeaveMark(kLea);
        const uint32_t anew = NumberOfAccount(kKindLdap, {kMiaId, kLea});
        EXPECT_NE(former, anew);
        EXPECT_EQ(anew, FindAccount(kLea)->uid);
        EXPECT_FALSE(FindAccount(former)) << "nothing of it can be used while it has no name";
        EXPECT_EQ("none", Mark(kLea));
        EXPECT_EQ(former, NumberOfAccount(kKindLdap, {kLeaId, "old@office.example"}));
        EXPECT_EQ("old@office.example", FindAccount(former)->name);
    });
}

// A worker that writes the account's files holds its lock.
class Writer
{
public:
    Writer(uint32_t uid, const std::function<void()>& work)
    {
        int ready[2] = {};
        if (pipe(ready) != 0) {
            throw std::runtime_error("no pipe");
        }
        child_ = fork();
        if (child_ == 0) {
            const AccountLock lock(uid);
            const bool told = lock.Held() && write(ready[1], "x", 1) == 1;
            usleep(300'000); // for the other one to try
            work();
            _exit(told ? 0 : 1);
        }
        close(ready[1]);
        char byte = 0;
        EXPECT_EQ(1, read(ready[0], &byte, 1));
        close(ready[0]);
    }
    ~Writer()
    {
        int status = -1;
        waitpid(child_, &status, 0);
        EXPECT_EQ(0, status);
    }
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;

private:
    pid_t child_ = -1;
};

TEST_F(DirectoryNumbers, WaitForWhoIsWritingTheFilesThatMoveOrGo)
{
    AsWorker([] {
        const uint32_t lea = NumberOfAccount(kKindLdap, {kLeaId, kLea});
        ASSERT_TRUE(MakePreferenceDirectory(*FindAccount(kLea)));
        const auto mark = [] { test::WriteFile(PreferencePath(kLea) + "/mark", "written"); };
        {
            const Writer writer(lea, mark);
            const DirectoryEntry renamed[] = {{kLeaId, "list@office.example"}, {kMiaId, kMia}};
            EXPECT_EQ((std::vector<std::optional<uint32_t>>{std::nullopt, lea + 1}),
                      NumbersOfAccounts(kKindLdap, renamed))
                << "a list waits for nobody";
            EXPECT_EQ(lea, NumberOfAccount(kKindLdap, {kLeaId, "lea.b@office.example"}));
            EXPECT_EQ("written", Mark("lea.b@office.example"));
            EXPECT_EQ("none", Mark(kLea));
        }
        const Writer writer(lea,
                            [] { test::WriteFile(PreferencePath("lea.b@office.example") + "/more", "x"); });
        NumberOfAccount(kKindLdap, {"another", "lea.b@office.example"});
        EXPECT_FALSE(std::filesystem::exists(PreferencePath("lea.b@office.example")));
    });
}

TEST_F(DirectoryNumbers, KeepWhoLookedBeforeARenamingFromWritingBelowTheFormerName)
{
    AsWorker([] {
        const uint32_t uid = NumberOfAccount(kKindDomain, {"S-1-5-21-1", "CORP\\dan"});
        const Account before = *FindAccount(uid);
        ASSERT_TRUE(MakePreferenceDirectory(before));
        EXPECT_TRUE(AccountLock(before).Held());
        NumberOfAccount(kKindDomain, {"S-1-5-21-1", "CORP\\daniel"});
        NumberOfAccount(kKindDomain, {"S-1-5-21-2", "CORP\\dan"});
        ASSERT_TRUE(MakePreferenceDirectory(*FindAccount("CORP\\dan")));
        EXPECT_FALSE(AccountLock(before).Held());
        EXPECT_FALSE(SettleUserSettings(before));
        EXPECT_FALSE(UserSettingsWriting(before).Usable());
        EXPECT_EQ(Enrolment::Fault, Settle(before).enrolment);
        EXPECT_TRUE(SettleUserSettings(*FindAccount(uid)));
        EXPECT_TRUE(SettleUserSettings(*FindAccount("CORP\\dan")));
    });
}

TEST_F(DirectoryNumbers, CanTradeNames)
{
    AsWorker([] {
        const uint32_t lea = NumberOfAccount(kKindLdap, {kLeaId, kLea});
        const uint32_t mia = NumberOfAccount(kKindLdap, {kMiaId, kMia});
        EXPECT_EQ(lea, NumberOfAccount(kKindLdap, {kLeaId, kMia}));
        EXPECT_EQ(mia, NumberOfAccount(kKindLdap, {kMiaId, kLea}));
        EXPECT_EQ(mia, FindAccount(kLea)->uid);
        EXPECT_EQ(lea, FindAccount(kMia)->uid);
    });
}

TEST_F(DirectoryNumbers, OfAListTakeNoNameFromAnother)
{
    AsWorker([] {
        const uint32_t lea = NumberOfAccount(kKindLdap, {kLeaId, kLea});
        LeaveMark(kLea);
        const DirectoryEntry entries[] = {{kMiaId, kLea}, {kLeaId, kLea}, {"third", kMia}};
        const auto numbers = NumbersOfAccounts(kKindLdap, entries);
        ASSERT_EQ(3U, numbers.size());
        EXPECT_FALSE(numbers[0]);
        EXPECT_EQ(lea, numbers[1]);
        EXPECT_EQ(lea + 1, numbers[2]);
        EXPECT_EQ(kLea, Mark(kLea));
        EXPECT_EQ(numbers, NumbersOfAccounts(kKindLdap, entries));
    });
}

TEST_F(DirectoryNumbers, AreNotGivenWhereAFormerOwnersFilesCannotBeDeleted)
{
    std::filesystem::create_directories("/usr/tavr/etc/preference/lea%40office.example/locked");
    AsWorker([] {
        EXPECT_THROW(NumberOfAccount(kKindLdap, {kLeaId, kLea}), DatabaseError);
        EXPECT_FALSE(FindAccount(kLea));
    });
    std::filesystem::remove_all("/usr/tavr/etc/preference/lea%40office.example");
    AsWorker([] { EXPECT_EQ(kFirst, NumberOfAccount(kKindLdap, {kLeaId, kLea})); });
}

TEST_F(DirectoryNumbers, AreTheSameForProcessesThatAskAtOnce)
{
    constexpr int kProcesses = 8;
    constexpr int kEntries = 50;
    AsWorkers(kProcesses, [](int process) {
        std::ofstream told("/tmp/numbers-" + std::to_string(process));
        for (int i = 0; i < kEntries; ++i) {
            const int one = (i + process * 7) % kEntries;
            const std::string id = "id-" + std::to_string(one);
            const std::string name = "user" + std::to_string(one) + "@office.example";
            const std::string ids[] = {id};
            told << one << ' ' << NumberOfAccount(kKindLdap, {id, name}) << ' '
                 << NumbersOfGroups(kKindLdap, ids)[0] << '\n';
        }
    });
    std::set<std::string> lines;
    for (int process = 0; process < kProcesses; ++process) {
        std::ifstream told("/tmp/numbers-" + std::to_string(process));
        for (std::string line; std::getline(told, line);) {
            lines.insert(line);
        }
    }
    EXPECT_EQ(static_cast<size_t>(kEntries), lines.size());
}

TEST_F(DirectoryNumbers, AreNotSpentByATransactionThatIsUndone)
{
    AsWorker([] {
        NumberOfAccount(kKindLdap, {kLeaId, kLea});
        Transaction cutShort(AccountsDatabase());
        AccountsDatabase()
            .Prepare("INSERT INTO directory_account (kind, id, name) VALUES (8, 'x', 'x@office.example')")
            .Run();
    });
    AsWorker([] { EXPECT_EQ(kFirst + 1, NumberOfAccount(kKindLdap, {kMiaId, kMia})); });
}
