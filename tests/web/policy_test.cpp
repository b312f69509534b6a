// Two-step sign-in that the policy demands: from the password straight to the enrolment, never switched off,
// and no session for anybody of whom it cannot be told whether it is demanded.

#include "linux/audit.h"
#include "linux/database.h"
#include "linux/enrolment.h"
#include "linux/paths.h"
#include "linux/places.h"
#include "linux/policy_file.h"
#include "linux/request.h"
#include "linux/session.h"
#include "linux/settings.h"
#include "otp/OTPEnforceHandler.h"
#include "platform/core.h"
#include "platform/users.h"
#include "tests/support/fresh_server.h"
#include "tests/web/asking.h"

#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <string_view>

namespace
{

bool g_directoryAway = false;
std::function<void()> g_beforeTheLibraryReads; // once

} // namespace

// The linker puts these before the platform's own.
extern "C" int __real_KLIBGroupInfoGidGet(const char* name, int flags, uint32_t** gids, int* count);
extern "C" int __wrap_KLIBGroupInfoGidGet(const char* name, int flags, uint32_t** gids, int* count)
{
    if (g_directoryAway) {
        tavr::NoteFault(tavr::Fault::AccountsUnavailable);
        return -1;
    }
    return __real_KLIBGroupInfoGidGet(name, flags, gids, count);
}

extern "C" int __real_KLIBCFileExist(const char* path);
extern "C" int __wrap_KLIBCFileExist(const char* path)
{
    if (g_beforeTheLibraryReads && std::string_view(path) == tavr::kPolicyFile) {
        std::exchange(g_beforeTheLibraryReads, nullptr)();
    }
    return __real_KLIBCFileExist(path);
}

namespace tavr::web
{

namespace
{

constexpr char kDemanded[] = "enrolment_required";

void Choose(const char* option)
{
    ASSERT_TRUE(WriteSetting("otp_enforce_option", option));
}

Answer Post(Somebody& somebody, const char* path)
{
    Answer answer = Ask(RequestOf("POST", path, somebody), FullBody(somebody));
    TakeCookies(somebody, answer);
    return answer;
}

Json::Value Status(const Somebody& somebody)
{
    return Ask(RequestOf("GET", "/api/otp/status", somebody), "").body;
}

// What the sign-in of somebody fresh says: a state, or a refusal.
std::string SignInOf(Somebody& somebody)
{
    somebody.sid.clear();
    somebody.pending.clear();
    const Answer answer = SignInAs(somebody);
    return answer.status == 200 ? answer.body["state"].asString() : Said(answer);
}

int64_t Sessions()
{
    Statement count = SigninDatabase().Prepare("SELECT count(*) FROM session");
    count.Step();
    return count.Int(0);
}

class Policy : public test::FreshServer
{
protected:
    void SetUp() override
    {
        FreshServer::SetUp();
        ASSERT_TRUE(MakePlaces(2));
    }
};

TEST_F(Policy, LeadsWhomItDemandsItOfToTheEnrolment)
{
    AsWorker([] {
        Somebody alice = AddSomebody("alice");
        Somebody bob = AddSomebody("bob");
        Somebody ann = AddSomebody("ann");
        ASSERT_TRUE(JoinGroup(ann.account, *FindGroup(kAdministrators)));
        const Group staff = *AddGroup("staff", "");
        ASSERT_TRUE(JoinGroup(bob.account, staff));
        struct Choice {
            const char* option;
            const char* picks;
            const char* alice;
            const char* bob;
            const char* ann;
        };
        const std::string uid = std::to_string(alice.account.uid);
        const std::string gid = std::to_string(staff.gid);
        const std::string user = "{\"local_user\":[\"" + uid + "\"]}\n";
        const std::string group = "{\"local_group\":[\"" + gid + "\"]}\n";
        const std::string others =
            R"({"domain_user":[")" + uid + R"("],"ldap_group":[")" + gid + R"("]})" + "\n";
        const Choice choices[] = {
            {"none", user.c_str(), "signed_in", "signed_in", "signed_in"},
            {"user", "{}\n", kDemanded, kDemanded, kDemanded},
            {"admin", user.c_str(), "signed_in", "signed_in", kDemanded},
            {"custom", "{}\n", "signed_in", "signed_in", "signed_in"},
            {"custom", user.c_str(), kDemanded, "signed_in", "signed_in"},
            {"custom", group.c_str(), "signed_in", kDemanded, "signed_in"},
            {"custom", others.c_str(), "signed_in", "signed_in", "signed_in"},
            {"Custom", user.c_str(), "signed_in", "signed_in", "signed_in"},
        };
        for (const Choice& choice : choices) {
            Choose(choice.option);
            test::WriteFile(kPolicyFile, choice.picks);
            const std::string what = std::string(choice.option) + ' ' + choice.picks;
            EXPECT_EQ(choice.alice, SignInOf(alice)) << what;
            EXPECT_EQ(choice.bob, SignInOf(bob)) << what;
            EXPECT_EQ(choice.ann, SignInOf(ann)) << what;
            for (const Somebody* somebody : {&alice, &bob, &ann}) {
                EXPECT_NE(somebody->sid.empty(), somebody->pending.empty()) << what;
            }
        }
    });
}

TEST_F(Policy, GivesNoSessionBeforeTheFirstCode)
{
    AsWorker([] {
        Choose("user");
        Somebody alice = AddSomebody("alice");
        ASSERT_EQ(kDemanded, SignInOf(alice));
        ASSERT_EQ(30 * 60, FindSession(alice.pending)->expiresIn);
        EXPECT_EQ("401 not_signed_in", Said(Ask(RequestOf("GET", "/api/session", alice), "")));
        EXPECT_EQ(kDemanded, Ask(RequestOf("GET", "/api/session", alice), "").body["state"].asString());
        EXPECT_EQ("403 no_pending_signin", Said(Post(alice, "/api/signin/code")));
        EXPECT_EQ("403 no_pending_signin", Said(Post(alice, "/api/signin/emergency")));
        EXPECT_EQ("401 not_signed_in", Said(Post(alice, "/api/otp/disable")));
        EXPECT_TRUE(Status(alice)["enforced"].asBool());
        EXPECT_FALSE(Status(alice)["enrolled"].asBool());

        const Answer page = Post(alice, "/api/otp/qr");
        ASSERT_EQ("200", Said(page));
        EXPECT_TRUE(alice.sid.empty());
        alice.code = "000000";
        EXPECT_EQ("otp_auth_failed", Post(alice, "/api/otp/confirm").body["errno"]["key"].asString());
        EXPECT_TRUE(alice.sid.empty());
        alice.code.clear();
        alice.key = page.body["key"].asString();
        const std::string half = alice.pending;
        EXPECT_TRUE(Post(alice, "/api/otp/confirm").body["success"].asBool());
        ASSERT_FALSE(alice.sid.empty());
        EXPECT_TRUE(FindSession(alice.sid)->secondStep);
        EXPECT_FALSE(FindSession(half));
        EXPECT_TRUE(alice.pending.empty());
        EXPECT_TRUE(Status(alice)["enforced"].asBool());
        EXPECT_TRUE(Status(alice)["enrolled"].asBool());
        EXPECT_EQ("code_required", SignInOf(alice)) << "as anybody who is enrolled";
    });
}

TEST_F(Policy, LetsNobodySwitchOffWhatItDemands)
{
    AsWorker([] {
        Somebody alice = AddEnrolled("alice");
        alice.sid = Open(alice.account, true);
        alice.token = TokenOf(alice.sid);
        Choose("user");
        EXPECT_EQ("403 otp_enforced", Said(Post(alice, "/api/otp/disable")));
        EXPECT_EQ(Enrolment::Yes, Settle(alice.account).enrolment);
        EXPECT_TRUE(FindSession(alice.sid));
        Choose("none");
        EXPECT_EQ("200", Said(Post(alice, "/api/otp/disable"))) << "the code was not used up by the refusal";
        EXPECT_EQ(Enrolment::No, Settle(alice.account).enrolment);
    });
}

TEST_F(Policy, LetsAPhoneBeReplaced)
{
    AsWorker([] {
        Choose("user");
        Somebody alice = AddEnrolled("alice");
        alice.sid = Open(alice.account, true);
        alice.token = TokenOf(alice.sid);
        const std::string former = alice.key;
        const Answer page = Post(alice, "/api/otp/renew");
        ASSERT_EQ("200", Said(page));
        alice.key = page.body["key"].asString();
        ASSERT_NE(former, alice.key);
        EXPECT_TRUE(Post(alice, "/api/otp/confirm").body["success"].asBool());
        EXPECT_TRUE(FindSession(alice.sid)->secondStep);
        EXPECT_EQ(Enrolment::Yes, Settle(alice.account).enrolment);
    });
}

TEST_F(Policy, LeavesOpenSessionsAndAsksAtTheNextSignIn)
{
    AsWorker([] {
        Somebody alice = AddSomebody("alice");
        ASSERT_EQ("signed_in", SignInOf(alice));
        Choose("user");
        EXPECT_EQ("200", Said(Ask(RequestOf("GET", "/api/session", alice), "")));
        EXPECT_TRUE(Status(alice)["enforced"].asBool());
        EXPECT_EQ(kDemanded, SignInOf(alice));
        Choose("none");
        EXPECT_FALSE(Status(alice)["enforced"].asBool());
        EXPECT_EQ("200", Said(Post(alice, "/api/otp/qr"))) << "begun, and still good";
    });
}

// --- What cannot be told ---

// Every way in and every step of the wizard, for who is enrolled and who is not.
void ExpectNothingForAnybody(const std::string& why)
{
    static int number = 0;
    const std::string name = std::to_string(getpid()) + '-' + std::to_string(++number);
    Somebody fresh = AddSomebody("f" + name);
    Somebody enrolled = AddEnrolled("e" + name);
    fresh.pending = OpenPending(fresh.account, SessionState::EnrolmentRequired);
    fresh.token = TokenOf(fresh.pending);
    enrolled.sid = Open(enrolled.account, true);
    enrolled.token = TokenOf(enrolled.sid);
    const int64_t before = Sessions();
    for (Somebody* somebody : {&fresh, &enrolled}) {
        for (const char* path : {"/api/signin", "/api/otp/qr", "/api/otp/label", "/api/otp/confirm",
                                 "/api/otp/mail", "/api/otp/renew", "/api/otp/disable"}) {
            if (somebody == &fresh && (path == std::string_view("/api/otp/renew") ||
                                       path == std::string_view("/api/otp/disable"))) {
                continue; // not for a half sign-in
            }
            const Answer answer = Post(*somebody, path);
            EXPECT_EQ("503 policy_unavailable", Said(answer)) << path << ", " << why;
            EXPECT_EQ("", HeaderOf(answer, "Set-Cookie")) << path << ", " << why;
        }
        EXPECT_EQ("503 policy_unavailable", Said(Ask(RequestOf("GET", "/api/otp/status", *somebody), "")))
            << why;
    }
    EXPECT_EQ(before, Sessions()) << why;
    StartRequest();
    EXPECT_EQ(Enrolment::Yes, Settle(enrolled.account).enrolment) << why;
    EXPECT_EQ(Enrolment::No, Settle(fresh.account).enrolment) << why;
}

TEST_F(Policy, ThatCannotBeToldLetsNobodyIn)
{
    AsWorker([] {
        Choose("custom");
        for (const char* text : {"", "[]", "null", "{\"local_user\":[", "{\"local_user\":5}"}) {
            test::WriteFile(kPolicyFile, text); // and there is no copy
            ExpectNothingForAnybody(std::string("picks ") + text);
        }
        test::WriteFile(kPolicyFile, "{\"local_group\":[\"1\"]}\n");
        g_directoryAway = true;
        ExpectNothingForAnybody("directory away");
        g_directoryAway = false;
    });
    for (const auto& [why, spoil] : std::initializer_list<std::pair<const char*, std::function<void()>>>{
             {"settings gone", [] { unlink("/etc/tavr/tavrinfo.conf"); }},
             {"settings empty", [] { WriteSettings(""); }},
             {"settings a folder", [] {
                  unlink("/etc/tavr/tavrinfo.conf");
                  mkdir("/etc/tavr/tavrinfo.conf", 0755);
              }}}) {
        spoil();
        AsWorker([why = why] { ExpectNothingForAnybody(why); });
    }
    rmdir("/etc/tavr/tavrinfo.conf");
}

TEST_F(Policy, WithoutItsLockLetsNobodyIn)
{
    AsWorker([] {
        Choose("custom");
        unlink(kPolicyLockFile);
        ASSERT_EQ(0, symlink("/tmp/elsewhere", kPolicyLockFile));
        ExpectNothingForAnybody("no lock");
    });
}

TEST_F(Policy, ThatIsCertainNeedsNothingMore)
{
    AsWorker([] {
        test::WriteFile(kPolicyFile, "[]");
        Somebody alice = AddSomebody("alice");
        Choose("none");
        EXPECT_EQ("signed_in", SignInOf(alice)) << "the picks are nobody's business";
        Choose("admin");
        EXPECT_EQ("signed_in", SignInOf(alice));
        Choose("user");
        EXPECT_EQ(kDemanded, SignInOf(alice));
        EXPECT_EQ("200", Said(Post(alice, "/api/otp/qr")));
        test::WriteFile(kPolicyFile, "{\"local_group\":[\"1\"],\"local_user\":[\"" +
                                         std::to_string(alice.account.uid) + "\"]}\n");
        Choose("custom");
        g_directoryAway = true;
        EXPECT_EQ(kDemanded, SignInOf(alice)) << "the user entry is enough";
        g_directoryAway = false;
    });
    // Settings that can no longer be read, in a worker that knows what stood in them.
    AsWorker([] {
        Choose("user");
        Somebody bob = AddSomebody("bob");
        ASSERT_EQ(kDemanded, SignInOf(bob));
        {
            const EffectiveIds root = EffectiveIds::Root();
            unlink("/etc/tavr/tavrinfo.conf");
            mkdir("/etc/tavr/tavrinfo.conf", 0755);
        }
        EXPECT_EQ(kDemanded, SignInOf(bob));
        const Answer page = Post(bob, "/api/otp/qr");
        ASSERT_EQ("200", Said(page));
        bob.key = page.body["key"].asString();
        EXPECT_TRUE(Post(bob, "/api/otp/confirm").body["success"].asBool());
        EXPECT_FALSE(bob.sid.empty());
    });
    rmdir("/etc/tavr/tavrinfo.conf");
}

// --- A file that is spoilt ---

TEST_F(Policy, StaysInForceWhenItsFileIsSpoilt)
{
    AsWorker([] {
        Choose("custom");
        Somebody alice = AddSomebody("alice");
        Demand(alice.account);
        const std::string picks = test::ReadFile(kPolicyFile);
        for (const char* text : {"", "[]", "{\"local_user\":[\"10"}) {
            test::WriteFile(kPolicyFile, text);
            EXPECT_EQ(kDemanded, SignInOf(alice)) << text;
            EXPECT_EQ(picks, test::ReadFile(kPolicyFile));
        }
        unlink(kPolicyFile);
        EXPECT_EQ(kDemanded, SignInOf(alice));
        int restored = 0;
        ForEachAuditRow({}, [&](const AuditRow& row) {
            restored += row.event == "policy" && row.outcome == "restored" ? 1 : 0;
        });
        EXPECT_EQ(4, restored);
    });
}

TEST_F(Policy, StaysInForceWhileAnEditorIsAtTheFile)
{
    AsWorker([] {
        Choose("custom");
        Somebody alice = AddSomebody("alice");
        Demand(alice.account);
        const std::string picks = test::ReadFile(kPolicyFile);
        bool emptied = false;
        g_beforeTheLibraryReads = [&] { emptied = truncate(kPolicyFile, 0) == 0; };
        EXPECT_EQ(kDemanded, SignInOf(alice));
        EXPECT_TRUE(emptied);
        g_beforeTheLibraryReads = [] { unlink(kPolicyFile); };
        EXPECT_EQ(kDemanded, SignInOf(alice));
        for (const char* text :
             {"[]", "[1]", "{\"local_user\":[[]]}"}) { // the library throws at the first two
            g_beforeTheLibraryReads = [text] { test::WriteFile(kPolicyFile, text); };
            EXPECT_EQ(kDemanded, SignInOf(alice)) << text;
        }
        EXPECT_EQ(picks, test::ReadFile(kPolicyFile));
    });
}

} // namespace

} // namespace tavr::web
