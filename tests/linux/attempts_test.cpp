// How often anybody may try: the counters at their edges, under parallel tries, other clocks and new starts
// of the machine, and with state that cannot be stored.
#include "linux/attempts.h"

#include "linux/cipher.h"
#include "linux/clock.h"
#include "linux/enrolment.h"
#include "linux/names.h"
#include "linux/paths.h"
#include "linux/vault.h"
#include "linux/verifier.h"

#include "linux/session.h"

#include "tests/support/fresh_server.h"
#include "tests/support/rounds.h"

#include <sys/mman.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <new>
#include <random>

namespace tavr::test
{
namespace
{

constexpr int64_t kNow = 1'800'000'015;

// An account with an active secret, of which no code was used. Its codes' digits, and its secret in base-32.
struct Person {
    Account account;
    std::string secret;
    std::vector<std::string> codes;
};

Person Enrol(const std::string& name)
{
    Person person{MakeAccount(name), {}, {}};
    const SecretFileText references = MakeReferences();
    SecretBytes secret;
    DrawSecret(secret);
    StoreWaiting(person.account.uid, references, secret);
    SigninDatabase().Prepare("UPDATE secret SET state = 'active' WHERE state = 'waiting'").Run();
    WriteFile(SecretPath(name), RenderSecretFile(references));
    person.secret = SecretText(person.account.uid, references.secret);
    for (const std::string& reference : references.codes) {
        CodeDigits code;
        EXPECT_TRUE(OpenCode(person.account.uid, reference, code));
        person.codes.emplace_back(code.text);
    }
    return person;
}

Person Find(const std::string& name)
{
    Person person{*FindAccount(name), {}, {}};
    const StoredSecret secret = SecretsOf(person.account.uid).at(0);
    person.secret = SecretText(person.account.uid, secret.reference);
    for (const CodeLine& line : secret.codes) {
        CodeDigits code;
        if (OpenCode(person.account.uid, line.reference, code)) {
            person.codes.emplace_back(code.text);
        }
    }
    return person;
}

CodeAnswer Verify(const Person& person, const std::string& code)
{
    StartRequest();
    return VerifyCode(person.account, code);
}

std::string RightCode(const Person& person)
{
    return CodeOf(person.secret, WallSeconds() / 30);
}

// Both clocks, which pass together.
class Clock
{
public:
    Clock() { Advance(0); }
    void Advance(int64_t seconds)
    {
        passed_ += seconds;
        SetClocks(kNow + passed_, 100'000 + passed_, "first");
    }

private:
    int64_t passed_ = 0;
};

// Six digits that are no code now, nor ten minutes before or after; others for other numbers.
std::string WrongCode(const Person& person, int number = 0)
{
    const int64_t present = WallSeconds() / 30;
    for (int guess = number * 37;; ++guess) {
        const std::string digits = std::to_string(guess % 1'000'000);
        const std::string code = std::string(6 - digits.size(), '0') + digits;
        bool right = false;
        for (int64_t step = present - 25; step <= present + 25; ++step) {
            right = right || CodeOf(person.secret, step) == code;
        }
        if (!right) {
            return code;
        }
    }
}

void Fail(const Person& person, int times)
{
    for (int i = 0; i < times; ++i) {
        ASSERT_EQ(CodeResult::Wrong, Verify(person, WrongCode(person, i)).result) << i;
    }
}

// What several processes found, in memory that they share.
struct Tally {
    std::atomic<int> accepted = 0;
    std::atomic<int> wrong = 0;
    std::atomic<int> used = 0;
    std::atomic<int> refused = 0;
    std::atomic<int> other = 0;
    std::atomic<int> next = 0;

    void Add(CodeResult result)
    {
        switch (result) {
        case CodeResult::Accepted:
            ++accepted;
            break;
        case CodeResult::Wrong:
            ++wrong;
            break;
        case CodeResult::Used:
            ++used;
            break;
        case CodeResult::Throttled:
        case CodeResult::Closed:
            ++refused;
            break;
        case CodeResult::Fault:
            ++other;
            break;
        }
    }
};

class Shared
{
public:
    Shared()
        : memory_(mmap(nullptr, sizeof(Tally), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)),
          tally_(new (memory_) Tally)
    {
    }
    ~Shared() { munmap(memory_, sizeof(Tally)); }
    Shared(const Shared&) = delete;
    Shared& operator=(const Shared&) = delete;
    Tally* operator->() const { return tally_; }

private:
    void* memory_;
    Tally* tally_;
};

class Counter : public FreshServer
{
protected:
    void SetUp() override
    {
        FreshServer::SetUp();
        AsWorker([] { Enrol("alice"); });
    }

    // The first of alice's codes that is not spent.
    std::string FirstCode()
    {
        int ends[2];
        EXPECT_EQ(0, pipe(ends));
        AsWorker([&ends] { EXPECT_EQ(8, write(ends[1], Find("alice").codes.at(0).data(), kCodeDigits)); });
        std::string code(kCodeDigits, 0);
        EXPECT_EQ(8, read(ends[0], code.data(), code.size()));
        close(ends[0]);
        close(ends[1]);
        return code;
    }
};

// --- Numbers ---

TEST_F(Counter, LetsFiveFailuresPassAndThenWaitsTwiceAsLongEachTime)
{
    AsWorker([] {
        const Person alice = Find("alice");
        Clock clock;
        Fail(alice, 5);
        int64_t wait = 30;
        for (int failures = 5; failures < 50; ++failures) {
            const CodeAnswer refused = Verify(alice, RightCode(alice));
            ASSERT_EQ(CodeResult::Throttled, refused.result) << failures;
            ASSERT_LE(refused.retryAfterSeconds, wait) << failures;
            ASSERT_GE(refused.retryAfterSeconds, wait - 2) << failures;
            clock.Advance(wait - 3);
            ASSERT_EQ(CodeResult::Throttled, Verify(alice, RightCode(alice)).result) << failures;
            clock.Advance(4);
            ASSERT_EQ(CodeResult::Wrong, Verify(alice, WrongCode(alice)).result) << failures;
            wait = std::min<int64_t>(wait * 2, 3600);
        }
        EXPECT_EQ(CodeResult::Closed, Verify(alice, RightCode(alice)).result);
        clock.Advance(366 * 24 * 3600);
        EXPECT_EQ(CodeResult::Closed, Verify(alice, RightCode(alice)).result);
        EXPECT_EQ(CodeResult::Closed, RefusalBeforeCode(alice.account)->result);

        EXPECT_TRUE(OpenSecondStep(alice.account));
        EXPECT_FALSE(OpenSecondStep(alice.account));
        EXPECT_FALSE(RefusalBeforeCode(alice.account).has_value());
        EXPECT_EQ(CodeResult::Accepted, Verify(alice, RightCode(alice)).result);
    });
}

TEST_F(Counter, BeginsAnewAfterARightCode)
{
    AsWorker([] {
        const Person alice = Find("alice");
        Clock clock;
        for (int round = 0; round < 3; ++round) {
            Fail(alice, 4);
            ASSERT_EQ(CodeResult::Accepted, Verify(alice, RightCode(alice)).result) << round;
            EXPECT_EQ(0, SecondStepOf(alice.account.uid).failures);
            clock.Advance(30);
        }
        Fail(alice, 5);
        EXPECT_EQ(CodeResult::Throttled, Verify(alice, RightCode(alice)).result);
        clock.Advance(31);
        EXPECT_EQ(CodeResult::Accepted, Verify(alice, RightCode(alice)).result);
        Fail(alice, 5);
    });
}

TEST_F(Counter, CountsNeitherReplaysNorWhatIsNoCode)
{
    AsWorker([] {
        const Person alice = Find("alice");
        const std::string used = RightCode(alice);
        ASSERT_EQ(CodeResult::Accepted, Verify(alice, used).result);
        Fail(alice, 4);
        for (int i = 0; i < 100; ++i) {
            ASSERT_EQ(CodeResult::Used, Verify(alice, used).result) << i;
        }
        for (const char* text :
             {"", "12345", "1234567", "123456789", "+12345", " 123456", "12 3456", "abcdef"}) {
            for (int i = 0; i < 3; ++i) {
                ASSERT_EQ(CodeResult::Wrong, Verify(alice, text).result) << text;
            }
        }
        EXPECT_EQ(4, SecondStepOf(alice.account.uid).failures);
        Fail(alice, 1);
        EXPECT_EQ(CodeResult::Throttled, Verify(alice, used).result)
            << "nor are they compared while it waits";
        EXPECT_EQ(CodeResult::Wrong, Verify(alice, "1234567").result);
    });
}

TEST_F(Counter, AFloodOfWhatIsNoCodeLeavesNoRows)
{
    AsWorker([] {
        const Person alice = Find("alice");
        const Account bob = MakeAccount("bob"); // who has no second step
        const auto rows = [] {
            Statement count = SigninDatabase().Prepare("SELECT count(*) FROM audit");
            return count.Step() ? count.Int(0) : -1;
        };
        const int64_t before = rows();
        for (const char* text : {"", "12345", "1234567", "abcdef", "\xd9\xa1\xd9\xa2\xd9\xa3"}) {
            ASSERT_EQ(CodeResult::Wrong, Verify(alice, text).result) << text;
        }
        StartRequest();
        ASSERT_EQ(CodeResult::Wrong, VerifyCode(bob, "123456").result);
        EXPECT_EQ(before, rows());
        Fail(alice, 1);
        EXPECT_EQ(before + 1, rows()) << "one that was compared";
    });
}

TEST_F(Counter, AHintBelongsToACountedFailure)
{
    AsWorker([] {
        EXPECT_EQ(-1, SecondStepOf(9999).toldStep);
        Transaction transaction(SigninDatabase());
        EXPECT_THROW(NoteToldStep(transaction, 9999, 5), DatabaseError);
    });
}

TEST_F(Counter, CountsEmergencyCodesWithTheOthers)
{
    AsWorker([] {
        const Person alice = Find("alice");
        Fail(alice, 3);
        for (const char* guess : {"00000000", "99999999"}) {
            if (std::count(alice.codes.begin(), alice.codes.end(), guess) == 0) {
                EXPECT_EQ(CodeResult::Wrong, Verify(alice, guess).result);
            }
        }
        EXPECT_EQ(CodeResult::Throttled, Verify(alice, alice.codes[0]).result);
        EXPECT_EQ(10, Settle(alice.account).codesLeft);
    });
}

TEST_F(Counter, IsEachAccountsOwn)
{
    AsWorker([] {
        const Person alice = Find("alice");
        const Person bob = Enrol("bob");
        Fail(alice, 5);
        EXPECT_EQ(CodeResult::Throttled, Verify(alice, RightCode(alice)).result);
        EXPECT_EQ(CodeResult::Accepted, Verify(bob, RightCode(bob)).result);
    });
}

TEST_F(Counter, ComparesFiftyCodesInAYearOfGuessingWhateverElseHappens)
{
    const Shared tally;
    const int days = Rounds(10, 365);
    for (int day = 0; day < days; ++day) {
        AsWorker([&tally, day] { // a new start of the service each day
            const Person alice = Find("alice");
            for (int hour = 0; hour < 24; ++hour) { // and of the machine each week
                const int passed = day * 24 + hour;
                SetClocks(kNow + passed * 3600, passed % (7 * 24) * 3600, "start-" + std::to_string(day / 7));
                StartRequest();
                CurrentRequest().clientAddress = "192.0.2." + std::to_string(passed % 250);
                const char* const spellings[] = {"alice", "ALICE", " Alice ", "\uff41lice"};
                const std::optional<Account> named = FindAccount(*CanonicalName(spellings[hour % 4]));
                const std::string half = OpenPending(named.value(), SessionState::CodeRequired);
                tally->Add(VerifyCode(FindSession(half)->account, WrongCode(alice, passed)).result);
            }
        });
    }
    EXPECT_EQ(50, tally->wrong);
    EXPECT_EQ(days * 24 - 50, tally->refused);
    AsWorker([] { EXPECT_EQ(CodeResult::Closed, Verify(Find("alice"), "123456").result); });
}

// --- Clocks ---

TEST_F(Counter, WaitsOnWhateverTheWallClockSays)
{
    AsWorker([] {
        const Person alice = Find("alice");
        SetWallClock(kNow);
        Fail(alice, 5);
        for (const int64_t wall : {kNow - 3600, int64_t{15}, int64_t{4'323'000'000}, kNow + 86400}) {
            SetWallClock(wall);
            EXPECT_EQ(CodeResult::Throttled, Verify(alice, RightCode(alice)).result) << wall;
        }
    });
}

TEST_F(Counter, WaitsAnewAfterAStartOfTheMachine)
{
    AsWorker([] {
        const Person alice = Find("alice");
        SetClocks(kNow, 100'000, "first");
        Fail(alice, 5);
        SetClocks(kNow + 29, 29, "second");
        EXPECT_EQ(CodeResult::Throttled, Verify(alice, RightCode(alice)).result);
        SetClocks(kNow + 60, 200'000, "first");
        Fail(alice, 1);
        SetClocks(kNow + 3600, 5, "second");
        const CodeAnswer answer = Verify(alice, RightCode(alice));
        EXPECT_EQ(CodeResult::Throttled, answer.result);
        EXPECT_NEAR(55, answer.retryAfterSeconds, 2);
        SetClocks(kNow + 3655, 60, "second");
        EXPECT_EQ(CodeResult::Accepted, Verify(alice, RightCode(alice)).result);
    });
}

TEST_F(Counter, AClockThatRunsBackwardsShortensNothing)
{
    AsWorker([] {
        const Person alice = Find("alice");
        SetClocks(kNow, 100'000, "first");
        Fail(alice, 5);
        SetClocks(kNow, 10, "first");
        const CodeAnswer answer = Verify(alice, RightCode(alice));
        EXPECT_EQ(CodeResult::Throttled, answer.result);
        EXPECT_EQ(30, answer.retryAfterSeconds);
    });
}

// --- Many at once ---

TEST_F(Counter, GrantsNothingInTheSixthPlaceOfAThousandParallelGuesses)
{
    constexpr int kGuesses = 1000;
    std::mt19937 random(20); // NOLINT(cert-msc32-c,cert-msc51-cpp): the same places in every run
    const int rounds = Rounds(8, 200);
    for (int round = 0; round < rounds; ++round) {
        // Half of the rounds have the right code among the first, where it may still be granted.
        const int place = static_cast<int>(random() % (round % 2 == 0 ? kGuesses : 8));
        AsWorker([round] {
            SetClocks(kNow + 60 * round, 100'000, "first");
            OpenSecondStep(Find("alice").account);
        });
        const Shared tally;
        AsWorkers(4, [&tally, place](int) {
            const Person alice = Find("alice");
            const std::string wrong = WrongCode(alice);
            const std::string right = RightCode(alice);
            for (int guess = tally->next++; guess < kGuesses; guess = tally->next++) {
                tally->Add(Verify(alice, guess == place ? right : wrong).result);
            }
        });
        AsWorker([&tally, place] {
            const int after =
                SecondStepOf(Find("alice").account.uid).failures; // since the grant, if there was one
            const int before = tally->wrong - after;
            EXPECT_EQ(0, tally->other + tally->used);
            EXPECT_EQ(5, after) << "the last of them met a wait";
            EXPECT_LE(tally->accepted, 1);
            EXPECT_LE(before, 4) << "right code at " << place;
            EXPECT_TRUE(tally->accepted == 1 || before == 0);
        });
    }
}

// 64 tries over four processes.
void TryAtOnce(const Shared& tally, const std::function<std::string(const Person&)>& code)
{
    constexpr int kTries = 64;
    const Person alice = Find("alice");
    const std::string text = code(alice);
    while (tally->next++ < kTries) {
        tally->Add(Verify(alice, text).result);
    }
}

TEST_F(Counter, OneOfManySimultaneousTriesWithAGoodCodeIsGranted)
{
    const int rounds = Rounds(20, 1000);
    for (int round = 0; round < rounds; ++round) {
        SetClocks(kNow + 30 * round, 100'000, "first");
        const Shared tally;
        AsWorkers(4, [&tally](int) { TryAtOnce(tally, RightCode); });
        EXPECT_EQ(1, tally->accepted) << round;
        EXPECT_EQ(63, tally->used) << round;
    }
    AsWorker([] { EXPECT_EQ(0, SecondStepOf(Find("alice").account.uid).failures); });
}

TEST_F(Counter, OneOfManySimultaneousTriesWithAnEmergencyCodeIsGranted)
{
    const int rounds = Rounds(20, 1000);
    for (int round = 0; round < rounds; ++round) {
        const int left = 10 - round % 10;
        if (left == 10) {
            SetUp();
        }
        std::string file = ReadFile(SecretPath("alice"));
        const Shared tally;
        const std::string code = FirstCode();
        AsWorkers(4, [&tally, &code](int) { TryAtOnce(tally, [&code](const Person&) { return code; }); });
        EXPECT_EQ(1, tally->accepted) << round;
        AsWorker([left, &file] {
            const Person alice = Find("alice");
            EXPECT_EQ(left - 1, Settle(alice.account).codesLeft);
            file.erase(file.find('+'), kReferenceSize + 1); // the first code's line, and nothing else
            EXPECT_EQ(file, ReadFile(SecretPath("alice")));
            OpenSecondStep(alice.account);
        });
    }
}

// --- State that cannot be stored ---

TEST_F(Counter, GrantsAndComparesNothingOnAFullDisk)
{
    LimitFolder(kStateDir, 1 << 20);
    AsWorker([] {
        const Person alice = Find("alice");
        SetClocks(kNow, 100'000, "first");
        Fail(alice, 2);
        SigninDatabase().Prepare("PRAGMA wal_checkpoint(TRUNCATE)").Run(); // no room left in the log
        const std::string filler = std::string(kStateDir) + "/filler";
        WriteFile(filler, std::string(1 << 20, 'x'));
        for (const std::string& code : {RightCode(alice), WrongCode(alice), alice.codes[0]}) {
            EXPECT_EQ(CodeResult::Fault, Verify(alice, code).result);
            EXPECT_EQ(Fault::StateUnavailable, CurrentRequest().fault);
            EXPECT_FALSE(CurrentRequest().codeOf.has_value());
        }
        EXPECT_THROW(CountPassword("alice", "192.0.2.1"), DatabaseError);
        EXPECT_THROW(CountMail(1026), DatabaseError);
        EXPECT_THROW(OpenSecondStep(alice.account), DatabaseError);
        EXPECT_THROW(MintTemporaryCode(alice.account, 5), DatabaseError);
        unlink(filler.c_str());
        EXPECT_EQ(2, SecondStepOf(alice.account.uid).failures);
        EXPECT_EQ(CodeResult::Accepted, Verify(alice, alice.codes[0]).result);
        EXPECT_EQ(CodeResult::Accepted, Verify(alice, RightCode(alice)).result);
        EXPECT_EQ(9, Settle(alice.account).codesLeft);
    });
}

TEST_F(Counter, AFullPreferenceDiskKeepsNobodyOutAndSpendsOneCode)
{
    LimitFolder(kPreferenceDir, 64 * 1024);
    AsWorker([] {
        const Person alice = Find("alice");
        const std::string filler = std::string(kPreferenceDir) + "/filler";
        WriteFile(filler, std::string(1 << 20, 'x'));
        const std::string file = ReadFile(SecretPath("alice"));
        EXPECT_EQ(CodeResult::Accepted, Verify(alice, alice.codes[3]).result);
        EXPECT_EQ(file, ReadFile(SecretPath("alice"))) << "it could not be written";
        EXPECT_EQ(CodeResult::Wrong, Verify(alice, alice.codes[3]).result) << "spent all the same";
        EXPECT_EQ(CodeResult::Accepted, Verify(alice, alice.codes[4]).result);
        unlink(filler.c_str());
        EXPECT_EQ(8, Settle(alice.account).codesLeft);
        EXPECT_EQ(file.size() - 2 * (kReferenceSize + 1), ReadFile(SecretPath("alice")).size());
    });
}

TEST_F(Counter, GrantsAndComparesNothingOnAReadOnlyDisk)
{
    LimitFolder(kStateDir, 1 << 20);
    MakeReadOnly(kStateDir);
    AsWorker([] {
        Account alice; // its store is read-only too
        alice.name = "alice";
        alice.uid = 1026;
        StartRequest();
        EXPECT_EQ(CodeResult::Fault, VerifyCode(alice, "123456").result);
        EXPECT_EQ(CodeResult::Fault, RefusalBeforeCode(alice)->result);
        EXPECT_THROW(CountPassword("alice", "192.0.2.1"), DatabaseError);
        EXPECT_THROW(CountMail(1026), DatabaseError);
        EXPECT_THROW(CountRepeatedPassword("session"), DatabaseError);
    });
}

// --- Passwords ---

class Passwords : public FreshServer
{
protected:
    void SetUp() override
    {
        FreshServer::SetUp();
        SetClocks(kNow, 100'000, "first");
    }
};

int Rows()
{
    Statement ask = SigninDatabase().Prepare("SELECT count(*) FROM password_try");
    return ask.Step() ? static_cast<int>(ask.Int(0)) : -1;
}

int Wait(const std::string& name, const std::string& address)
{
    return CountPassword(name, address).waitSeconds;
}

TEST_F(Passwords, TenWrongOnesInFifteenMinutesForANameKnownOrNot)
{
    AsWorker([] {
        MakeAccount("alice");
        for (const char* name : {"alice", "nobody", "no\x01name", ""}) {
            for (int i = 0; i < 10; ++i) {
                const std::string spelling = std::string(name) == "alice" && i % 2 == 1 ? " ALICE " : name;
                ASSERT_EQ(0, Wait(spelling, "192.0.2." + std::to_string(i))) << name << i;
            }
            const int rows = Rows();
            for (int i = 0; i < 20; ++i) {
                EXPECT_NEAR(900, Wait(name, "198.51.100." + std::to_string(i)), 3) << name;
            }
            EXPECT_EQ(rows, Rows()) << "what is refused is not kept";
        }
        SetClocks(kNow, 100'000 + 890, "first");
        EXPECT_NEAR(10, Wait("alice", "192.0.2.77"), 3);
        SetClocks(kNow, 100'000 + 910, "first");
        EXPECT_EQ(0, Wait("alice", "192.0.2.77"));
        EXPECT_EQ(2, Rows()) << "the old ones are gone";
    });
}

TEST_F(Passwords, ThirtyForAnAddressOrAnIpv6Network)
{
    struct Row {
        const char* first;
        const char* same;
        const char* other;
    };
    AsWorker([] {
        const Row rows[] = {
            {"192.0.2.1", "192.0.2.1", "192.0.2.2"},
            {"198.51.100.1", "::ffff:198.51.100.1", "::ffff:198.51.100.2"},
            {"2001:db8::1", "2001:db8:0:0:ffff::2", "2001:db8:0:1::1"},
            {"", "", "no address"},
        };
        for (const Row& row : rows) {
            for (int i = 0; i < 30; ++i) {
                ASSERT_EQ(0, Wait(std::string(row.first) + "user" + std::to_string(i), row.first));
            }
            EXPECT_GT(Wait("another", row.same), 800) << row.first;
            EXPECT_EQ(0, Wait("a third", row.other)) << row.first;
        }
    });
}

TEST_F(Passwords, ARightOneGivesItsReservationBack)
{
    AsWorker([] {
        for (int i = 0; i < 50; ++i) {
            const PasswordTry counted = CountPassword("alice", "192.0.2.1");
            ASSERT_EQ(0, counted.waitSeconds);
            GiveBack(counted);
        }
        EXPECT_EQ(0, Rows());
        for (int i = 0; i < 9; ++i) {
            EXPECT_EQ(0, Wait("alice", "192.0.2.1"));
        }
        GiveBack(CountPassword("alice", "192.0.2.1"));
        GiveBack(PasswordTry());
        EXPECT_EQ(9, Rows() / 2) << "nobody else's";
        EXPECT_EQ(0, Wait("alice", "192.0.2.1"));
        EXPECT_GT(Wait("alice", "192.0.2.1"), 0);
        Statement level = SigninDatabase().Prepare("PRAGMA synchronous");
        ASSERT_TRUE(level.Step());
        EXPECT_EQ(2, level.Int(0)) << "every other commit is durable";
    });
}

TEST_F(Passwords, ANameThatIsGivenAnewBeginsAnew)
{
    AsWorker([] {
        for (int i = 0; i < 10; ++i) {
            EXPECT_EQ(0, Wait("alice", "192.0.2.1"));
            EXPECT_EQ(0, Wait("bob", "192.0.2.2"));
        }
        ForgetPasswords("alice");
        EXPECT_EQ(0, Wait("alice", "192.0.2.3"));
        EXPECT_GT(Wait("bob", "192.0.2.3"), 0) << "another's stay";
        EXPECT_EQ(10 + 20 + 2, Rows()) << "and so do those of the addresses";
    });
}

TEST_F(Passwords, OldTriesGoByTheServiceItselfSomeAtATime)
{
    AsWorker([] {
        SetClocks(1'800'000'000, 100'000, "first");
        SigninDatabase()
            .Prepare(
                "INSERT INTO password_try (key, boot, at) WITH RECURSIVE n(i) AS"
                " (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 10200) SELECT x'00', 'first', 0 FROM n")
            .Run();
        EXPECT_EQ(0, Wait("alice", "192.0.2.1"));
        ClearTries();
        EXPECT_GT(Rows(), 2) << "not all at once";
        ClearTries();
        EXPECT_EQ(2, Rows()) << "alice's of now";
    });
}

TEST_F(Passwords, AreCountedFromTheFirstSecondsOfAStart)
{
    AsWorker([] {
        SetClocks(1'800'000'000, 100'000, "first");
        EXPECT_EQ(0, Wait("alice", "192.0.2.1"));
        SetClocks(1'800'000'000, 5, "second");
        for (int i = 0; i < 9; ++i) {
            EXPECT_EQ(0, Wait("alice", "192.0.2.1"));
        }
        EXPECT_GT(Wait("alice", "192.0.2.1"), 880) << "the one of the start before counts from now";
    });
}

TEST_F(Passwords, NothingIsComparedWhenStartsOfTheMachineCannotBeToldApart)
{
    constexpr char kRandom[] = "/proc/sys/kernel/random";
    if (mount("nothing", kRandom, "tmpfs", 0, "") != 0) {
        GTEST_SKIP() << "nothing can be mounted over " << kRandom;
    }
    AsWorker([] {
        SetWallClock(1'800'000'000); // and no name of a start
        EXPECT_THROW(CountPassword("alice", "192.0.2.1"), DatabaseError);
    });
    EXPECT_EQ(0, umount(kRandom));
}

TEST_F(Passwords, NobodyElseUsesUpASessionsTries)
{
    AsWorker([] {
        for (int i = 0; i < 10; ++i) {
            EXPECT_EQ(0, Wait("alice", "192.0.2.1"));
        }
        EXPECT_GT(Wait("alice", "192.0.2.1"), 0);
        for (int i = 0; i < 10; ++i) {
            EXPECT_EQ(0, CountRepeatedPassword("one").waitSeconds);
        }
        EXPECT_GT(CountRepeatedPassword("one").waitSeconds, 0);
        EXPECT_EQ(0, CountRepeatedPassword("other").waitSeconds);
    });
}

TEST_F(Passwords, ManyAtOnceGetNoFurtherThanOneByOne)
{
    const Shared tally;
    AsWorkers(4, [&tally](int worker) {
        for (int i = 0; i < 50; ++i) {
            const bool passed = Wait("alice", "192.0.2." + std::to_string(worker)) == 0;
            tally->Add(passed ? CodeResult::Wrong : CodeResult::Throttled);
        }
    });
    EXPECT_EQ(10, tally->wrong);
    EXPECT_EQ(190, tally->refused);
}

TEST_F(Passwords, NoClockAndNoStartOfTheMachineOpensThemSooner)
{
    AsWorker([] {
        for (int i = 0; i < 10; ++i) {
            EXPECT_EQ(0, Wait("alice", "192.0.2.1"));
        }
        SetClocks(kNow + 86400, 100'000, "first");
        EXPECT_GT(Wait("alice", "192.0.2.1"), 890);
        SetClocks(kNow, 50'000, "first");
        EXPECT_EQ(900, Wait("alice", "192.0.2.1"));
        SetClocks(kNow, 20, "second");
        EXPECT_NEAR(880, Wait("alice", "192.0.2.1"), 2);
        SetClocks(kNow, 901, "second");
        EXPECT_EQ(0, Wait("alice", "192.0.2.1"));
        EXPECT_EQ(2, Rows()) << "those of another start go";
    });
}

TEST_F(Passwords, NothingThatWasTypedIsStoredAsItIs)
{
    AsWorker([] {
        CountPassword("my secret pass phrase", "192.0.2.123");
        SigninDatabase().Prepare("PRAGMA wal_checkpoint(TRUNCATE)").Run();
        const std::string all = ReadFile(kSigninDatabase);
        EXPECT_EQ(std::string::npos, all.find("my secret pass phrase"));
        EXPECT_EQ(std::string::npos, all.find("192.0.2.123"));
        EXPECT_NE(std::string::npos, all.find("password_try"));
    });
}

// --- Emergency codes by mail ---

using Mails = Passwords;

constexpr uint32_t kAlice = 1026;
constexpr uint32_t kBob = 1027;

int MailWait(uint32_t account)
{
    return CountMail(account).waitSeconds;
}

int MailRows()
{
    Statement ask = SigninDatabase().Prepare("SELECT count(*) FROM code_mail");
    return ask.Step() ? static_cast<int>(ask.Int(0)) : -1;
}

TEST_F(Mails, ThreeAnHourAndTenADayForAnAccount)
{
    AsWorker([] {
        int64_t now = 100'000;
        for (const int sent : {3, 3, 3, 1}) {
            for (int i = 0; i < sent; ++i) {
                ASSERT_EQ(0, MailWait(kAlice));
            }
            EXPECT_EQ(0, MailWait(kBob)) << "each account's own";
            now += 3590;
            SetClocks(kNow, now, "first");
            if (sent == 3) {
                EXPECT_NEAR(10, MailWait(kAlice), 3);
            }
            now += 20;
            SetClocks(kNow, now, "first");
        }
        EXPECT_NEAR(86'400 - 4 * 3610, MailWait(kAlice), 3);
        EXPECT_EQ(10 + 4, MailRows()) << "what is refused is not kept";
        SetClocks(kNow, 100'000 + 86'410, "first");
        EXPECT_EQ(0, MailWait(kAlice)) << "the first three are a day old";
        EXPECT_EQ(8 + 4, MailRows()) << "and gone";
    });
}

TEST_F(Mails, OneThatDidNotGoOutIsGivenBack)
{
    AsWorker([] {
        for (int i = 0; i < 50; ++i) {
            const MailTry counted = CountMail(kAlice);
            ASSERT_EQ(0, counted.waitSeconds);
            GiveBack(counted);
        }
        EXPECT_EQ(0, MailWait(kAlice));
        EXPECT_EQ(0, MailWait(kAlice));
        GiveBack(CountMail(kAlice));
        GiveBack(MailTry());
        EXPECT_EQ(2, MailRows()) << "nobody else's";
        EXPECT_EQ(0, MailWait(kAlice));
        GiveBack(CountMail(kAlice));
        EXPECT_GT(MailWait(kAlice), 0) << "a refused one gives nothing back";
    });
}

TEST_F(Mails, ManyAtOnceGetNoFurtherThanOneByOne)
{
    const Shared tally;
    AsWorkers(4, [&tally](int) {
        for (int i = 0; i < 25; ++i) {
            tally->Add(MailWait(kAlice) == 0 ? CodeResult::Wrong : CodeResult::Throttled);
        }
    });
    EXPECT_EQ(3, tally->wrong);
    EXPECT_EQ(97, tally->refused);
}

TEST_F(Mails, NoClockAndNoStartOfTheMachineOpensThemSooner)
{
    AsWorker([] {
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(0, MailWait(kAlice));
        }
        SetClocks(kNow + 86'400, 100'000, "first");
        EXPECT_GT(MailWait(kAlice), 3590);
        SetClocks(kNow, 50'000, "first");
        EXPECT_EQ(3600, MailWait(kAlice));
        SetClocks(kNow, 20, "second");
        EXPECT_NEAR(3580, MailWait(kAlice), 2);
        SetClocks(kNow, 3601, "second");
        EXPECT_EQ(0, MailWait(kAlice));
        EXPECT_EQ(4, MailRows()) << "those of another start count for the day";
        SetClocks(kNow, 86'401, "second");
        EXPECT_EQ(0, MailWait(kAlice));
        EXPECT_EQ(2, MailRows());
    });
}

} // namespace
} // namespace tavr::test
