// A request that is overtaken: while it stands still at one of its system calls, somebody else changes what
// it rests on. It has read the account and compares the password, or the code, when it is first stopped;
// whatever it opens afterwards must be dead.
#include "linux/enrolment.h"

#include "linux/account_lock.h"
#include "linux/paths.h"

#include "tests/support/fresh_server.h"
#include "tests/support/stepper.h"
#include "tests/web/asking.h"

#include <fcntl.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string_view>

// --- Where a request is first stopped ---

namespace
{

bool atPassword = false;
bool atCode = false;

} // namespace

extern "C" {
char* __real_crypt_rn(const char* phrase, const char* setting, void* data, int size);
char* __wrap_crypt_rn(const char* phrase, const char* setting, void* data, int size)
{
    if (atPassword) {
        tavr::test::MarkStart();
    }
    return __real_crypt_rn(phrase, setting, data, size);
}

int __real_oath_hotp_generate(const char* secret, size_t size, uint64_t step, unsigned digits, bool checksum,
                              size_t truncation, char* code);
int __wrap_oath_hotp_generate(const char* secret, size_t size, uint64_t step, unsigned digits, bool checksum,
                              size_t truncation, char* code)
{
    if (atCode) {
        tavr::test::MarkStart();
    }
    return __real_oath_hotp_generate(secret, size, step, digits, checksum, truncation, code);
}
}

namespace tavr::web
{

namespace
{

namespace fs = std::filesystem;

constexpr int64_t kNow = 1'800'000'015;
constexpr std::string_view kAlice = "alice";
constexpr char kAliceFile[] =
    "/var/lib/tavr/alice"; // in folders that workers may write to and every run begins with
constexpr char kAnswerFile[] = "/var/lib/tavr/answer";
constexpr char kActedFile[] = "/var/lib/tavr/acted";

// --- Requests; each ends with the one that is stopped, and gives its answer ---

struct Overtakable {
    const char* name;
    std::string_view user;
    bool opensLive; // or a half sign-in
    std::function<void(Somebody&)> ask;
};

void GivePassword(Somebody& somebody)
{
    atPassword = true;
    SignInAs(somebody);
}

void GiveCode(Somebody& somebody)
{
    SignInAs(somebody);
    atCode = true;
    TakeCookies(somebody, Ask(RequestOf("POST", "/api/signin/code", somebody), FullBody(somebody)));
}

// --- What others do meanwhile ---

enum class Touches { Accounts, SigninState };

struct Action {
    const char* name;
    Touches touches;
    std::function<void(const Account&)> act;
};

const Action kNewPassword = {"a new password", Touches::Accounts,
                             [](const Account& a) { SetPassword(a.uid, "another"); }};
const Action kDisablingForAWhile = {"disabling and enabling", Touches::Accounts, [](const Account& a) {
                                        SetDisabled(a.uid, true);
                                        SetDisabled(a.uid, false);
                                    }};
const Action kOtherRights = {"joining and leaving the administrators", Touches::Accounts,
                             [](const Account& a) {
                                 JoinGroup(a, *FindGroup(kAdministrators));
                                 LeaveGroup(a, *FindGroup(kAdministrators));
                             }};
const Action kAnotherOfTheName = {"a new account of the name", Touches::Accounts, [](const Account& a) {
                                      RemoveAccount(a.uid);
                                      AddAccount({a.name, "", "", false}, kRightPassword);
                                  }};
const Action kReset = {"a reset", Touches::SigninState, [](const Account& a) {
                           MarkSwitchingOff(a, AuditEvent::Reset);
                           Settle(a);
                       }};
const Action kResetAndEnrolment = {"a reset and a new enrolment", Touches::SigninState, [](const Account& a) {
                                       MarkSwitchingOff(a, AuditEvent::Reset);
                                       Settle(a);
                                       Enrol(a, 1);
                                   }};
const Action kRenewal = {"a renewal", Touches::SigninState, [](const Account& a) { Enrol(a, 1); }};
const Action kEnding = {"ended sessions", Touches::SigninState,
                        [](const Account& a) { EndSessionsOf(a.uid); }};

// Somebody who has to wait for the stopped request acts after it; that is another stop.
bool WouldWait(const Account& account)
try {
    const Descriptor file(open(kAccountLockFile, O_RDWR | O_CLOEXEC));
    struct flock lock {
    };
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = static_cast<off_t>(account.uid);
    lock.l_len = 1;
    if (fcntl(file.Get(), F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK) {
        return true;
    }
    sqlite3* const db = SigninDatabase().Handle();
    sqlite3_busy_timeout(db, 0);
    const bool busy = sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) != SQLITE_OK;
    sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
    return busy;
} catch (const DatabaseError&) {
    return true; // it cannot even be opened at this moment
}

// --- Runs ---

class Overtaken : public test::FreshServer
{
protected:
    void SetUp() override
    {
        FreshServer::SetUp();
        test::SetClocks(kNow, 100'000, "first");
        AsWorker([] {
            AddSomebody("bob");
            Keep(AddEnrolled("alice"), kAliceFile);
        });
        KeepState();
    }

    // Gives what the request was answered, and leaves what it opened in kAnswerFile.
    static int Run(const Overtakable& request)
    {
        return test::RunLowered([&] {
            Somebody somebody = request.user == kAlice ? Recall(kAliceFile) : Somebody();
            somebody.account = *FindAccount(request.user);
            request.ask(somebody);
            Keep(somebody, kAnswerFile);
            return 0;
        });
    }

    static std::optional<Session> SessionOfAnswer(const Overtakable& request)
    {
        const Somebody after = Recall(kAnswerFile);
        StartRequest();
        return FindSession(request.opensLive ? after.sid : after.pending);
    }

    // Stops the request at every so many of its system calls, or at every KILL_STRIDE-th.
    void OvertakeEverywhere(const Overtakable& request, const Action& action, long stride)
    {
        SCOPED_TRACE(std::string(request.name) + ", " + action.name);
        const char* const text = std::getenv("KILL_STRIDE"); // NOLINT(concurrency-mt-unsafe)
        stride = text != nullptr ? std::atol(text) : stride; // NOLINT(cert-err34-c)
        RestoreState();
        const test::Steps whole = test::RunKilledAt(-1, [&] { return Run(request); });
        ASSERT_EQ(0, whole.exitStatus);
        ASSERT_GT(whole.stops, 20);
        AsWorker([&] { EXPECT_TRUE(SessionOfAnswer(request)) << "nobody came in between"; });
        long acted = 0;
        for (long stop = 0; stop < whole.stops && !HasFailure(); stop += stride) {
            RestoreState();
            ASSERT_EQ(0, test::RunOvertakenAt(
                             stop, [&] { return Run(request); }, [&] { Act(request, action); })
                             .exitStatus);
            if (!fs::exists(kActedFile)) {
                continue;
            }
            ++acted;
            AsWorker([&] { EXPECT_FALSE(SessionOfAnswer(request)) << "overtaken at stop " << stop; });
        }
        EXPECT_GT(acted, 2);
        std::printf("%s, %s: %ld of %ld stops\n", request.name, action.name, acted, whole.stops);
    }

    void Act(const Overtakable& request, const Action& action)
    {
        AsWorker([&] {
            StartRequest();
            const Account account = *FindAccount(request.user);
            if (action.touches == Touches::Accounts || !WouldWait(account)) {
                action.act(account);
                test::WriteFile(kActedFile, "");
            }
        });
    }
};

const Overtakable kPasswordAlone = {"a sign-in on the password", "bob", true, GivePassword};
const Overtakable kHalfSignIn = {"the password before a code", kAlice, false, GivePassword};
const Overtakable kSecondStep = {"the code", kAlice, true, GiveCode};

TEST_F(Overtaken, AnAccountThatIsAnotherByNowLetsNobodyIn)
{
    for (const Overtakable& request : {kPasswordAlone, kHalfSignIn, kSecondStep}) {
        for (const Action& action : {kNewPassword, kDisablingForAWhile, kOtherRights, kAnotherOfTheName}) {
            OvertakeEverywhere(request, action, 47);
        }
    }
}

TEST_F(Overtaken, ACodeOpensNothingOnceTheSignInItBelongsToHasEnded)
{
    for (const Action& action : {kReset, kResetAndEnrolment, kRenewal, kEnding}) {
        OvertakeEverywhere(kSecondStep, action, 17);
    }
}

} // namespace

} // namespace tavr::web
