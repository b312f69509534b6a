// Emergency codes by mail, on a scripted platform.
#include "otp/MailOtpCodeHandler.h"

#include "tests/support/fake_platform.h"
#include "tests/support/temp_dir.h"

#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>

#include <gtest/gtest.h>
#include <json/json.h>

namespace
{

using Texts = std::vector<std::string>;

const Texts kNothing;

constexpr char kUserAnswer[] = R"({"success":true,"data":{"email":"alice@office.example"}})";
constexpr char kSent[] = R"({"success":true})";

// One line of JSON.
std::string Shown(const Json::Value& value)
{
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

Json::Value Parsed(const std::string& text)
{
    Json::Value value;
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) << text;
    return value;
}

std::string Join(const Texts& texts)
{
    std::string joined;
    for (const std::string& text : texts) {
        joined += text + "\n";
    }
    return joined;
}

// Alice: an address, a secret file of two codes, a default mail account of her own, a mail service that takes
// every mail, and a notification service. The process is root already, so that the ids leave no lines.
class EmergencyCode : public testing::Test
{
protected:
    EmergencyCode()
    {
        platform.euid = platform.egid = 0;
        platform.users["alice"].mail = "alice@home.example";
        platform.secretPath = dir.Write("secret", "SECRET\n\" TOTP_AUTH\nC1\nC2\n");
        platform.ciphered = {{"C1", "11111111"}, {"C2", "22222222"}};
        platform.preferenceDir = dir.Path();
        dir.Write("emailaccount.db", "");
        platform.databaseRows = {{{"email_type", "post"}, {"alias", "mine"}}};
        platform.keyValues["maillang"] = "ger";
        platform.mailSubject = "A code";
        platform.mailContent = "Your code";
        platform.webApiAnswers = {kUserAnswer, kSent};
        platform.mailServer = "mail.example";
    }

    // Whether the code of `content` is found; `code` and `response` tell the rest.
    bool Take(const std::string& content)
    {
        dir.Write("secret", content);
        response = Json::Value();
        return handler.GetEmergencyCode("alice", code, sizeof code, response);
    }

    bool Send() { return handler.SendNotificationMail("alice", "11111111", "alice@home.example", response); }

    // The requests to the web API, as calls; the arguments of the second one, which has the mail.
    [[nodiscard]] Texts Requests() const { return platform.CallsOf("Send"); }
    [[nodiscard]] Json::Value SentMail() const
    {
        const std::string call = Requests().at(1);
        return Parsed(call.substr(5, call.size() - 6))["params"];
    }

    TempDir dir;
    FakePlatform platform;
    MailOtpCodeHandler handler;
    Json::Value response;
    char code[9] = {};
};

// --- the code ---

using GetEmergencyCode = EmergencyCode;

TEST_F(GetEmergencyCode, TakesTheFirstLineThatDeciphers)
{
    const struct {
        const char* reason;
        std::string content;
        bool found;
        std::string code;
        const char* response;
        Texts tried;
    } cases[] = {
        {"two codes", "S\n\" OPTION\nC1\nC2\n", true, "11111111", "null", {"C1"}},
        {"one code on the last line", "S\n\" OPTION\nC1\n", true, "11111111", R"({"warning":true})", {"C1"}},
        {"the second one deciphers", "S\nX\nC2\nC1\n", true, "22222222", "null", {"X", "C2"}},
        {"the last one deciphers", "S\nX\nC2\n", true, "22222222", R"({"warning":true})", {"X", "C2"}},
        {"an option behind it", "S\nC1\n\" OPTION\n", true, "11111111", "null", {"C1"}},
        {"an empty line behind it", "S\nC1\n\n", true, "11111111", "null", {"C1"}},
        {"a dead code behind it", "S\nC1\nX\n", true, "11111111", "null", {"C1"}},
        {"a line without line feed behind it", "S\nC1\nX", true, "11111111", "null", {"C1"}},
        {"an empty line before it", "S\n\nC1\n", true, "11111111", R"({"warning":true})", {"", "C1"}},
        {"options between the codes", "S\nX\n\" OPTION\nC2\nC1\n", true, "22222222", "null", {"X", "C2"}},
        {"the secret is none, whatever it says",
         "C1\n\" OPTION\n",
         false,
         "",
         R"({"err":"otp_no_emergency_code"})",
         {}},
        {"secret and options alone", "S\n\" A\n\" B\n", false, "", R"({"err":"otp_no_emergency_code"})", {}},
        {"the secret alone", "S\n", false, "", R"({"err":"otp_no_emergency_code"})", {}},
        {"an empty file", "", false, "", R"({"err":"otp_no_emergency_code"})", {}},
        {"no line deciphers", "S\nX\nY\n", false, "", R"({"err":"otp_no_emergency_code"})", {"X", "Y"}},
        {"no line feed at the end: the last character is lost",
         "S\nC1",
         false,
         "",
         R"({"err":"otp_no_emergency_code"})",
         {"C"}},
        {"what is left without it may decipher", "S\nC1x", true, "11111111", R"({"warning":true})", {"C1"}},
        {"one character without line feed", "S\nC", false, "", R"({"err":"otp_no_emergency_code"})", {""}},
        {"an option without line feed", "S\n\"", false, "", R"({"err":"otp_no_emergency_code"})", {}},
        {"a carriage return belongs to the code",
         "S\nC1\r\n",
         false,
         "",
         R"({"err":"otp_no_emergency_code"})",
         {"C1\r"}},
        {"a quote further on makes no option",
         "S\n \"\nC1\n",
         true,
         "11111111",
         R"({"warning":true})",
         {" \"", "C1"}},
        {"a NUL ends the text, not the line",
         std::string("S\nC1\0more\nC2\n", 12),
         true,
         "11111111",
         "null",
         {"C1"}},
        {"a line longer than any buffer",
         "S\n" + std::string(5000, 'x') + "\nC1\n",
         true,
         "11111111",
         R"({"warning":true})",
         {std::string(5000, 'x'), "C1"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reason);
        platform.calls.clear();
        std::memset(code, 0, sizeof code);
        EXPECT_EQ(c.found, Take(c.content));
        EXPECT_EQ(c.code, code);
        EXPECT_EQ(c.response, Shown(response));
        Texts calls = {R"(TAVRGetSecretPathByUser("alice", path, 4096))"};
        for (const std::string& line : c.tried) {
            calls.push_back("KLIBCCryptSzDecrypt(\"" + line + "\", plain, 1024)");
        }
        EXPECT_EQ(calls, platform.calls);
        EXPECT_EQ(c.content, dir.Read("secret")) << "nothing is taken out";
    }
    EXPECT_EQ(kNothing, platform.LogLines());
}

TEST_F(GetEmergencyCode, CountsAnEmptyCodeAsNoneAndLooksNoFurther)
{
    platform.ciphered["EMPTY"] = "";
    std::memset(code, 'x', sizeof code);
    EXPECT_FALSE(Take("S\nX\nEMPTY\nC1\n"));
    EXPECT_STREQ("", code);
    EXPECT_EQ(R"({"err":"otp_no_emergency_code"})", Shown(response));
    EXPECT_EQ(2u, platform.CallsOf("KLIBCCryptSzDecrypt").size());
    EXPECT_EQ(kNothing, platform.LogLines());
}

TEST_F(GetEmergencyCode, CutsTheCodeToTheBuffer)
{
    platform.ciphered["LONG"] = "123456789012";
    const struct {
        unsigned long size;
        bool found;
        const char* code;
    } cases[] = {{16, true, "123456789012"},
                 {13, true, "123456789012"},
                 {12, true, "12345678901"},
                 {9, true, "12345678"},
                 {2, true, "1"},
                 {1, false, ""}};
    dir.Write("secret", "S\nLONG\nC1\n");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.size);
        char text[17];
        std::memset(text, 'x', sizeof text);
        Json::Value answer;
        EXPECT_EQ(c.found, handler.GetEmergencyCode("alice", text, c.size, answer));
        EXPECT_STREQ(c.code, text);
        EXPECT_EQ('\0', text[c.size - 1]) << "the last byte";
        EXPECT_EQ('x', text[c.size]) << "beyond the buffer";
        EXPECT_EQ(c.found ? "null" : R"({"err":"otp_no_emergency_code"})", Shown(answer));
    }
}

TEST_F(GetEmergencyCode, GivesTheSameCodeAgain)
{
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(handler.GetEmergencyCode("alice", code, sizeof code, response));
        EXPECT_STREQ("11111111", code);
    }
}

TEST_F(GetEmergencyCode, KeepsWhatTheResponseHolds)
{
    dir.Write("secret", "S\nC1\n");
    response["err"] = "before";
    EXPECT_TRUE(handler.GetEmergencyCode("alice", code, sizeof code, response));
    EXPECT_EQ(R"({"err":"before","warning":true})", Shown(response));
}

TEST_F(GetEmergencyCode, RefusesBadArgumentsInsideTheSection)
{
    platform.euid = platform.egid = 64217;
    const struct {
        const char* reason;
        const char* user;
        char* code;
        unsigned long size;
    } cases[] = {
        {"no buffer", "alice", nullptr, 9}, {"no room", "alice", code, 0}, {"no user", nullptr, code, 9}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reason);
        platform.calls.clear();
        platform.log.clear();
        std::memset(code, 'x', sizeof code);
        EXPECT_FALSE(handler.GetEmergencyCode(c.user, c.code, c.size, response));
        EXPECT_EQ((Texts{"39 MailOtpCodeHandler.cpp:56 WARNING: setresgid(-1, 0, -1)",
                         "39 MailOtpCodeHandler.cpp:56 WARNING: setresuid(-1, 0, -1)",
                         "3 MailOtpCodeHandler.cpp:59 Bad parameter",
                         "39 MailOtpCodeHandler.cpp:111 WARNING: setresuid(-1, 0, -1)"}),
                  platform.LogLines());
        EXPECT_EQ(kNothing, platform.CallsOf("TAVRGetSecretPathByUser"));
        EXPECT_TRUE(response.isNull());
        EXPECT_EQ('x', code[0]);
        EXPECT_EQ(64217u, platform.euid);
    }
}

TEST_F(GetEmergencyCode, TellsOfAFileThatIsNotThere)
{
    platform.secretPath = dir.Path("absent");
    EXPECT_FALSE(handler.GetEmergencyCode("alice", code, sizeof code, response));
    EXPECT_EQ(Texts{"3 MailOtpCodeHandler.cpp:66 Failed to access secret file: " + platform.secretPath +
                    " No such file or directory"},
              platform.LogLines());
    EXPECT_TRUE(response.isNull());
}

TEST_F(GetEmergencyCode, DoesNotLookAtTheResultOfThePath)
{
    platform.Fail("TAVRGetSecretPathByUser");
    EXPECT_FALSE(handler.GetEmergencyCode("alice", code, sizeof code, response));
    EXPECT_EQ(Texts{"3 MailOtpCodeHandler.cpp:66 Failed to access secret file:  No such file or directory"},
              platform.LogLines());
}

TEST_F(GetEmergencyCode, TellsOfAFileThatCannotBeOpened)
{
    platform.Fail("fopen r");
    EXPECT_FALSE(handler.GetEmergencyCode("alice", code, sizeof code, response));
    EXPECT_EQ(Texts{"3 MailOtpCodeHandler.cpp:73 Failed to open file " + platform.secretPath +
                    " Permission denied"},
              platform.LogLines());
    EXPECT_TRUE(response.isNull());
}

TEST_F(GetEmergencyCode, FindsNoCodeInWhatCannotBeRead)
{
    platform.secretPath = dir.Path(); // opens, and gives no line
    EXPECT_FALSE(handler.GetEmergencyCode("alice", code, sizeof code, response));
    EXPECT_EQ(R"({"err":"otp_no_emergency_code"})", Shown(response));
    EXPECT_EQ(kNothing, platform.LogLines());
}

TEST_F(GetEmergencyCode, EndsAtAReadError)
{
    for (const int line : {1, 3}) {
        SCOPED_TRACE(line);
        platform.Forget("ferror");
        platform.Answer("ferror", 1, line);
        EXPECT_FALSE(Take("S\nX\nC1\nC2\n"));
        EXPECT_EQ(R"({"err":"otp_no_emergency_code"})", Shown(response));
    }
    EXPECT_EQ(1u, platform.CallsOf("KLIBCCryptSzDecrypt").size());
}

TEST_F(GetEmergencyCode, ReadsAsRootAndGivesTheIdsBack)
{
    platform.euid = platform.egid = 64217;
    platform.During("KLIBCCryptSzDecrypt", [&] {
        EXPECT_EQ(0u, platform.euid);
        EXPECT_EQ(0u, platform.egid);
    });
    EXPECT_TRUE(handler.GetEmergencyCode("alice", code, sizeof code, response));
    EXPECT_EQ(
        (Texts{"setresgid(-1, 0, -1)", "setresuid(-1, 0, -1)",
               R"(TAVRGetSecretPathByUser("alice", path, 4096))", R"(KLIBCCryptSzDecrypt("C1", plain, 1024))",
               "setresuid(-1, 0, -1)", "setresgid(-1, 64217, -1)", "setresuid(-1, 64217, -1)"}),
        platform.calls);
    EXPECT_EQ((Texts{"39 MailOtpCodeHandler.cpp:56 WARNING: setresgid(-1, 0, -1)",
                     "39 MailOtpCodeHandler.cpp:56 WARNING: setresuid(-1, 0, -1)",
                     "39 MailOtpCodeHandler.cpp:111 WARNING: setresuid(-1, 0, -1)"}),
              platform.LogLines());
}

TEST_F(GetEmergencyCode, GoesOnWithoutRootsIds)
{
    platform.euid = platform.egid = 64217;
    platform.Fail("setresgid");
    EXPECT_TRUE(handler.GetEmergencyCode("alice", code, sizeof code, response));
    EXPECT_STREQ("11111111", code);
    EXPECT_EQ((Texts{"35 MailOtpCodeHandler.cpp:56 ERROR: setresgid(-1, 0, -1) [Operation not permitted]",
                     "35 MailOtpCodeHandler.cpp:56 ERROR: ENTERCriticalSection"}),
              platform.LogLines());
}

TEST_F(GetEmergencyCode, GivesTheIdsBackWhenSomethingThrows)
{
    platform.euid = platform.egid = 64217;
    Json::Value list(Json::arrayValue); // has no members
    for (const char* content : {"S\nC1\n", "S\nX\n"}) {
        dir.Write("secret", content);
        EXPECT_THROW(handler.GetEmergencyCode("alice", code, sizeof code, list), Json::LogicError);
        EXPECT_EQ(64217u, platform.euid);
        EXPECT_EQ(64217u, platform.egid);
    }
    platform.During("KLIBCCryptSzDecrypt", [] { throw std::runtime_error("cipher"); });
    EXPECT_THROW(handler.GetEmergencyCode("alice", code, sizeof code, response), std::runtime_error);
    EXPECT_EQ(64217u, platform.euid);
}

// --- the mail ---

using SendNotificationMail = EmergencyCode;

TEST_F(SendNotificationMail, GoesOutFromTheAccountOfTheUser)
{
    EXPECT_TRUE(Send());
    const std::string database = dir.Path("emailaccount.db");
    EXPECT_EQ(
        (Texts{
            "KLIBCSzHashAlloc(1024)",
            R"(KLIBCSzHashSetValue("%USER_NAME%", "alice"))",
            R"(KLIBCSzHashSetValue("%EMG_CODE%", "11111111"))",
            R"(TAVRUserLoginNameConvert("alice", out, 493))",
            R"(TAVRUserGet("alice"))",
            R"(DomainSockConnection("/run/tavrscgi-fastapi.sock"))",
            "Connect()",
            R"(Send({"params":{"api":"TAVR.Core.NormalUser","method":"get","version":1},"runner":{"username":"alice"}}))",
            "Recv()",
            "~DomainSockConnection()",
            R"(TAVRUserPreferenceDirGet("alice", dir, 4096, 0))",
            "TAVRDBConnect(null, null, null, \"" + database + "\")",
            R"(TAVRDBExecute("SELECT * FROM emailaccountinfo WHERE is_default='true' and uid='1026';"))",
            "TAVRDBNumRows()",
            "TAVRDBFetchRow()",
            R"(TAVRDBFetchField("email_type"))",
            R"(TAVRDBFetchField("alias"))",
            "TAVRDBFreeResult()",
            R"(KLIBCFileGetKeyValue("/etc/tavrinfo.conf", "maillang", value, 8, 0))",
            R"(TAVRMailReadByTagAndConvertRealEx("ger", "OTP_emergency_mail", 256, {%EMG_CODE%=11111111, %USER_NAME%=alice}, 0))",
            R"(DomainSockConnection("/run/tavrscgi-fastapi.sock"))",
            "Connect()",
            R"(Send({"params":{"alias":"mine","api":"TAVR.PersonMailAccount.Mail","app_name":"TAVR.Ombra.App.PersonalSettings.Instance","app_title":"personal_settings:otp_settings","body":"Your code","email_type":"post","method":"send","subject":"A code","to":"[\"alice@office.example\"]","version":1},"runner":{"username":"alice"}}))",
            "Recv()",
            "~DomainSockConnection()",
            R"(TAVRUserFree("alice"))",
            "KLIBCSzHashFree()",
            "TAVRMailFree()"}),
        platform.calls);
    EXPECT_EQ(Texts{"3 MailOtpCodeHandler.cpp:350 Send OTP Code with user[alice] mail account"},
              platform.LogLines());
    EXPECT_EQ(R"({"warning":null})", Shown(response));
}

TEST_F(SendNotificationMail, NamesTheConvertedNameToAllButTheTemplate)
{
    platform.loginNames["alice"] = "CORP\\alice";
    platform.users["CORP\\alice"].uid = 4294967295u;
    EXPECT_TRUE(Send());
    EXPECT_EQ(Texts{R"(TAVRUserGet("CORP\alice"))"}, platform.CallsOf("TAVRUserGet"));
    EXPECT_EQ(Texts{R"(TAVRUserPreferenceDirGet("CORP\alice", dir, 4096, 0))"},
              platform.CallsOf("TAVRUserPreferenceDirGet"));
    EXPECT_EQ(
        Texts{
            R"(TAVRDBExecute("SELECT * FROM emailaccountinfo WHERE is_default='true' and uid='4294967295';"))"},
        platform.CallsOf("TAVRDBExecute"));
    ASSERT_EQ(2u, Requests().size());
    for (const std::string& request : Requests()) {
        EXPECT_NE(std::string::npos, request.find(R"("runner":{"username":"CORP\\alice"})")) << request;
    }
    EXPECT_EQ(Texts{R"(KLIBCSzHashSetValue("%USER_NAME%", "alice"))"},
              Texts{platform.CallsOf("KLIBCSzHashSetValue").at(0)});
    EXPECT_EQ(Texts{"3 MailOtpCodeHandler.cpp:350 Send OTP Code with user[alice] mail account"},
              platform.LogLines());
}

TEST_F(SendNotificationMail, TakesNoResultButOneForAConvertedName)
{
    platform.loginNames["alice"] = "other";
    for (const int result : {-1, 0, 2}) {
        platform.Answer("TAVRUserLoginNameConvert", result);
        platform.calls.clear();
        platform.webApiAnswers = {kUserAnswer, kSent};
        EXPECT_TRUE(Send());
        EXPECT_EQ(Texts{R"(TAVRUserGet("alice"))"}, platform.CallsOf("TAVRUserGet"));
    }
}

TEST_F(SendNotificationMail, TakesTheTemplateByTheWarning)
{
    const struct {
        const char* response;
        const char* tag;
        const char* after;
    } cases[] = {
        {"{}", "OTP_emergency_mail", R"({"warning":null})"},
        {R"({"warning":null})", "OTP_emergency_mail", R"({"warning":null})"},
        {R"({"warning":false})", "OTP_emergency_mail", R"({"warning":false})"},
        {R"({"err":"kept","warning":true})", "OTP_emergency_mail_warning",
         R"({"err":"kept","warning":true})"},
        {R"({"warning":1})", "OTP_emergency_mail_warning", R"({"warning":1})"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.response);
        for (const bool personal : {true, false}) {
            platform.calls.clear();
            platform.webApiAnswers = {kUserAnswer, personal ? kSent : "rubbish"};
            response = Parsed(c.response);
            EXPECT_TRUE(Send());
            EXPECT_EQ(Texts{std::string("TAVRMailReadByTagAndConvertRealEx(\"ger\", \"") + c.tag +
                            "\", 256, {%EMG_CODE%=11111111, %USER_NAME%=alice}, 0)"},
                      platform.CallsOf("TAVRMailReadByTagAndConvertRealEx"));
            const Texts notified = {
                std::string("TAVRMailSendMessageWithoutBlock(\"") + c.tag +
                "\", {%EMG_CODE%=11111111, %USER_NAME%=alice}, \"alice@home.example\", 0)"};
            EXPECT_EQ(personal ? kNothing : notified, platform.CallsOf("TAVRMailSendMessageWithoutBlock"));
            EXPECT_EQ(c.after, Shown(response));
        }
    }
}

TEST_F(SendNotificationMail, RefusesNullArgumentsAfterTheWarning)
{
    const struct {
        const char* user;
        const char* code;
        const char* address;
    } cases[] = {{nullptr, "1", "a@b"}, {"alice", nullptr, "a@b"}, {"alice", "1", nullptr}};
    for (const auto& c : cases) {
        platform.calls.clear();
        platform.log.clear();
        response = Json::Value();
        EXPECT_FALSE(handler.SendNotificationMail(c.user, c.code, c.address, response));
        EXPECT_EQ(Texts{"3 MailOtpCodeHandler.cpp:334 Bad parameter"}, platform.LogLines());
        EXPECT_EQ(R"({"warning":null})", Shown(response));
        EXPECT_EQ(Texts{"TAVRMailFree()"}, platform.calls);
    }
}

TEST_F(SendNotificationMail, FailsWithoutATableOfValues)
{
    platform.error = {0xD00, "hash.c", 17};
    const struct {
        const char* call;
        int nth;
        const char* line;
        Texts calls;
    } cases[] = {
        {"KLIBCSzHashAlloc",
         1,
         "3 MailOtpCodeHandler.cpp:339 Failed to malloc. [0x0D00 hash.c:17]",
         {"KLIBCSzHashAlloc(1024)", "TAVRMailFree()"}},
        {"KLIBCSzHashSetValue",
         1,
         "3 MailOtpCodeHandler.cpp:345 Failed to set hash value. [0x0D00 hash.c:17]",
         {"KLIBCSzHashAlloc(1024)", R"(KLIBCSzHashSetValue("%USER_NAME%", "alice"))", "KLIBCSzHashFree()",
          "TAVRMailFree()"}},
        {"KLIBCSzHashSetValue",
         2,
         "3 MailOtpCodeHandler.cpp:345 Failed to set hash value. [0x0D00 hash.c:17]",
         {"KLIBCSzHashAlloc(1024)", R"(KLIBCSzHashSetValue("%USER_NAME%", "alice"))",
          R"(KLIBCSzHashSetValue("%EMG_CODE%", "11111111"))", "KLIBCSzHashFree()", "TAVRMailFree()"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        platform.calls.clear();
        platform.log.clear();
        platform.Forget("KLIBCSzHashAlloc");
        platform.Fail(c.call, c.nth);
        response = Json::Value();
        EXPECT_FALSE(Send());
        EXPECT_EQ(Texts{c.line}, platform.LogLines());
        EXPECT_EQ(c.calls, platform.calls);
        EXPECT_EQ(R"({"warning":null})", Shown(response));
        platform.Forget(c.call);
    }
}

// What closes the personal road, and how the log tells it.
struct RoadBlock {
    const char* reason;
    std::function<void(FakePlatform&)> build;
    Texts log;
};

// The n-th of these calls gives this; the rest of the script stays.
std::function<void(FakePlatform&)> Answers(const char* call, int result, int nth = 0)
{
    return [=](FakePlatform& platform) { platform.Answer(call, result, nth); };
}

std::function<void(FakePlatform&)> UserService(const char* answer)
{
    return [=](FakePlatform& platform) { platform.webApiAnswers = {answer, kSent}; };
}

std::function<void(FakePlatform&)> MailService(const char* answer)
{
    return [=](FakePlatform& platform) { platform.webApiAnswers = {kUserAnswer, answer}; };
}

std::function<void(FakePlatform&)> Rows(std::vector<std::map<std::string, std::string>> rows)
{
    return [=](FakePlatform& platform) { platform.databaseRows = rows; };
}

constexpr char kNoUser[] = "3 MailOtpCodeHandler.cpp:278 Can't get user info";
constexpr char kNoMail[] = "3 MailOtpCodeHandler.cpp:282 Can't get user mail info";
constexpr char kNoAccount[] = "3 MailOtpCodeHandler.cpp:286 Can't get user mail account info";

std::vector<RoadBlock> RoadBlocks()
{
    const std::map<std::string, std::string> row = {{"email_type", "post"}, {"alias", "mine"}};
    return {
        {"no user", Answers("TAVRUserGet", -1), {kNoUser}},
        {"no user, and a record all the same", Answers("TAVRUserGet", 1), {kNoUser}},
        {"user service: nobody there",
         Answers("Connect", -1, 1),
         {"3 MailOtpCodeHandler.cpp:146 Webapi socket connection failed", kNoMail}},
        {"user service: not sent",
         Answers("Send", -1, 1),
         {"3 MailOtpCodeHandler.cpp:150 Webapi command failed", kNoMail}},
        {"user service: no answer",
         Answers("Recv", -1, 1),
         {"3 MailOtpCodeHandler.cpp:154 Webapi get resp failed", kNoMail}},
        {"user service: rubbish",
         UserService("{\"success\":tru"),
         {"3 MailOtpCodeHandler.cpp:158 Parse webapi resp failed", kNoMail}},
        {"user service: an empty answer",
         UserService(""),
         {"3 MailOtpCodeHandler.cpp:158 Parse webapi resp failed", kNoMail}},
        {"user service: an empty object", UserService("{}"), {kNoMail}},
        {"user service: a list", UserService("[]"), {kNoMail}},
        {"user service: a list of answers", UserService(R"([{"success":true}])"), {kNoMail}},
        {"user service: a text", UserService(R"("success")"), {kNoMail}},
        {"user service: a number", UserService("1"), {kNoMail}},
        {"user service: null", UserService("null"), {kNoMail}},
        {"user service: no success", UserService(R"({"data":{"email":"a@b"}})"), {kNoMail}},
        {"user service: false, with an address",
         UserService(R"({"success":false,"data":{"email":"a@b"}})"),
         {kNoMail}},
        {"user service: success null", UserService(R"({"success":null,"data":{"email":"a@b"}})"), {kNoMail}},
        {"user service: success 0", UserService(R"({"success":0,"data":{"email":"a@b"}})"), {kNoMail}},
        {"user service: success a text",
         UserService(R"({"success":"true","data":{"email":"a@b"}})"),
         {kNoMail}},
        {"user service: success a list",
         UserService(R"({"success":[true],"data":{"email":"a@b"}})"),
         {kNoMail}},
        {"user service: success an object",
         UserService(R"({"success":{},"data":{"email":"a@b"}})"),
         {kNoMail}},
        {"user service: no data", UserService(R"({"success":true})"), {kNoMail}},
        {"user service: data null", UserService(R"({"success":true,"data":null})"), {kNoMail}},
        {"user service: data a text", UserService(R"({"success":true,"data":"email"})"), {kNoMail}},
        {"user service: data a list", UserService(R"({"success":true,"data":[{"email":"a@b"}]})"), {kNoMail}},
        {"user service: no address", UserService(R"({"success":true,"data":{}})"), {kNoMail}},
        {"user service: an empty address", UserService(R"({"success":true,"data":{"email":""}})"), {kNoMail}},
        {"user service: the address is null",
         UserService(R"({"success":true,"data":{"email":null}})"),
         {kNoMail}},
        {"user service: the address is a list",
         UserService(R"({"success":true,"data":{"email":["a@b"]}})"),
         {kNoMail}},
        {"user service: the address is an object",
         UserService(R"({"success":true,"data":{"email":{"a":"b"}}})"),
         {kNoMail}},
        {"no preference directory",
         Answers("TAVRUserPreferenceDirGet", -1),
         {"3 MailOtpCodeHandler.cpp:189 Get preference dir failed. [alice] [0x00AB users.c:12]", kNoAccount}},
        {"no database of mail accounts",
         [](FakePlatform& platform) { platform.preferenceDir = "/nowhere"; },
         {"3 MailOtpCodeHandler.cpp:196 Customized mail DB not exist", kNoAccount}},
        {"the database does not open",
         Answers("TAVRDBConnect", -1),
         {"3 MailOtpCodeHandler.cpp:201 Open customized mail DB failed", kNoAccount}},
        {"the query fails",
         Answers("TAVRDBExecute", -1),
         {"3 MailOtpCodeHandler.cpp:206 Exec DB command failed", kNoAccount}},
        {"the query fails, and gives a result all the same",
         [](FakePlatform& platform) {
             platform.Fail("TAVRDBExecute");
             platform.resultOfFailedQuery = true;
         },
         {"3 MailOtpCodeHandler.cpp:206 Exec DB command failed", kNoAccount}},
        {"no default account", Rows({}), {kNoAccount}},
        {"two default accounts",
         Rows({row, row}),
         {"3 MailOtpCodeHandler.cpp:212 Get bad response, row[2]", kNoAccount}},
        {"a count below zero",
         Answers("TAVRDBNumRows", -1),
         {"3 MailOtpCodeHandler.cpp:212 Get bad response, row[-1]", kNoAccount}},
        {"the row cannot be had",
         Answers("TAVRDBFetchRow", -1),
         {"3 MailOtpCodeHandler.cpp:217 Get response row failed", kNoAccount}},
        {"a table without the type", Rows({{{"alias", "mine"}}}), {kNoAccount}},
        {"a table without the alias", Rows({{{"email_type", "post"}}}), {kNoAccount}},
        {"no template",
         Answers("TAVRMailReadByTagAndConvertRealEx", 1),
         {"3 MailOtpCodeHandler.cpp:294 Failed to get mail content."}},
        {"no template, the other sign",
         Answers("TAVRMailReadByTagAndConvertRealEx", -1),
         {"3 MailOtpCodeHandler.cpp:294 Failed to get mail content."}},
        {"a template without content",
         [](FakePlatform& platform) { platform.mailContent.reset(); },
         {"3 MailOtpCodeHandler.cpp:298 content is null"}},
        {"mail service: nobody there",
         Answers("Connect", -1, 2),
         {"3 MailOtpCodeHandler.cpp:239 Webapi socket connection failed"}},
        {"mail service: not sent",
         Answers("Send", -1, 2),
         {"3 MailOtpCodeHandler.cpp:243 Webapi command failed"}},
        {"mail service: no answer",
         Answers("Recv", -1, 2),
         {"3 MailOtpCodeHandler.cpp:247 Webapi get resp failed"}},
        {"mail service: rubbish",
         MailService("}"),
         {"3 MailOtpCodeHandler.cpp:251 Parse webapi resp failed"}},
        {"mail service: false", MailService(R"({"success":false,"error":{"code":7}})"), {}},
        {"mail service: no success", MailService("{}"), {}},
        {"mail service: success a text", MailService(R"({"success":"yes"})"), {}},
        {"mail service: a list", MailService("[true]"), {}},
        {"mail service: true", MailService("true"), {}},
    };
}

TEST_F(SendNotificationMail, FallsBackToTheNotificationServiceForAnyReason)
{
    for (const RoadBlock& block : RoadBlocks()) {
        for (const bool serviceSetUp : {true, false}) {
            SCOPED_TRACE(std::string(block.reason) + (serviceSetUp ? "" : ", no service"));
            FakePlatform::Current()->calls.clear();
            platform.log.clear();
            for (const char* call :
                 {"TAVRUserGet", "Connect", "Send", "Recv", "TAVRUserPreferenceDirGet", "TAVRDBConnect",
                  "TAVRDBExecute", "TAVRDBNumRows", "TAVRDBFetchRow", "TAVRMailReadByTagAndConvertRealEx"}) {
                platform.Forget(call);
            }
            platform.error = {0xAB, "users.c", 12};
            platform.preferenceDir = dir.Path();
            platform.mailContent = "Your code";
            platform.webApiAnswers = {kUserAnswer, kSent};
            platform.resultOfFailedQuery = false;
            platform.databaseRows = {{{"email_type", "post"}, {"alias", "mine"}}};
            platform.mailServer = serviceSetUp ? "mail.example" : "";
            response = Json::Value();
            block.build(platform);

            EXPECT_EQ(serviceSetUp, Send());

            EXPECT_EQ(block.log, platform.LogLines());
            EXPECT_EQ(1u, platform.CallsOf("TAVRMailGet").size());
            if (serviceSetUp) {
                EXPECT_EQ(
                    Texts{
                        R"(TAVRMailSendMessageWithoutBlock("OTP_emergency_mail", {%EMG_CODE%=11111111, %USER_NAME%=alice}, "alice@home.example", 0))"},
                    platform.CallsOf("TAVRMailSendMessageWithoutBlock"));
                EXPECT_EQ(R"({"warning":null})", Shown(response));
            } else {
                EXPECT_EQ(kNothing, platform.CallsOf("TAVRMailSendMessageWithoutBlock"));
                EXPECT_EQ(R"({"err":"mail_service_not_enable","warning":null})", Shown(response));
            }
            EXPECT_EQ((Texts{"KLIBCSzHashFree()", "TAVRMailFree()"}),
                      (Texts{platform.calls.end() - 2, platform.calls.end()}));
        }
    }
}

TEST_F(SendNotificationMail, StopsAtTheFirstThingThatIsMissing)
{
    const struct {
        const char* call;
        int nth;
        const char* last; // call of the personal road that is still made, the way back aside
    } cases[] = {
        {"TAVRUserGet", 1, "TAVRUserGet"},
        {"Connect", 1, "Connect"},
        {"Send", 1, "Send"},
        {"Recv", 1, "Recv"},
        {"TAVRUserPreferenceDirGet", 1, "TAVRUserPreferenceDirGet"},
        {"TAVRDBConnect", 1, "TAVRDBConnect"},
        {"TAVRDBExecute", 1, "TAVRDBExecute"},
        {"TAVRDBFetchRow", 1, "TAVRDBFetchRow"},
        {"TAVRMailReadByTagAndConvertRealEx", 1, "TAVRMailReadByTagAndConvertRealEx"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.call);
        platform.calls.clear();
        platform.webApiAnswers = {kUserAnswer, kSent};
        platform.Fail(c.call, c.nth);
        EXPECT_TRUE(Send());
        platform.Forget(c.call);
        Texts road;
        for (const std::string& call : platform.calls) {
            if (call == "TAVRMailGet()") {
                break;
            }
            const bool givesBack = call.find("Free") != std::string::npos || call[0] == '~';
            if (!givesBack) {
                road.push_back(call);
            }
        }
        EXPECT_TRUE(road.back().starts_with(std::string(c.last) + "(")) << road.back();
    }
}

TEST_F(SendNotificationMail, WritesTheAddressAsATextThatHoldsAList)
{
    const struct {
        const char* answer;
        const char* to;
    } cases[] = {
        {R"({"success":true,"data":{"email":"a@b.example"}})", R"(["a@b.example"])"},
        {R"({"success":true,"data":{"email":"a\"],[\"b"}})", R"(["a"],["b"])"},
        {R"({"success":true,"data":{"email":7}})", R"(["7"])"},
        {R"({"success":1,"data":{"email":"a@b","name":"x","uid":1026},"more":[]})", R"(["a@b"])"},
        {"/* a comment */ {\"success\":true, // another\n\"data\":{\"email\":\"a@b\"}}", R"(["a@b"])"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.answer);
        platform.calls.clear();
        platform.webApiAnswers = {c.answer, kSent};
        EXPECT_TRUE(Send());
        const Json::Value mail = SentMail();
        EXPECT_TRUE(mail["to"].isString());
        EXPECT_EQ(c.to, mail["to"].asString());
    }
}

TEST_F(SendNotificationMail, BreaksLinesInTheBodyAlone)
{
    const struct {
        const char* content;
        const char* body;
    } cases[] = {
        {"", ""},
        {"one line", "one line"},
        {"a\nb\n", "a<br>b<br>"},
        {"\n\na", "<br><br>a"},
        {"a\r\nb", "a\r<br>b"},
        {"<br>\n", "<br><br>"},
    };
    platform.mailSubject = "two\nlines";
    for (const auto& c : cases) {
        SCOPED_TRACE(c.content);
        platform.calls.clear();
        platform.webApiAnswers = {kUserAnswer, kSent};
        platform.mailContent = c.content;
        EXPECT_TRUE(Send());
        const Json::Value mail = SentMail();
        EXPECT_EQ(c.body, mail["body"].asString());
        EXPECT_EQ("two\nlines", mail["subject"].asString());
    }
}

TEST_F(SendNotificationMail, WritesEnglishWithoutALanguage)
{
    platform.error = {0x2A00, "conf.c", 3};
    for (const int result : {-1, 0}) {
        SCOPED_TRACE(result);
        platform.calls.clear();
        platform.log.clear();
        platform.webApiAnswers = {kUserAnswer, kSent};
        platform.Answer("KLIBCFileGetKeyValue", result);
        EXPECT_TRUE(Send());
        EXPECT_EQ(
            Texts{
                R"(TAVRMailReadByTagAndConvertRealEx("enu", "OTP_emergency_mail", 256, {%EMG_CODE%=11111111, %USER_NAME%=alice}, 0))"},
            platform.CallsOf("TAVRMailReadByTagAndConvertRealEx"));
        EXPECT_EQ(
            (Texts{"3 MailOtpCodeHandler.cpp:290 Failed to get maillang, use enu instead. tavrerr=[0x2A00]",
                   "3 MailOtpCodeHandler.cpp:350 Send OTP Code with user[alice] mail account"}),
            platform.LogLines());
    }
}

TEST_F(SendNotificationMail, TellsWhenTheServiceIsNotKnown)
{
    platform.Fail("Connect");
    platform.Fail("TAVRMailGet");
    EXPECT_FALSE(Send());
    EXPECT_EQ(R"({"err":"mail_service_not_enable","warning":null})", Shown(response));
    EXPECT_EQ(kNothing, platform.CallsOf("TAVRMailSendMessageWithoutBlock"));
    EXPECT_EQ(Texts{"TAVRMailFree()"}, platform.CallsOf("TAVRMailFree"));
}

TEST_F(SendNotificationMail, DoesNotLookAtWhatQueueingGives)
{
    platform.Fail("Connect");
    platform.Fail("TAVRMailSendMessageWithoutBlock");
    EXPECT_TRUE(Send());
    EXPECT_EQ(R"({"warning":null})", Shown(response));
}

// The fake platform sees to it that all that was handed out comes back.
TEST_F(SendNotificationMail, GivesEverythingBackWhenSomethingThrows)
{
    for (const char* call :
         {"KLIBCSzHashSetValue", "TAVRUserGet", "Connect", "Send", "Recv", "TAVRUserPreferenceDirGet",
          "TAVRDBConnect", "TAVRDBExecute", "TAVRDBNumRows", "TAVRDBFetchRow", "TAVRDBFetchField",
          "KLIBCFileGetKeyValue", "TAVRMailReadByTagAndConvertRealEx", "TAVRMailGet",
          "TAVRMailSendMessageWithoutBlock"}) {
        SCOPED_TRACE(call);
        platform.calls.clear();
        const bool notified = std::string(call).starts_with("TAVRMail") && call[8] != 'R';
        platform.webApiAnswers = {kUserAnswer, notified ? "{}" : kSent};
        platform.During(call, [] { throw std::runtime_error("platform"); });
        EXPECT_THROW(Send(), std::runtime_error);
        platform.During(call, [] {});
        EXPECT_EQ((Texts{"KLIBCSzHashFree()", "TAVRMailFree()"}),
                  (Texts{platform.calls.end() - 2, platform.calls.end()}));
    }
}

TEST_F(SendNotificationMail, LetsTheJsonLibrarysExceptionsThrough)
{
    const std::string deep = std::string(2000, '[') + std::string(2000, ']');
    platform.webApiAnswers = {deep};
    EXPECT_THROW(Send(), Json::Exception);
    EXPECT_EQ(
        (Texts{"~DomainSockConnection()", R"(TAVRUserFree("alice"))", "KLIBCSzHashFree()", "TAVRMailFree()"}),
        (Texts{platform.calls.end() - 4, platform.calls.end()}));

    platform.webApiAnswers = {kUserAnswer, deep};
    EXPECT_THROW(Send(), Json::Exception);

    response = Json::Value();
    response["warning"] = "neither";
    EXPECT_THROW(Send(), Json::Exception);
    response = Json::Value("no object");
    EXPECT_THROW(Send(), Json::Exception);
}

// --- the request ---

using HandleSendRequest = EmergencyCode;

TEST_F(HandleSendRequest, MailsTheFirstCodeToWhoHasAnAddress)
{
    platform.canonicalNames["Alice"] = "alice";
    EXPECT_TRUE(handler.HandleSendRequest("Alice", response));
    EXPECT_EQ(R"({"success":true,"warning":null})", Shown(response));
    const std::string calls = Join(platform.calls);
    EXPECT_TRUE(calls.starts_with("ParseInputUserName(\"Alice\", out, 1024)\n"
                                  "TAVRUserGet(\"alice\")\n"
                                  "TAVRUserFree(\"alice\")\n"
                                  "TAVRGetSecretPathByUser(\"alice\", path, 4096)\n"
                                  "KLIBCCryptSzDecrypt(\"C1\", plain, 1024)\n"
                                  "KLIBCSzHashAlloc(1024)\n"
                                  "KLIBCSzHashSetValue(\"%USER_NAME%\", \"alice\")\n"
                                  "KLIBCSzHashSetValue(\"%EMG_CODE%\", \"11111111\")\n"))
        << calls;
    EXPECT_EQ(2u, Requests().size());
}

TEST_F(HandleSendRequest, WarnsOfTheLastCode)
{
    dir.Write("secret", "S\nC2\n");
    EXPECT_TRUE(handler.HandleSendRequest("alice", response));
    EXPECT_EQ(R"({"success":true,"warning":true})", Shown(response));
    EXPECT_EQ(
        Texts{
            R"(TAVRMailReadByTagAndConvertRealEx("ger", "OTP_emergency_mail_warning", 256, {%EMG_CODE%=22222222, %USER_NAME%=alice}, 0))"},
        platform.CallsOf("TAVRMailReadByTagAndConvertRealEx"));
}

TEST_F(HandleSendRequest, NotifiesTheRecoveryAddress)
{
    platform.Fail("Connect");
    EXPECT_TRUE(handler.HandleSendRequest("alice", response));
    EXPECT_EQ(
        Texts{
            R"(TAVRMailSendMessageWithoutBlock("OTP_emergency_mail", {%EMG_CODE%=11111111, %USER_NAME%=alice}, "alice@home.example", 0))"},
        platform.CallsOf("TAVRMailSendMessageWithoutBlock"));
    EXPECT_EQ(R"({"success":true,"warning":null})", Shown(response));
}

TEST_F(HandleSendRequest, CutsALongCodeToEightCharacters)
{
    platform.ciphered["C1"] = "1234567890";
    EXPECT_TRUE(handler.HandleSendRequest("alice", response));
    EXPECT_EQ(R"(KLIBCSzHashSetValue("%EMG_CODE%", "12345678"))",
              platform.CallsOf("KLIBCSzHashSetValue").at(1));
}

TEST_F(HandleSendRequest, RefusesANullName)
{
    EXPECT_FALSE(handler.HandleSendRequest(nullptr, response));
    EXPECT_EQ(R"({"success":false})", Shown(response));
    EXPECT_EQ(Texts{"3 MailOtpCodeHandler.cpp:377 Bad parameter: username is NULL"}, platform.LogLines());
    EXPECT_EQ(kNothing, platform.calls);
}

TEST_F(HandleSendRequest, TellsOfANameThatIsNone)
{
    platform.Fail("ParseInputUserName");
    EXPECT_FALSE(handler.HandleSendRequest("a/b", response));
    EXPECT_EQ(R"({"success":false})", Shown(response));
    EXPECT_EQ(Texts{"3 MailOtpCodeHandler.cpp:382 Faile to convert input username: a/b"},
              platform.LogLines());
    EXPECT_EQ(Texts{R"(ParseInputUserName("a/b", out, 1024))"}, platform.calls);
}

TEST_F(HandleSendRequest, TouchesNoSecretFileWithoutAnAddress)
{
    platform.users["alice"].mail.reset();
    EXPECT_FALSE(handler.HandleSendRequest("alice", response));
    EXPECT_EQ(R"({"err":"no_mail_address","success":false})", Shown(response));
    EXPECT_EQ((Texts{R"(ParseInputUserName("alice", out, 1024))", R"(TAVRUserGet("alice"))",
                     R"(TAVRUserFree("alice"))"}),
              platform.calls);
    EXPECT_EQ((Texts{"3 OTPutils.cpp User[alice] mail address not set. ",
                     "3 OTPutils.cpp Failed to get mail for normal user alice: "}),
              platform.LogTexts());
}

TEST_F(HandleSendRequest, MailsNothingWithoutACode)
{
    const struct {
        const char* reason;
        std::function<void()> build;
        const char* response;
    } cases[] = {
        {"no usable code", [&] { dir.Write("secret", "S\nX\n"); },
         R"({"err":"otp_no_emergency_code","success":false})"},
        {"no file", [&] { std::filesystem::remove(dir.Path("secret")); }, R"({"success":false})"},
        {"a file that does not open",
         [&] {
             dir.Write("secret", "S\nC1\n");
             platform.Fail("fopen r");
         },
         R"({"success":false})"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reason);
        platform.calls.clear();
        response = Json::Value();
        c.build();
        EXPECT_FALSE(handler.HandleSendRequest("alice", response));
        EXPECT_EQ(c.response, Shown(response));
        EXPECT_EQ(kNothing, platform.CallsOf("KLIBCSzHashAlloc"));
        EXPECT_EQ(kNothing, platform.CallsOf("TAVRMailFree"));
    }
}

TEST_F(HandleSendRequest, TellsWhenNoMailGoesOut)
{
    platform.webApiAnswers = {kUserAnswer, R"({"success":false})"};
    platform.mailServer = "";
    dir.Write("secret", "S\nC1\n");
    EXPECT_FALSE(handler.HandleSendRequest("alice", response));
    EXPECT_EQ(R"({"err":"mail_service_not_enable","success":false,"warning":true})", Shown(response));
}

TEST_F(HandleSendRequest, GivesTheIdsBackWhenTheResponseIsNoObject)
{
    platform.euid = platform.egid = 64217;
    response = Json::Value(Json::arrayValue);
    dir.Write("secret", "S\nC1\n");
    EXPECT_THROW(handler.HandleSendRequest("alice", response), Json::LogicError);
    EXPECT_EQ(64217u, platform.euid);
    EXPECT_EQ(64217u, platform.egid);
    EXPECT_THROW(handler.HandleSendRequest(nullptr, response), Json::LogicError);
}

} // namespace
