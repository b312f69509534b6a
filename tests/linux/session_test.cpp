#include "linux/session.h"

#include "linux/audit.h"
#include "linux/clock.h"
#include "linux/paths.h"
#include "tests/linux/fake_account.h"
#include "tests/support/rounds.h"
#include "tests/support/test_clock.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <functional>

using namespace tavr;

namespace
{

constexpr int64_t kMinute = 60;
constexpr int64_t kHour = 60 * kMinute;

class Sessions : public testing::Test
{
protected:
    void SetUp() override
    {
        ResetFake();
        SetClock(0, 0);
        SigninDatabase().Prepare("DELETE FROM session").Run();
        SigninDatabase().Prepare("DELETE FROM secret").Run();
        StartRequest();
        mia = Fake().Add("mia", 1026, "right");
        leo = Fake().Add("leo", 1027, "right");
    }

    // A session of an account that needs no second step.
    std::string SignIn(const Account& account)
    {
        StartRequest();
        CurrentRequest().facts = Request::Facts{account.uid, false, false};
        EXPECT_EQ(Grant::Opened, OpenSession(account));
        return CurrentRequest().newSid;
    }

    static int64_t Rows()
    {
        Statement count = SigninDatabase().Prepare("SELECT count(*) FROM session");
        return count.Step() ? count.Int(0) : -1;
    }

    static int64_t Seen()
    {
        Statement seen = SigninDatabase().Prepare("SELECT seen FROM session");
        return seen.Step() ? seen.Int(0) : -1;
    }

    Account mia;
    Account leo;
};

TEST_F(Sessions, IsFoundByItsIdentifierWithItsAccountAndToken)
{
    const std::string sid = SignIn(mia);
    const std::optional<Session> session = FindSession(sid);
    ASSERT_TRUE(session);
    EXPECT_EQ(SessionState::Live, session->state);
    EXPECT_EQ("mia", session->account.name);
    EXPECT_EQ(1026U, session->account.uid);
    EXPECT_EQ(TokenOf(sid), session->token);
    EXPECT_EQ(15 * kMinute, session->expiresIn);
    EXPECT_FALSE(session->secondStep);
    EXPECT_EQ(0, session->confirmedBoot);
}

TEST_F(Sessions, IdentifiersAre128BitsInHexAndNeverTheSame)
{
    const std::string first = SignIn(mia);
    const std::string second = SignIn(mia);
    EXPECT_EQ(32U, first.size());
    EXPECT_EQ(std::string::npos, first.find_first_not_of("0123456789abcdef"));
    EXPECT_NE(first, second);
    EXPECT_NE(TokenOf(first), TokenOf(second));
}

TEST_F(Sessions, NeitherIdentifierNorTokenIsStored)
{
    const std::string sid = SignIn(mia);
    const std::string token = TokenOf(sid);
    Statement row = SigninDatabase().Prepare("SELECT id FROM session");
    ASSERT_TRUE(row.Step());
    const std::string stored = row.Text(0);
    std::string hex;
    for (const char c : stored) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned>(static_cast<unsigned char>(c)));
        hex += digits;
    }
    EXPECT_EQ(32U, stored.size());
    EXPECT_EQ(std::string::npos, hex.find(sid));
    EXPECT_NE(token, hex);
    EXPECT_EQ(std::string::npos, token.find(sid));
}

TEST_F(Sessions, WhatIsNoIdentifierFindsNothing)
{
    const std::string sid = SignIn(mia);
    for (const std::string& wrong : {std::string(), sid.substr(1), sid + "0", std::string(32, '0'),
                                     std::string(8192, 'a'), TokenOf(sid), sid.substr(0, 31) + "\0"}) {
        EXPECT_FALSE(FindSession(wrong)) << wrong;
    }
    EXPECT_TRUE(FindSession(sid));
}

// --- The rule
// ------------------------------------------------------------------------------------------------

struct RuleCase {
    const char* reason;
    std::function<void(Request&)> request;
    Enrolment settlesAs;
    Grant expected;
};

class Rule : public Sessions, public testing::WithParamInterface<RuleCase>
{
};

TEST_P(Rule, DecidesWhetherASessionIsOpened)
{
    const RuleCase& row = GetParam();
    Fake().settlesAs[1026] = row.settlesAs;
    row.request(CurrentRequest());

    EXPECT_EQ(row.expected, OpenSession(mia)) << row.reason;
    EXPECT_EQ(row.expected == Grant::Opened ? 1 : 0, Rows()) << row.reason;
    EXPECT_EQ(row.expected == Grant::Opened, !CurrentRequest().newSid.empty()) << row.reason;
}

const RuleCase kRule[] = {
    {"nothing is known of the account", [](Request&) {}, Enrolment::No, Grant::SecondStepMissing},
    {"facts of another account",
     [](Request& r) {
         r.facts = Request::Facts{1027, false, false};
     },
     Enrolment::No, Grant::SecondStepMissing},
    {"a right password proves nothing more", [](Request& r) { r.passwordOf = 1026; }, Enrolment::No,
     Grant::SecondStepMissing},
    {"neither enrolled nor demanded",
     [](Request& r) {
         r.facts = Request::Facts{1026, false, false};
     },
     Enrolment::No, Grant::Opened},
    {"enrolled",
     [](Request& r) {
         r.facts = Request::Facts{1026, true, false};
     },
     Enrolment::Yes, Grant::SecondStepMissing},
    {"demanded",
     [](Request& r) {
         r.facts = Request::Facts{1026, false, true};
     },
     Enrolment::No, Grant::SecondStepMissing},
    {"enrolled, another account's code",
     [](Request& r) {
         r.facts = Request::Facts{1026, true, false};
         r.codeOf = 1027;
     },
     Enrolment::Yes, Grant::SecondStepMissing},
    {"code accepted, settles as enrolled", [](Request& r) { r.codeOf = 1026; }, Enrolment::Yes,
     Grant::Opened},
    {"demanded, code accepted, settles as enrolled",
     [](Request& r) {
         r.facts = Request::Facts{1026, false, true};
         r.codeOf = 1026;
     },
     Enrolment::Yes, Grant::Opened},
    {"code accepted, does not settle as enrolled",
     [](Request& r) {
         r.facts = Request::Facts{1026, false, false};
         r.codeOf = 1026;
     },
     Enrolment::No, Grant::Fault},
    {"code accepted, cannot be settled", [](Request& r) { r.codeOf = 1026; }, Enrolment::Fault, Grant::Fault},
    {"something could not be looked up",
     [](Request& r) {
         r.facts = Request::Facts{1026, false, false};
         r.fault = Fault::VaultDamaged;
     },
     Enrolment::No, Grant::Fault},
};

INSTANTIATE_TEST_SUITE_P(OpenSession, Rule, testing::ValuesIn(kRule));

TEST_F(Sessions, RemembersAnAcceptedCodeAndAConfirmedEnrolment)
{
    Fake().settlesAs[1026] = Enrolment::Yes;
    CurrentRequest().codeOf = 1026;
    ASSERT_EQ(Grant::Opened, OpenSession(mia));
    const std::optional<Session> bySecondStep = FindSession(CurrentRequest().newSid);
    ASSERT_TRUE(bySecondStep);
    EXPECT_TRUE(bySecondStep->secondStep);
    EXPECT_EQ(0, bySecondStep->confirmedBoot);

    Fake().libraryAnswer = CodeAnswer{CodeResult::Wrong, 0, Fault::None};
    ASSERT_EQ(Grant::Opened, OpenSession(mia));
    EXPECT_EQ(0, FindSession(CurrentRequest().newSid)->confirmedBoot) << "it was another code";

    Fake().libraryAnswer = CodeAnswer{CodeResult::Accepted, 0, Fault::None};
    ASSERT_EQ(Grant::Opened, OpenSession(mia));
    const std::optional<Session> byWizard = FindSession(CurrentRequest().newSid);
    ASSERT_TRUE(byWizard);
    EXPECT_NEAR(static_cast<double>(BootSeconds()), static_cast<double>(byWizard->confirmedBoot), 2);
}

TEST_F(Sessions, AreNotOpenedOnThePasswordAloneWhenTheAccountWasEnrolledSinceItWasLookedAt)
{
    const auto enter = [](const char* state) {
        SigninDatabase().Prepare("DELETE FROM secret").Run();
        SigninDatabase()
            .Prepare("INSERT INTO secret (reference, account, sealed, state, made_boot, made)"
                     " VALUES ('reference', 1026, x'00', ?1, '', 0)")
            .Bind(1, state)
            .Run();
    };
    for (const char* state : {"confirmed", "active"}) {
        enter(state);
        StartRequest();
        CurrentRequest().facts = Request::Facts{1026, false, false};
        EXPECT_EQ(Grant::SecondStepMissing, OpenSession(mia)) << state;
        EXPECT_TRUE(CurrentRequest().newSid.empty()) << state;
        EXPECT_EQ(0, Rows()) << state;
        EXPECT_EQ(32U, OpenPending(mia, SessionState::CodeRequired).size()) << state;
        SignIn(leo);
        SigninDatabase().Prepare("DELETE FROM session").Run();
    }
    enter("waiting");
    SignIn(mia);
}

TEST_F(Sessions, OpensNothingThatCannotBeStored)
{
    sqlite3_exec(SigninDatabase().Handle(), "PRAGMA query_only=ON", nullptr, nullptr, nullptr);
    CurrentRequest().facts = Request::Facts{1026, false, false};
    EXPECT_EQ(Grant::Fault, OpenSession(mia));
    EXPECT_EQ(Fault::StateUnavailable, CurrentRequest().fault);
    EXPECT_TRUE(CurrentRequest().newSid.empty());
    EXPECT_THROW(OpenPending(mia, SessionState::CodeRequired), DatabaseError);
    sqlite3_exec(SigninDatabase().Handle(), "PRAGMA query_only=OFF", nullptr, nullptr, nullptr);
    EXPECT_EQ(0, Rows());
}

// --- Lifetimes
// -----------------------------------------------------------------------------------------------

TEST_F(Sessions, EndsWhenIdleAndIsKeptByUse)
{
    const std::string sid = SignIn(mia);
    for (int quarter = 1; quarter <= 8; ++quarter) {
        SetClock(0, quarter * 13 * kMinute);
        EXPECT_TRUE(FindSession(sid)) << quarter;
    }
    SetClock(0, 8 * 13 * kMinute + 15 * kMinute);
    EXPECT_FALSE(FindSession(sid));
}

TEST_F(Sessions, EndsAfterItsLifetimeWhateverItsUse)
{
    const std::string sid = SignIn(mia);
    for (int64_t minute = 10; minute < 12 * 60; minute += 10) {
        SetClock(0, minute * kMinute);
        ASSERT_TRUE(FindSession(sid)) << minute;
    }
    EXPECT_LE(FindSession(sid)->expiresIn, 10 * kMinute);
    SetClock(0, 12 * kHour);
    EXPECT_FALSE(FindSession(sid));
}

TEST_F(Sessions, LifetimesAreSettings)
{
    Fake().settings = {{"session_idle", 120}, {"session_lifetime", 300}};
    const std::string sid = SignIn(mia);
    SetClock(0, 110);
    EXPECT_TRUE(FindSession(sid));
    SetClock(0, 220);
    EXPECT_TRUE(FindSession(sid));
    SetClock(0, 301);
    EXPECT_FALSE(FindSession(sid));
}

TEST_F(Sessions, AChangedClockStretchesNothing)
{
    const std::string sid = SignIn(mia);
    for (const int64_t wall : {-24 * kHour, 24 * kHour, -1'700'000'000L, 4'000'000'000L}) {
        SetClock(wall, 0);
        EXPECT_TRUE(FindSession(sid)) << wall;
        SetClock(wall, 15 * kMinute);
        EXPECT_FALSE(FindSession(sid)) << wall;
    }
}

TEST_F(Sessions, OfAnotherStartOfTheMachineAreDead)
{
    const std::string sid = SignIn(mia);
    SigninDatabase().Prepare("UPDATE session SET boot = 'another'").Run();
    EXPECT_FALSE(FindSession(sid));
}

TEST_F(Sessions, FromTheFutureAreDead)
{
    SetClock(0, kHour);
    const std::string sid = SignIn(mia);
    SetClock(0, 0);
    EXPECT_FALSE(FindSession(sid));
    SetClock(0, kHour + 60);
    EXPECT_TRUE(FindSession(sid));
    SigninDatabase().Prepare("UPDATE session SET seen = seen + 3600").Run();
    EXPECT_FALSE(FindSession(sid)) << "seen in the future";
}

TEST_F(Sessions, UseIsWrittenOnceInAWhile)
{
    const std::string sid = SignIn(mia);
    const int64_t opened = Seen();
    SetClock(0, 50);
    EXPECT_TRUE(FindSession(sid));
    EXPECT_EQ(opened, Seen());
    SetClock(0, 70);
    EXPECT_TRUE(FindSession(sid));
    EXPECT_GE(Seen(), opened + 70);
}

TEST_F(Sessions, HalfSignInsEndAfterTheirTimeAndUseDoesNotKeepThem)
{
    const std::string code = OpenPending(mia, SessionState::CodeRequired);
    const std::string enrolment = OpenPending(mia, SessionState::EnrolmentRequired);
    SetClock(0, 4 * kMinute);
    ASSERT_TRUE(FindSession(code));
    EXPECT_EQ(SessionState::CodeRequired, FindSession(code)->state);
    ASSERT_TRUE(FindSession(enrolment));
    EXPECT_EQ(SessionState::EnrolmentRequired, FindSession(enrolment)->state);
    SetClock(0, 5 * kMinute);
    EXPECT_FALSE(FindSession(code));
    SetClock(0, 29 * kMinute);
    EXPECT_TRUE(FindSession(enrolment));
    SetClock(0, 30 * kMinute);
    EXPECT_FALSE(FindSession(enrolment));
}

TEST_F(Sessions, OldRowsGoWhenSessionsAreOpened)
{
    for (int i = 0; i < 20; ++i) {
        SignIn(mia);
        OpenPending(leo, SessionState::EnrolmentRequired);
    }
    SigninDatabase().Prepare("UPDATE session SET boot = 'another' WHERE account = 1026").Run();
    SetClock(0, kHour);
    SignIn(mia);
    EXPECT_EQ(1, Rows());
}

TEST_F(Sessions, PastOnesTakeNoRoomHoweverManyThereWere)
{
    constexpr int kInAnHour = 1000;
    const int hours = test::Rounds(30, 1000);
    sqlite3_exec(SigninDatabase().Handle(), "PRAGMA synchronous=OFF", nullptr, nullptr, nullptr);
    int64_t most = 0;
    for (int i = 0; i < hours; ++i) {
        SetClock(i * kHour, i * kHour);
        ClearAudit(); // as a worker does, more often
        for (int j = 0; j < kInAnHour; ++j) {
            SignIn(mia);
        }
        most = std::max(most, Rows());
    }
    sqlite3_exec(SigninDatabase().Handle(), "PRAGMA synchronous=FULL", nullptr, nullptr, nullptr);
    EXPECT_LE(most, kInAnHour);
    const auto kib = [](const char* sql) {
        Statement size = SigninDatabase().Prepare(sql);
        return size.Step() ? size.Int(0) / 1024 : -1;
    };
    const int64_t sessions = kib("SELECT sum(pgsize) FROM dbstat WHERE name LIKE 'session%'");
    const int64_t audit = kib("SELECT sum(pgsize) FROM dbstat WHERE name LIKE 'audit%'");
    const std::string log = std::string(kSigninDatabase) + "-wal";
    const uintmax_t all = std::filesystem::file_size(kSigninDatabase) + std::filesystem::file_size(log);
    std::printf("%d sessions, at most %ld rows; KiB: %ld of sessions, %ld of audit, %ld in all\n",
                kInAnHour * hours, static_cast<long>(most), static_cast<long>(sessions),
                static_cast<long>(audit), static_cast<long>(all / 1024));
    EXPECT_LT(sessions, 512);
    EXPECT_LT(all, 64U << 20);
}

TEST_F(Sessions, AHeapOfOldRowsGoesInSmallPieces)
{
    SigninDatabase()
        .Prepare("INSERT INTO session WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i "
                 "< 20000)"
                 " SELECT CAST(i AS BLOB), 1026, 'live', iif(i % 2, 'another', ?1), 0, 0, 0, 0, 0 FROM n")
        .Bind(1, BootId())
        .Run();
    SetClock(0, kHour);
    SignIn(leo);
    EXPECT_GT(Rows(), 19'000) << "one sign-in does not wait for all of them";
    for (int i = 0; i < 110; ++i) {
        SignIn(leo);
    }
    EXPECT_EQ(111, Rows());
}

TEST_F(Sessions, OldRowsGoByTheServiceItselfSomeAtATime)
{
    SigninDatabase()
        .Prepare("INSERT INTO session WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i "
                 "< 10200) SELECT CAST(i AS BLOB), 1026, 'live', ?1, 0, 0, 0, 0, 0 FROM n")
        .Bind(1, BootId())
        .Run();
    SetClock(0, kHour);
    const std::string live = SignIn(leo);
    ClearSessions();
    EXPECT_GT(Rows(), 1) << "not all at once";
    ClearSessions();
    EXPECT_EQ(1, Rows());
    EXPECT_TRUE(FindSession(live));
}

TEST_F(Sessions, ALiveRowIsNeverClearedAway)
{
    const std::string pending = OpenPending(leo, SessionState::EnrolmentRequired);
    SetClock(0, 29 * kMinute);
    SignIn(mia);
    EXPECT_TRUE(FindSession(pending));
}

// --- Ends
// ----------------------------------------------------------------------------------------------------

TEST_F(Sessions, EndOneAndTheOthersStay)
{
    const std::string first = SignIn(mia);
    const std::string second = SignIn(mia);
    EndSession(*FindSession(first));
    EXPECT_FALSE(FindSession(first));
    EXPECT_TRUE(FindSession(second));
}

TEST_F(Sessions, EndAllOfAnAccount)
{
    const std::string live = SignIn(mia);
    const std::string half = OpenPending(mia, SessionState::CodeRequired);
    const std::string others = SignIn(leo);
    EndSessionsOf(mia.uid);
    EXPECT_FALSE(FindSession(live));
    EXPECT_FALSE(FindSession(half));
    EXPECT_TRUE(FindSession(others));
}

TEST_F(Sessions, DieWithTheGenerationOfTheirAccount)
{
    const std::string live = SignIn(mia);
    const std::string half = OpenPending(mia, SessionState::CodeRequired);
    const std::string others = SignIn(leo);
    Fake().accounts["mia"].generation = 1;
    EXPECT_FALSE(FindSession(live));
    EXPECT_FALSE(FindSession(half));
    EXPECT_TRUE(FindSession(others));
    EXPECT_TRUE(ListSessions(mia.uid).empty());
    mia.generation = 1;
    EXPECT_TRUE(FindSession(SignIn(mia)));
}

// By whatever comes first after the change: a session of a local account, or an account that one is opened
// for.
TEST_F(Sessions, OfLocalAccountsEndWhenTheseAreOthers)
{
    const Account sam = Fake().Add("sam", 1'000'000'000, "right"); // the system's
    Account& dan = Fake().Add("dan@office.example", 2'000'000'000, "right");
    dan.kind = kKindLdap;
    const std::string ofDan = SignIn(dan);
    const std::string ofMia = SignIn(mia);
    const std::string ofLeo = SignIn(leo);
    Fake().areSystem = true;
    EXPECT_TRUE(FindSession(ofDan));
    EXPECT_EQ(3, Rows());
    EXPECT_FALSE(FindSession(ofMia));
    EXPECT_EQ(1, Rows());
    Fake().areSystem = false;
    EXPECT_FALSE(FindSession(ofMia));
    EXPECT_FALSE(FindSession(ofLeo));
    Fake().areSystem = true;
    const std::string ofSam = SignIn(sam);
    Fake().areSystem = false;
    const std::string again = SignIn(mia);
    EXPECT_EQ(2, Rows());
    Fake().areSystem = true;
    EXPECT_FALSE(FindSession(ofSam));
    EXPECT_TRUE(FindSession(ofDan));
    Fake().areSystem = false;
    EXPECT_TRUE(FindSession(again)) << "nobody has looked meanwhile";
}

TEST_F(Sessions, AreNotOpenedOnWhatHoldsNoMore)
{
    const auto expectNothingOpened = [&](const char* reason) {
        StartRequest();
        CurrentRequest().facts = Request::Facts{mia.uid, false, false};
        EXPECT_EQ(Grant::Ended, OpenSession(mia)) << reason;
        EXPECT_EQ(Fault::None, CurrentRequest().fault) << reason;
        EXPECT_EQ("", OpenPending(mia, SessionState::CodeRequired)) << reason;
        EXPECT_EQ(0, Rows()) << reason;
    };
    Fake().accounts["mia"].generation = 1;
    expectNothingOpened("the account was read in an earlier generation");
    Fake().accounts["mia"].generation = 0;
    Fake().accounts["mia"].disabled = true;
    expectNothingOpened("it is disabled");
    Fake().accounts.erase("mia");
    expectNothingOpened("it is gone");
}

TEST_F(Sessions, TakeThePlaceOfTheHalfSignInOnce)
{
    Fake().settlesAs[1026] = Enrolment::Yes;
    const std::string identifier = OpenPending(mia, SessionState::CodeRequired);
    const std::optional<Session> half = FindSession(identifier);
    ASSERT_TRUE(half);
    Fake().codeAnswer = {CodeResult::Wrong};
    EXPECT_EQ(CodeResult::Wrong, FinishSignIn(*half, "123456").code.result);
    EXPECT_TRUE(FindSession(identifier));
    EXPECT_EQ(1, Rows());
    Fake().codeAnswer = {CodeResult::Accepted};
    EXPECT_EQ(Grant::Opened, FinishSignIn(*half, "123456").grant);
    EXPECT_FALSE(FindSession(identifier));
    const std::optional<Session> session = FindSession(CurrentRequest().newSid);
    ASSERT_TRUE(session);
    EXPECT_TRUE(session->secondStep);
    EXPECT_EQ(1, Rows());
    EXPECT_EQ(Grant::Ended, FinishSignIn(*half, "123456").grant) << "it has led to a session already";
    EXPECT_EQ("", CurrentRequest().newSid);
    EXPECT_EQ(1, Rows());
}

TEST_F(Sessions, AreNotOpenedOnACodeWhenSomethingCouldNotBeLookedUp)
{
    const std::optional<Session> half = FindSession(OpenPending(mia, SessionState::CodeRequired));
    ASSERT_TRUE(half);
    Fake().codeAnswer = {CodeResult::Accepted};
    NoteFault(Fault::AccountsUnavailable);
    EXPECT_EQ(Grant::Fault, FinishSignIn(*half, "123456").grant);
    EXPECT_EQ("", CurrentRequest().newSid);
    EXPECT_EQ(1, Rows()) << "the half sign-in stays";
}

TEST_F(Sessions, AreListedAndEndedByHandlesThatOpenNothing)
{
    const std::string first = SignIn(mia);
    OpenPending(mia, SessionState::CodeRequired);
    const std::string others = SignIn(leo);
    EXPECT_EQ(3U, ListSessions({}).size());
    const std::vector<ListedSession> own = ListSessions(leo.uid);
    ASSERT_EQ(1U, own.size());
    EXPECT_EQ("leo", own[0].account.name);
    EXPECT_EQ(SessionState::Live, own[0].state);
    EXPECT_EQ(16U, own[0].handle.size());
    EXPECT_FALSE(FindSession(own[0].handle));

    for (const std::string& wrong : {std::string(), std::string("x"), own[0].handle.substr(2),
                                     own[0].handle + "00", std::string(16, 'z'), std::string(16, '0')}) {
        EXPECT_FALSE(EndSessionByHandle(wrong)) << wrong;
    }
    const std::optional<Account> whose = EndSessionByHandle(own[0].handle);
    ASSERT_TRUE(whose);
    EXPECT_EQ("leo", whose->name);
    EXPECT_FALSE(FindSession(others));
    EXPECT_TRUE(FindSession(first));

    Fake().accounts["mia"].disabled = true;
    EXPECT_TRUE(ListSessions({}).empty());
    Fake().accounts["mia"].disabled = false;
    SetClock(0, 20 * kMinute);
    EXPECT_TRUE(ListSessions({}).empty()) << "ended";
}

TEST_F(Sessions, DieWithTheirAccount)
{
    const std::string sid = SignIn(mia);
    Fake().accounts.erase("mia");
    EXPECT_FALSE(FindSession(sid));
    Fake().Add("mia", 1099, "right"); // made anew, under a number of its own
    EXPECT_FALSE(FindSession(sid));
}

TEST_F(Sessions, AnAccountStoreThatFailsIsNoAnswer)
{
    const std::string sid = SignIn(mia);
    Fake().storeFails = true;
    EXPECT_THROW(FindSession(sid), DatabaseError);
}

} // namespace
