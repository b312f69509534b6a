// The setup wizard, on a scripted platform.
#include "otp/OTPWizardHandler.h"

#include "tests/support/fake_platform.h"
#include "tests/support/temp_dir.h"

#include <algorithm>
#include <filesystem>
#include <stdexcept>

#include <gtest/gtest.h>
#include <json/json.h>

namespace
{

using Texts = std::vector<std::string>;

const Texts kNothing;

// The answer as one line of JSON.
std::string Answer(OTPWizardHandler& wizard)
{
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, wizard.GetResponse());
}

// --- frame ---

TEST(Wizard, BindsTheRequestUnderItsOwnAddressAndFreesItOnce)
{
    FakePlatform platform;
    {
        OTPWizardHandler wizard;
        ASSERT_EQ(1u, platform.contexts.size());
        EXPECT_EQ(static_cast<void*>(&wizard), static_cast<void*>(platform.contexts[0]));
        EXPECT_EQ(nullptr, platform.contexts[0]->request);
        EXPECT_TRUE(wizard.GetResponse().isNull());
    }
    EXPECT_EQ((Texts{R"(TavrCgiInit("", cgi))", "TavrCgiFree(cgi)"}), platform.calls);
}

TEST(Wizard, LetsAnExceptionOfTheRequestThrough)
{
    FakePlatform platform;
    platform.During("TavrCgiInit", [&] {
        platform.Closed(platform.contexts.back(), "request context"); // never came to be
        throw std::runtime_error("no request");
    });
    EXPECT_THROW(OTPWizardHandler(), std::runtime_error);
    EXPECT_EQ(kNothing, platform.CallsOf("TavrCgiFree"));
}

TEST(Wizard, KeepsTheLastErrorAndTheLastSuccess)
{
    FakePlatform platform;
    OTPWizardHandler wizard;
    wizard.SetError("one", "first", 1);
    EXPECT_EQ(R"({"errno":{"key":"first","line":1,"section":"one"}})", Answer(wizard));
    wizard.SetError("two", "second", -2);
    wizard.SetSuccess(true);
    EXPECT_EQ(R"({"errno":{"key":"second","line":-2,"section":"two"},"success":true})", Answer(wizard));
    wizard.SetSuccess(false);
    EXPECT_EQ(R"({"errno":{"key":"second","line":-2,"section":"two"},"success":false})", Answer(wizard));
}

TEST(Wizard, CopiesWhatItIsGivenAndGivesACopy)
{
    FakePlatform platform;
    OTPWizardHandler wizard;
    char section[] = "section";
    char key[] = "key";
    wizard.SetError(section, key, 1);
    section[0] = key[0] = 'X';
    Json::Value answer = wizard.GetResponse();
    answer["errno"] = "changed";
    EXPECT_EQ(R"({"errno":{"key":"key","line":1,"section":"section"}})", Answer(wizard));
}

// --- password ---

// The calls of a login as Alice: `before`, a switch to root around `call`, `after`.
Texts WithRoot(const std::string& before, const std::string& call, const Texts& after = {})
{
    Texts calls = {R"(ParseInputUserName("Alice", out, 493))"};
    if (!before.empty()) {
        calls.push_back(before);
    }
    calls.insert(calls.end(),
                 {"getpwnam_r(\"root\", 1024)", "setresuid(-1, 0, -1)", "setresgid(-1, 0, -1)",
                  "setresuid(-1, 0, -1)", call, "setresgid(-1, 64217, -1)", "setresuid(-1, 64217, -1)"});
    calls.insert(calls.end(), after.begin(), after.end());
    return calls;
}

class PasswordCheck : public testing::Test
{
protected:
    PasswordCheck()
    {
        platform.canonicalNames["Alice"] = "alice";
        platform.sid = "sid-text";
        platform.calls.clear();
    }

    // The name that the handler keeps, as the steps hand it on.
    std::string KeptUser()
    {
        platform.calls.clear();
        wizard.AuthOTPcode("1", 7);
        const std::string call = platform.CallsOf("TAVRGoogleAuth").at(0);
        const std::size_t start = call.find("username=") + 9;
        return call.substr(start, call.find('"', start) - start);
    }

    FakePlatform platform;
    OTPWizardHandler wizard;
};

using AuthUserAccount = PasswordCheck;

TEST_F(AuthUserAccount, TestsThePasswordAsRoot)
{
    platform.calls.clear();
    platform.During("TavrCgiTestLoginEx2", [&] {
        EXPECT_EQ(0u, platform.euid);
        EXPECT_EQ(0u, platform.egid);
    });
    EXPECT_TRUE(wizard.AuthUserAccount("Alice", "pw", false, true));
    EXPECT_EQ(WithRoot("", R"(TavrCgiTestLoginEx2("alice", "pw", "webui", 0, 0))"), platform.calls);
    EXPECT_EQ(64217u, platform.euid);
    EXPECT_EQ(64217u, platform.egid);
    EXPECT_TRUE(wizard.GetResponse().isNull());
    EXPECT_EQ(kNothing, platform.LogLines());
}

TEST_F(AuthUserAccount, LogsInAsRootAndGivesSessionAndToken)
{
    platform.calls.clear();
    platform.token = "token-text";
    platform.During("TavrCgiLogin", [&] { EXPECT_EQ(0u, platform.euid); });
    platform.During("TavrCgiIsTokenEnable", [&] { EXPECT_EQ(64217u, platform.euid); });
    EXPECT_TRUE(wizard.AuthUserAccount("Alice", "pw", true, false));
    EXPECT_EQ(WithRoot("TAVRHAIsSafemode()", R"(TavrCgiLogin(cgi, sid, 122, "alice", "pw", "webui", 15))",
                       {"TavrCgiIsTokenEnable(cgi)", "TavrCgiLoadInCookies(cgi)",
                        R"(TavrCgiGetOption(cgi, 2, ""))"}),
              platform.calls);
    EXPECT_EQ(R"({"TavrToken":"token-text","sid":"sid-text"})", Answer(wizard));
}

TEST_F(AuthUserAccount, AnswersByTheStatusOfTheLogin)
{
    const struct {
        int status;
        bool allowPending;
        bool testResult;
        bool loginResult;
        const char* loginAnswer;
    } cases[] = {
        {1, false, true, true, R"({"TavrToken":"t","sid":"sid-text"})"},
        {1, true, true, true, R"({"TavrToken":"t","sid":"sid-text"})"},
        {-5, false, false, false, R"({"sid":"sid-text"})"},
        {-5, true, true, true, R"({"sid":"sid-text"})"},
        {0, true, false, false, R"({"sid":"sid-text"})"},
        {-1, true, false, false, R"({"sid":"sid-text"})"},
        {5, true, false, false, R"({"sid":"sid-text"})"},
        {2, false, false, false, R"({"sid":"sid-text"})"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.status) + (c.allowPending ? " allowed" : " refused"));
        platform.token = "t";
        platform.loginStatus = c.status;
        platform.calls.clear();
        EXPECT_EQ(c.testResult, wizard.AuthUserAccount("Alice", "pw", false, c.allowPending));
        EXPECT_EQ(Texts{std::string(R"(TavrCgiTestLoginEx2("alice", "pw", "webui", 0, )") +
                        (c.allowPending ? "0)" : "1)")},
                  platform.CallsOf("TavrCgiTestLoginEx2"));
        EXPECT_EQ(kNothing, platform.CallsOf("TAVRHAIsSafemode"));

        EXPECT_EQ(c.loginResult, wizard.AuthUserAccount("Alice", "pw", true, c.allowPending));
        EXPECT_EQ(c.status == 1 ? 1u : 0u, platform.CallsOf("TavrCgiIsTokenEnable").size());
    }
    for (const auto& c : cases) {
        SCOPED_TRACE(c.status);
        platform.loginStatus = c.status;
        OTPWizardHandler fresh;
        fresh.AuthUserAccount("Alice", "pw", true, c.allowPending);
        EXPECT_EQ(c.loginAnswer, Answer(fresh));
    }
}

TEST_F(AuthUserAccount, WritesTheSessionTextOfARefusedLoginToo)
{
    platform.loginStatus = 0;
    platform.sid = "";
    EXPECT_FALSE(wizard.AuthUserAccount("Alice", "pw", true, false));
    EXPECT_EQ(R"({"sid":""})", Answer(wizard));
}

TEST_F(AuthUserAccount, WritesNoTokenWhenRequestsNeedNone)
{
    EXPECT_TRUE(wizard.AuthUserAccount("Alice", "pw", true, false));
    EXPECT_EQ(R"({"sid":"sid-text"})", Answer(wizard));
    EXPECT_EQ(kNothing, platform.CallsOf("TavrCgiLoadInCookies"));
}

TEST_F(AuthUserAccount, AsksForTheSessionAloneInSafeMode)
{
    for (const int safeMode : {1, -1}) {
        platform.calls.clear();
        platform.Answer("TAVRHAIsSafemode", safeMode);
        EXPECT_TRUE(wizard.AuthUserAccount("Alice", "pw", true, false));
        EXPECT_EQ(Texts{R"(TavrCgiLogin(cgi, sid, 122, "alice", "pw", "webui", 1))"},
                  platform.CallsOf("TavrCgiLogin"));
    }
}

TEST_F(AuthUserAccount, RefusesNullArgumentsSilently)
{
    platform.calls.clear();
    for (const bool login : {false, true}) {
        EXPECT_FALSE(wizard.AuthUserAccount(nullptr, "pw", login, true));
        EXPECT_FALSE(wizard.AuthUserAccount("Alice", nullptr, login, true));
    }
    EXPECT_EQ(kNothing, platform.calls);
    EXPECT_EQ(kNothing, platform.LogLines());
    EXPECT_TRUE(wizard.GetResponse().isNull());
}

TEST_F(AuthUserAccount, TellsOfANameThatIsNone)
{
    EXPECT_TRUE(wizard.AuthUserAccount("Alice", "pw", false, true));
    platform.calls.clear();
    platform.Fail("ParseInputUserName");
    for (const bool login : {false, true}) {
        platform.log.clear();
        EXPECT_FALSE(wizard.AuthUserAccount("b/ob", "other", login, true));
        EXPECT_EQ(Texts{"3 OTPWizardHandler.cpp:167 Failed to convert input username b/ob"},
                  platform.LogLines());
    }
    EXPECT_EQ(2u, platform.calls.size());
    EXPECT_EQ("alice", KeptUser()) << "the handler stays as it was";
    EXPECT_TRUE(wizard.GetResponse()["errno"].isNull());
}

TEST_F(AuthUserAccount, AsksNobodyWithoutRootsIds)
{
    const struct {
        bool login;
        const char* ownLine;
        const char* guardLine;
    } cases[] = {
        {true, "3 OTPWizardHandler.cpp:184 Failed to switch user...",
         "35 OTPWizardHandler.cpp:181 ERROR: IF_RUN_AS2(\"root\")"},
        {false, "3 OTPWizardHandler.cpp:192 Failed to switch user...",
         "35 OTPWizardHandler.cpp:189 ERROR: IF_RUN_AS2(\"root\")"},
    };
    EXPECT_TRUE(wizard.AuthUserAccount("Alice", "pw", false, true));
    for (const auto& c : cases) {
        platform.calls.clear();
        platform.log.clear();
        platform.Forget("setresgid");
        platform.Fail("setresgid", 1);
        EXPECT_FALSE(wizard.AuthUserAccount("bob", "other", c.login, true));
        EXPECT_EQ((Texts{c.guardLine, c.ownLine}), platform.LogLines());
        EXPECT_EQ(kNothing, platform.CallsOf("TavrCgiLogin"));
        EXPECT_EQ(kNothing, platform.CallsOf("TavrCgiTestLoginEx2"));
        EXPECT_EQ(64217u, platform.euid) << "what was raised is given back";
    }
    EXPECT_TRUE(wizard.GetResponse().isNull());
    EXPECT_EQ("alice", KeptUser());
}

TEST_F(AuthUserAccount, TellsWhenThereIsNoRoot)
{
    platform.rootUid.reset();
    EXPECT_FALSE(wizard.AuthUserAccount("Alice", "pw", true, true));
    EXPECT_FALSE(wizard.AuthUserAccount("Alice", "pw", false, true));
    EXPECT_EQ((Texts{"35 OTPWizardHandler.cpp:181 ERROR: getpwnam(root) [Name not found]",
                     "35 OTPWizardHandler.cpp:181 ERROR: IF_RUN_AS2(\"root\")",
                     "3 OTPWizardHandler.cpp:184 Failed to switch user...",
                     "35 OTPWizardHandler.cpp:189 ERROR: getpwnam(root) [Name not found]",
                     "35 OTPWizardHandler.cpp:189 ERROR: IF_RUN_AS2(\"root\")",
                     "3 OTPWizardHandler.cpp:192 Failed to switch user..."}),
              platform.LogLines());
}

TEST_F(AuthUserAccount, LetsTheResultStandWhenTheIdsCannotBeGivenBack)
{
    for (const bool login : {true, false}) {
        SCOPED_TRACE(login);
        platform.log.clear();
        platform.euid = platform.egid = 64217;
        platform.Forget("setresgid");
        platform.Fail("setresgid", 2);
        EXPECT_TRUE(wizard.AuthUserAccount("Alice", "pw", login, false));
        EXPECT_EQ(Texts{std::string("34 OTPWizardHandler.cpp:") + (login ? "181" : "189") +
                        " ERROR: ~IF_RUN_AS2(64217, 64217)"},
                  platform.LogLines());
    }
}

TEST_F(AuthUserAccount, GivesTheIdsBackWhenTheLoginThrows)
{
    platform.During("TavrCgiLogin", [] { throw std::runtime_error("login"); });
    platform.During("TavrCgiTestLoginEx2", [] { throw std::runtime_error("test"); });
    for (const bool login : {true, false}) {
        EXPECT_THROW(wizard.AuthUserAccount("Alice", "pw", login, false), std::runtime_error);
        EXPECT_EQ(64217u, platform.euid);
        EXPECT_EQ(64217u, platform.egid);
    }
}

TEST_F(AuthUserAccount, KeepsNameAndPasswordThatWereWrong)
{
    EXPECT_TRUE(wizard.AuthUserAccount("bob", "right", false, true));
    platform.loginStatus = 0;
    EXPECT_FALSE(wizard.AuthUserAccount("Alice", "wrong", false, true));
    EXPECT_EQ("alice", KeptUser());
    EXPECT_EQ(Texts{R"(TavrCgiLogin(cgi, sid, 122, "alice", "wrong", "webui", 15))"},
              platform.CallsOf("TavrCgiLogin"));
}

TEST_F(AuthUserAccount, HandsOnLongNamesWhole)
{
    const std::string longest(492, 'n');
    platform.canonicalNames["Alice"] = longest;
    EXPECT_TRUE(wizard.AuthUserAccount("Alice", "pw", false, true));
    EXPECT_EQ(longest, KeptUser());
}

// --- the steps ---

// A wizard whose password was accepted, with an account that can do everything.
class Step : public testing::Test
{
protected:
    void SetUp() override
    {
        platform.hardwareId = "id";
        platform.secretPath = dir.Path("secret");
        platform.outputs["/usr/bin/google-authenticator"] = "NEWSECRETNEWSECRETNEWSEC and codes";
        platform.outputs["/usr/bin/qrencode"] = "picture bytes";
        platform.sid = "sid-text";
        SignIn("alice");
    }

    void SignIn(const std::string& user)
    {
        platform.users[user].mail = user + "@home.example";
        ASSERT_TRUE(wizard.AuthUserAccount(user.c_str(), "pw", false, true));
        platform.calls.clear();
        platform.logAndCalls.clear();
    }

    TempDir dir;
    FakePlatform platform;
    OTPWizardHandler wizard;
};

constexpr char kPicture[] = "picture:70696374757265206"; // what fits into twice the picture's size

using GetQRcodePage = Step;

TEST_F(GetQRcodePage, MakesANewSecretForWhoHasNone)
{
    EXPECT_TRUE(wizard.GetQRcodePage("my label", 1026));
    EXPECT_EQ((Texts{R"(TAVRGetSecretPathByUser("alice", path, 4096))",
                     R"(KLIBCPopen("/usr/bin/google-authenticator", "r", "-s", "/tmp/OTP_1026"))",
                     "KLIBCPclose()", R"(KLIBCCryptSzDecrypt("NEWSECRETNEWSECRETNEWSEC", plain, 1024))",
                     "tavrcrypto_hwid_init()", "tavrcrypto_hwid_str(64)", "tavrcrypto_hwid_free(id)",
                     R"(KLIBCPopen("/usr/bin/qrencode", "r", "otpauth://totp/my%20label?secret=)"
                     R"(NEWSECRETNEWSECRETNEWSEC&issuer=Morvane%20Orbis&hwid=id", "-s", "6", "-o", "-"))",
                     "KLIBCBase64SzEncodeFull(<13 bytes>, out, 26, 0)", "KLIBCPclose()"}),
              platform.calls);
    EXPECT_EQ(std::string(R"({"img":")") + kPicture + R"(","key":"NEWSECRETNEWSECRETNEWSEC","success":true})",
              Answer(wizard));
    EXPECT_EQ(kNothing, platform.LogLines());
}

TEST_F(GetQRcodePage, ShowsTheSecretThatIsThere)
{
    dir.Write("secret", "STOREDSECRET2345\n\" TOTP_AUTH\n12345678\n");
    EXPECT_TRUE(wizard.GetQRcodePage("label", 1026));
    EXPECT_EQ("STOREDSECRET2345", wizard.GetResponse()["key"].asString());
    EXPECT_EQ(1u, platform.CallsOf("KLIBCPopen").size()) << "no new secret";
}

TEST_F(GetQRcodePage, ShowsTheDecipheredSecret)
{
    dir.Write("secret", "!REFERENCE!23456\n");
    platform.ciphered["!REFERENCE!23456"] = "PLAINSECRETPLAINSECRETPLAINSECRE";
    EXPECT_TRUE(wizard.GetQRcodePage("label", 1026));
    EXPECT_EQ("PLAINSECRETPLAINSECRETPLAINSECRE", wizard.GetResponse()["key"].asString());
    EXPECT_NE(std::string::npos,
              platform.CallsOf("KLIBCPopen").at(0).find("?secret=PLAINSECRETPLAINSECRETPLAINSECRE&"));
}

TEST_F(GetQRcodePage, MakesANewSecretEachTimeUntilOneIsConfirmed)
{
    EXPECT_TRUE(wizard.GetQRcodePage("label", 1026));
    platform.outputs["/usr/bin/google-authenticator"] = "OTHERSECRETOTHERSECRETOT";
    EXPECT_TRUE(wizard.GetQRcodePage("label", 1026));
    EXPECT_EQ("OTHERSECRETOTHERSECRETOT", wizard.GetResponse()["key"].asString());
}

TEST_F(GetQRcodePage, AnswersFailuresWithoutKeyOrPicture)
{
    const struct {
        const char* reason;
        const char* label;
        const char* file; // null: none
        const char* failing;
        int nth;
        const char* line;
    } cases[] = {
        {"no label", nullptr, nullptr, "", 0, "3 OTPWizardHandler.cpp:31 Bad parameter"},
        {"a secret that is too short", "l", "SHORT", "", 0,
         "3 OTPWizardHandler.cpp:37 Failed to get existing secret key"},
        {"a secret that cannot be opened", "l", "STOREDSECRET2345", "fopen r", 1,
         "3 OTPWizardHandler.cpp:37 Failed to get existing secret key"},
        {"no tool", "l", nullptr, "KLIBCPopen", 1, "3 OTPWizardHandler.cpp:42 Failed to generate secret key"},
        {"no picture of a new secret", "l", nullptr, "KLIBCPopen", 2,
         "3 OTPWizardHandler.cpp:51 Failed to generate QRcode png"},
        {"no picture of the stored secret", "l", "STOREDSECRET2345", "KLIBCPopen", 1,
         "3 OTPWizardHandler.cpp:51 Failed to generate QRcode png"},
        {"no memory for the picture", "l", "STOREDSECRET2345", "calloc", 0,
         "3 OTPWizardHandler.cpp:51 Failed to generate QRcode png"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reason);
        std::filesystem::remove(dir.Path("secret"));
        if (c.file != nullptr) {
            dir.Write("secret", c.file);
        }
        platform.log.clear();
        platform.Fail(c.failing, c.nth);
        EXPECT_FALSE(wizard.GetQRcodePage(c.label, 1026));
        platform.Forget(c.failing);
        EXPECT_EQ(R"({"success":false})", Answer(wizard));
        ASSERT_FALSE(platform.log.empty());
        EXPECT_EQ(c.line, platform.LogLines().back());
        EXPECT_EQ(0, std::count_if(platform.log.begin(), platform.log.end() - 1,
                                   [](const LogLine& entry) { return entry.file != "OTPutils.cpp"; }));
    }
}

using EditAccountName = Step;

TEST_F(EditAccountName, DrawsAnyKeyUnderAnotherLabelAndTouchesNoFile)
{
    EXPECT_TRUE(wizard.EditAccountName("any key&", "other label"));
    EXPECT_EQ((Texts{"tavrcrypto_hwid_init()", "tavrcrypto_hwid_str(64)", "tavrcrypto_hwid_free(id)",
                     R"(KLIBCPopen("/usr/bin/qrencode", "r", "otpauth://totp/other%20label?secret=)"
                     R"(any key&&issuer=Morvane%20Orbis&hwid=id", "-s", "6", "-o", "-"))",
                     "KLIBCBase64SzEncodeFull(<13 bytes>, out, 26, 0)", "KLIBCPclose()"}),
              platform.calls);
    EXPECT_EQ(std::string(R"({"img":")") + kPicture + R"(","key":"any key&","success":true})",
              Answer(wizard));
}

TEST_F(EditAccountName, RefusesNullArguments)
{
    EXPECT_FALSE(wizard.EditAccountName(nullptr, "label"));
    EXPECT_FALSE(wizard.EditAccountName("key", nullptr));
    EXPECT_EQ(kNothing, platform.calls);
    EXPECT_EQ((Texts{"3 OTPWizardHandler.cpp:71 Bad parameter", "3 OTPWizardHandler.cpp:71 Bad parameter"}),
              platform.LogLines());
    EXPECT_EQ(R"({"success":false})", Answer(wizard));
}

TEST_F(EditAccountName, AnswersAFailureWithoutKeyOrPicture)
{
    platform.Fail("KLIBCPopen");
    EXPECT_FALSE(wizard.EditAccountName("key", "label"));
    EXPECT_EQ("3 OTPWizardHandler.cpp:76 Failed to generate QRcode png", platform.LogLines().back());
    EXPECT_EQ(2u, platform.log.size());
    EXPECT_EQ(R"({"success":false})", Answer(wizard));
}

using ConfirmCode = Step;

TEST_F(ConfirmCode, MakesTheSecretTheAccountsAndLogsInAfresh)
{
    platform.token = "token-text";
    EXPECT_TRUE(wizard.AuthOTPcode("123456", 1026));
    EXPECT_EQ(R"({"TavrToken":"token-text","auth_ok":true,"mail":"alice@home.example","sid":"sid-text",)"
              R"("success":true})",
              Answer(wizard));
    const Texts expected = {
        R"(TAVRGoogleAuth(3, "username=alice", "code=123456", "secret=/tmp/OTP_1026"))",
        R"(TAVRGetSecretPathByUser("alice", path, 4096))",
        "KLIBCExec(\"/bin/mv\", \"/tmp/OTP_1026\", \"" + platform.secretPath + "\", null, null)",
        "setresgid(-1, 0, -1)",
        "setresuid(-1, 0, -1)",
        R"(TAVRUserGet("alice"))",
        R"(TAVRUserFree("alice"))",
        "setresuid(-1, 0, -1)",
        "setresgid(-1, 64217, -1)",
        "setresuid(-1, 64217, -1)",
        R"(ParseInputUserName("alice", out, 493))",
        "TAVRHAIsSafemode()",
        R"(getpwnam_r("root", 1024))",
        "setresuid(-1, 0, -1)",
        "setresgid(-1, 0, -1)",
        "setresuid(-1, 0, -1)",
        R"(TavrCgiLogin(cgi, sid, 122, "alice", "pw", "webui", 15))",
        "setresgid(-1, 64217, -1)",
        "setresuid(-1, 64217, -1)",
        "TavrCgiIsTokenEnable(cgi)",
        "TavrCgiLoadInCookies(cgi)",
        R"(TavrCgiGetOption(cgi, 2, ""))",
    };
    EXPECT_EQ(expected, platform.calls);
}

TEST_F(ConfirmCode, NamesTheFileAfterTheLargestUid)
{
    wizard.AuthOTPcode("1", 4294967295u);
    EXPECT_EQ(Texts{R"(TAVRGoogleAuth(3, "username=alice", "code=1", "secret=/tmp/OTP_4294967295"))"},
              platform.CallsOf("TAVRGoogleAuth"));
}

TEST_F(ConfirmCode, TellsAWrongCodeAsAStepThatWasCarriedOut)
{
    platform.Answer("TAVRGoogleAuth", 1);
    EXPECT_TRUE(wizard.AuthOTPcode("000000", 1026));
    EXPECT_EQ(
        R"({"errno":{"key":"otp_auth_failed","line":104,"section":"personal_settings"},"success":true})",
        Answer(wizard));
    EXPECT_EQ(
        (Texts{"3 OTPutils.cpp Failed to auth OTP code", "3 OTPWizardHandler.cpp Failed to auth OTP code"}),
        platform.LogTexts());
    EXPECT_EQ(103, platform.log.at(1).line);
    EXPECT_EQ(1u, platform.calls.size()) << "the temporary file stays, nobody is logged in";
}

TEST_F(ConfirmCode, RefusesANullCode)
{
    EXPECT_FALSE(wizard.AuthOTPcode(nullptr, 1026));
    EXPECT_EQ(R"({"success":false})", Answer(wizard));
    EXPECT_EQ(Texts{"3 OTPWizardHandler.cpp:96 Bad parameter"}, platform.LogLines());
    EXPECT_EQ(kNothing, platform.calls);
}

TEST_F(ConfirmCode, FailsWhenTheSecretCannotBeMoved)
{
    platform.Answer("KLIBCExec", 1);
    EXPECT_FALSE(wizard.AuthOTPcode("123456", 1026));
    EXPECT_EQ(R"({"success":false})", Answer(wizard));
    EXPECT_EQ(2u, platform.log.size());
    EXPECT_EQ("3 OTPWizardHandler.cpp:109 Failed to move secret form tmp to user preference",
              platform.LogLines().back());
    EXPECT_EQ(kNothing, platform.CallsOf("TavrCgiLogin"));
}

TEST_F(ConfirmCode, LeavesAnUnknownAddressOut)
{
    platform.users["alice"].mail.reset();
    EXPECT_TRUE(wizard.AuthOTPcode("123456", 1026));
    EXPECT_EQ(R"({"auth_ok":true,"sid":"sid-text","success":true})", Answer(wizard));
}

TEST_F(ConfirmCode, SucceedsWhateverTheLoginSays)
{
    platform.loginStatus = 0;
    platform.sid = "";
    EXPECT_TRUE(wizard.AuthOTPcode("123456", 1026));
    EXPECT_EQ(R"({"auth_ok":true,"mail":"alice@home.example","sid":"","success":true})", Answer(wizard));
}

TEST_F(ConfirmCode, SucceedsWhenTheLoginCannotBeTried)
{
    platform.rootUid.reset();
    EXPECT_TRUE(wizard.AuthOTPcode("123456", 1026));
    EXPECT_EQ(R"({"auth_ok":true,"mail":"alice@home.example","success":true})", Answer(wizard));
    EXPECT_EQ("3 OTPWizardHandler.cpp:184 Failed to switch user...", platform.LogLines().back());
}

TEST_F(ConfirmCode, GivesTheIdsBackWhenThePreferenceFileEndsInAnException)
{
    platform.preferenceDir = dir.Path();
    dir.Write("usersettings", "[]");
    SignIn("CORP\\alice");
    EXPECT_THROW(wizard.AuthOTPcode("123456", 1026), Json::Exception);
    EXPECT_EQ(64217u, platform.euid);
    EXPECT_EQ(64217u, platform.egid);
    EXPECT_EQ(1u, platform.CallsOf("KLIBCExec").size()) << "the secret is in place by then";
    EXPECT_EQ(R"({"auth_ok":true})", Answer(wizard));
}

using SaveMail = Step;

TEST_F(SaveMail, StoresTheAddress)
{
    EXPECT_TRUE(wizard.SaveMail("new@home.example"));
    EXPECT_EQ("new@home.example", platform.users["alice"].mail);
    EXPECT_EQ(R"({"success":true})", Answer(wizard));
    EXPECT_EQ(kNothing, platform.LogLines());
}

TEST_F(SaveMail, RefusesANullAddressSilently)
{
    EXPECT_FALSE(wizard.SaveMail(nullptr));
    EXPECT_EQ(R"({"success":false})", Answer(wizard));
    EXPECT_EQ(kNothing, platform.calls);
    EXPECT_EQ(kNothing, platform.LogLines());
}

TEST_F(SaveMail, TellsOnlyDirectoryUsersThatItFailed)
{
    const struct {
        const char* user;
        const char* answer;
    } cases[] = {
        {"mia@office.example",
         R"({"errno":{"key":"failed_to_set_ldap_otp_mail","line":143,"section":"personal_settings"},)"
         R"("success":true})"},
        {"bob", R"({"success":true})"},
        {"CORP\\bob", R"({"success":true})"},
        {"CORP\\bob@office", R"({"success":true})"},
    };
    platform.Fail("TAVRConfdUserUpdate");
    platform.Fail("TAVRUserPreferenceDirGet");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.user);
        OTPWizardHandler fresh;
        ASSERT_TRUE(fresh.AuthUserAccount(c.user, "pw", false, true));
        platform.log.clear();
        EXPECT_TRUE(fresh.SaveMail("m"));
        EXPECT_EQ(c.answer, Answer(fresh));
        EXPECT_EQ(std::string("3 OTPWizardHandler.cpp:141 Failed to set mail for user: ") + c.user,
                  platform.LogLines().back());
    }
}

TEST_F(SaveMail, AddsToTheAnswerOfAnEarlierStep)
{
    EXPECT_TRUE(wizard.EditAccountName("key", "label"));
    EXPECT_FALSE(wizard.SaveMail(nullptr));
    EXPECT_EQ(std::string(R"({"img":")") + kPicture + R"(","key":"key","success":false})", Answer(wizard));
}

} // namespace
