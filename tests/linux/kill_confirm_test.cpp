// A confirmation that is killed at any system call between the accepted code and its answer leaves the
// account either not enrolled and able to try again, or enrolled and able to sign in: each with the app's
// next code. One that confirms a renewal leaves an account that the next code of the old key or of the new
// one opens, and no other, and never one that the password alone opens.
//
// Every process of the confirmation is killed at once, `mv` included, as by a power cut. The temporary and
// the permanent place lie on two file systems here, so that the move is a copy.
#include "linux/accounts.h"
#include "linux/cipher.h"
#include "linux/clock.h"
#include "linux/enrolment.h"
#include "linux/machine_key.h"
#include "linux/names.h"
#include "linux/request.h"
#include "linux/secret_file.h"
#include "linux/session.h"
#include "linux/verifier.h"
#include "otp/OTPWizardHandler.h"
#include "otp/OTPutils.h"
#include "tests/support/stepper.h"

#include <gtest/gtest.h>
#include <liboath/oath.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

namespace
{

namespace fs = std::filesystem;

constexpr char kName[] = "alice";
constexpr char kPassword[] = "a password";
constexpr int kServiceId = 64217;
constexpr long kStride = 5; // after the first enrolment; KILL_STRIDE=1 takes every stop

// What a run may change, and where it is kept meanwhile.
const char* const kPlaces[] = {"/var/lib/tavr", "/usr/tavr/etc", "/tmp"};
constexpr char kKept[] = "/run/kept";
constexpr char kClockFile[] = "/run/tavr-test-clock";

void Shell(const std::string& command)
{
    ASSERT_EQ(0, std::system(command.c_str())) << command; // NOLINT(concurrency-mt-unsafe)
}

void CopyPlaces(const std::string& from, const std::string& to)
{
    for (const char* const place : kPlaces) {
        Shell("mkdir -p " + to + place + " && find " + to + place + " -mindepth 1 -delete && cp -a " + from +
              place + "/. " + to + place);
    }
}

void SetClock(int seconds)
{
    std::ofstream(kClockFile) << seconds << ' ' << seconds << '\n';
}

// As a worker: real and effective ids the service's, saved ones root's.
void BecomeWorker()
{
    if (setresgid(kServiceId, kServiceId, 0) != 0 || setresuid(kServiceId, kServiceId, 0) != 0) {
        _exit(90);
    }
}

// In a process of its own, so that no connection to the databases outlives it.
int InChild(const std::function<int()>& work)
{
    const pid_t child = fork();
    if (child == 0) {
        _exit(work());
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int InWorker(const std::function<int()>& work)
{
    return InChild([&] {
        BecomeWorker();
        return work();
    });
}

std::string CodeNow(const std::string& keyBase32)
{
    char* secret = nullptr;
    size_t size = 0;
    char code[7] = {};
    if (oath_base32_decode(keyBase32.data(), keyBase32.size(), &secret, &size) == OATH_OK) {
        oath_totp_generate(secret, size, tavr::WallSeconds(), 30, 0, 6, code);
        free(secret); // NOLINT(cppcoreguidelines-no-malloc)
    }
    return code;
}

// One request of the account's own page: its facts, its handler, `step`, and how the account settled.
template<typename Step>
tavr::Enrolment Request(Step step)
{
    tavr::StartRequest();
    const auto account = tavr::FindAccount(kName);
    const tavr::AccountLock lock(account->uid);
    const tavr::EnrolmentState state = tavr::Settle(*account);
    tavr::CurrentRequest().facts =
        tavr::Request::Facts{account->uid, state.enrolment == tavr::Enrolment::Yes, false};
    tavr::NameAccountToCipher(*account);
    OTPWizardHandler handler;
    if (!handler.AuthUserAccount(kName, kPassword, false, true)) {
        _exit(91);
    }
    step(handler, *account);
    return tavr::Settle(*account).enrolment;
}

int Confirm(const std::string& key)
{
    const tavr::Enrolment end = Request([&](OTPWizardHandler& handler, const tavr::Account& account) {
        const std::string code = CodeNow(key);
        tavr::test::MarkStart();
        handler.AuthOTPcode(code.c_str(), account.uid);
    });
    return end == tavr::Enrolment::Yes ? 0 : 1;
}

// --- Keys come back from a worker through a pipe ---

constexpr size_t kKeySize = 32;

std::string KeyFromWorker(const std::function<std::string()>& make)
{
    int ends[2];
    if (pipe(ends) != 0) {
        return {};
    }
    const int status = InWorker([&] {
        const std::string key = make();
        return write(ends[1], key.data(), key.size()) == kKeySize ? 0 : 1;
    });
    close(ends[1]);
    char key[kKeySize + 1] = {};
    const bool whole = status == 0 && read(ends[0], key, kKeySize) == kKeySize;
    close(ends[0]);
    return whole ? key : "";
}

// The page that shows the key. The tool takes the account's lock.
std::string ShowPage()
{
    const auto account = tavr::FindAccount(kName);
    if (!tavr::MakePreferenceDirectory(*account)) {
        return {};
    }
    tavr::StartRequest();
    tavr::NameAccountToCipher(*account);
    OTPWizardHandler handler;
    handler.AuthUserAccount(kName, kPassword, false, true);
    handler.GetQRcodePage(kName, account->uid);
    return handler.GetResponse()["key"].asString();
}

// A new secret beside the active one, as a renewal makes it.
std::string MakeSecondKey()
{
    const auto account = tavr::FindAccount(kName);
    tavr::StartRequest();
    std::string reference;
    std::string path;
    if (OTPUtils::CreateSecretKey(account->uid, reference, path) != 0) {
        return {};
    }
    return tavr::SecretText(account->uid, tavr::BareReference(reference));
}

// 0: as it has to be. What the person does next: signs in when enrolled, else tries again with the next code.
int NextCodeWorks(const std::string& key)
{
    const auto account = tavr::FindAccount(kName);
    tavr::StartRequest();
    switch (tavr::Settle(*account).enrolment) {
    case tavr::Enrolment::Yes:
        return tavr::VerifyCode(*account, CodeNow(key)).result == tavr::CodeResult::Accepted ? 0 : 2;
    case tavr::Enrolment::No:
        return Confirm(key) == 0 ? 0 : 3;
    case tavr::Enrolment::Fault:
        return 4;
    }
    return 5;
}

bool IsGood(const std::string& key)
{
    const auto account = tavr::FindAccount(kName);
    tavr::StartRequest();
    return tavr::VerifyCode(*account, CodeNow(key)).result == tavr::CodeResult::Accepted;
}

// 0: as it has to be: enrolled, with either key. With the old one the renewal can be confirmed again.
int OneOfBothWorks(const std::string& former, const std::string& next)
{
    const auto account = tavr::FindAccount(kName);
    tavr::StartRequest();
    if (tavr::Settle(*account).enrolment != tavr::Enrolment::Yes) {
        return 2;
    }
    if (IsGood(next)) {
        return IsGood(former) ? 3 : 0;
    }
    if (!IsGood(former)) {
        return 4;
    }
    SetClock(90);
    return Confirm(next) == 0 && !IsGood(former) ? 0 : 5;
}

int SwitchOff(const std::string& key)
{
    const auto account = tavr::FindAccount(kName);
    tavr::StartRequest();
    const std::string code = CodeNow(key);
    tavr::test::MarkStart();
    if (tavr::VerifyCode(*account, code).result != tavr::CodeResult::Accepted) {
        return 1;
    }
    tavr::MarkSwitchingOff(*account, tavr::AuditEvent::SwitchedOff);
    return tavr::Settle(*account).enrolment == tavr::Enrolment::No ? 0 : 2;
}

// 0: enrolled as before, with its session and its next code; or not enrolled, and nothing is left.
int WhollyOnOrOff(const std::string& key)
{
    const auto account = tavr::FindAccount(kName);
    tavr::StartRequest();
    const tavr::Enrolment enrolment = tavr::Settle(*account).enrolment;
    if (enrolment == tavr::Enrolment::Fault) {
        return 2;
    }
    const bool on = enrolment == tavr::Enrolment::Yes;
    if (on != (tavr::EndSessionsOf(account->uid) == 1)) {
        return 3;
    }
    const bool found = tavr::FindSecretFile(*account).found == tavr::Found::Text;
    return found == on && IsGood(key) == on ? 0 : 4;
}

class KilledConfirmation : public testing::Test
{
protected:
    void SetUp() override
    {
        Shell("rm -rf /etc/tavr/otp.key /tmp/OTP_* /usr/tavr/etc/preference/* /var/lib/tavr/*");
        Shell("install -d -o 64217 -g 64217 -m 0700 /var/lib/tavr /usr/tavr/etc /usr/tavr/etc/preference");
        ASSERT_EQ(0, InChild([] { return tavr::CreateMachineKey() == tavr::MakeKey::Made ? 0 : 1; }));
        ASSERT_EQ(0, InWorker([] { return tavr::AddAccount({kName, "", "", false}, kPassword) ? 0 : 1; }));
        SetClock(0);
        fs::permissions(kClockFile, fs::perms(0666)); // for workers
        key_ = KeyFromWorker(ShowPage);
        ASSERT_EQ(kKeySize, key_.size());
        CopyPlaces("", kKept);
    }

    // Half a minute after `work` was killed at a stop, `check` has to give 0 in a worker. Gives the stops.
    long KillAndCheck(long stop, const std::function<int()>& work, const std::function<int()>& check)
    {
        CopyPlaces(kKept, "");
        SetClock(workAt_);
        const tavr::test::Steps steps = tavr::test::RunKilledAt(stop, [&] {
            BecomeWorker();
            return work();
        });
        EXPECT_TRUE(steps.killed || steps.exitStatus == 0) << steps.exitStatus;
        SetClock(workAt_ + 30);
        EXPECT_EQ(0, InWorker(check)) << "killed at stop " << stop;
        return steps.stops;
    }

    // At every stop, or at every KILL_STRIDE-th.
    void KillEverywhere(long stride, const std::function<int()>& work, const std::function<int()>& check)
    {
        const char* const text = std::getenv("KILL_STRIDE"); // NOLINT(concurrency-mt-unsafe)
        stride = text != nullptr ? std::atol(text) : stride; // NOLINT(cert-err34-c)
        const long all = KillAndCheck(-1, work, check);
        ASSERT_GT(all, 100);
        long killed = 0;
        for (long stop = 0; stop < all && !HasFailure(); stop += stride) {
            KillAndCheck(stop, work, check);
            ++killed;
        }
        RecordProperty("killed_runs", static_cast<int>(killed));
        std::printf("%ld runs killed, at every %ld. of %ld stops\n", killed, stride, all);
    }

    std::string key_;
    int workAt_ = 0;
};

TEST_F(KilledConfirmation, LeavesAnAccountThatTheNextCodeOpens)
{
    KillEverywhere(
        1, [this] { return Confirm(key_); }, [this] { return NextCodeWorks(key_); });
}

TEST_F(KilledConfirmation, OfARenewalLeavesTheOldKeyOrTheNewOne)
{
    ASSERT_EQ(0, InWorker([this] { return Confirm(key_); }));
    const std::string second = KeyFromWorker(MakeSecondKey);
    ASSERT_EQ(kKeySize, second.size());
    ASSERT_NE(key_, second);
    CopyPlaces("", kKept);
    workAt_ = 30;
    KillEverywhere(
        kStride, [&] { return Confirm(second); }, [&] { return OneOfBothWorks(key_, second); });
}

TEST_F(KilledConfirmation, OrSwitchingOffLeavesAnAccountThatIsEnrolledOrNot)
{
    ASSERT_EQ(0, InWorker([this] { return Confirm(key_); }));
    ASSERT_EQ(0, InWorker([] {
                  tavr::EndSessionsOf(tavr::FindAccount(kName)->uid);
                  tavr::OpenPending(*tavr::FindAccount(kName), tavr::SessionState::CodeRequired);
                  return 0;
              }));
    CopyPlaces("", kKept);
    workAt_ = 30;
    KillEverywhere(
        kStride, [this] { return SwitchOff(key_); }, [this] { return WhollyOnOrOff(key_); });
}

} // namespace
