// Removing an account is killed at system calls all along its way, as by a power cut: what is left is the
// account as it was, or one that nobody can use, never one without its second step; and removing it again
// finishes.
#include "linux/accounts.h"
#include "linux/enrolment.h"
#include "linux/names.h"
#include "linux/request.h"
#include "linux/session.h"
#include "linux/vault.h"
#include "tests/support/fresh_server.h"
#include "tests/support/stepper.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace tavr::test
{
namespace
{

namespace fs = std::filesystem;

constexpr char kPassword[] = "a password";
constexpr char kIdentifierFile[] = "/var/lib/tavr/identifier";

class KilledRemoval : public FreshServer
{
protected:
    void SetUp() override
    {
        FreshServer::SetUp();
        AsWorker([] { EnrolAndSignIn(); });
        KeepState();
    }

    // An enrolled account with a session and a half sign-in.
    static void EnrolAndSignIn()
    {
        const Account alice = *AddAccount({"alice", "", "", false}, kPassword);
        ASSERT_TRUE(MakePreferenceDirectory(alice));
        const SecretFileText references = MakeReferences();
        SecretBytes secret;
        DrawSecret(secret);
        StoreWaiting(alice.uid, references, secret);
        WriteFile(SecretPath("alice"), RenderSecretFile(references));
        SigninDatabase().Prepare("UPDATE secret SET state = 'confirmed'").Run();
        StartRequest();
        ASSERT_EQ(Enrolment::Yes, Settle(alice).enrolment);
        CurrentRequest().codeOf = alice.uid;
        ASSERT_EQ(Grant::Opened, OpenSession(alice));
        WriteFile(kIdentifierFile, CurrentRequest().newSid);
        OpenPending(alice, SessionState::CodeRequired);
    }

    static int Remove()
    {
        const int nothing = open("/dev/null", O_RDWR);
        dup2(nothing, STDIN_FILENO);
        dup2(nothing, STDOUT_FILENO);
        dup2(nothing, STDERR_FILENO);
        MarkStart();
        execlp("tavrctl", "tavrctl", "user", "remove", "alice", nullptr);
        return 99;
    }

    void ExpectNothingUsableAfterKillAt(long stop, long& stops)
    {
        RestoreState();
        const Steps steps = RunKilledAt(stop, Remove);
        stops = steps.stops;
        if (!steps.killed) {
            ASSERT_EQ(0, steps.exitStatus);
        }
        AsWorker([stop] { ExpectWholeOrUseless(stop); });
        const int again = RunProgram({"/usr/sbin/tavrctl", "user", "remove", "alice"}).status;
        ASSERT_TRUE(again == 0 || again == 3) << again << " after a kill at stop " << stop;
        AsWorker([stop] { ExpectGone(stop); });
    }

    static void ExpectWholeOrUseless(long stop)
    {
        StartRequest();
        const auto account = FindAccount("alice");
        const bool signsIn = CheckPassword("alice", kPassword).has_value();
        const bool sessionLives = FindSession(ReadFile(kIdentifierFile)).has_value();
        if (account && !account->disabled) {
            EXPECT_TRUE(signsIn) << stop;
            EXPECT_TRUE(sessionLives) << stop;
            EXPECT_EQ(Enrolment::Yes, Settle(*account).enrolment) << stop;
        } else {
            EXPECT_FALSE(signsIn) << stop;
            EXPECT_FALSE(sessionLives) << stop;
        }
    }

    // The next one of the name has nothing of this one.
    static void ExpectGone(long stop)
    {
        StartRequest();
        ASSERT_FALSE(FindAccount("alice")) << stop;
        const auto next = AddAccount({"alice", "", "", false}, "another");
        ASSERT_TRUE(next) << stop;
        EXPECT_FALSE(fs::exists(PreferencePath("alice"))) << stop;
        EXPECT_EQ(Enrolment::No, Settle(*next).enrolment) << stop;
        EXPECT_FALSE(FindSession(ReadFile(kIdentifierFile))) << stop;
        EXPECT_TRUE(ListSessions(next->uid).empty()) << stop;
    }
};

TEST_F(KilledRemoval, LeavesTheAccountWholeOrOfNoUse)
{
    const char* const strideText = std::getenv("KILL_STRIDE");             // NOLINT(concurrency-mt-unsafe)
    const long stride = strideText != nullptr ? std::atol(strideText) : 7; // NOLINT(cert-err34-c)
    long stops = 0;
    ExpectNothingUsableAfterKillAt(-1, stops);
    const long all = stops;
    ASSERT_GT(all, 200);
    long killed = 0;
    for (long stop = 0; stop < all && !HasFailure(); stop += stride) {
        ExpectNothingUsableAfterKillAt(stop, stops);
        ++killed;
    }
    RecordProperty("killed_runs", static_cast<int>(killed));
    std::printf("%ld runs killed, at every %ld. of %ld stops\n", killed, stride, all);
}

} // namespace
} // namespace tavr::test
