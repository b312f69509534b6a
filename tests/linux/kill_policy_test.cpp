// Saving, restoring and adopting the picks, killed at any system call, and with calls that fail: afterwards
// the picks are those of before or those of after, nothing in between, and they can be saved again.
#include "linux/database.h"
#include "linux/paths.h"
#include "linux/policy_file.h"
#include "linux/request.h"
#include "otp/OTPEnforceHandler.h"
#include "tests/support/killed_writer.h"

#include <json/json.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <set>
#include <string>

namespace tavr::test
{
namespace
{

constexpr int kMany = 3000; // numbers: more than one block of the library's stream

// kMany numbers from `first` on, and one more.
std::string Picks(int first, const std::string& last = "")
{
    std::string text;
    for (int i = 0; i < kMany; ++i) {
        text += (i == 0 ? "\"" : ",\"") + std::to_string(first + i) + '"';
    }
    return "{\"local_user\":[" + text + last + "]}\n";
}

const std::string kBefore = Picks(100000);

// Without the number that was first, with one that is new.
std::string PicksAfter()
{
    std::string text = Picks(100000, ",\"200000\"");
    return text.erase(text.find("\"100000\","), 9);
}

bool Save(int gone, int come)
{
    Json::Value rows;
    rows[0]["id"] = std::to_string(gone);
    rows[0]["is_enforced"] = false;
    rows[1]["id"] = std::to_string(come);
    rows[1]["is_enforced"] = true;
    PolicyWriting policy;
    return policy.Usable() && OTPEnforceCustomSettingSet("local_user", rows) == 0 && policy.Commit(nullptr);
}

bool SaveMarked()
{
    SigninDatabase(); // its making is somebody else's test
    MarkStart();
    return Save(100000, 200000);
}

bool ReadMarked()
{
    SigninDatabase();
    MarkStart();
    return PolicyReading().Usable();
}

// What a reader of now finds. Empty: nothing that may be used.
std::string Found()
{
    StartRequest();
    const PolicyReading policy;
    return policy.Usable() ? ReadFile(kPolicyFile) : std::string();
}

// Whoever comes next can save, and nothing of the one that was cut short is in the way.
void ExpectSavable()
{
    EXPECT_TRUE(Save(1, 300000));
    EXPECT_NE(std::string::npos, Found().find("\"300000\""));
    EXPECT_EQ(Found(), ReadFile(kPolicyCopyFile));
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(kDataDir)) {
        names.insert(entry.path().filename());
    }
    names.erase("tavr_otp_enforce_custom_setting.broken");
    EXPECT_EQ((std::set<std::string>{"preference", "tavr_otp_enforce_custom_setting"}), names);
}

class KilledPolicy : public KilledWriter
{
protected:
    void SetUp() override
    {
        FreshServer::SetUp();
        AsWorker([] {
            SigninDatabase();
            WriteFile(kPolicyFile, kBefore);
            ASSERT_EQ(kBefore, Found());
        });
        KeepState();
    }

    // The file as somebody else left it.
    void Leave(const std::string& text)
    {
        AsWorker([&] { WriteFile(kPolicyFile, text); });
        KeepState();
    }

    // Each storing call of `work` fails in turn, once or from then on; `check` is told what work said.
    void AtEveryFailure(const std::function<bool()>& work, const std::function<void(bool)>& check)
    {
        struct BadDisk {
            int error;
            Failing failing;
        };
        for (const BadDisk& disk : {BadDisk{ENOSPC, Failing::FromThenOn}, BadDisk{EROFS, Failing::FromThenOn},
                                    BadDisk{EIO, Failing::Once}, BadDisk{ENOSPC, Failing::Once}}) {
            long calls = 1;
            for (long call = 0; call <= calls && !HasFailure(); ++call) {
                RestoreState();
                const Steps steps = RunFailingAt(call, disk.error, disk.failing, [&work] {
                    return RunLowered([&work] {
                        StartRequest();
                        return work() ? 0 : 1;
                    });
                });
                calls = steps.stops;
                ASSERT_TRUE(steps.exitStatus == 0 || steps.exitStatus == 1) << steps.exitStatus;
                AsWorker([&] {
                    SCOPED_TRACE("call " + std::to_string(call) + ", error " + std::to_string(disk.error));
                    check(steps.exitStatus == 0);
                });
            }
            EXPECT_GT(calls, 5);
        }
    }
};

TEST_F(KilledPolicy, SavesAllOrNothing)
{
    const std::string after = PicksAfter();
    AtEveryCall(SaveMarked, [&](bool ended) {
        const std::string found = Found();
        EXPECT_TRUE(found == after || (found == kBefore && !ended)) << found.size();
        ExpectSavable();
    });
}

TEST_F(KilledPolicy, SavesAllOrNothingOnABadDisk)
{
#ifndef __x86_64__
    GTEST_SKIP() << "calls can be made to fail on x86-64 alone";
#endif
    const std::string after = PicksAfter();
    AtEveryFailure(SaveMarked, [&](bool saved) {
        const std::string found = Found();
        EXPECT_TRUE(saved ? found == after : found == kBefore || found == after) << found.size();
        ExpectSavable();
    });
}

TEST_F(KilledPolicy, IsRestoredInTheEnd)
{
    Leave(kBefore.substr(0, 20000));
    AtEveryCall(ReadMarked, [&](bool) {
        EXPECT_EQ(kBefore, Found());
        ExpectSavable();
    });
}

TEST_F(KilledPolicy, IsRestoredOrNotUsedOnABadDisk)
{
#ifndef __x86_64__
    GTEST_SKIP() << "calls can be made to fail on x86-64 alone";
#endif
    Leave("");
    AtEveryFailure(ReadMarked, [&](bool) {
        EXPECT_EQ(kBefore, Found());
        ExpectSavable();
    });
}

TEST_F(KilledPolicy, IsAdoptedInTheEnd)
{
    const std::string other = Picks(500000);
    Leave(other);
    AtEveryCall(ReadMarked, [&](bool) {
        EXPECT_EQ(other, Found());
        EXPECT_EQ(other, ReadFile(kPolicyCopyFile));
        ExpectSavable();
    });
}

TEST_F(KilledPolicy, IsAdoptedOrNotUsedOnABadDisk)
{
#ifndef __x86_64__
    GTEST_SKIP() << "calls can be made to fail on x86-64 alone";
#endif
    const std::string other = Picks(500000);
    Leave(other);
    AtEveryFailure(ReadMarked, [&](bool used) {
        EXPECT_TRUE(!used || ReadFile(kPolicyCopyFile) == other);
        EXPECT_EQ(other, Found());
        ExpectSavable();
    });
}

TEST_F(KilledPolicy, BeginsWithNothingOrWhatWasSaved)
{
    AsWorker([] {
        unlink(kPolicyFile);
        unlink(kPolicyCopyFile);
    });
    KeepState();
    AtEveryCall(SaveMarked, [&](bool ended) {
        StartRequest();
        EXPECT_TRUE(PolicyReading().Usable());
        const std::string found = ReadFile(kPolicyFile);
        EXPECT_TRUE(found == "{\"local_user\":[\"200000\"]}\n" ||
                    (!ended && (found == "{}\n" || found.empty())))
            << found;
        ExpectSavable();
    });
}

} // namespace
} // namespace tavr::test
