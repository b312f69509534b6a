// The account store in several processes, and on file systems that fail. Each test has a store of its own,
// and only children open it: a connection must not be carried over a fork.
#include "linux/accounts.h"
#include "linux/ids.h"
#include "linux/paths.h"
#include "linux/request.h"
#include "platform/core.h"
#include "platform/users.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <set>
#include <vector>

namespace fs = std::filesystem;
using tavr::Account;
using tavr::DatabaseError;

namespace
{

class Store : public testing::Test
{
protected:
    Store()
    {
        const tavr::EffectiveIds root = tavr::EffectiveIds::Root();
        EXPECT_EQ(0, mount("small", tavr::kStateDir, "tmpfs", 0, "size=2m,mode=0700"));
        EXPECT_EQ(0, chown(tavr::kStateDir, getuid(), getgid()));
    }
    ~Store() override
    {
        const tavr::EffectiveIds root = tavr::EffectiveIds::Root();
        umount2(tavr::kStateDir, MNT_DETACH);
    }
    static bool Remount(unsigned long flags)
    {
        const tavr::EffectiveIds root = tavr::EffectiveIds::Root();
        return mount("small", tavr::kStateDir, "tmpfs", MS_REMOUNT | flags, "size=2m,mode=0700") == 0;
    }
};

// The work's failed expectations are told through its result.
template<class Work>
pid_t StartChild(Work work)
{
    const pid_t child = fork();
    if (child == 0) {
        bool done = false;
        try {
            done = work();
        } catch (const DatabaseError& error) {
            std::fprintf(stderr, "child: %s\n", error.what());
        }
        _exit(done && !testing::Test::HasFailure() ? 0 : 1);
    }
    return child;
}

bool EndedWell(pid_t child)
{
    int status = -1;
    return waitpid(child, &status, 0) == child && status == 0;
}

template<class Work>
bool InChild(Work work)
{
    return EndedWell(StartChild(work));
}

tavr::NewAccount Named(const std::string& name)
{
    tavr::NewAccount account;
    account.name = name;
    return account;
}

template<class Call>
bool FailsInTheDatabase(Call call)
{
    try {
        call();
    } catch (const DatabaseError&) {
        return true;
    }
    return false;
}

} // namespace

TEST_F(Store, GivesConcurrentProcessesDifferentNumbers)
{
    constexpr int kProcesses = 6;
    constexpr int kEach = 5;
    std::vector<pid_t> children;
    for (int i = 0; i < kProcesses; ++i) {
        children.push_back(StartChild([i] {
            bool added = true;
            for (int n = 0; n < kEach; ++n) {
                const auto account = Named("p" + std::to_string(i) + "-" + std::to_string(n));
                added = tavr::AddAccount(account, "x").has_value() && added;
            }
            return added;
        }));
    }
    for (const pid_t child : children) {
        EXPECT_TRUE(EndedWell(child));
    }
    EXPECT_TRUE(InChild([] {
        std::set<uint32_t> uids;
        tavr::ForEachAccount([&](const Account& account) { uids.insert(account.uid); });
        EXPECT_EQ(static_cast<size_t>(kProcesses * kEach), uids.size());
        EXPECT_EQ(1026U, *uids.begin());
        return true;
    }));
}

TEST_F(Store, GivesANameToOneOfManyThatWantIt)
{
    std::vector<pid_t> children;
    for (int i = 0; i < 8; ++i) {
        children.push_back(StartChild([] { return tavr::AddAccount(Named("wanted"), "x").has_value(); }));
    }
    int won = 0;
    for (const pid_t child : children) {
        won += EndedWell(child) ? 1 : 0;
    }
    EXPECT_EQ(1, won);
}

TEST_F(Store, LosesNoFieldToConcurrentUpdatesOfOneRecord)
{
    ASSERT_TRUE(InChild([] { return tavr::AddAccount(Named("shared"), "x").has_value(); }));
    constexpr int kRounds = 50;
    // One process changes the mail through the platform's call, the other the description: neither may write
    // back what it once read of the other's field.
    const pid_t mail = StartChild([] {
        bool updated = true;
        for (int i = 1; i <= kRounds; ++i) {
            TAVRUser* record = nullptr;
            updated = TAVRUserGet("shared", &record) == 0 && updated;
            char* text = strdup(("m" + std::to_string(i)).c_str());
            record->mail = text;
            updated = TAVRConfdUserUpdate("shared", record, 0) == 0 && updated;
            free(text);
            TAVRUserFree(record);
        }
        return updated;
    });
    const pid_t description = StartChild([] {
        bool updated = true;
        for (int i = 1; i <= kRounds; ++i) {
            TAVRUser* record = nullptr;
            updated = TAVRUserGet("shared", &record) == 0 && updated;
            const std::string text = "d" + std::to_string(i);
            record->description = text.c_str();
            updated = TAVRConfdUserUpdate("shared", record, 0) == 0 && updated;
            TAVRUserFree(record);
            // Its own last write must still be there, whatever the other has written since.
            updated = tavr::FindAccount("shared")->description == text && updated;
        }
        return updated;
    });
    EXPECT_TRUE(EndedWell(mail));
    EXPECT_TRUE(EndedWell(description));
    EXPECT_TRUE(InChild([] {
        const auto account = tavr::FindAccount("shared");
        EXPECT_EQ("m50", account->mail);
        EXPECT_EQ("d50", account->description);
        return true;
    }));
}

TEST_F(Store, DoesNotWriteBackAFieldReadBeforeSomebodyChangedIt)
{
    ASSERT_TRUE(InChild([] { return tavr::AddAccount(Named("stale"), "x").has_value(); }));
    EXPECT_TRUE(InChild([] {
        TAVRUser* record = nullptr;
        EXPECT_EQ(0, TAVRUserGet("stale", &record));
        EXPECT_TRUE(tavr::ChangeAccount(record->uid, {"changed meanwhile", std::nullopt}));
        record->mail = "new@home.example";
        EXPECT_EQ(0, TAVRConfdUserUpdate("stale", record, 0));
        TAVRUserFree(record);
        EXPECT_EQ("changed meanwhile", tavr::FindAccount("stale")->description);
        EXPECT_EQ("new@home.example", tavr::FindAccount("stale")->mail);
        return true;
    }));
}

TEST_F(Store, KeepsWhatItHasWhenTheDiskIsFull)
{
    EXPECT_TRUE(InChild([] {
        const auto kept = tavr::AddAccount(Named("kept"), "x");
        const int fill = open("/var/lib/tavr/fill", O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        const std::string block(4096, 'x');
        while (write(fill, block.data(), block.size()) > 0) {
        }
        EXPECT_TRUE(FailsInTheDatabase([] {
            for (int i = 0; i < 1000; ++i) {
                tavr::AddAccount(Named("more" + std::to_string(i)), "x");
            }
        }));
        EXPECT_TRUE(FailsInTheDatabase([&] {
            tavr::ChangeAccount(kept->uid, {std::string(1024, 'd'), {}});
        }));
        TAVRUser* record = nullptr;
        EXPECT_EQ(0, TAVRUserGet("kept", &record)) << "still readable";
        record->mail = "new@home.example";
        EXPECT_EQ(-1, TAVRConfdUserUpdate("kept", record, 0));
        EXPECT_EQ(0x0A00, KLIBCErrGet());
        EXPECT_STREQ("users.cpp", KLIBCErrorGetFile());
        TAVRUserFree(record);
        EXPECT_EQ("", tavr::FindAccount("kept")->mail);
        EXPECT_TRUE(tavr::CheckPassword("kept", "x"));
        close(fill);
        unlink("/var/lib/tavr/fill");
        EXPECT_TRUE(tavr::ChangeAccount(kept->uid, {{}, "new@home.example"})) << "recovers by itself";
        return true;
    }));
    EXPECT_TRUE(InChild([] { return tavr::FindAccount("kept")->mail == "new@home.example"; }));
}

TEST_F(Store, IsReadAndNotWrittenOnAReadOnlyDisk)
{
    EXPECT_TRUE(InChild([] {
        const auto kept = tavr::AddAccount(Named("kept"), "x");
        EXPECT_EQ(0, sqlite3_wal_checkpoint_v2(tavr::AccountsDatabase().Handle(), nullptr,
                                               SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr));
        return kept.has_value();
    }));
    EXPECT_TRUE(Remount(MS_RDONLY));
    EXPECT_TRUE(InChild([] {
        TAVRUser* record = nullptr;
        EXPECT_EQ(-1, TAVRUserGet("kept", &record))
            << "not to be opened: a store that cannot be written is no store";
        EXPECT_EQ(0x0A00, KLIBCErrGet());
        EXPECT_EQ(tavr::Fault::AccountsUnavailable, tavr::CurrentRequest().fault);
        tavr::StartRequest();
        EXPECT_EQ(-1, KLIBGroupIsAdminGroupMem("kept", 0)) << "the policy asks this";
        EXPECT_EQ(tavr::Fault::AccountsUnavailable, tavr::CurrentRequest().fault);
        EXPECT_TRUE(FailsInTheDatabase([] { tavr::CheckPassword("kept", "x"); }))
            << "never read as a wrong password";
        return true;
    }));
    EXPECT_TRUE(Remount(0));
    EXPECT_TRUE(InChild([] { return tavr::CheckPassword("kept", "x").has_value(); }));
}

TEST_F(Store, IsNeverOpenedAsRoot)
{
    EXPECT_TRUE(InChild([] {
        const tavr::EffectiveIds root = tavr::EffectiveIds::Root();
        return FailsInTheDatabase([] { tavr::FindAccount("x"); });
    }));
    EXPECT_TRUE(fs::is_empty(tavr::kStateDir));
    EXPECT_TRUE(InChild([] {
        EXPECT_FALSE(tavr::FindAccount("x"));
        const tavr::EffectiveIds root = tavr::EffectiveIds::Root();
        EXPECT_TRUE(tavr::AddAccount(Named("raised"), "x")) << "using it while raised is fine";
        return true;
    }));
    for (const auto& entry : fs::directory_iterator(tavr::kStateDir)) {
        struct stat file {
        };
        EXPECT_EQ(0, stat(entry.path().c_str(), &file));
        EXPECT_EQ(getuid(), file.st_uid) << entry.path();
        EXPECT_EQ(0600U, file.st_mode & 0777U) << entry.path();
    }
}

TEST_F(Store, OfANewerVersionOrOfGarbageIsRefused)
{
    EXPECT_TRUE(InChild([] {
        EXPECT_FALSE(tavr::FindAccount("x"));
        return sqlite3_exec(tavr::AccountsDatabase().Handle(), "PRAGMA user_version=1000", nullptr, nullptr,
                            nullptr) == SQLITE_OK;
    }));
    EXPECT_TRUE(InChild([] { return FailsInTheDatabase([] { tavr::FindAccount("x"); }); })) << "newer";
    for (const auto& entry : fs::directory_iterator(tavr::kStateDir)) {
        fs::remove(entry.path());
    }
    const int file = open(tavr::kAccountsDatabase, O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    EXPECT_EQ(5000, write(file, std::string(5000, '#').data(), 5000));
    close(file);
    EXPECT_TRUE(InChild([] { return FailsInTheDatabase([] { tavr::FindAccount("x"); }); })) << "garbage";
}
