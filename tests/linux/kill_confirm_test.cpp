// A confirmation that is killed at any system call between the accepted code and its answer leaves the
// account either not enrolled and able to try again, or enrolled and able to sign in: each with the app's
// next code.
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
#include "linux/verifier.h"
#include "otp/OTPWizardHandler.h"
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

// What a run may change, and where it is kept meanwhile.
const char* const kPlaces[] = {"/var/lib/tavr", "/usr/tavr/etc", "/tmp"};
constexpr char kKept[] = "/run/kept";

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
    std::ofstream("/run/tavr-test-clock") << seconds << ' ' << seconds << '\n';
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

class KilledConfirmation : public testing::Test
{
protected:
    void SetUp() override
    {
        Shell("install -d -o 64217 -g 64217 -m 0700 /var/lib/tavr /usr/tavr/etc /usr/tavr/etc/preference");
        ASSERT_EQ(0, InChild([] { return tavr::CreateMachineKey() == tavr::MakeKey::Made ? 0 : 1; }));
        ASSERT_EQ(0, InWorker([] { return tavr::AddAccount({kName, "", "", false}, kPassword) ? 0 : 1; }));
        SetClock(0);
        // The page that shows the key; its text comes back through a pipe. The tool takes the account's lock.
        int ends[2];
        ASSERT_EQ(0, pipe(ends));
        ASSERT_EQ(0, InWorker([&] {
                      const auto account = tavr::FindAccount(kName);
                      if (!tavr::MakePreferenceDirectory(*account)) {
                          return 1;
                      }
                      tavr::StartRequest();
                      tavr::NameAccountToCipher(*account);
                      OTPWizardHandler handler;
                      handler.AuthUserAccount(kName, kPassword, false, true);
                      handler.GetQRcodePage(kName, account->uid);
                      const std::string key = handler.GetResponse()["key"].asString();
                      return write(ends[1], key.data(), key.size()) == 32 ? 0 : 2;
                  }));
        char key[33] = {};
        ASSERT_EQ(32, read(ends[0], key, 32));
        key_ = key;
        CopyPlaces("", kKept);
    }

    void ExpectNextCodeWorksAfterKillAt(long stop, long& stops)
    {
        CopyPlaces(kKept, "");
        SetClock(0);
        const tavr::test::Steps steps = tavr::test::RunKilledAt(stop, [this] {
            BecomeWorker();
            return Confirm(key_);
        });
        stops = steps.stops;
        if (!steps.killed) {
            ASSERT_EQ(0, steps.exitStatus);
        }
        SetClock(30);
        ASSERT_EQ(0, InWorker([this] { return NextCodeWorks(key_); })) << "killed at stop " << stop;
    }

    std::string key_;
};

TEST_F(KilledConfirmation, LeavesAnAccountThatTheNextCodeOpens)
{
    const char* const strideText = std::getenv("KILL_STRIDE");             // NOLINT(concurrency-mt-unsafe)
    const long stride = strideText != nullptr ? std::atol(strideText) : 1; // NOLINT(cert-err34-c)
    long stops = 0;
    ExpectNextCodeWorksAfterKillAt(-1, stops);
    const long all = stops;
    ASSERT_GT(all, 200);
    long killed = 0;
    for (long stop = 0; stop < all && !HasFatalFailure(); stop += stride) {
        ExpectNextCodeWorksAfterKillAt(stop, stops);
        ++killed;
    }
    RecordProperty("killed_runs", static_cast<int>(killed));
    std::printf("%ld runs killed, at every %ld. of %ld stops\n", killed, stride, all);
}

} // namespace
