// An accepted code, from the library's call to the stored step, against reading the secret file, liboath's
// call and one durable SQLite transaction.
#include "linux/cipher.h"
#include "linux/clock.h"
#include "linux/enrolment.h"
#include "linux/names.h"
#include "linux/request.h"
#include "linux/session.h"
#include "linux/vault.h"
#include "linux/verifier.h"

#include "platform/secrets.h"

#include "bench/worker.h"

#include <liboath/oath.h>

#include <fcntl.h>

using namespace tavr;
using namespace tavr::bench;

namespace
{

constexpr int kRounds = 400;

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

    void Write(const std::string& path) const
    {
        std::ofstream(path) << RenderSecretFile(references);
        Require(chmod(path.c_str(), 0600) == 0, path.c_str());
    }

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

} // namespace

int main(int /*argc*/, char** argv)
{
    BecomeWorker(argv[0]);
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
    subject.Write(subject.WaitingPath());
    renew();
    AskAsLibrary(subject, code); // confirms it
    Compare(
        "accepted code, confirming", 1.3, kRounds, renew, [&] { AskAsLibrary(subject, code); },
        [&] { FloorOf(subject, subject.WaitingPath(), code, floorDatabase); });

    const std::string place = SecretPath(subject.account.name);
    subject.Write(place);
    Require(Settle(subject.account).enrolment == Enrolment::Yes, "settle");
    Compare(
        "accepted code, signing in (with settling)", 1.3, kRounds, renew,
        [&] { Require(VerifyCode(subject.account, code).result == CodeResult::Accepted, "VerifyCode"); },
        [&] { FloorOf(subject, place, code, floorDatabase); });

    // What has to be durable: the accepted step with its counter, and the session.
    Compare(
        "step two, from half sign-in to session", 1.3, kRounds, renew,
        [&] {
            StartRequest();
            Require(VerifyCode(subject.account, code).result == CodeResult::Accepted, "VerifyCode");
            Require(OpenSession(subject.account) == Grant::Opened, "OpenSession");
        },
        [&] {
            FloorOf(subject, place, code, floorDatabase);
            floorDatabase.Prepare("UPDATE floor SET step = step + 1").Run();
        });
    return 0;
}
