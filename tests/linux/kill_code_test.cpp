// The writers of counters and codes, killed at any system call: afterwards the state is the one before or the
// one after, a counter is never lower than what was told, and what was granted is spent.
#include "linux/attempts.h"

#include "linux/cipher.h"
#include "linux/clock.h"
#include "linux/enrolment.h"
#include "linux/names.h"
#include "linux/paths.h"
#include "linux/vault.h"
#include "linux/verifier.h"

#include "tests/support/killed_writer.h"

#include <algorithm>

namespace tavr::test
{
namespace
{

constexpr int64_t kNow = 1'800'000'015;

class KilledCodeWriter : public KilledWriter
{
protected:
    void SetUp() override
    {
        FreshServer::SetUp();
        SetClocks(kNow, 100'000, "first");
        AsWorker([] {
            const Account alice = MakeAccount("alice");
            const SecretFileText references = MakeReferences();
            SecretBytes secret;
            DrawSecret(secret);
            StoreWaiting(alice.uid, references, secret);
            SigninDatabase().Prepare("UPDATE secret SET state = 'active'").Run();
            WriteFile(SecretPath("alice"), RenderSecretFile(references));
            for (int i = 0; i < 2; ++i) {
                StartRequest();
                EXPECT_EQ(CodeResult::Wrong, VerifyCode(alice, WrongCode(alice)).result);
            }
        });
        KeepState();
    }

    static std::string Secret(const Account& account)
    {
        return SecretText(account.uid, SecretsOf(account.uid).at(0).reference);
    }

    static std::string RightCode(const Account& account) { return CodeOf(Secret(account), kNow / 30); }

    static std::string WrongCode(const Account& account)
    {
        const std::string secret = Secret(account);
        for (const std::string code : {"000000", "111111", "222222", "333333"}) {
            bool right = false;
            for (int64_t step = kNow / 30 - 2; step <= kNow / 30 + 3; ++step) {
                right = right || CodeOf(secret, step) == code;
            }
            if (!right) {
                return code;
            }
        }
        return "444444";
    }

    static std::string EmergencyCode(const Account& account)
    {
        CodeDigits digits;
        OpenCode(account.uid, SecretsOf(account.uid).at(0).codes.at(0).reference, digits);
        return digits.text;
    }

    template<typename Work, typename Check>
    void AtEveryCallOfAlice(Work work, Check check)
    {
        AtEveryCall([&work] { return work(*FindAccount("alice")); },
                    [&check](bool told) { check(*FindAccount("alice"), told); });
    }
};

TEST_F(KilledCodeWriter, AWrongCodeCountsOrWasNeverTold)
{
    AtEveryCallOfAlice(
        [](const Account& alice) {
            const std::string code = WrongCode(alice);
            MarkStart();
            return VerifyCode(alice, code).result == CodeResult::Wrong;
        },
        [](const Account& alice, bool told) {
            const int failures = SecondStepOf(alice.uid).failures;
            EXPECT_TRUE(failures == 3 || (failures == 2 && !told)) << failures;
            StartRequest();
            EXPECT_EQ(CodeResult::Accepted, VerifyCode(alice, RightCode(alice)).result);
        });
}

TEST_F(KilledCodeWriter, AnAcceptedStepIsUsedOrWasNeverGranted)
{
    AtEveryCallOfAlice(
        [](const Account& alice) {
            const std::string code = RightCode(alice);
            MarkStart();
            return VerifyCode(alice, code).result == CodeResult::Accepted;
        },
        [](const Account& alice, bool told) {
            const int failures = SecondStepOf(alice.uid).failures;
            StartRequest();
            const CodeResult again = VerifyCode(alice, RightCode(alice)).result;
            EXPECT_TRUE((failures == 0 && again == CodeResult::Used) ||
                        (failures == 2 && again == CodeResult::Accepted && !told))
                << failures;
        });
}

TEST_F(KilledCodeWriter, AnEmergencyCodeIsSpentOrWasNeverGranted)
{
    AtEveryCallOfAlice(
        [](const Account& alice) {
            const std::string code = EmergencyCode(alice);
            MarkStart();
            return VerifyCode(alice, code).result == CodeResult::Accepted;
        },
        [](const Account& alice, bool told) {
            const int failures = SecondStepOf(alice.uid).failures;
            const EnrolmentState state = Settle(alice);
            EXPECT_EQ(Enrolment::Yes, state.enrolment);
            EXPECT_TRUE((failures == 0 && state.codesLeft == 9) ||
                        (failures == 2 && state.codesLeft == 10 && !told))
                << failures << ' ' << state.codesLeft;
            const std::string file = ReadFile(SecretPath("alice"));
            EXPECT_EQ(state.codesLeft, std::count(file.begin(), file.end(), '\n') - 2);
        });
}

TEST_F(KilledCodeWriter, APasswordsTryCountsOrWasNeverLetThrough)
{
    AtEveryCallOfAlice(
        [](const Account& /*alice*/) {
            SigninDatabase();
            MarkStart();
            return CountPassword("alice", "192.0.2.1").waitSeconds == 0;
        },
        [](const Account& /*alice*/, bool told) {
            Statement ask = SigninDatabase().Prepare("SELECT count(*) FROM password_try");
            ASSERT_TRUE(ask.Step());
            EXPECT_TRUE(ask.Int(0) == 2 || (ask.Int(0) == 0 && !told)) << ask.Int(0);
        });
}

TEST_F(KilledCodeWriter, TheConsolesWritersAreDoneOrNot)
{
    AtEveryCallOfAlice(
        [](const Account& alice) {
            MarkStart();
            OpenSecondStep(alice);
            return MintTemporaryCode(alice, 5).size() == kCodeDigits;
        },
        [](const Account& alice, bool told) {
            const int failures = SecondStepOf(alice.uid).failures;
            EXPECT_TRUE(failures == 0 || (failures == 2 && !told)) << failures;
            CodeDigits code;
            EXPECT_TRUE(OpenTemporaryCode(alice.uid, code) || !told);
        });
}

} // namespace
} // namespace tavr::test
