// The one decision on a code: which steps, once each, and never without its state stored.
#include "linux/verifier.h"

#include "linux/attempts.h"
#include "linux/cipher.h"
#include "linux/clock.h"
#include "linux/enrolment.h"
#include "linux/ids.h"
#include "linux/names.h"
#include "linux/paths.h"
#include "linux/settings.h"
#include "linux/vault.h"

#include "platform/core.h"
#include "platform/secrets.h"

#include "tests/support/fresh_server.h"
#include "tests/support/rounds.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

namespace tavr::test
{
namespace
{

class Verifier : public FreshServer
{
};

constexpr int64_t kNow = 1'800'000'015; // in the middle of its step
constexpr int64_t kStep = kNow / 30;

std::string WaitingPath(const Account& account)
{
    return "/tmp/OTP_" + std::to_string(account.uid);
}

// A secret of the account that waits, with its file; gives the secret in base-32.
std::string MakeWaiting(const Account& account, const char* secretBytes = nullptr)
{
    const SecretFileText references = MakeReferences();
    SecretBytes secret;
    DrawSecret(secret);
    if (secretBytes != nullptr) {
        std::memcpy(secret.bytes.data(), secretBytes, secret.bytes.size());
    }
    StoreWaiting(account.uid, references, secret);
    WriteFile(WaitingPath(account), RenderSecretFile(references));
    return SecretText(account.uid, references.secret);
}

int AskAsLibrary(const std::string& user, const std::string& code, const std::string& path)
{
    const std::string texts[] = {"username=" + user, "code=" + code, "secret=" + path};
    const char* const vector[] = {texts[0].c_str(), texts[1].c_str(), texts[2].c_str()};
    return TAVRGoogleAuth(3, vector);
}

CodeResult Confirm(const Account& account, const std::string& code)
{
    StartRequest();
    const int status = AskAsLibrary(account.name, code, WaitingPath(account));
    EXPECT_EQ(LastLibraryAnswer()->result == CodeResult::Accepted, status == 0);
    return LastLibraryAnswer()->result;
}

CodeResult Verify(const Account& account, const std::string& code)
{
    StartRequest();
    const CodeAnswer answer = VerifyCode(account, code);
    EXPECT_EQ(answer.result == CodeResult::Accepted, CurrentRequest().codeOf == account.uid);
    EXPECT_EQ(answer.fault, CurrentRequest().fault);
    return answer.result;
}

void Move(const Account& account)
{
    ASSERT_EQ(0, RunProgram({"/bin/mv", WaitingPath(account), SecretPath(account.name)}).status);
}

// Enrols with the code of the step before kStep's.
std::string Enrol(const Account& account)
{
    SetWallClock(kNow);
    const std::string secret = MakeWaiting(account);
    EXPECT_EQ(CodeResult::Accepted, Confirm(account, CodeOf(secret, kStep - 1)));
    Move(account);
    EXPECT_EQ(Enrolment::Yes, Settle(account).enrolment);
    return secret;
}

std::string ActiveSecret(const Account& account)
{
    return SecretText(account.uid, Settle(account).active.value().reference);
}

// --- Published vectors ---

// RFC 4226, appendix D: the secret "12345678901234567890", counters 0 to 9.
TEST_F(Verifier, AcceptsTheVectorsOfRfc4226)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        MakeWaiting(alice, "12345678901234567890");
        const char* codes[] = {"755224", "287082", "359152", "969429", "338314",
                               "254676", "287922", "162583", "399871", "520489"};
        for (int counter = 0; counter < 10; ++counter) {
            SetWallClock(30 * counter + 15);
            EXPECT_EQ(CodeResult::Accepted, Confirm(alice, codes[counter])) << counter;
            EXPECT_EQ(CodeResult::Used, Confirm(alice, codes[counter])) << counter;
        }
    });
}

// RFC 6238, appendix B, SHA-1; six digits of the eight.
TEST_F(Verifier, AcceptsTheVectorsOfRfc6238)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        EXPECT_EQ("GEZDGNBVGY3TQOJQGEZDGNBVGY3TQOJQ", MakeWaiting(alice, "12345678901234567890"));
        const std::pair<int64_t, const char*> rows[] = {
            {59, "287082"},         {1111111109, "081804"}, {1111111111, "050471"},
            {1234567890, "005924"}, {2000000000, "279037"}, {20000000000, "353130"},
        };
        for (const auto& [time, code] : rows) {
            SetWallClock(time);
            EXPECT_EQ(CodeResult::Wrong, Confirm(alice, code[0] == '9' ? "000000" : "999999")) << time;
            EXPECT_EQ(CodeResult::Accepted, Confirm(alice, code)) << time;
        }
    });
}

// --- Steps ---

TEST_F(Verifier, AcceptsTheStepBesideThePresentOneAndNoOther)
{
    AsWorker([] {
        int account = 0;
        // 1970 from its first step on, 2001, 2024, 2038 and after, 2106 and after, 2286; the first and the
        // last second of a step.
        for (const int64_t step :
             {0LL, 1LL, 11LL, 33333333LL, 57'000'000LL, 71'582'789LL, 143'165'577LL, 332'880'000LL}) {
            for (const int second : {0, 29}) {
                const Account owner = MakeAccount("user" + std::to_string(++account));
                const std::string secret = MakeWaiting(owner, "12345678901234567890"); // no two codes alike
                SetWallClock(30 * step + second);
                for (int64_t away = std::max<int64_t>(-10, -step); away <= 10; ++away) {
                    const CodeResult expected =
                        away >= -1 && away <= 1 ? CodeResult::Accepted : CodeResult::Wrong;
                    EXPECT_EQ(expected, Confirm(owner, CodeOf(secret, step + away))) << step << ' ' << away;
                    OpenSecondStep(owner);
                }
            }
        }
    });
}

TEST_F(Verifier, AcceptsNoStepTwiceAndNoneBeforeTheLastAccepted)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        const std::string secret = Enrol(alice);
        EXPECT_EQ(CodeResult::Used, Verify(alice, CodeOf(secret, kStep - 1))) << "the one that confirmed";
        EXPECT_EQ(CodeResult::Accepted, Verify(alice, CodeOf(secret, kStep + 1)));
        EXPECT_EQ(CodeResult::Used, Verify(alice, CodeOf(secret, kStep + 1)));
        EXPECT_EQ(CodeResult::Used, Verify(alice, CodeOf(secret, kStep)));
        SetWallClock(kNow - 3600);
        EXPECT_EQ(CodeResult::Used, Verify(alice, CodeOf(secret, kStep - 120))) << "the clock was set back";
        SetWallClock(kNow + 30);
        EXPECT_EQ(CodeResult::Used, Verify(alice, CodeOf(secret, kStep + 1)));
        EXPECT_EQ(CodeResult::Accepted, Verify(alice, CodeOf(secret, kStep + 2)));
    });
    AsWorker([] {
        const Account alice = *FindAccount("alice");
        const std::string secret = ActiveSecret(alice);
        EXPECT_EQ(CodeResult::Used, Verify(alice, CodeOf(secret, kStep + 2))) << "another process";
    });
}

TEST_F(Verifier, AcceptsNoStepOfTheActiveSecretAgainAfterARenewalThatWasUndone)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        const std::string secret = Enrol(alice);
        EXPECT_EQ(CodeResult::Accepted, Verify(alice, CodeOf(secret, kStep)));
        const std::string renewed = MakeWaiting(alice);
        EXPECT_EQ(CodeResult::Accepted, Confirm(alice, CodeOf(renewed, kStep + 1)));
        unlink(WaitingPath(alice).c_str()); // never came to its place
        EXPECT_EQ(CodeResult::Used, Verify(alice, CodeOf(secret, kStep)));
        EXPECT_EQ(CodeResult::Used, Verify(alice, CodeOf(secret, kStep + 1)));
        SetWallClock(kNow + 30);
        EXPECT_EQ(CodeResult::Accepted, Verify(alice, CodeOf(secret, kStep + 2)));
    });
}

// In five ways, so often each.
TEST_F(Verifier, RefusesEveryReplayAsUsedAndCountsNone)
{
    const int times = Rounds(40, 2000);
    const auto replay = [times](const char* way, int64_t step) {
        const Account alice = *FindAccount("alice");
        const std::string code = CodeOf(ActiveSecret(alice), step);
        for (int i = 0; i < times; ++i) {
            ASSERT_EQ(CodeResult::Used, Verify(alice, code)) << way << ' ' << i;
            ASSERT_EQ(0, SecondStepOf(alice.uid).failures) << way << ' ' << i;
        }
    };
    AsWorker([&] {
        const Account alice = MakeAccount("alice");
        EXPECT_EQ(CodeResult::Accepted, Verify(alice, CodeOf(Enrol(alice), kStep)));
        replay("the same process", kStep);
    });
    AsWorker([&] { replay("another process", kStep); });
    AsWorker([&] {
        SetClocks(kNow, 5, "second");
        replay("another start of the machine", kStep);
    });
    AsWorker([&] {
        SetWallClock(kNow + 3600);
        const Account alice = *FindAccount("alice");
        EXPECT_EQ(CodeResult::Accepted, Verify(alice, CodeOf(ActiveSecret(alice), kStep + 120)));
        SetWallClock(kNow);
        replay("a clock set back", kStep);
    });
    AsWorker([&] {
        SetWallClock(kNow + 3600);
        const Account alice = *FindAccount("alice");
        const std::string renewed = MakeWaiting(alice);
        EXPECT_EQ(CodeResult::Accepted, Confirm(alice, CodeOf(renewed, kStep + 121)));
        unlink(WaitingPath(alice).c_str());
        replay("a renewal undone", kStep + 120);
    });
}

TEST_F(Verifier, GrantsOneOfManySimultaneousTries)
{
    constexpr int kWorkers = 8;
    constexpr int kRounds = 25;
    AsWorker([] { Enrol(MakeAccount("alice")); });
    for (int round = 0; round < kRounds; ++round) {
        SetWallClock(kNow + 30 * round);
        int results[2];
        ASSERT_EQ(0, pipe(results));
        AsWorkers(kWorkers, [&results, round](int) {
            const Account alice = *FindAccount("alice");
            const std::string secret = ActiveSecret(alice);
            const CodeResult result = Verify(alice, CodeOf(secret, kStep + round));
            ASSERT_EQ(1, write(results[1],
                               result == CodeResult::Accepted ? "+"
                               : result == CodeResult::Used   ? "u"
                                                              : "?",
                               1));
        });
        std::string all(kWorkers, 0);
        ASSERT_EQ(kWorkers, read(results[0], all.data(), all.size()));
        EXPECT_EQ(1, std::count(all.begin(), all.end(), '+')) << all;
        EXPECT_EQ(kWorkers - 1, std::count(all.begin(), all.end(), 'u')) << all;
        close(results[0]);
        close(results[1]);
    }
}

// --- What is no code ---

TEST_F(Verifier, RefusesEverythingButSixAsciiDigits)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        const std::string secret = Enrol(alice);
        const std::string code = CodeOf(secret, kStep);
        const std::string wide = "\xEF\xBC\x90"; // full-width zero
        const std::string rows[] = {
            "",
            " ",
            code + ' ',
            ' ' + code,
            code.substr(0, 5),
            code + '0',
            "0" + code,
            code + "00",
            '+' + code.substr(1),
            '-' + code.substr(1),
            code.substr(0, 3) + ' ' + code.substr(3),
            code.substr(0, 5) + wide,
            wide + wide,
            wide + wide + wide + wide + wide + wide,
            "0x" + code.substr(2),
            code + '\n',
            code.substr(0, 5) + '\n',
            std::string("\0", 1) + code.substr(1),
            code + std::string("\0", 1),
            "abcdef",
            std::string(1000, '1'),
        };
        for (const std::string& row : rows) {
            EXPECT_EQ(CodeResult::Wrong, Verify(alice, row)) << row;
        }
        EXPECT_EQ(CodeResult::Accepted, Verify(alice, code));
    });
}

// --- Which secret ---

TEST_F(Verifier, DecidesForTheAccountAndThePlaceThatAreNamed)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        const Account bob = MakeAccount("bob");
        const std::string secret = MakeWaiting(alice);
        SetWallClock(kNow);
        const std::string code = CodeOf(secret, kStep);
        EXPECT_NE(0, AskAsLibrary("bob", code, WaitingPath(alice)));
        EXPECT_EQ(CodeResult::Wrong, LastLibraryAnswer()->result);
        EXPECT_NE(0, AskAsLibrary("nobody", code, WaitingPath(alice)));
        EXPECT_NE(0, AskAsLibrary("", code, WaitingPath(alice)));
        EXPECT_NE(0, AskAsLibrary("alice", code, ""));
        EXPECT_NE(0, AskAsLibrary("alice", code, "/tmp/../tmp/OTP_" + std::to_string(alice.uid)));
        EXPECT_NE(0, AskAsLibrary("alice", code, "/tmp/OTP_0" + std::to_string(alice.uid)));
        EXPECT_NE(0, AskAsLibrary("alice", code, SecretPath("alice"))) << "not enrolled yet";
        EXPECT_EQ(CodeResult::Wrong, LastLibraryAnswer()->result);

        WriteFile(WaitingPath(bob), ReadFile(WaitingPath(alice)));
        EXPECT_EQ(CodeResult::Fault, Confirm(bob, code)) << "alice's references in bob's file";
        EXPECT_EQ(Fault::SecretFile, CurrentRequest().fault);

        EXPECT_EQ(CodeResult::Accepted, Confirm(alice, code));
        EXPECT_EQ(alice.uid, CurrentRequest().codeOf);
        StartRequest();
        EXPECT_FALSE(LastLibraryAnswer().has_value()) << "another request";
    });
}

TEST_F(Verifier, AnswersEverySpellingOfOneAccountAlike)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        const std::string secret = MakeWaiting(alice);
        SetWallClock(kNow);
        EXPECT_EQ(0, AskAsLibrary("ALICE", CodeOf(secret, kStep), WaitingPath(alice)));
        EXPECT_NE(0, AskAsLibrary("alice", CodeOf(secret, kStep), WaitingPath(alice)));
        EXPECT_EQ(CodeResult::Used, LastLibraryAnswer()->result);
    });
}

TEST_F(Verifier, RefusesQuestionsThatAreNone)
{
    AsWorker([] {
        const char* const good[] = {"username=alice", "code=123456", "secret=/tmp/OTP_1026"};
        const char* const order[] = {"code=123456", "username=alice", "secret=/tmp/OTP_1026"};
        const char* const hole[] = {"username=alice", nullptr, "secret=/tmp/OTP_1026"};
        const char* const other[] = {"username=alice", "code 123456", "secret=/tmp/OTP_1026"};
        EXPECT_NE(0, TAVRGoogleAuth(3, nullptr));
        EXPECT_NE(0, TAVRGoogleAuth(2, good));
        EXPECT_NE(0, TAVRGoogleAuth(4, good));
        EXPECT_NE(0, TAVRGoogleAuth(-1, good));
        EXPECT_NE(0, TAVRGoogleAuth(3, order));
        EXPECT_NE(0, TAVRGoogleAuth(3, hole));
        EXPECT_NE(0, TAVRGoogleAuth(3, other));
        EXPECT_FALSE(LastLibraryAnswer().has_value());
        EXPECT_NE(0, KLIBCErrGet());
    });
}

TEST_F(Verifier, TheWaitingPlaceTakesNoActiveSecretAndThePermanentOneNoWaiting)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        const std::string secret = Enrol(alice);
        WriteFile(WaitingPath(alice), ReadFile(SecretPath(alice.name)));
        EXPECT_EQ(CodeResult::Fault, Confirm(alice, CodeOf(secret, kStep)));
        const std::string waiting = MakeWaiting(alice);
        EXPECT_EQ(CodeResult::Wrong, Verify(alice, CodeOf(waiting, kStep)));
        WriteFile(SecretPath(alice.name), ReadFile(WaitingPath(alice)));
        EXPECT_EQ(CodeResult::Fault, Verify(alice, CodeOf(waiting, kStep)));
    });
}

TEST_F(Verifier, ACodeConfirmsTheSecretAndReplacesOneConfirmedEarlier)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        SetWallClock(kNow);
        const std::string first = MakeWaiting(alice);
        EXPECT_EQ(CodeResult::Accepted, Confirm(alice, CodeOf(first, kStep - 1)));
        EXPECT_EQ(CodeResult::Accepted, Confirm(alice, CodeOf(first, kStep)))
            << "another try of a failed move";
        const std::string second = MakeWaiting(alice);
        EXPECT_EQ(2u, SecretsOf(alice.uid).size());
        EXPECT_EQ(CodeResult::Accepted, Confirm(alice, CodeOf(second, kStep + 1)));
        const std::vector<StoredSecret> secrets = SecretsOf(alice.uid);
        ASSERT_EQ(1u, secrets.size());
        EXPECT_EQ(SecretState::Confirmed, secrets[0].state);
        EXPECT_EQ(second, SecretText(alice.uid, secrets[0].reference));
    });
}

// --- Settings, emergency codes, an administrator's code, the phone's clock ---

std::string EmergencyCode(const Account& account, size_t position)
{
    CodeDigits code;
    EXPECT_TRUE(OpenCode(account.uid, SecretsOf(account.uid).at(0).codes.at(position).reference, code));
    return code.text;
}

TEST_F(Verifier, TheStrictWindowIsThePresentStepAlone)
{
    WriteSettings("");
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        const std::string secret = Enrol(alice);
        SetWallClock(kNow + 300);
        ASSERT_TRUE(WriteSetting("otp_strict_window", "yes"));
        EXPECT_EQ(CodeResult::Wrong, Verify(alice, CodeOf(secret, kStep + 9)));
        EXPECT_EQ(CodeResult::Wrong, Verify(alice, CodeOf(secret, kStep + 11)));
        EXPECT_EQ(CodeResult::Accepted, Verify(alice, CodeOf(secret, kStep + 10)));
        ASSERT_TRUE(WriteSetting("otp_strict_window", "no"));
        EXPECT_EQ(CodeResult::Used, Verify(alice, CodeOf(secret, kStep + 9)));
        EXPECT_EQ(CodeResult::Accepted, Verify(alice, CodeOf(secret, kStep + 11)));
    });
}

std::string CodeOfNoStepNear(const std::string& secret, int64_t step)
{
    std::string code = "000000";
    for (int64_t near = step - 2; near <= step + 2; ++near) {
        if (CodeOf(secret, near) == code) {
            ++code.back();
            near = step - 3;
        }
    }
    return code;
}

TEST_F(Verifier, TheOwnerIsToldOfTheThirdWrongCodeInARowAndNotAgain)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        const std::string secret = Enrol(alice);
        const std::string wrong = CodeOfNoStepNear(secret, kStep);
        for (int failure = 1; failure <= 5; ++failure) {
            EXPECT_EQ(CodeResult::Wrong, Verify(alice, wrong));
            EXPECT_EQ(failure == 3 ? 1U : 0U, CurrentRequest().notices.size()) << failure;
        }
        SetClocks(kNow, 200'000, "later");
        EXPECT_EQ(CodeResult::Accepted, Verify(alice, CodeOf(secret, kStep)));
        EXPECT_TRUE(CurrentRequest().notices.empty()) << "a plain sign-in tells nobody";
        for (int failure = 1; failure <= 3; ++failure) {
            EXPECT_EQ(CodeResult::Wrong, Verify(alice, wrong));
        }
        ASSERT_EQ(1U, CurrentRequest().notices.size());
        EXPECT_STREQ("OTP_notice_wrong_codes", CurrentRequest().notices[0].tag);
        EXPECT_EQ(alice.uid, CurrentRequest().notices[0].account);
    });
}

TEST_F(Verifier, WrongCodesOfASetUpAreNobodysNotice)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        SetWallClock(kNow);
        const std::string wrong = CodeOfNoStepNear(MakeWaiting(alice), kStep);
        for (int failure = 1; failure <= 4; ++failure) {
            EXPECT_EQ(CodeResult::Wrong, Confirm(alice, wrong));
            EXPECT_TRUE(CurrentRequest().notices.empty());
        }
    });
}

TEST_F(Verifier, AnEmergencyCodeIsGoodOnceAndLeavesTheFile)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        const Account bob = MakeAccount("bob");
        const std::string secret = Enrol(alice);
        Enrol(bob);
        const std::string reference = SecretsOf(alice.uid).at(0).codes.at(4).reference;
        const std::string code = EmergencyCode(alice, 4);
        std::string file = ReadFile(SecretPath("alice"));
        EXPECT_EQ(CodeResult::Wrong, Verify(bob, code)) << "somebody else's";
        EXPECT_EQ(CodeResult::Accepted, Verify(alice, code));
        file.erase(file.find(reference), kReferenceSize + 1);
        EXPECT_EQ(file, ReadFile(SecretPath("alice"))) << "one line less and nothing else";
        EXPECT_EQ(9, Settle(alice).codesLeft);
        EXPECT_EQ(CodeResult::Wrong, Verify(alice, code));
        CodeDigits digits;
        EXPECT_FALSE(OpenCode(alice.uid, reference, digits)) << "the cipher declines it";
        EXPECT_EQ(CodeResult::Accepted, Verify(alice, CodeOf(secret, kStep))) << "the app's codes go on";
    });
}

TEST_F(Verifier, EightDigitsAreNoCodeForASecretThatWaits)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        SetWallClock(kNow);
        MakeWaiting(alice);
        EXPECT_EQ(CodeResult::Wrong, Confirm(alice, EmergencyCode(alice, 0)));
        EXPECT_EQ(0, SecondStepOf(alice.uid).failures);
    });
}

TEST_F(Verifier, ATemporaryCodeIsGoodOnceWithinItsTimeAndStart)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        const Account bob = MakeAccount("bob");
        Enrol(alice);
        Enrol(bob);
        const std::string first = MintTemporaryCode(alice, 5);
        const std::string second = MintTemporaryCode(alice, 5);
        EXPECT_EQ(CodeResult::Wrong, Verify(alice, first)) << "replaced";
        EXPECT_EQ(CodeResult::Wrong, Verify(bob, second));
        EXPECT_EQ(CodeResult::Accepted, Verify(alice, second));
        EXPECT_EQ(CodeResult::Wrong, Verify(alice, second));
        EXPECT_EQ(10, Settle(alice).codesLeft);

        SetClocks(kNow, 100'000, "first");
        const std::string late = MintTemporaryCode(alice, 5);
        SetClocks(kNow, 100'301, "first");
        EXPECT_EQ(CodeResult::Wrong, Verify(alice, late));
        const std::string other = MintTemporaryCode(alice, 5);
        SetClocks(kNow, 10, "second");
        EXPECT_EQ(CodeResult::Wrong, Verify(alice, other)) << "another start of the machine";
        const std::string good = MintTemporaryCode(alice, 5);
        SetClocks(kNow + 86400, 300, "second");
        EXPECT_EQ(CodeResult::Accepted, Verify(alice, good)) << "the wall clock moves nothing";
        EXPECT_EQ(std::string::npos, ReadFile(kSigninDatabase).find(good));
    });
}

TEST_F(Verifier, TellsHowFarThePhonesClockIsOffAndBurnsWhatItTold)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        const std::string secret = Enrol(alice);
        EXPECT_EQ(CodeResult::Wrong, Verify(alice, CodeOf(secret, kStep - 6)));
        EXPECT_EQ(-3, ClockOffsetMinutes(alice));
        EXPECT_FALSE(ClockOffsetMinutes(alice).has_value()) << "once a request";
        EXPECT_EQ(CodeResult::Wrong, Verify(alice, CodeOf(secret, kStep + 6)));
        EXPECT_EQ(3, ClockOffsetMinutes(alice));
        EXPECT_EQ(CodeResult::Wrong, Verify(alice, CodeOf(secret, kStep + 8)));
        EXPECT_FALSE(ClockOffsetMinutes(alice).has_value()) << "one at a time";
        EXPECT_EQ(CodeResult::Wrong, Verify(alice, CodeOf(secret, kStep + 21)));
        EXPECT_FALSE(ClockOffsetMinutes(alice).has_value()) << "too far";
        EXPECT_EQ(4, SecondStepOf(alice.uid).failures) << "each of them was counted";
        SetWallClock(kNow + 6 * 30);
        EXPECT_EQ(CodeResult::Used, Verify(alice, CodeOf(secret, kStep + 6))) << "told, so not good any more";
        EXPECT_EQ(CodeResult::Accepted, Verify(alice, CodeOf(secret, kStep + 7)));
        EXPECT_FALSE(ClockOffsetMinutes(alice).has_value()) << "nothing was wrong";

        const std::string waiting = MakeWaiting(alice);
        EXPECT_EQ(CodeResult::Wrong, Confirm(alice, CodeOf(waiting, kStep + 26)));
        EXPECT_EQ(10, ClockOffsetMinutes(alice));
        StartRequest();
        EXPECT_FALSE(ClockOffsetMinutes(alice).has_value()) << "another request";
    });
}

// Replaces a file of ours until the end of the scope.
class Spoiled
{
public:
    Spoiled(std::string path, const char* target) : path_(std::move(path))
    {
        const EffectiveIds root = EffectiveIds::Root();
        EXPECT_EQ(0, rename(path_.c_str(), (path_ + ".kept").c_str()));
        EXPECT_EQ(0, symlink(target, path_.c_str()));
    }
    ~Spoiled()
    {
        const EffectiveIds root = EffectiveIds::Root();
        EXPECT_EQ(0, rename((path_ + ".kept").c_str(), path_.c_str()));
    }
    Spoiled(const Spoiled&) = delete;
    Spoiled& operator=(const Spoiled&) = delete;

private:
    std::string path_;
};

TEST_F(Verifier, TellsNothingOfTheClockForAnotherAccountNorWithoutLockOrKey)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        const Account bob = MakeAccount("bob");
        const std::string secret = Enrol(alice);
        const auto beWrong = [&] { EXPECT_EQ(CodeResult::Wrong, Verify(alice, CodeOf(secret, kStep - 6))); };
        beWrong();
        EXPECT_FALSE(ClockOffsetMinutes(bob).has_value());
        beWrong();
        {
            const Spoiled lock(kAccountLockFile, "x");
            EXPECT_FALSE(ClockOffsetMinutes(alice).has_value());
        }
        beWrong();
        {
            const Spoiled key(kMachineKeyFile, "x");
            EXPECT_FALSE(ClockOffsetMinutes(alice).has_value());
        }
        beWrong();
        EXPECT_EQ(-3, ClockOffsetMinutes(alice));
    });
}

TEST_F(Verifier, LooksForNoStepBefore1970)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        SetWallClock(75);
        const std::string secret = MakeWaiting(alice);
        EXPECT_EQ(CodeResult::Wrong, Confirm(alice, CodeOf(secret, 9)));
        EXPECT_EQ(4, ClockOffsetMinutes(alice)) << "seven steps";
        EXPECT_EQ(CodeResult::Wrong, Confirm(alice, CodeOf(secret, 100)));
        EXPECT_FALSE(ClockOffsetMinutes(alice).has_value());
    });
}

// --- Faults ---

TEST_F(Verifier, WithoutTheServicesIdsComparesAndChangesNothing)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        const std::string secret = Enrol(alice);
        MakeWaiting(alice);
        EXPECT_EQ(CodeResult::Wrong, Verify(alice, CodeOf(secret, kStep - 6)));
        {
            // The console, where the service's user has been removed from the system.
            const Spoiled users("/etc/passwd", "x");
            ASSERT_EQ(0, setresuid(0, kServiceId, 0));
            EXPECT_FALSE(ClockOffsetMinutes(alice).has_value());
            EXPECT_EQ(CodeResult::Fault, Verify(alice, CodeOf(secret, kStep)));
            EXPECT_EQ(CodeResult::Fault, Confirm(alice, "123456"));
            StartRequest();
            EXPECT_EQ(CodeResult::Fault, RefusalBeforeCode(alice)->result);
            EXPECT_EQ(Fault::StateUnavailable, CurrentRequest().fault);
            EXPECT_THROW(MintTemporaryCode(alice, 5), VaultError);
            EXPECT_THROW(OpenSecondStep(alice), DatabaseError);
            ASSERT_EQ(0, setresuid(kServiceId, kServiceId, 0));
        }
        EXPECT_EQ(1, SecondStepOf(alice.uid).failures);
    });
}

TEST_F(Verifier, AFolderOfWaitingSecretsThatCannotBeReadIsAFault)
{
    AsWorker([] { MakeWaiting(MakeAccount("alice")); });
    ASSERT_EQ(0, chmod(kWaitingDir, 0700));
    AsWorker([] {
        EXPECT_EQ(CodeResult::Fault, Confirm(*FindAccount("alice"), "123456"));
        EXPECT_EQ(Fault::SecretFile, CurrentRequest().fault);
    });
    ASSERT_EQ(0, chmod(kWaitingDir, 01777));
}

TEST_F(Verifier, FilesThatAreNotOursAreAFaultAtTheWaitingPlaceToo)
{
    const char* const rows[] = {
        "rm $P",
        "rm $P; mkdir $P",
        "rm $P; mkfifo $P; chown tavr-web $P",
        "mv $P $P.x; ln -s $P.x $P",
        "chown root $P",
        "ln $P $P.x",
        ": >$P",
        "head -c 5000 /dev/zero >>$P",
        "sed -i 1s/./A/ $P; chown tavr-web $P",
    };
    for (const char* row : rows) {
        SetUp();
        AsWorker([] { MakeWaiting(MakeAccount("alice")); });
        ASSERT_EQ(0, std::system((std::string("P=/tmp/OTP_1026; ") + row).c_str()));
        AsWorker([row] {
            EXPECT_EQ(CodeResult::Fault, Confirm(*FindAccount("alice"), "123456")) << row;
            EXPECT_EQ(Fault::SecretFile, CurrentRequest().fault) << row;
        });
    }
}

TEST_F(Verifier, SaysWhichFaultKeptItFromComparing)
{
    struct Row {
        const char* make;
        Fault fault;
    };
    const Row rows[] = {
        {"rm /etc/tavr/otp.key", Fault::KeyMissing},
        {"sed -i s/0001/1000/ /etc/tavr/otp.key; chgrp tavr-web /etc/tavr/otp.key", Fault::KeyWrong},
        {"rm /var/lib/tavr/signin.db*; mkdir /var/lib/tavr/signin.db", Fault::StateUnavailable},
        {"rm /var/lib/tavr/signin.db*; echo this is no database at all, but a text >/var/lib/tavr/signin.db;"
         " chown tavr-web /var/lib/tavr/signin.db",
         Fault::VaultDamaged},
        {"rm /var/lib/tavr/account.lock; ln -s x /var/lib/tavr/account.lock", Fault::StateUnavailable},
        {"rm /var/lib/tavr/accounts.db*; mkdir /var/lib/tavr/accounts.db", Fault::AccountsUnavailable},
    };
    for (const Row& row : rows) {
        SetUp();
        AsWorker([] {
            Account alice = MakeAccount("alice");
            Enrol(alice);
            MakeWaiting(alice);
        });
        ASSERT_EQ(0, std::system(row.make)) << row.make;
        AsWorker([&row] {
            Account alice; // as the session remembers it
            alice.name = "alice";
            alice.uid = 1026;
            EXPECT_EQ(CodeResult::Fault, Confirm(alice, "123456")) << row.make;
            EXPECT_EQ(row.fault, CurrentRequest().fault) << row.make;
            if (row.fault != Fault::AccountsUnavailable) {
                EXPECT_EQ(CodeResult::Fault, Verify(alice, "123456")) << row.make;
                EXPECT_EQ(row.fault, CurrentRequest().fault) << row.make;
            }
        });
    }
}

TEST_F(Verifier, StoresWhatIsGrantedTogetherWithTheCode)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        const std::string secret = Enrol(alice);
        SetWallClock(kNow);
        SigninDatabase().Prepare("CREATE TABLE granted (what TEXT)").Run();
        const auto verify = [&alice](const std::string& code, const GrantInside& grant) {
            StartRequest();
            return VerifyCode(alice, code, grant).result;
        };
        const auto store = [](Transaction&) {
            SigninDatabase().Prepare("INSERT INTO granted VALUES ('once')").Run();
        };
        const auto rows = [] {
            Statement count = SigninDatabase().Prepare("SELECT count(*) FROM granted");
            return count.Step() ? count.Int(0) : -1;
        };
        const std::string code = CodeOf(secret, kStep);
        const std::string emergency = EmergencyCode(alice, 2);

        EXPECT_EQ(CodeResult::Wrong, verify(CodeOfNoStepNear(secret, kStep), store));
        EXPECT_EQ(0, rows());
        for (const std::string& right : {code, emergency}) {
            EXPECT_EQ(CodeResult::Fault, verify(right, [&store](Transaction& inside) {
                          store(inside);
                          throw DatabaseError(SQLITE_FULL, "told to fail");
                      }));
            EXPECT_EQ(Fault::StateUnavailable, CurrentRequest().fault);
            EXPECT_FALSE(CurrentRequest().codeOf.has_value());
            EXPECT_EQ(0, rows()) << right.size();
        }
        EXPECT_EQ(CodeResult::Accepted, verify(code, store)) << "it was not used by that";
        EXPECT_EQ(1, rows());
        EXPECT_EQ(CodeResult::Used, verify(code, store));
        EXPECT_EQ(CodeResult::Accepted, verify(emergency, store));
        EXPECT_EQ(CodeResult::Wrong, verify(emergency, store));
        EXPECT_EQ(2, rows());
    });
}

TEST_F(Verifier, GrantsNothingThatCannotBeStored)
{
    AsWorker([] { Enrol(MakeAccount("alice")); });
    LimitFolder(kStateDir, 1 << 20);
    AsWorker([] {
        const Account alice = *FindAccount("alice");
        SetWallClock(kNow);
        const std::string secret = ActiveSecret(alice);
        SigninDatabase().Prepare("PRAGMA wal_checkpoint(TRUNCATE)").Run(); // no room left in the log
        WriteFile(std::string(kStateDir) + "/filler", std::string(1 << 20, 'x'));
        EXPECT_EQ(CodeResult::Fault, Verify(alice, CodeOf(secret, kStep)));
        EXPECT_EQ(Fault::StateUnavailable, CurrentRequest().fault);
        EXPECT_FALSE(CurrentRequest().codeOf.has_value());
        unlink((std::string(kStateDir) + "/filler").c_str());
        EXPECT_EQ(CodeResult::Accepted, Verify(alice, CodeOf(secret, kStep))) << "nothing was stored before";
        EXPECT_EQ(CodeResult::Used, Verify(alice, CodeOf(secret, kStep)));
    });
    MakeReadOnly(kStateDir);
    AsWorker([] {
        Account alice; // its store is read-only too
        alice.name = "alice";
        alice.uid = 1026;
        EXPECT_EQ(CodeResult::Fault, Verify(alice, "123456"));
        EXPECT_EQ(Fault::StateUnavailable, CurrentRequest().fault);
    });
}

} // namespace
} // namespace tavr::test
