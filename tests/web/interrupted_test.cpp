// Everything that writes state, cut off: killed at its system calls as by a power cut, or with a disk that is
// full, read-only or failing at its writes. Afterwards the state is the one before or the one after, never a
// weaker one; what was told as granted is stored and spent; and the next request goes on by itself.
#include "linux/attempts.h"

#include "linux/cipher.h"
#include "linux/clock.h"
#include "linux/enrolment.h"
#include "linux/names.h"
#include "linux/paths.h"
#include "linux/vault.h"
#include "linux/verifier.h"
#include "tests/support/fresh_server.h"
#include "tests/support/stepper.h"
#include "tests/web/asking.h"

#include <gtest/gtest.h>
#include <json/json.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <sstream>

namespace tavr::web
{

namespace
{

namespace fs = std::filesystem;

constexpr int64_t kNow = 1'800'000'015;
constexpr int64_t kBoot = 100'000;
constexpr int64_t kLater = kBoot + 20; // when all is prepared: nothing lies in the future then
constexpr char kNewPassword[] = "another password";

// --- Asking ---

// POST; what it answers is kept in `said`.
Answer Post(Somebody& somebody, const char* path, std::string& said)
{
    const Answer answer = Ask(RequestOf("POST", path, somebody), FullBody(somebody));
    TakeCookies(somebody, answer);
    said = Said(answer);
    return answer;
}

int64_t LiveSessions(const Account& account)
{
    const std::vector<ListedSession> sessions = ListSessions(account.uid);
    return std::count_if(sessions.begin(), sessions.end(),
                         [](const ListedSession& session) { return session.state == SessionState::Live; });
}

bool Finds(const std::string& identifier)
{
    return FindSession(identifier).has_value();
}

Enrolment EnrolmentOf(const Account& account)
{
    StartRequest();
    return Settle(account).enrolment;
}

// Of the secret that opens the account; empty: none does.
std::string KeyOf(const Account& account)
{
    if (EnrolmentOf(account) != Enrolment::Yes) {
        return {};
    }
    const std::vector<StoredSecret> secrets = SecretsOf(account.uid);
    const auto active = std::find_if(secrets.begin(), secrets.end(), [](const StoredSecret& secret) {
        return secret.state == SecretState::Active;
    });
    return SecretText(account.uid, active->reference);
}

// What everybody has to be able to do afterwards, some minutes later.
void ExpectSignIn(const Account& account)
{
    test::SetClocks(kNow + 150, kLater + 150, "first");
    Somebody again;
    again.account = account;
    again.key = KeyOf(account);
    std::string said;
    const Answer first = Post(again, "/api/signin", said);
    EXPECT_EQ("200", said);
    if (first.body["state"] == "code_required") {
        Post(again, "/api/signin/code", said);
        EXPECT_EQ("200", said) << "the app's next code";
    }
    EXPECT_TRUE(Finds(again.sid));
}

// --- The writers ---

struct Writer {
    const char* name;
    // Who begins it, from a fresh server; what the accounts `bob` (not enrolled) and `alice` (enrolled) need.
    std::function<Somebody()> prepare;
    // True when it was told as done. `said` is the answer, where there is one.
    std::function<bool(Somebody&, std::string& said)> write;
    // `after` is what a browser holds, if it was told.
    std::function<void(const Somebody& before, const Somebody& after, bool told)> check;
};

Somebody Bob()
{
    return AddSomebody("bob");
}

Somebody Alice()
{
    return AddEnrolled("alice");
}

Somebody SignedIn(Somebody somebody)
{
    somebody.sid = Open(somebody.account, !somebody.key.empty());
    somebody.token = TokenOf(somebody.sid);
    return somebody;
}

Somebody HalfSignedIn(Somebody somebody)
{
    somebody.pending = OpenPending(somebody.account, SessionState::CodeRequired);
    somebody.token = TokenOf(somebody.pending);
    return somebody;
}

// At the wizard's page with the code field: a secret waits for its first code.
Somebody AtWizard(Somebody somebody)
{
    const SecretFileText references = MakeReferences();
    SecretBytes secret;
    DrawSecret(secret);
    StoreWaiting(somebody.account.uid, references, secret);
    test::WriteFile(std::string(kWaitingDir) + '/' + kWaitingFilePrefix +
                        std::to_string(somebody.account.uid),
                    RenderSecretFile(references));
    somebody.key = SecretText(somebody.account.uid, references.secret);
    EXPECT_TRUE(ClaimWaiting(somebody.account.uid, FindSession(somebody.sid)->id, somebody.key));
    return somebody;
}

bool IsWaiting(const Account& account)
{
    const std::vector<StoredSecret> secrets = SecretsOf(account.uid);
    return std::any_of(secrets.begin(), secrets.end(),
                       [](const StoredSecret& secret) { return secret.state == SecretState::Waiting; });
}

const Writer kWriters[] = {
    {"a sign-in on the password", Bob,
     [](Somebody& bob, std::string& said) {
         Post(bob, "/api/signin", said);
         return said == "200";
     },
     [](const Somebody& before, const Somebody& after, bool told) {
         EXPECT_TRUE(!told || Finds(after.sid));
         EXPECT_LE(LiveSessions(before.account), 1);
     }},

    {"a wrong password",
     [] {
         Somebody bob = Bob();
         EXPECT_TRUE(SetPassword(bob.account.uid, kNewPassword));
         return bob;
     },
     [](Somebody& bob, std::string& said) {
         Post(bob, "/api/signin", said);
         return said == "401 bad_credentials";
     },
     [](const Somebody& before, const Somebody&, bool told) {
         Statement ask = SigninDatabase().Prepare("SELECT count(*) FROM password_try");
         ASSERT_TRUE(ask.Step());
         EXPECT_TRUE(ask.Int(0) == 2 || (ask.Int(0) == 0 && !told)) << ask.Int(0) << " counted";
         EXPECT_EQ(0, LiveSessions(before.account));
         EXPECT_TRUE(SetPassword(before.account.uid, kRightPassword));
     }},

    {"the password before a code", Alice,
     [](Somebody& alice, std::string& said) {
         Post(alice, "/api/signin", said);
         return said == "200";
     },
     [](const Somebody& before, const Somebody& after, bool told) {
         EXPECT_TRUE(!told || Finds(after.pending));
         EXPECT_EQ(0, LiveSessions(before.account));
     }},

    {"a code", [] { return HalfSignedIn(Alice()); },
     [](Somebody& alice, std::string& said) {
         Post(alice, "/api/signin/code", said);
         return said == "200";
     },
     [](const Somebody& before, const Somebody& after, bool told) {
         const int64_t live = LiveSessions(before.account);
         EXPECT_TRUE(!told || (Finds(after.sid) && !Finds(before.pending)));
         EXPECT_LE(live, 1);
         StartRequest();
         const CodeResult again = VerifyCode(before.account, CodeNow(before)).result;
         EXPECT_TRUE(again == CodeResult::Used || (again == CodeResult::Accepted && live == 0));
     }},

    {"an emergency code",
     [] {
         Somebody alice = HalfSignedIn(Alice());
         CodeDigits digits;
         EXPECT_TRUE(
             OpenCode(alice.account.uid, SecretsOf(alice.account.uid).at(0).codes.at(3).reference, digits));
         alice.code = digits.text;
         return alice;
     },
     [](Somebody& alice, std::string& said) {
         Post(alice, "/api/signin/code", said);
         return said == "200";
     },
     [](const Somebody& before, const Somebody& after, bool told) {
         const int64_t live = LiveSessions(before.account);
         EXPECT_TRUE(!told || Finds(after.sid));
         StartRequest();
         const int left = Settle(before.account).codesLeft;
         EXPECT_TRUE(left == 9 || (left == 10 && live == 0)) << left << " codes, " << live << " sessions";
         const std::string file = test::ReadFile(SecretPath(before.account.name));
         EXPECT_EQ(left, std::count(file.begin(), file.end(), '\n') - 2) << "lines of codes";
         StartRequest();
         const CodeResult again = VerifyCode(before.account, before.code).result;
         EXPECT_EQ(left == 9 ? CodeResult::Wrong : CodeResult::Accepted, again);
     }},

    {"signing out of the wizard", [] { return AtWizard(SignedIn(Bob())); },
     [](Somebody& bob, std::string& said) {
         Post(bob, "/api/signout", said);
         return said == "200";
     },
     [](const Somebody& before, const Somebody&, bool told) {
         EXPECT_FALSE(told && Finds(before.sid));
         EXPECT_FALSE(told && IsWaiting(before.account));
         ClearWaiting(Clear::All); // as at the next start
         EXPECT_FALSE(IsWaiting(before.account));
         EXPECT_EQ(Enrolment::No, EnrolmentOf(before.account));
     }},

    {"a confirmation", [] { return AtWizard(SignedIn(Bob())); },
     [](Somebody& bob, std::string& said) {
         return Post(bob, "/api/otp/confirm", said).body["auth_ok"] == true;
     },
     [](const Somebody& before, const Somebody& after, bool told) {
         const bool enrolled = EnrolmentOf(before.account) == Enrolment::Yes;
         EXPECT_TRUE(enrolled || (!told && EnrolmentOf(before.account) == Enrolment::No));
         EXPECT_NE(enrolled, Finds(before.sid)) << "of before the enrolment";
         // Enrolled is stored before the session is: where that fails, the person signs in.
         EXPECT_TRUE(after.sid.empty() || after.sid == before.sid || Finds(after.sid));
     }},

    {"a renewal's new key", [] { return SignedIn(Alice()); },
     [](Somebody& alice, std::string& said) {
         return Post(alice, "/api/otp/renew", said).body["success"] == true;
     },
     [](const Somebody& before, const Somebody&, bool told) {
         EXPECT_TRUE(!told || IsWaiting(before.account));
         EXPECT_EQ(Enrolment::Yes, EnrolmentOf(before.account));
         EXPECT_TRUE(Finds(before.sid));
     }},

    {"a renewal's confirmation",
     [] {
         const Somebody alice = SignedIn(Alice());
         return AtWizard(alice);
     },
     [](Somebody& alice, std::string& said) {
         return Post(alice, "/api/otp/confirm", said).body["auth_ok"] == true;
     },
     [](const Somebody& before, const Somebody& after, bool told) {
         EXPECT_EQ(Enrolment::Yes, EnrolmentOf(before.account));
         const bool isNew = KeyOf(before.account) == before.key;
         EXPECT_TRUE(isNew || !told);
         EXPECT_NE(isNew, Finds(before.sid)) << "of before the renewal";
         EXPECT_TRUE(after.sid.empty() || after.sid == before.sid || Finds(after.sid));
     }},

    {"switching off", [] { return SignedIn(Alice()); },
     [](Somebody& alice, std::string& said) {
         Post(alice, "/api/otp/disable", said);
         return said == "200";
     },
     [](const Somebody& before, const Somebody& after, bool told) {
         const bool enrolled = EnrolmentOf(before.account) == Enrolment::Yes;
         EXPECT_TRUE(enrolled || EnrolmentOf(before.account) == Enrolment::No);
         EXPECT_FALSE(enrolled && told);
         EXPECT_EQ(enrolled, Finds(before.sid)) << "of before";
         EXPECT_TRUE(!told || Finds(after.sid));
     }},

    {"a recovery address", [] { return SignedIn(Bob()); },
     [](Somebody& bob, std::string& said) { return Post(bob, "/api/otp/mail", said).body["saved"] == true; },
     [](const Somebody& before, const Somebody&, bool told) {
         const std::string mail = FindAccount(before.account.uid)->mail;
         EXPECT_TRUE(mail == "somebody@home.example" || (mail.empty() && !told)) << mail;
         EXPECT_TRUE(Finds(before.sid));
     }},

    {"a session in use", [] { return SignedIn(Bob()); },
     [](Somebody& bob, std::string& said) {
         said = Said(Ask(RequestOf("GET", "/api/session", bob), ""));
         return said == "200";
     },
     [](const Somebody& before, const Somebody&, bool) { EXPECT_TRUE(Finds(before.sid)); }},

    {"the console's new password", [] { return SignedIn(Bob()); },
     [](Somebody& bob, std::string&) {
         SetPassword(bob.account.uid, kNewPassword);
         EndSessionsOf(bob.account.uid);
         return true;
     },
     [](const Somebody& before, const Somebody&, bool told) {
         const bool isNew = CheckPassword("bob", kNewPassword).has_value();
         EXPECT_NE(isNew, CheckPassword("bob", kRightPassword).has_value());
         EXPECT_TRUE(isNew || !told);
         EXPECT_NE(isNew, Finds(before.sid)) << "of the former password";
         EXPECT_TRUE(SetPassword(before.account.uid, kRightPassword));
     }},

    {"the console's disabling", [] { return SignedIn(Alice()); },
     [](Somebody& alice, std::string&) {
         SetDisabled(alice.account.uid, true);
         EndSessionsOf(alice.account.uid);
         return true;
     },
     [](const Somebody& before, const Somebody&, bool told) {
         const bool disabled = FindAccount(before.account.uid)->disabled;
         EXPECT_TRUE(disabled || !told);
         EXPECT_NE(disabled, Finds(before.sid));
         EXPECT_TRUE(SetDisabled(before.account.uid, false));
         EXPECT_NE(disabled, Finds(before.sid)) << "it does not wake up";
     }},

    {"the console's other rights", [] { return SignedIn(Alice()); },
     [](Somebody& alice, std::string&) { return JoinGroup(alice.account, *FindGroup(kAdministrators)); },
     [](const Somebody& before, const Somebody&, bool told) {
         const bool joined = FindAccount(before.account.uid)->isAdmin;
         EXPECT_TRUE(joined || !told);
         EXPECT_NE(joined, Finds(before.sid));
     }},

    {"the console's reset", [] { return SignedIn(Alice()); },
     [](Somebody& alice, std::string&) {
         StartRequest();
         MarkSwitchingOff(alice.account, AuditEvent::Reset);
         return Settle(alice.account).enrolment == Enrolment::No && OpenSecondStep(alice.account) == false;
     },
     [](const Somebody& before, const Somebody&, bool told) {
         const Enrolment enrolment = EnrolmentOf(before.account);
         EXPECT_TRUE(enrolment == Enrolment::No || (enrolment == Enrolment::Yes && !told));
         EXPECT_EQ(enrolment == Enrolment::Yes, Finds(before.sid));
         EXPECT_EQ(enrolment == Enrolment::Yes, fs::exists(SecretPath(before.account.name)));
     }},

    {"clearing",
     [] {
         AddSomebody("old");
         const Somebody old = AtWizard(SignedIn({*FindAccount("old"), "", "", "", "", ""}));
         SigninDatabase().Prepare("UPDATE secret SET made = made - 3600").Run();
         SigninDatabase().Prepare("UPDATE audit SET time = 0").Run();
         return SignedIn(Alice());
     },
     [](Somebody&, std::string&) {
         StartRequest();
         ClearWaiting(Clear::TooOld);
         ClearAudit();
         return true;
     },
     [](const Somebody& before, const Somebody&, bool told) {
         EXPECT_TRUE(!told || !IsWaiting(*FindAccount("old")));
         EXPECT_EQ(Enrolment::Yes, EnrolmentOf(before.account));
         EXPECT_TRUE(Finds(before.sid));
         ClearWaiting(Clear::TooOld);
         EXPECT_FALSE(IsWaiting(*FindAccount("old")));
     }},
};

// --- Runs ---

// What comes from a worker to the test, through a pipe: no disk that fails is in between.
class FromWorker
{
public:
    FromWorker() { EXPECT_EQ(0, pipe(ends_.data())); }
    ~FromWorker()
    {
        close(ends_[0]);
        close(ends_[1]);
    }
    FromWorker(const FromWorker&) = delete;
    FromWorker& operator=(const FromWorker&) = delete;

    void Send(const Somebody& somebody, const std::string& said) const
    {
        const std::string text = said + '\n' + somebody.sid + '\n' + somebody.pending + '\n' +
                                 somebody.token + '\n' + somebody.key + '\n' + somebody.code + '\n';
        EXPECT_EQ(static_cast<ssize_t>(text.size()), write(ends_[1], text.data(), text.size()));
    }

    // What was sent, else nothing.
    void Receive(Somebody& somebody, std::string& said)
    {
        close(ends_[1]);
        ends_[1] = -1;
        std::string text(4096, '\0');
        const ssize_t size = read(ends_[0], text.data(), text.size());
        std::istringstream lines(text.substr(0, static_cast<size_t>(std::max<ssize_t>(size, 0))));
        for (std::string* const part :
             {&said, &somebody.sid, &somebody.pending, &somebody.token, &somebody.key, &somebody.code}) {
            std::getline(lines, *part);
        }
    }

private:
    std::array<int, 2> ends_{-1, -1};
};

// A way to cut off: at one of `stops` places, as the first whole run has them.
struct Way {
    const char* name;
    std::function<test::Steps(long at, const std::function<int()>& work)> run;
    long stride; // KILL_STRIDE takes its place
};

class Interrupted : public test::FreshServer, public testing::WithParamInterface<size_t>
{
protected:
    void SetUp() override
    {
        FreshServer::SetUp();
        test::SetClocks(kNow, kBoot, "first");
        FromWorker prepared;
        AsWorker([&] {
            const Somebody somebody = writer_.prepare();
            prepared.Send(somebody, somebody.account.name);
        });
        prepared.Receive(before_, user_);
        KeepState();
    }

    // One run and what is left of it.
    test::Steps RunAt(const Way& way, long at)
    {
        SCOPED_TRACE(std::string(way.name) + " at " + std::to_string(at));
        RestoreState();
        test::SetClocks(kNow + moved_, kLater + moved_, "first");
        FromWorker answer;
        const test::Steps steps = way.run(at, [&] { return Write(answer); });
        Somebody after;
        std::string said;
        answer.Receive(after, said);
        const bool told = said.starts_with("told ");
        EXPECT_TRUE(at >= 0 || told) << said << ": nothing was in its way";
        EXPECT_TRUE(told || steps.killed || said == "503 otp_unavailable" || said == "500 internal" ||
                    said == "not told" || said == "200")
            << said;
        AsWorker([&] {
            Somebody before = before_;
            before.account = *FindAccount(user_);
            StartRequest();
            writer_.check(before, after, told);
            ExpectSignIn(before.account);
        });
        return steps;
    }

    void CutOffEverywhere(const Way& way)
    {
        const char* const text = std::getenv("KILL_STRIDE");                // NOLINT(concurrency-mt-unsafe)
        const long stride = text != nullptr ? std::atol(text) : way.stride; // NOLINT(cert-err34-c)
        const long all = RunAt(way, -1).stops;
        ASSERT_GT(all, 0);
        long runs = 0;
        for (long at = 0; at < all && !HasFailure(); at += stride) {
            RunAt(way, at);
            ++runs;
        }
        std::printf("%s, %s: %ld runs of %ld\n", writer_.name, way.name, runs, all);
    }

private:
    int Write(const FromWorker& answer)
    {
        return test::RunLowered([&] {
            Somebody somebody = before_;
            somebody.account = *FindAccount(user_);
            std::string said = "not told";
            bool told = false;
            test::MarkStart();
            try {
                told = writer_.write(somebody, said);
            } catch (const DatabaseError&) {
                told = false;
            } catch (const std::exception&) {
                said = "500 internal"; // as the server answers it
            }
            answer.Send(somebody, told ? "told " + said : said);
            return 0;
        });
    }

    const Writer& writer_ = kWriters[GetParam()];
    Somebody before_;
    std::string user_;
    int64_t moved_ = std::string_view(writer_.name) == "a session in use" ? 120 : 0;
};

TEST_P(Interrupted, ByAKillIsDoneOrNot)
{
    CutOffEverywhere({"killed", test::RunKilledAt, 151});
}

TEST_P(Interrupted, ByADiskThatStoresNothingMoreIsDoneOrNotAndGoesOnAfterwards)
{
#ifndef __x86_64__
    GTEST_SKIP() << "calls can be made to fail on x86-64 alone";
#endif
    const auto failing = [](int error, test::Failing how) {
        return [=](long at, const std::function<int()>& work) {
            return test::RunFailingAt(at, error, how, work);
        };
    };
    CutOffEverywhere({"full", failing(ENOSPC, test::Failing::FromThenOn), 17});
    CutOffEverywhere({"read-only", failing(EROFS, test::Failing::FromThenOn), 19});
    CutOffEverywhere({"one error", failing(EIO, test::Failing::Once), 11});
}

std::string NameOf(const testing::TestParamInfo<size_t>& info)
{
    std::string name = kWriters[info.param].name;
    name.erase(std::remove_if(name.begin(), name.end(), [](char c) { return std::isalnum(c) == 0; }),
               name.end());
    return name;
}

INSTANTIATE_TEST_SUITE_P(Writers, Interrupted, testing::Range(size_t{0}, std::size(kWriters)), NameOf);

} // namespace

} // namespace tavr::web
