// What waited when the program last ended is gone before anybody is served from the databases, whichever
// worker is the first, and wherever that one dies.
#include "web/databases.h"

#include "linux/account_lock.h"
#include "linux/enrolment.h"
#include "linux/secret_file.h"
#include "linux/vault.h"
#include "tests/support/fresh_server.h"
#include "tests/support/stepper.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <thread>

namespace tavr::web
{

namespace
{

constexpr long kStride = 9;

Account Alice()
{
    return *FindAccount(std::string("alice"));
}

std::string PathOf(const Account& account)
{
    return "/tmp/OTP_" + std::to_string(account.uid);
}

void MakeWaiting(const Account& account)
{
    const SecretFileText references = MakeReferences();
    SecretBytes secret;
    DrawSecret(secret);
    StoreWaiting(account.uid, references, secret);
    test::WriteFile(PathOf(account), RenderSecretFile(references));
}

class Databases : public test::FreshServer
{
protected:
    void SetUp() override
    {
        FreshServer::SetUp();
        AsWorker([] { MakeWaiting(test::MakeAccount("alice")); });
        ASSERT_TRUE(MakeClearing()); // as the parent of the workers does
    }
};

// A pipe that holds as many bytes as workers may go on.
struct Gate {
    std::array<int, 2> ends{};

    Gate()
    {
        if (pipe2(ends.data(), O_NONBLOCK) != 0) {
            throw std::runtime_error("no pipe");
        }
    }
    ~Gate()
    {
        close(ends[0]);
        close(ends[1]);
    }
    Gate(const Gate&) = delete;
    Gate& operator=(const Gate&) = delete;

    void Open(int count) const
    {
        const std::string bytes(static_cast<size_t>(count), '.');
        EXPECT_EQ(count, write(ends[1], bytes.data(), bytes.size()));
    }
    [[nodiscard]] bool Pass() const
    {
        char byte = 0;
        return read(ends[0], &byte, 1) == 1;
    }
    void Wait() const
    {
        pollfd waiting{ends[0], POLLIN, 0};
        while (!Pass()) {
            poll(&waiting, 1, -1);
        }
    }
};

TEST_F(Databases, AreOpenToNobodyBeforeWhatWaitedIsDropped)
{
    const Gate held;
    const Gate first;
    first.Open(1);
    AsWorkers(5, [&](int worker) {
        const Account alice = Alice();
        if (worker == 0) { // keeps the one that clears waiting, with the others behind it
            const AccountLock lock(alice.uid);
            held.Open(4);
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            return;
        }
        held.Wait();
        OpenDatabases();
        const AccountLock lock(alice.uid);
        if (first.Pass()) {
            EXPECT_TRUE(SecretsOf(alice.uid).empty());
            EXPECT_NE(0, access(PathOf(alice).c_str(), F_OK));
            MakeWaiting(alice);
        }
    });
    AsWorker([] { EXPECT_EQ(1u, SecretsOf(Alice().uid).size()) << "of this start"; });
}

TEST_F(Databases, DropWhatWaitedAtTheStartAlone)
{
    AsWorker([] {
        OpenDatabases();
        MakeWaiting(Alice());
        OpenDatabases();
        EXPECT_EQ(1u, SecretsOf(Alice().uid).size());
    });
    AsWorker([] { // in place of one that died
        OpenDatabases();
        EXPECT_EQ(1u, SecretsOf(Alice().uid).size());
        EXPECT_EQ(0, access(PathOf(Alice()).c_str(), F_OK));
    });
}

TEST_F(Databases, AreClearedByTheNextWorkerWhereTheFirstWasKilled)
{
    KeepState();
    long runs = 0;
    for (long at = 0;; at += kStride, ++runs) {
        SCOPED_TRACE("killed at " + std::to_string(at));
        RestoreState();
        ASSERT_TRUE(MakeClearing());
        const test::Steps steps = test::RunKilledAt(at, [] {
            return test::RunLowered([] {
                test::MarkStart();
                OpenDatabases();
                return 0;
            });
        });
        ASSERT_TRUE(steps.killed || steps.exitStatus == 0) << steps.exitStatus;
        AsWorker([] {
            OpenDatabases();
            EXPECT_TRUE(SecretsOf(Alice().uid).empty());
            EXPECT_NE(0, access(PathOf(Alice()).c_str(), F_OK));
        });
        if (!steps.killed || HasFailure()) {
            break;
        }
    }
    EXPECT_GT(runs, 20);
    std::printf("%ld kills\n", runs);
}

} // namespace

} // namespace tavr::web
