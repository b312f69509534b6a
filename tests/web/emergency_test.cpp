// An emergency code by mail: what the route answers, how often, and who waits. The web API is away, so mails
// go into the queue.

#include "linux/attempts.h"
#include "linux/audit.h"
#include "linux/ids.h"
#include "linux/mail_queue.h"
#include "linux/names.h"
#include "linux/paths.h"
#include "linux/places.h"
#include "linux/request.h"
#include "linux/session.h"
#include "linux/verifier.h"
#include "platform/json.h"
#include "tests/support/fresh_server.h"
#include "tests/web/asking.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <regex>

namespace tavr::web
{

namespace
{

constexpr char kAddress[] = "alice@home.example";

class Emergency : public test::FreshServer
{
protected:
    void SetUp() override
    {
        FreshServer::SetUp();
        ASSERT_TRUE(MakePlaces(8));
        SetUpMail("mail_server=\"127.0.0.1\"\nmail_from=\"server@nas.example\"\n");
    }

    static void SetUpMail(const char* settings)
    {
        unlink(kSettingsFile);
        std::ofstream(kSettingsFile) << settings;
    }
};

// Somebody enrolled who has typed the password.
Somebody HalfSignedIn(const std::string& mail = kAddress, const std::string& name = "alice")
{
    test::AdvanceBootClock(0);
    Somebody somebody;
    somebody.account = *AddAccount({name, "", mail, false}, "a password");
    EXPECT_TRUE(MakePreferenceDirectory(somebody.account));
    somebody.key = Enrol(somebody.account);
    somebody.pending = OpenPending(somebody.account, SessionState::CodeRequired);
    somebody.token = TokenOf(somebody.pending);
    return somebody;
}

Answer AskForCode(const Somebody& somebody)
{
    return Ask(RequestOf("POST", "/api/signin/emergency", somebody), "{}");
}

// The codes of the mails that came into the queue since it was last asked.
std::vector<std::string> MailedCodes()
{
    std::vector<std::string> codes;
    for (const QueuedMail& mail : DueMails(100)) {
        EXPECT_EQ(kAddress, mail.to);
        std::smatch found;
        EXPECT_TRUE(std::regex_search(mail.html, found, std::regex("<b>([0-9]{8})</b>"))) << mail.html;
        codes.push_back(found[1]);
    }
    return codes;
}

CodeResult Type(const Somebody& somebody, const std::string& code)
{
    StartRequest();
    return VerifyCode(somebody.account, code).result;
}

// The audit's rows about mails, as "outcome detail".
std::vector<std::string> Audited()
{
    std::vector<std::string> rows;
    ForEachAuditRow({}, [&](const AuditRow& row) {
        if (row.event == "code-mail") {
            rows.push_back(row.outcome + " " + row.detail);
        }
    });
    return rows;
}

// --- What is mailed ---

TEST_F(Emergency, MailsACodeUntilItIsSpentAndThenTheNext)
{
    AsWorker([] {
        const Somebody alice = HalfSignedIn();
        for (int i = 0; i < 2; ++i) {
            const Answer answer = AskForCode(alice);
            EXPECT_EQ("200", Said(answer));
            EXPECT_EQ("{\"success\":true,\"warning\":null}", JsonToString(answer.body));
        }
        const std::vector<std::string> first = MailedCodes();
        ASSERT_EQ(2u, first.size());
        EXPECT_EQ(first[0], first[1]) << "not spent";
        EXPECT_EQ(CodeResult::Accepted, Type(alice, first[0]));
        EXPECT_EQ(CodeResult::Wrong, Type(alice, first[0])) << "spent";
        EXPECT_EQ("200", Said(AskForCode(alice)));
        const std::vector<std::string> second = MailedCodes();
        ASSERT_EQ(1u, second.size());
        EXPECT_NE(first[0], second[0]);
        EXPECT_EQ(CodeResult::Accepted, Type(alice, second[0]));
        EXPECT_EQ((std::vector<std::string>{"sent -", "sent -", "sent -"}), Audited());
    });
}

TEST_F(Emergency, WarnsOfTheLastCodeAndThenHasNone)
{
    AsWorker([] {
        const Somebody alice = HalfSignedIn();
        std::vector<std::string> codes;
        for (int i = 0; i < 10; ++i) {
            test::AdvanceBootClock(24 * 3600 * (i + 1));
            Somebody again = alice;
            again.pending = OpenPending(alice.account, SessionState::CodeRequired);
            again.token = TokenOf(again.pending);
            const Answer answer = AskForCode(again);
            ASSERT_EQ("200", Said(answer));
            EXPECT_EQ(i == 9, answer.body["warning"] == true) << i;
            EXPECT_EQ(CodeResult::Accepted, Type(alice, MailedCodes().at(0)));
        }
        Somebody again = alice;
        again.pending = OpenPending(alice.account, SessionState::CodeRequired);
        again.token = TokenOf(again.pending);
        const Answer answer = AskForCode(again);
        EXPECT_EQ("200 otp_no_emergency_code", Said(answer));
        EXPECT_EQ(false, answer.body["success"].asBool());
        const std::vector<std::string> rows = Audited();
        ASSERT_EQ(11u, rows.size());
        EXPECT_EQ("sent -", rows[8]);
        EXPECT_EQ("sent last", rows[9]);
        EXPECT_EQ("refused no-code", rows[10]);
    });
}

TEST_F(Emergency, TellsInTheAuditNeitherCodeNorAddress)
{
    AsWorker([] {
        const Somebody alice = HalfSignedIn();
        AskForCode(alice);
        const std::string code = MailedCodes().at(0);
        int rows = 0;
        ForEachAuditRow({}, [&](const AuditRow& row) {
            ++rows;
            for (const std::string& text : {row.event, row.outcome, row.address, row.detail, row.account}) {
                EXPECT_EQ(std::string::npos, text.find(code));
                EXPECT_EQ(std::string::npos, text.find("home.example"));
            }
        });
        EXPECT_GT(rows, 0);
    });
}

TEST_F(Emergency, MailsNoCodeThatAClosedSecondStepWouldRefuse)
{
    AsWorker([] {
        const Somebody alice = HalfSignedIn();
        EXPECT_EQ(CodeResult::Wrong, Type(alice, "00000000"));
        SigninDatabase().Prepare("UPDATE account_mark SET failures = 50").Run();
        for (int i = 0; i < 5; ++i) {
            EXPECT_EQ("403 otp_closed", Said(AskForCode(alice)));
        }
        EXPECT_TRUE(MailedCodes().empty());
        EXPECT_TRUE(Audited().empty()) << "no row";
        ASSERT_TRUE(OpenSecondStep(alice.account));
        EXPECT_EQ("200", Said(AskForCode(alice))) << "none was counted";
    });
}

// --- How often ---

TEST_F(Emergency, MailsThreeAnHour)
{
    AsWorker([] {
        const Somebody alice = HalfSignedIn();
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ("200", Said(AskForCode(alice)));
        }
        for (int i = 0; i < 20; ++i) {
            const Answer answer = AskForCode(alice);
            EXPECT_EQ("429 too_many_attempts", Said(answer));
            EXPECT_NEAR(3600, std::stoi(HeaderOf(answer, "Retry-After")), 5);
        }
        EXPECT_EQ(3u, MailedCodes().size());
        EXPECT_EQ(3u, Audited().size()) << "what was put off leaves no row";
        EXPECT_EQ("200", Said(AskForCode(HalfSignedIn(kAddress, "bob")))) << "another account";
    });
}

TEST_F(Emergency, MailsThreeToManyWhoAskAtOnce)
{
    AsWorker([] { HalfSignedIn(); });
    AsWorkers(4, [](int) {
        Somebody alice;
        alice.account = *FindAccount("alice");
        alice.pending = OpenPending(alice.account, SessionState::CodeRequired);
        alice.token = TokenOf(alice.pending);
        for (int i = 0; i < 5; ++i) {
            const std::string said = Said(AskForCode(alice));
            EXPECT_TRUE(said == "200" || said == "429 too_many_attempts") << said;
        }
    });
    AsWorker([] { EXPECT_EQ(3u, MailedCodes().size()); });
}

TEST_F(Emergency, CountsNothingThatMailedNothing)
{
    AsWorker([] {
        const Somebody nowhere = HalfSignedIn("", "nowhere");
        for (int i = 0; i < 5; ++i) {
            const Answer answer = AskForCode(nowhere);
            EXPECT_EQ("200 no_mail_address", Said(answer));
            EXPECT_EQ("{\"err\":\"no_mail_address\",\"success\":false}", JsonToString(answer.body));
        }
        EXPECT_EQ(std::vector<std::string>(5, "refused no-address"), Audited());
    });
    SetUpMail("");
    AsWorker([] {
        const Somebody alice = HalfSignedIn();
        for (int i = 0; i < 5; ++i) {
            EXPECT_EQ("200 mail_service_not_enable", Said(AskForCode(alice)));
        }
        EXPECT_EQ("refused no-mail-service", Audited().back());
        EXPECT_TRUE(MailedCodes().empty());
    });
}

// --- Faults ---

TEST_F(Emergency, AnswersAFaultInPlaceOfTheLibrary)
{
    AsWorker([] {
        const Somebody alice = HalfSignedIn();
        {
            const EffectiveIds root = EffectiveIds::Root();
            std::filesystem::rename(kMachineKeyFile, "/etc/tavr/kept.key");
        }
        for (int i = 0; i < 5; ++i) {
            EXPECT_EQ("503 otp_unavailable", Said(AskForCode(alice)));
        }
        {
            const EffectiveIds root = EffectiveIds::Root();
            std::filesystem::rename("/etc/tavr/kept.key", kMachineKeyFile);
        }
        EXPECT_EQ("200", Said(AskForCode(alice)));
        EXPECT_EQ(std::vector<std::string>{"sent -"}, Audited());
    });
}

TEST_F(Emergency, DoesNotSayThatAMailIsUnderWayThatCouldNotBeQueued)
{
    AsWorker([] {
        const Somebody alice = HalfSignedIn("two@home.example,addresses@home.example");
        for (int i = 0; i < 5; ++i) {
            EXPECT_EQ("503 otp_unavailable", Said(AskForCode(alice)));
            EXPECT_EQ(Fault::MailNotQueued, CurrentRequest().fault);
        }
        EXPECT_TRUE(Audited().empty());
        EXPECT_TRUE(MailedCodes().empty());
    });
}

TEST_F(Emergency, AnothersSecretFileIsAFault)
{
    AsWorker([] {
        const Somebody alice = HalfSignedIn();
        const Somebody bob = HalfSignedIn(kAddress, "bob");
        test::WriteFile(SecretPath("alice"), test::ReadFile(SecretPath("bob")));
        EXPECT_EQ("503 otp_unavailable", Said(AskForCode(alice)));
        EXPECT_EQ("200", Said(AskForCode(bob)));
        EXPECT_EQ(1u, MailedCodes().size());
    });
}

// --- Who waits ---

// A process that takes a place and keeps it until it is killed; whether it has got one.
struct Waiter {
    pid_t pid = -1;
    bool taken = false;
};

Waiter StartWaiter()
{
    std::array<int, 2> pipe{};
    EXPECT_EQ(0, ::pipe(pipe.data()));
    Waiter waiter;
    waiter.pid = fork();
    if (waiter.pid == 0) {
        const Place place(WaitingFor::MailServer);
        const char taken = place.Taken() ? 1 : 0;
        if (write(pipe[1], &taken, 1) == 1) {
            pause();
        }
        _exit(0);
    }
    char taken = 0;
    EXPECT_EQ(1, read(pipe[0], &taken, 1));
    waiter.taken = taken != 0;
    close(pipe[0]);
    close(pipe[1]);
    return waiter;
}

void Kill(const Waiter& waiter)
{
    kill(waiter.pid, SIGKILL);
    waitpid(waiter.pid, nullptr, 0);
}

TEST(Places, AreHalfOfTheWorkersAndAtLeastOne)
{
    const struct {
        int workers;
        int places;
    } cases[] = {{1, 1}, {2, 1}, {3, 1}, {4, 2}, {5, 2}, {64, 32}};
    for (const auto& c : cases) {
        ASSERT_TRUE(MakePlaces(c.workers));
        std::vector<Waiter> waiters;
        do {
            waiters.push_back(StartWaiter());
        } while (waiters.back().taken);
        EXPECT_EQ(c.places + 1, static_cast<int>(waiters.size())) << c.workers << " workers";
        Kill(waiters.front());
        waiters.front() = StartWaiter();
        EXPECT_TRUE(waiters.front().taken) << "the place of one that was killed is free";
        std::for_each(waiters.begin(), waiters.end(), Kill);
    }
}

TEST(Places, AreFreeAgainAtTheEndOfTheScope)
{
    ASSERT_TRUE(MakePlaces(1));
    {
        const Place place(WaitingFor::MailServer);
        ASSERT_TRUE(place.Taken());
        const Waiter other = StartWaiter();
        EXPECT_FALSE(other.taken);
        Kill(other);
    }
    const Waiter other = StartWaiter();
    EXPECT_TRUE(other.taken);
    Kill(other);
}

TEST_F(Emergency, IsBusyWhileAllPlacesAreTaken)
{
    ASSERT_TRUE(MakePlaces(2));
    AsWorker([] {
        const Somebody alice = HalfSignedIn();
        const Waiter waiter = StartWaiter();
        for (int i = 0; i < 5; ++i) {
            const Answer answer = AskForCode(alice);
            EXPECT_EQ("503 busy", Said(answer));
            EXPECT_EQ("5", HeaderOf(answer, "Retry-After"));
        }
        Kill(waiter);
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ("200", Said(AskForCode(alice))) << "busy ones were not counted";
        }
        EXPECT_EQ(3u, Audited().size());
    });
}

} // namespace

} // namespace tavr::web
