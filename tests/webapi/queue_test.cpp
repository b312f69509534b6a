// The mail queue and the running service that empties it, with a mail server that can be told what to do.
#include "linux/mail_queue.h"
#include "linux/paths.h"
#include "tests/support/mail_taker.h"
#include "tests/support/running_service.h"

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace tavr::test
{
namespace
{

class Queue : public ServiceTest
{
protected:
    void SetUp() override
    {
        ServiceTest::SetUp();
        std::filesystem::remove(kSettingsFile);
        LetClocksRun();
    }
    void TearDown() override
    {
        std::filesystem::remove(kSettingsFile);
        ServiceTest::TearDown();
    }

    void StartServer(MailTaker::Hook hook = [](std::string_view) {})
    {
        server_.emplace(std::move(hook));
        PointSettingsAt(server_->Port());
    }
    static void PointSettingsAt(int port)
    {
        WriteFile(kSettingsFile,
                  "mail_server=\"127.0.0.1\"\nmail_security=\"none\"\nmail_from=\"nas@example.org\"\n"
                  "mail_port=\"" +
                      std::to_string(port) + "\"\n");
        std::filesystem::permissions(kSettingsFile, std::filesystem::perms(0644));
    }

    void QueueMails(int count, int first = 0)
    {
        AsWorker([=] {
            for (int i = first; i < first + count; ++i) {
                QueueMail("user" + std::to_string(i) + "@example.org", "About " + std::to_string(i),
                          "text<br>");
            }
        });
    }

    // Rows by their states, without a look at what is sealed.
    std::map<std::string, int> States()
    {
        const std::string file = "/var/lib/tavr/states";
        AsWorker([&] {
            std::string text;
            for (const ListedMail& mail : ListMails()) {
                text += mail.state + '\n';
            }
            WriteFile(file, text);
        });
        std::map<std::string, int> states;
        std::istringstream lines(ReadFile(file));
        for (std::string state; lines >> state;) {
            ++states[state];
        }
        return states;
    }

    // Waits for what the service does by itself; the program's time limit ends a wait in vain.
    template<typename Condition>
    static void Until(Condition reached)
    {
        while (!reached()) {
            usleep(5000);
        }
    }
    void UntilAllAre(const std::string& state, int count)
    {
        Until([&] { return States() == std::map<std::string, int>{{state, count}}; });
    }
    void UntilNoneWaits()
    {
        Until([&] { return !States().contains("waiting"); });
    }

    std::optional<MailTaker> server_;
};

TEST_F(Queue, IsEmptiedByTheService)
{
    StartServer();
    QueueMails(100);
    const Service service;

    UntilAllAre("sent", 100);
    EXPECT_EQ(100U, server_->Count());
    EXPECT_EQ(100U, server_->Taken().size());
    EXPECT_NE(std::string::npos, server_->LastMessage().find("From: <nas@example.org>"));
}

TEST_F(Queue, WakesTheServiceWhenSomethingIsQueued)
{
    StartServer();
    const Service service;
    QueueMails(1);
    UntilAllAre("sent", 1); // it has looked, and now waits for a call

    QueueMails(1, 1);
    UntilAllAre("sent", 2);
}

TEST_F(Queue, GivesUpWhatIsRefusedForGood)
{
    StartServer();
    server_->RefuseRecipients("550 nobody of that name");
    QueueMails(3);
    const Service service;

    UntilAllAre("given_up", 3);
    EXPECT_EQ(0U, server_->Count());
}

TEST_F(Queue, TriesAgainWhatMayGoWellLater)
{
    StartServer();
    server_->RefuseRecipients("450 come back later");
    QueueMails(1);
    const Service service;
    Until([&] {
        return RunProgram({"/usr/sbin/tavrctl", "mail", "queue"}).output.find("450") != std::string::npos;
    });
    server_->RefuseRecipients("");

    LetClocksRun(61);
    EXPECT_EQ("alice", Ask(GetRequest("alice"))["data"]["name"].asString()); // wakes it, as time would
    UntilAllAre("sent", 1);
}

TEST_F(Queue, WaitsForAServerThatIsAway)
{
    { // a port where nobody listens
        const MailTaker gone;
        PointSettingsAt(gone.Port());
    }
    QueueMails(30);
    const Service service;
    Until([&] {
        return RunProgram({"/usr/sbin/tavrctl", "mail", "queue"}).output.find("onnect") != std::string::npos;
    });
    StartServer();

    LetClocksRun(200);
    EXPECT_EQ("alice", Ask(GetRequest("alice"))["data"]["name"].asString());
    UntilAllAre("sent", 30);
    EXPECT_EQ(30U, server_->Count());
}

TEST_F(Queue, KeepsMailsWhileNoServerIsSetUp)
{
    QueueMails(2);
    const Service service;
    Until([&] {
        return RunProgram({"/usr/sbin/tavrctl", "mail", "queue"}).output.find("set up") != std::string::npos;
    });
    StartServer();

    LetClocksRun(61);
    EXPECT_EQ("alice", Ask(GetRequest("alice"))["data"]["name"].asString());
    UntilAllAre("sent", 2);
}

TEST_F(Queue, ServesCallersWhileAMailServerHangs)
{
    std::atomic<bool> hangs = true;
    StartServer([&](std::string_view moment) {
        while (moment == "taken" && hangs) {
            usleep(1000);
        }
    });
    QueueMails(1);
    const Service service;
    Until([&] { return server_->Count() == 1; });

    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ("alice", Ask(GetRequest("alice"))["data"]["name"].asString());
    }
    hangs = false;
    UntilAllAre("sent", 1);
}

TEST_F(Queue, BringsAMailToItsEndBeforeTheServiceEnds)
{
    std::atomic<pid_t> toEnd = 0;
    StartServer([&](std::string_view moment) {
        if (moment == "taken" && toEnd > 0) { // the signal comes before the reply
            kill(toEnd.exchange(0), SIGTERM);
        }
        usleep(moment == "taken" ? 2'000 : 0); // some still wait when the signal comes
    });
    QueueMails(200);
    Service service;
    toEnd = service.Pid();

    EXPECT_EQ(0, service.Wait());
    const auto states = States();
    EXPECT_EQ(server_->Count(), static_cast<size_t>(states.at("sent")));
    EXPECT_EQ(200, states.at("sent") + states.at("waiting"));
    EXPECT_GT(states.at("waiting"), 0);
}

TEST_F(Queue, IsWaitedForTwelveSecondsWhenTheServiceEnds)
{
    AdvanceBootClock(0); // and stands there
    std::atomic<bool> hangs = true;
    StartServer([&](std::string_view moment) {
        while (moment == "taken" && hangs) {
            usleep(1000);
        }
    });
    QueueMails(1);
    {
        Service service;
        Until([&] { return server_->Count() == 1; });
        kill(service.Pid(), SIGTERM);
        Until([] { return !ConnectRaw(); });
        AdvanceBootClock(11);
        usleep(200'000);
        siginfo_t ended{};
        waitid(P_PID, static_cast<id_t>(service.Pid()), &ended, WEXITED | WNOHANG | WNOWAIT);
        EXPECT_EQ(0, ended.si_pid) << "the mail may still come to its end";

        AdvanceBootClock(12);
        EXPECT_EQ(0, service.Wait());
    }
    EXPECT_EQ(1, States()["waiting"]);
    hangs = false;
    const Service next;
    UntilAllAre("sent", 1);
    const auto taken = server_->Taken().at("user0@example.org");
    EXPECT_EQ(std::vector<std::string>(2, taken.at(0)), taken) << "again, under the same Message-ID";
}

// --- Kills ---

struct Kills {
    int all = 0;
    int afterData = 0; // the server had the whole mail, the commit was not made
};

// The service is killed at the n-th moment that the mail server sees, for growing n, so that every kind of
// moment is met; a new one goes on at once.
TEST_F(Queue, LosesNothingWhereverTheServiceIsKilled)
{
    const int rounds = std::getenv("TAVR_ALL_ROUNDS") != nullptr ? 400 : 200; // NOLINT(concurrency-mt-unsafe)
    const int enough = 200; // are waiting at each start, more than are sent until the kill
    int mails = 0;
    std::atomic<pid_t> victim = 0;
    std::atomic<int> left = 0;
    std::atomic<bool> anyMoment = false;
    std::atomic<bool> hadAll = false;
    Kills kills;
    StartServer([&](std::string_view moment) {
        // Every other kill waits for a whole message.
        const bool hasAll = moment == "taken" || moment == "answered";
        if (victim > 0 && (anyMoment || hasAll) && --left <= 0) {
            hadAll = hasAll;
            kill(victim, SIGKILL);
            victim = 0;
        }
    });
    for (; kills.all < rounds; ++kills.all) {
        if (mails == 0 || States()["waiting"] < enough) {
            QueueMails(2 * enough, mails);
            mails += 2 * enough;
        }
        anyMoment = kills.all % 2 == 0;
        left = 1 + kills.all % (anyMoment ? 67 : 13);
        Service service;
        victim = service.Pid();
        ASSERT_EQ(-SIGKILL, service.Wait()) << "after " << kills.all << " kills";
        kills.afterData += hadAll ? 1 : 0;
    }
    const Service service;
    UntilNoneWaits();

    size_t repeats = 0;
    const auto taken = server_->Taken();
    EXPECT_EQ(static_cast<size_t>(mails), taken.size());
    for (const auto& [recipient, messageIds] : taken) {
        repeats += messageIds.size() - 1;
        EXPECT_EQ(std::vector<std::string>(messageIds.size(), messageIds[0]), messageIds) << recipient;
        EXPECT_NE("", messageIds[0]);
    }
    EXPECT_GE(kills.afterData, rounds / 4);
    std::printf(
        "%d kills, %d of them between DATA and commit; %d mails, none lost, %zu repeated under their first "
        "Message-ID\n",
        kills.all, kills.afterData, mails, repeats);
}

} // namespace
} // namespace tavr::test
