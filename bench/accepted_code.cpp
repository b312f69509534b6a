// An accepted code, from the library's call to the stored step, against reading the secret file, liboath's
// call and one durable SQLite transaction. And one code that many try at once, spread over the workers of a
// server, against as many tries in turn.
#include "linux/cipher.h"
#include "linux/clock.h"
#include "linux/enrolment.h"
#include "linux/names.h"
#include "linux/request.h"
#include "linux/session.h"
#include "linux/vault.h"
#include "linux/verifier.h"

#include "platform/secrets.h"

#include "bench/enrolled.h"

#include <liboath/oath.h>

#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <new>
#include <optional>

using namespace tavr;
using namespace tavr::bench;

namespace
{

// The flush of a virtual disk may come back before anything is safe. So what is measured against one is
// measured twice: as the disk is, and with every flush taking a millisecond more, as a plain solid-state
// disk's does.
long g_flushTakes = 0; // nanoseconds more
int g_flushes = 0;

} // namespace

// In place of the C library's, for SQLite too.
extern "C" __attribute__((visibility("default"))) int fdatasync(int file)
{
    ++g_flushes;
    const auto result = static_cast<int>(syscall(SYS_fdatasync, file));
    const timespec more{0, g_flushTakes};
    if (g_flushTakes > 0) {
        nanosleep(&more, nullptr);
    }
    return result;
}

namespace
{

constexpr int kRounds = 400;
constexpr int kTries = 256; // at once
constexpr int kWorkers = 4; // that they come to, as a server has them
constexpr int kTryRounds = 9;

std::string Read(const std::string& path)
{
    char text[4096];
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    const ssize_t size = read(file, text, sizeof text);
    close(file);
    return {text, static_cast<size_t>(std::max<ssize_t>(0, size))};
}

struct Subject {
    Account account;
    SecretFileText references;
    SecretBytes secret;

    Subject()
    {
        account = *AddAccount({"alice", "", "", false}, "not to be used");
        Require(MakePreferenceDirectory(account), "preference directory");
        references = MakeReferences();
        DrawSecret(secret);
        StoreWaiting(account.uid, references, secret);
    }

    [[nodiscard]] std::string WaitingPath() const { return "/tmp/OTP_" + std::to_string(account.uid); }

    [[nodiscard]] std::string Code() const
    {
        char code[7] = {};
        oath_totp_generate(reinterpret_cast<const char*>(secret.bytes.data()), secret.bytes.size(),
                           WallSeconds(), 30, 0, 6, code);
        return code;
    }

    // So that the same code is good again.
    static void Forget()
    {
        SigninDatabase()
            .Prepare("UPDATE account_mark SET last_step = -1, active_step = -1, confirmed_step = -1")
            .Run();
    }
};

void FloorOf(const Subject& subject, const std::string& path, const std::string& code, Database& database)
{
    const std::string text = Read(path);
    Require(oath_totp_validate4(reinterpret_cast<const char*>(subject.secret.bytes.data()), kSecretBytes,
                                WallSeconds(), 30, 0, 1, nullptr, nullptr, 0, code.c_str()) >= 0,
            "floor's code");
    database.Prepare("UPDATE floor SET step = step + 1").Run(); // a transaction of its own
}

void AskAsLibrary(const Subject& subject, const std::string& code)
{
    const std::string user = "username=" + subject.account.name;
    const std::string typed = "code=" + code;
    const std::string secret = "secret=" + subject.WaitingPath();
    const char* const texts[] = {user.c_str(), typed.c_str(), secret.c_str()};
    Require(TAVRGoogleAuth(3, texts) == 0, "TAVRGoogleAuth");
}

// Worker processes that take tries of one code off the same pile, all at once. To be made before this process
// has a database open.
class Workers
{
public:
    Workers()
    {
        void* memory =
            mmap(nullptr, sizeof *shared_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        Require(memory != MAP_FAILED, "shared memory");
        shared_ = new (memory) Shared{};
        pthread_barrierattr_t attributes;
        pthread_barrierattr_init(&attributes);
        pthread_barrierattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
        pthread_barrier_init(&shared_->barrier, &attributes, kWorkers + 1);
        for (int i = 0; i < kWorkers; ++i) {
            const pid_t child = fork();
            Require(child >= 0, "fork");
            if (child == 0) {
                prctl(PR_SET_PDEATHSIG, SIGKILL);
                TryAgainAndAgain();
            }
        }
    }

    // How many were accepted.
    int Try(const std::string& code)
    {
        std::memcpy(shared_->code, code.c_str(), code.size() + 1);
        shared_->accepted = 0;
        shared_->left = kTries;
        pthread_barrier_wait(&shared_->barrier); // start
        pthread_barrier_wait(&shared_->barrier); // end
        return shared_->accepted;
    }

private:
    struct Shared {
        pthread_barrier_t barrier;
        char code[16];
        std::atomic<int> left;
        std::atomic<int> accepted;
    };

    [[noreturn]] void TryAgainAndAgain()
    {
        std::optional<Account> account;
        for (;;) {
            pthread_barrier_wait(&shared_->barrier);
            if (!account) {
                account = FindAccount("alice");
            }
            while (shared_->left-- > 0) {
                StartRequest();
                if (VerifyCode(*account, shared_->code).result == CodeResult::Accepted) {
                    ++shared_->accepted;
                }
            }
            pthread_barrier_wait(&shared_->barrier);
        }
    }

    Shared* shared_ = nullptr;
};

template<typename Prepare, typename Case, typename Floor>
bool CompareOnBothDisks(const std::string& what, double goal, Prepare prepare, Case measured, Floor floor)
{
    bool met = true;
    for (const long more : {0L, 1'000'000L}) {
        g_flushTakes = more;
        met &= Compare((what + (more > 0 ? ", 1 ms a flush" : "")).c_str(), goal, kRounds, prepare, measured,
                       floor);
    }
    g_flushTakes = 0;
    Require(g_flushes > 0, "flushes");
    return met;
}

int TryInTurn(const Account& account, const std::string& code)
{
    int accepted = 0;
    for (int i = 0; i < kTries; ++i) {
        StartRequest();
        accepted += VerifyCode(account, code).result == CodeResult::Accepted ? 1 : 0;
    }
    return accepted;
}

} // namespace

int main(int /*argc*/, char** argv)
{
    BecomeWorker(argv[0]);
    Workers workers;
    const Subject subject;
    Database floorDatabase(
        (std::string(kStateDir) + "/floor.db").c_str(),
        std::vector<const char*>{"CREATE TABLE floor (step INTEGER); INSERT INTO floor VALUES (0)"});
    WarmLog(floorDatabase);
    WarmLog(SigninDatabase());
    std::string code;
    const auto renew = [&] {
        Subject::Forget();
        code = subject.Code();
    };
    PutSecretFile(subject.WaitingPath(), subject.references);
    renew();
    AskAsLibrary(subject, code); // confirms it
    bool met = CompareOnBothDisks(
        "accepted code, confirming", 1.3, renew, [&] { AskAsLibrary(subject, code); },
        [&] { FloorOf(subject, subject.WaitingPath(), code, floorDatabase); });

    const std::string place = SecretPath(subject.account.name);
    PutSecretFile(place, subject.references);
    Require(Settle(subject.account).enrolment == Enrolment::Yes, "settle");
    met &= CompareOnBothDisks(
        "accepted code, signing in", 1.3, renew,
        [&] { Require(VerifyCode(subject.account, code).result == CodeResult::Accepted, "VerifyCode"); },
        [&] { FloorOf(subject, place, code, floorDatabase); });

    // What has to be durable at once: the accepted step with its counter, the session in place of the half
    // sign-in.
    std::optional<Session> half;
    met &= CompareOnBothDisks(
        "step two, half sign-in to session", 1.3,
        [&] {
            renew();
            half = FindSession(OpenPending(subject.account, SessionState::CodeRequired));
        },
        [&] {
            StartRequest();
            Require(FinishSignIn(*half, code).grant == Grant::Opened, "FinishSignIn");
        },
        [&] { FloorOf(subject, place, code, floorDatabase); });

    renew();
    workers.Try(code); // each opens its databases
    met &= Compare(
        "256 tries of one code at once, four workers", 1.2, kTryRounds, renew,
        [&] {
            Subject::Forget();
            Require(workers.Try(code) == 1, "one of them");
        },
        [&] {
            Subject::Forget();
            Require(TryInTurn(subject.account, code) == 1, "one of them");
        });
    return met ? 0 : 1;
}
