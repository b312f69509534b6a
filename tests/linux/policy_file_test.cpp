// The picks' file between an administrator, an editor, a full disk and a power cut: what a reader finds is
// the state before or the one after, and what was put right is told.
#include "linux/policy_file.h"

#include "linux/audit.h"
#include "linux/database.h"
#include "linux/paths.h"
#include "linux/request.h"
#include "linux/settings.h"
#include "otp/OTPEnforceHandler.h"
#include "tests/support/fresh_server.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <functional>
#include <new>
#include <string>
#include <vector>

namespace tavr::test
{
namespace
{

namespace fs = std::filesystem;

const std::string kBroken = std::string(kPolicyFile) + ".broken";
const std::string kGood = "{\"local_group\":[\"65537\"],\"local_user\":[\"1026\",\"1030\"]}\n";
const std::string kOther = "{\"local_user\":[\"1026\",\"1027\"]}\n";

// "outcome detail" of the policy's rows, oldest first.
std::vector<std::string> Told()
{
    std::vector<std::string> rows;
    ForEachAuditRow({}, [&](const AuditRow& row) {
        if (row.event == "policy") {
            rows.push_back(row.outcome + ' ' + row.detail);
        }
    });
    return rows;
}

bool IsUsable()
{
    return PolicyReading().Usable();
}

Json::Value Row(const char* id, bool enforced)
{
    Json::Value rows;
    rows[0]["id"] = id;
    rows[0]["is_enforced"] = enforced;
    return rows;
}

bool Save(const char* type, const char* id, bool enforced = true)
{
    PolicyWriting policy;
    return policy.Usable() && OTPEnforceCustomSettingSet(type, Row(id, enforced)) == 0 &&
           policy.Commit(nullptr);
}

// A file that was found good, with its copy.
void BeginWith(const std::string& text)
{
    WriteFile(kPolicyFile, text);
    ASSERT_TRUE(IsUsable());
    ASSERT_EQ(text, ReadFile(kPolicyCopyFile));
}

void ExpectRestored(const std::string& what)
{
    EXPECT_TRUE(IsUsable()) << what;
    EXPECT_EQ(kGood, ReadFile(kPolicyFile)) << what;
    EXPECT_EQ(kGood, ReadFile(kPolicyCopyFile)) << what;
}

// The outermost places where the text can end early. The line feed alone may be missing.
std::vector<std::string> EveryCutOf(const std::string& text)
{
    std::vector<std::string> cuts;
    for (size_t size = 0; size + 1 < text.size(); ++size) {
        cuts.push_back(text.substr(0, size));
    }
    return cuts;
}

// What is no picks.
std::vector<std::string> BrokenTexts()
{
    std::vector<std::string> texts = {
        "[]\n",
        "[{\"local_user\":[\"1026\"]}]\n",
        "null\n",
        "\"text\"\n",
        "1026\n",
        "true\n",
        "not JSON\n",
        "{\"local_user\":\"1026\"}\n",
        "{\"local_user\":1026}\n",
        "{\"local_user\":true}\n",
        "{\"local_user\":null}\n",
        "{\"local_user\":{\"1026\":\"\"}}\n",
        "{\"local_user\":[[\"1026\"]]}\n",
        "{\"local_user\":[{\"id\":\"1026\"}]}\n",
        "{\"local_user\":[true]}\n",
        "{\"local_user\":[null]}\n",
        "{\"local_user\":[\"1026\"],\"ldap_group\":5}\n",
        "{\"local_user\":[\"10" + std::string(4, '\0') + "\",\"1030\"]}\n",
        std::string(4096, '\0'),
        kGood.substr(0, 20) + std::string(kGood.size() - 20, '\0'),
        std::string(100000, '['),
        "{\"local_user\":" + std::string(2000, '[') + std::string(2000, ']') + "}\n",
    };
    const std::vector<std::string> cuts = EveryCutOf(kGood);
    texts.insert(texts.end(), cuts.begin(), cuts.end());
    return texts;
}

class PolicyFile : public FreshServer
{
protected:
    void AsService(const std::function<void()>& work)
    {
        AsWorker([&] {
            StartRequest();
            work();
        });
    }
};

TEST_F(PolicyFile, MayBeAbsentBeforeItsFirstUse)
{
    AsService([] {
        EXPECT_TRUE(IsUsable());
        EXPECT_FALSE(fs::exists(kPolicyFile));
        EXPECT_FALSE(fs::exists(kPolicyCopyFile));
        EXPECT_TRUE(Save("local_user", "1026"));
        EXPECT_EQ("{\"local_user\":[\"1026\"]}\n", ReadFile(kPolicyFile));
        EXPECT_EQ("{\"local_user\":[\"1026\"]}\n", ReadFile(kPolicyCopyFile));
        EXPECT_EQ(std::vector<std::string>{"picked local-user-1026"}, Told());
    });
}

TEST_F(PolicyFile, IsTakenAsFoundTheFirstTime)
{
    AsService([] {
        BeginWith(kGood);
        EXPECT_TRUE(Told().empty());
        struct stat copy {
        };
        ASSERT_EQ(0, stat(kPolicyCopyFile, &copy));
        EXPECT_EQ(0600U, copy.st_mode & 07777);
    });
}

TEST_F(PolicyFile, IsRestoredWhenItHoldsNoPicks)
{
    AsService([] {
        BeginWith(kGood);
        std::vector<std::string> expected;
        for (const std::string& text : BrokenTexts()) {
            WriteFile(kPolicyFile, text);
            ExpectRestored(text.substr(0, 80));
            EXPECT_EQ(text, ReadFile(kBroken));
            expected.emplace_back("restored broken");
        }
        EXPECT_EQ(expected, Told());
        struct stat file {
        };
        ASSERT_EQ(0, stat(kPolicyFile, &file));
        EXPECT_EQ(0644U, file.st_mode & 07777);
    });
}

TEST_F(PolicyFile, IsRestoredWhenItIsGone)
{
    AsService([] {
        BeginWith(kGood);
        unlink(kPolicyFile);
        ExpectRestored("gone");
        EXPECT_EQ(std::vector<std::string>{"restored gone"}, Told());
        EXPECT_FALSE(fs::exists(kBroken));
    });
}

TEST_F(PolicyFile, IsRestoredInAProcessThatHasFoundItGoodLongAgo)
{
    AsService([] {
        BeginWith(kGood);
        usleep(1'100'000); // until its time tells one state from the next
        EXPECT_TRUE(IsUsable());
        WriteFile(kPolicyFile, "[]");
        ExpectRestored("array");
        usleep(1'100'000);
        EXPECT_TRUE(IsUsable());
        unlink(kPolicyFile);
        ExpectRestored("gone");
    });
}

TEST_F(PolicyFile, IsRestoredWhereSomethingElseStands)
{
    AsService([] { BeginWith(kGood); });
    const std::vector<std::function<void()>> others = {
        [] { ASSERT_EQ(0, symlink("/etc/passwd", kPolicyFile)); },
        [] { ASSERT_EQ(0, symlink("nowhere", kPolicyFile)); },
        [] { ASSERT_EQ(0, mkfifo(kPolicyFile, 0666)); },
        [] { WriteFile(kPolicyFile, kOther); }, // root's alone
        [] { ASSERT_EQ(0, mkdir(kPolicyFile, 0755)); },
    };
    for (const auto& put : others) {
        fs::remove_all(kBroken);
        fs::remove_all(kPolicyFile);
        put();
        AsService([] { ExpectRestored("something else"); });
    }
}

TEST_F(PolicyFile, OfAHundredMegabytesIsNotRead)
{
    AsService([] {
        BeginWith(kGood);
        {
            const Descriptor file(open(kPolicyFile, O_WRONLY | O_TRUNC));
            const std::string start = "{\"local_user\":[\"1026\"";
            const std::string many(1 << 20, ' ');
            ASSERT_TRUE(WriteAll(file, start));
            for (int i = 0; i < 100; ++i) {
                ASSERT_TRUE(WriteAll(file, many));
            }
            ASSERT_TRUE(WriteAll(file, "]}\n"));
        }
        rusage before{};
        getrusage(RUSAGE_SELF, &before);
        ExpectRestored("100 MB");
        rusage after{};
        getrusage(RUSAGE_SELF, &after);
        EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 16 * 1024) << "KiB"; // sanitizers have their part
    });
}

TEST_F(PolicyFile, WithoutACopyIsLeftAloneAndNotUsed)
{
    AsService([] {
        for (const std::string& text : BrokenTexts()) {
            WriteFile(kPolicyFile, text);
            EXPECT_FALSE(IsUsable()) << text.substr(0, 80);
            EXPECT_FALSE(PolicyWriting().Usable()) << text.substr(0, 80);
            EXPECT_FALSE(Save("local_user", "1027")) << text.substr(0, 80);
            EXPECT_EQ(text, ReadFile(kPolicyFile));
        }
        EXPECT_TRUE(Told().empty());
    });
}

TEST_F(PolicyFile, IsNotRestoredFromACopyThatIsNoPicks)
{
    AsService([] {
        BeginWith(kGood);
        for (const char* copy : {"", "[]", "{\"local_user\":[", "{\"local_user\":5}"}) {
            WriteFile(kPolicyCopyFile, copy);
            WriteFile(kPolicyFile, "broken too");
            EXPECT_FALSE(IsUsable()) << copy;
            unlink(kPolicyFile);
            EXPECT_FALSE(IsUsable()) << copy;
        }
        unlink(kPolicyCopyFile);
        WriteFile(kPolicyFile, kOther);
        EXPECT_TRUE(IsUsable());
        EXPECT_EQ(kOther, ReadFile(kPolicyCopyFile));
    });
}

TEST_F(PolicyFile, ThatSomebodyElseChangedIsTheNewCopy)
{
    AsService([] {
        BeginWith(kGood);
        const std::vector<std::string> texts = {
            kOther,
            "// with a comment\n" + kOther,
            "{}",
            "{\"local_user\":[1026, 1027],\"notes\":{\"by\":[\"anybody\"]}}",
        };
        for (const std::string& text : texts) {
            WriteFile(kPolicyFile, text);
            EXPECT_TRUE(IsUsable());
            EXPECT_EQ(text, ReadFile(kPolicyFile));
            EXPECT_EQ(text, ReadFile(kPolicyCopyFile));
        }
        EXPECT_EQ(std::vector<std::string>(texts.size(), "adopted changed"), Told());
        WriteFile(kPolicyFile, kGood);
        EXPECT_TRUE(PolicyWriting().Usable()) << "a writer looks as well";
        EXPECT_EQ(kGood, ReadFile(kPolicyCopyFile));
        EXPECT_EQ(texts.size() + 1, Told().size());
    });
}

TEST_F(PolicyFile, ChangesWithARowForEveryNumber)
{
    AsService([] {
        BeginWith(kGood);
        Account alice;
        alice.name = "alice";
        alice.uid = 1026;
        {
            PolicyWriting policy;
            Json::Value rows;
            for (const char* id : {"1027", "1030", "x y"}) {
                Json::Value row;
                row["id"] = id;
                row["is_enforced"] = id != std::string("1030");
                rows.append(row);
            }
            ASSERT_EQ(0, OTPEnforceCustomSettingSet("local_user", rows));
            EXPECT_TRUE(policy.Commit(&alice));
        }
        EXPECT_EQ("{\"local_group\":[\"65537\"],\"local_user\":[\"1026\",\"1027\",\"x y\"]}\n",
                  ReadFile(kPolicyFile));
        EXPECT_EQ(ReadFile(kPolicyFile), ReadFile(kPolicyCopyFile));
        EXPECT_EQ((std::vector<std::string>{"unpicked local-user-1030", "picked local-user-1027",
                                            "picked local-user-other"}),
                  Told());
        ForEachAuditRow({}, [](const AuditRow& row) {
            EXPECT_EQ("alice", row.account);
            EXPECT_EQ(1026U, row.uid);
        });
        EXPECT_TRUE(IsUsable());
        EXPECT_EQ(3U, Told().size()) << "nobody else has changed it";
    });
}

TEST_F(PolicyFile, IsPutBackWhenItWasNotCommitted)
{
    AsService([] {
        BeginWith(kGood);
        {
            const PolicyWriting policy;
            ASSERT_EQ(0, OTPEnforceCustomSettingSet("local_user", Row("1026", false)));
        }
        EXPECT_EQ(kGood, ReadFile(kPolicyFile));
        {
            PolicyWriting policy;
            WriteFile(kPolicyFile, "[]"); // as a type that is none of the six could
            EXPECT_FALSE(policy.Commit(nullptr));
        }
        EXPECT_EQ(kGood, ReadFile(kPolicyFile));
        {
            const PolicyWriting policy;
            unlink(kPolicyFile);
        }
        EXPECT_EQ(kGood, ReadFile(kPolicyFile));
        EXPECT_TRUE(Told().empty());
        EXPECT_EQ(1, std::distance(fs::directory_iterator(kDataDir), {}) - 1) << "beside the preferences";
    });
}

TEST_F(PolicyFile, OfAnotherOwnerBecomesTheServicesOwnWhenItIsChanged)
{
    AsService([] { BeginWith(kGood); });
    unlink(kPolicyFile);
    WriteFile(kPolicyFile, kOther); // root's, as an editor leaves it
    ASSERT_EQ(0, chmod(kPolicyFile, 0644));
    AsService([] {
        EXPECT_TRUE(IsUsable());
        EXPECT_TRUE(Save("local_user", "1030"));
        EXPECT_EQ("{\"local_user\":[\"1026\",\"1027\",\"1030\"]}\n", ReadFile(kPolicyFile));
        struct stat file {
        };
        ASSERT_EQ(0, stat(kPolicyFile, &file));
        EXPECT_EQ(kServiceId, file.st_uid);
    });
}

TEST_F(PolicyFile, IsNotChangedWhenThereIsNoRoomToPutItBack)
{
    AsService([] { BeginWith(kGood); });
    LimitFolder(kDataDir, 64 * 1024);
    AsService([] {
        {
            const Descriptor filler(
                open((std::string(kDataDir) + "/filler").c_str(), O_CREAT | O_WRONLY, 0600));
            WriteAll(filler, std::string(1 << 20, 'x'));
        }
        EXPECT_TRUE(IsUsable());
        EXPECT_FALSE(Save("local_user", "1027"));
        EXPECT_EQ(kGood, ReadFile(kPolicyFile));
        EXPECT_TRUE(IsUsable());
    });
}

TEST_F(PolicyFile, IsPutBackWhenTheDiskIsFullInTheMiddle)
{
    AsService([] { BeginWith(kGood); });
    LimitFolder(kDataDir, 64 * 1024);
    AsService([] {
        std::string many;
        Json::Value rows;
        for (int i = 0; i < 20000; ++i) {
            rows[i]["id"] = std::to_string(1000000 + i);
            rows[i]["is_enforced"] = true;
        }
        {
            const PolicyWriting policy;
            ASSERT_TRUE(policy.Usable());
            EXPECT_EQ(-1, OTPEnforceCustomSettingSet("local_user", rows));
        }
        EXPECT_EQ(kGood, ReadFile(kPolicyFile));
        EXPECT_TRUE(IsUsable());
        EXPECT_TRUE(Told().empty());
    });
}

TEST_F(PolicyFile, IsPutBackWhenTheCopyCannotBeStored)
{
    AsService([] {
        BeginWith(kGood);
        EXPECT_TRUE(Told().empty()); // the database is there
    });
    LimitFolder(kStateDir, 4 << 20);
    AsService([] {
        {
            const Descriptor filler(
                open((std::string(kStateDir) + "/filler").c_str(), O_CREAT | O_WRONLY, 0600));
            WriteAll(filler, std::string(8 << 20, 'x'));
        }
        EXPECT_FALSE(Save("local_user", "1027"));
        EXPECT_EQ(kGood, ReadFile(kPolicyFile));
        EXPECT_EQ(kGood, ReadFile(kPolicyCopyFile));
        WriteFile(kPolicyFile, kOther);
        EXPECT_FALSE(IsUsable()) << "or the copy would be put in its place if it broke next";
        EXPECT_EQ(kOther, ReadFile(kPolicyFile));
        EXPECT_EQ(kGood, ReadFile(kPolicyCopyFile));
        EXPECT_FALSE(PolicyWriting().Usable());
        unlink((std::string(kStateDir) + "/filler").c_str());
        EXPECT_TRUE(IsUsable());
        EXPECT_EQ(kOther, ReadFile(kPolicyCopyFile));
    });
}

TEST_F(PolicyFile, ThatCannotBeRestoredIsNotUsed)
{
    AsService([] {
        BeginWith(kGood);
        WriteFile(kPolicyFile, "[]");
    });
    LimitFolder(kDataDir, 64 * 1024);
    MakeReadOnly(kDataDir);
    AsService([] {
        EXPECT_FALSE(IsUsable());
        EXPECT_FALSE(PolicyWriting().Usable());
        EXPECT_TRUE(Told().empty());
        EXPECT_EQ("[]", ReadFile(kPolicyFile));
    });
}

TEST_F(PolicyFile, IsReadFromAReadOnlyDiskAndNotChanged)
{
    AsService([] { BeginWith(kGood); });
    LimitFolder(kDataDir, 64 * 1024);
    MakeReadOnly(kDataDir);
    AsService([] {
        EXPECT_TRUE(IsUsable());
        EXPECT_FALSE(Save("local_user", "1027"));
        EXPECT_EQ(kGood, ReadFile(kPolicyFile));
    });
}

TEST_F(PolicyFile, WithoutItsLockIsNotUsed)
{
    AsService([] {
        BeginWith(kGood);
        unlink(kPolicyLockFile);
        ASSERT_EQ(0, symlink("/tmp/elsewhere", kPolicyLockFile));
        EXPECT_FALSE(IsUsable());
        EXPECT_FALSE(PolicyWriting().Usable());
        EXPECT_EQ(OptionChange::NotWritten, ChangePolicyOption("user", nullptr));
        EXPECT_FALSE(fs::exists("/tmp/elsewhere"));
    });
}

TEST_F(PolicyFile, BelongsToTheServiceWhoeverIsRaised)
{
    AsService([] {
        BeginWith(kGood);
        const EffectiveIds root = EffectiveIds::Root();
        EXPECT_TRUE(Save("local_user", "1027"));
        unlink(kPolicyFile);
        EXPECT_TRUE(IsUsable());
        EXPECT_EQ(0U, geteuid());
        for (const char* path : {kPolicyFile, kPolicyCopyFile, kPolicyLockFile}) {
            struct stat file {
            };
            ASSERT_EQ(0, stat(path, &file)) << path;
            EXPECT_EQ(kServiceId, file.st_uid) << path;
            EXPECT_EQ(kServiceId, file.st_gid) << path;
        }
    });
}

// What processes tell each other.
struct Meeting {
    std::atomic<int> reading{0};
    std::atomic<int> done{0};
    std::atomic<bool> written{false};
};

bool Until(const std::function<bool()>& met)
{
    for (int i = 0; i < 5000 && !met(); ++i) {
        usleep(2'000);
    }
    return met();
}

TEST_F(PolicyFile, IsReadSideBySideAndWrittenAlone)
{
    AsService([] { BeginWith(kGood); });
    void* memory = mmap(nullptr, sizeof(Meeting), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(MAP_FAILED, memory);
    auto& meeting = *new (memory) Meeting();
    constexpr int kReaders = 3;
    AsWorkers(kReaders + 1, [&](int worker) {
        StartRequest();
        if (worker == kReaders) {
            ASSERT_TRUE(Until([&] { return meeting.reading == kReaders; }));
            EXPECT_TRUE(Save("local_user", "1027"));
            EXPECT_EQ(kReaders, meeting.done) << "waits for all readers";
            meeting.written = true;
            return;
        }
        const PolicyReading policy;
        ASSERT_TRUE(policy.Usable());
        ++meeting.reading;
        EXPECT_TRUE(Until([&] { return meeting.reading == kReaders; })) << "waits for no other reader";
        usleep(200'000); // time for the writer to come
        EXPECT_FALSE(meeting.written);
        EXPECT_TRUE(policy.Unchanged());
        EXPECT_EQ(kGood, ReadFile(kPolicyFile));
        ++meeting.done;
    });
    EXPECT_TRUE(meeting.written);
    munmap(memory, sizeof(Meeting));
}

TEST_F(PolicyFile, IsSeenToChangeUnderAReader)
{
    AsService([] {
        BeginWith(kGood);
        const PolicyReading policy;
        EXPECT_TRUE(policy.Unchanged());
        WriteFile(kPolicyFile, kOther + "\n");
        EXPECT_FALSE(policy.Unchanged());
    });
}

TEST_F(PolicyFile, IsNotKeptFromAWriterByReadersWhoComeOneAfterTheOther)
{
    AsService([] { BeginWith(kGood); });
    const std::string done = std::string(kStateDir) + "/done";
    AsWorkers(5, [&](int worker) {
        StartRequest();
        if (worker == 4) {
            usleep(200'000);
            for (int i = 0; i < 10; ++i) {
                EXPECT_TRUE(Save("local_user", std::to_string(2000 + i).c_str()));
            }
            WriteFile(done, "");
            return;
        }
        for (int i = 0; i < 20'000 && !fs::exists(done); ++i) {
            const PolicyReading policy;
            ASSERT_TRUE(policy.Usable());
            usleep(2'000);
        }
        EXPECT_TRUE(fs::exists(done));
    });
}

// --- The option ---

TEST_F(PolicyFile, OptionIsOneOfFour)
{
    AsService([] {
        EXPECT_EQ("none", PolicyOption());
        for (const char* option : {"user", "admin", "custom", "none"}) {
            EXPECT_EQ(OptionChange::Done, ChangePolicyOption(option, nullptr));
            EXPECT_EQ(option, PolicyOption());
        }
        for (const char* option : {"", "Custom", "all", "user "}) {
            EXPECT_EQ(OptionChange::NotWritten, ChangePolicyOption(option, nullptr));
            EXPECT_EQ("none", PolicyOption());
        }
        EXPECT_EQ((std::vector<std::string>{"option user", "option admin", "option custom", "option none"}),
                  Told());
        WriteSetting("otp_enforce_option", "Custom");
        EXPECT_EQ("none", PolicyOption());
    });
}

TEST_F(PolicyFile, OptionIsNotCustomWithoutPicksThatCanBeUsed)
{
    AsService([] {
        WriteFile(kPolicyFile, "[]");
        EXPECT_EQ(OptionChange::PicksUnusable, ChangePolicyOption("custom", nullptr));
        EXPECT_EQ("none", PolicyOption());
        EXPECT_EQ(OptionChange::Done, ChangePolicyOption("user", nullptr)) << "needs none";
        EXPECT_EQ("user", PolicyOption());
    });
}

} // namespace
} // namespace tavr::test
