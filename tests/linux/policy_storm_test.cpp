// Four processes save picks and ask the policy at once, and one after the other of them is killed at any
// moment and started again. No save is lost among them, and nobody decides on less than both the state before
// and the one after.
#include "linux/accounts.h"
#include "linux/paths.h"
#include "linux/policy_file.h"
#include "linux/request.h"
#include "otp/OTPEnforceHandler.h"
#include "tests/support/fresh_server.h"
#include "tests/support/rounds.h"

#include <json/json.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <new>
#include <optional>
#include <random>
#include <string>

namespace tavr::test
{
namespace
{

constexpr int kProcesses = 4;
constexpr int kOwned = 3;     // accounts of each process, which picks and unpicks them
constexpr int kFiller = 2000; // numbers that stay: the library writes the file in several pieces

// One account's pick as its owner knows it. `version` is odd while a save is under way, and stays so when its
// process is killed.
struct Pick {
    std::atomic<int> version{0};
    std::atomic<bool> picked{false};
};

// In memory that all processes share and that none takes along.
struct Shared {
    std::array<std::array<Pick, kOwned>, kProcesses> picks;
    std::atomic<int> saves{0};
    std::atomic<int> decisions{0};
    std::atomic<int> wrong{0};
    std::atomic<int> unfinished{0}; // saves that were cut short by a kill
    std::atomic<int> refused{0};
};

Shared* g_shared = nullptr;

std::string NameOf(int process, int account)
{
    return "a" + std::to_string(process) + "-" + std::to_string(account);
}

void Complain(const std::string& what)
{
    ++g_shared->wrong;
    std::fprintf(stderr, "%s\n", what.c_str());
}

std::optional<bool> Decide(const std::string& name)
{
    StartRequest();
    return AskPolicy(OTPEnforceIsEnabled, name);
}

bool Save(const Account& account, bool picked)
{
    StartRequest();
    Json::Value rows;
    rows[0]["id"] = std::to_string(account.uid);
    rows[0]["is_enforced"] = picked;
    PolicyWriting policy;
    return policy.Usable() && OTPEnforceCustomSettingSet("local_user", rows) == 0 && policy.Commit(nullptr);
}

// What the process before this one was killed in came to its end or did not.
void Settle(int process)
{
    for (int i = 0; i < kOwned; ++i) {
        Pick& pick = g_shared->picks[process][i];
        if (pick.version % 2 != 0) {
            ++g_shared->unfinished;
            pick.picked = Decide(NameOf(process, i)).value_or(false);
            ++pick.version;
        }
    }
}

void SaveOne(const Account& account, Pick& pick)
{
    const bool wanted = !pick.picked;
    ++pick.version;
    if (Save(account, wanted)) {
        pick.picked = wanted;
        ++g_shared->saves;
    } else {
        ++g_shared->refused;
    }
    ++pick.version;
}

// Only its owner changes an account, so between two equal versions it is what the owner says.
void DecideOne(int process, int account)
{
    const Pick& pick = g_shared->picks[process][account];
    const int before = pick.version;
    const bool picked = pick.picked;
    const std::optional<bool> answer = Decide(NameOf(process, account));
    ++g_shared->decisions;
    if (!answer || (before % 2 == 0 && pick.version == before && *answer != picked)) {
        Complain(NameOf(process, account) + (picked ? " is" : " is not") + " picked, and the answer is " +
                 (!answer   ? "none"
                  : *answer ? "yes"
                            : "no"));
    }
    if (Decide("always") != std::optional(true)) {
        Complain("the one who is always picked was not");
    }
}

void Work(int process, unsigned seed, int rounds)
{
    std::mt19937 random(seed);
    std::array<std::optional<Account>, kOwned> accounts;
    for (int i = 0; i < kOwned; ++i) {
        accounts[i] = FindAccount(NameOf(process, i));
    }
    Settle(process);
    while (g_shared->saves + g_shared->decisions < rounds) {
        const int account = static_cast<int>(random() % kOwned);
        if (random() % 3 == 0) {
            SaveOne(*accounts[account], g_shared->picks[process][account]);
        } else {
            DecideOne(static_cast<int>(random() % kProcesses), account);
        }
    }
}

class PolicyStorm : public FreshServer
{
protected:
    void SetUp() override
    {
        FreshServer::SetUp();
        WriteSettings("otp_enforce_option=\"custom\"\n");
        AsWorker([] {
            const Account always = MakeAccount("always");
            for (int process = 0; process < kProcesses; ++process) {
                for (int i = 0; i < kOwned; ++i) {
                    MakeAccount(NameOf(process, i));
                }
            }
            std::string picks = "\"" + std::to_string(always.uid) + "\"";
            for (int i = 0; i < kFiller; ++i) {
                picks += ",\"" + std::to_string(2'000'000'000 + i) + '"';
            }
            WriteFile(kPolicyFile, "{\"local_user\":[" + picks + "]}\n");
            EXPECT_TRUE(PolicyReading().Usable());
        });
        void* memory =
            mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(MAP_FAILED, memory);
        g_shared = new (memory) Shared();
    }
};

TEST_F(PolicyStorm, LosesNoSaveAndLowersNoDecision)
{
    const int rounds = Rounds(2000, 10000);
    const unsigned seed = std::random_device()();
    std::mt19937 random(seed);
    const auto start = [&](int process) {
        const auto own = static_cast<unsigned>(random());
        std::fflush(nullptr);
        const pid_t child = fork();
        if (child == 0) {
            _exit(RunLowered([&] {
                Work(process, own, rounds);
                return 0;
            }));
        }
        return child;
    };
    std::array<pid_t, kProcesses> children{};
    for (int process = 0; process < kProcesses; ++process) {
        children[process] = start(process);
    }
    int killed = 0;
    while (g_shared->saves + g_shared->decisions < rounds && g_shared->wrong == 0) {
        usleep(static_cast<useconds_t>(random() % 20'000));
        const int process = static_cast<int>(random() % kProcesses);
        kill(children[process], SIGKILL);
        int status = 0;
        waitpid(children[process], &status, 0);
        EXPECT_TRUE(WIFSIGNALED(status) || status == 0) << status;
        children[process] = start(process);
        ++killed;
    }
    for (const pid_t child : children) {
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_EQ(0, status);
    }
    EXPECT_EQ(0, g_shared->wrong);
    EXPECT_EQ(0, g_shared->refused);
    AsWorker([] {
        for (int process = 0; process < kProcesses; ++process) {
            Settle(process);
            for (int i = 0; i < kOwned; ++i) {
                EXPECT_EQ(g_shared->picks[process][i].picked, Decide(NameOf(process, i))) << process << i;
            }
        }
    });
    std::printf("seed %u: %d saves and %d decisions, %d kills, %d of them in the middle of a save\n", seed,
                g_shared->saves.load(), g_shared->decisions.load(), killed, g_shared->unfinished.load());
    EXPECT_GT(g_shared->unfinished, 0);
}

} // namespace
} // namespace tavr::test
