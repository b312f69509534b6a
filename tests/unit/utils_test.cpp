// Secrets, QR codes, codes and recovery addresses, on a scripted platform.
#include "otp/OTPutils.h"

#include "tests/support/fake_platform.h"
#include "tests/support/temp_dir.h"

#include <filesystem>

#include <gtest/gtest.h>
#include <json/json.h>

namespace
{

using Texts = std::vector<std::string>;

const Texts kNothing;

// --- CreateSecretKey ---

constexpr char kTool[] = "/usr/bin/google-authenticator";

TEST(CreateSecretKey, TakesTheFirst24BytesThatTheToolPrints)
{
    const struct {
        const char* reason;
        std::string printed;
        std::string secret;
    } cases[] = {
        {"exactly 24", "ABCDEFGHIJKLMNOPQRSTUVWX", "ABCDEFGHIJKLMNOPQRSTUVWX"},
        {"more than 24", "ABCDEFGHIJKLMNOPQRSTUVWXYZ234567", "ABCDEFGHIJKLMNOPQRSTUVWX"},
        {"a line of 16 and more: nothing is trimmed", "ABCDEFGHIJKLMNOP\nYour new",
         "ABCDEFGHIJKLMNOP\nYour ne"},
        {"up to a zero byte", std::string("ABCDEFGH\0JKLMNOPQRSTUVWX", 24), "ABCDEFGH"},
        {"24 zero bytes", std::string(24, '\0'), ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reason);
        FakePlatform platform;
        platform.outputs[kTool] = c.printed;
        std::string secret = "before";
        std::string path = "before";

        EXPECT_EQ(0, OTPUtils::CreateSecretKey(1026, secret, path));

        EXPECT_EQ(c.secret, secret);
        EXPECT_EQ("/tmp/OTP_1026", path);
        EXPECT_EQ((Texts{R"(KLIBCPopen("/usr/bin/google-authenticator", "r", "-s", "/tmp/OTP_1026"))",
                         "KLIBCPclose()"}),
                  platform.calls);
        EXPECT_EQ(kNothing, platform.LogTexts());
    }
}

TEST(CreateSecretKey, NamesTheFileAfterTheLargestUid)
{
    FakePlatform platform;
    platform.outputs[kTool] = std::string(24, 'A');
    std::string secret;
    std::string path;
    EXPECT_EQ(0, OTPUtils::CreateSecretKey(4294967295u, secret, path));
    EXPECT_EQ("/tmp/OTP_4294967295", path);
}

TEST(CreateSecretKey, FailsWhenTheToolCannotBeStarted)
{
    FakePlatform platform;
    platform.Fail("KLIBCPopen");
    std::string secret = "before";
    std::string path = "before";
    EXPECT_EQ(-1, OTPUtils::CreateSecretKey(1026, secret, path));
    EXPECT_EQ("before", secret);
    EXPECT_EQ("before", path);
    EXPECT_EQ(Texts{"3 OTPutils.cpp Failed to open pipe /usr/bin/google-authenticator -s /tmp/OTP_1026"},
              platform.LogTexts());
    EXPECT_EQ(kNothing, platform.CallsOf("KLIBCPclose"));
}

TEST(CreateSecretKey, FailsOnFewerThan24Bytes)
{
    for (const std::size_t length : {0u, 1u, 16u, 23u}) {
        SCOPED_TRACE(length);
        FakePlatform platform;
        platform.outputs[kTool] = std::string(length, 'A');
        std::string secret = "before";
        std::string path = "before";
        EXPECT_EQ(-1, OTPUtils::CreateSecretKey(7, secret, path));
        EXPECT_EQ("before", secret);
        EXPECT_EQ("before", path);
        EXPECT_EQ((Texts{R"(KLIBCPopen("/usr/bin/google-authenticator", "r", "-s", "/tmp/OTP_7"))",
                         "log: Failed to excute cmd: /usr/bin/google-authenticator -s /tmp/OTP_7",
                         "KLIBCPclose()"}),
                  platform.logAndCalls);
        EXPECT_EQ(3, platform.log.at(0).priority);
    }
}

TEST(CreateSecretKey, DoesNotLookAtTheToolsStatus)
{
    FakePlatform platform;
    platform.outputs[kTool] = std::string(24, 'A');
    platform.Answer("KLIBCPclose", 1);
    std::string secret;
    std::string path;
    EXPECT_EQ(0, OTPUtils::CreateSecretKey(7, secret, path));
}

// --- GetUserSecretKey ---

TEST(GetUserSecretKey, TakesTheFirst16BytesOfTheFile)
{
    const TempDir dir;
    const struct {
        const char* reason;
        std::string content;
        std::string secret;
    } cases[] = {
        {"exactly 16", "ABCDEFGHIJKLMNOP", "ABCDEFGHIJKLMNOP"},
        {"a longer first line", "ABCDEFGHIJKLMNOPQRSTUVWX\n\" TOTP_AUTH\n12345678\n", "ABCDEFGHIJKLMNOP"},
        {"a shorter first line", "ABCDEFGH\n\" TOTP_AUTH\n", "ABCDEFGH\n\" TOTP_"},
        {"up to a zero byte", std::string("ABCD\0FGHIJKLMNOP", 16), "ABCD"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reason);
        FakePlatform platform;
        platform.secretPath = dir.Write("secret", c.content);
        std::string secret = "before";
        std::string path = "before";
        EXPECT_EQ(0, OTPUtils::GetUserSecretKey("alice", secret, path));
        EXPECT_EQ(c.secret, secret);
        EXPECT_EQ(platform.secretPath, path);
        EXPECT_EQ(Texts{R"(TAVRGetSecretPathByUser("alice", path, 4096))"}, platform.calls);
        EXPECT_EQ(kNothing, platform.LogTexts());
    }
}

TEST(GetUserSecretKey, TouchesNothingWithoutAFile)
{
    const TempDir dir;
    for (const bool known : {true, false}) { // the result of the path's call does not count
        FakePlatform platform;
        platform.secretPath = dir.Path("absent");
        if (!known) {
            platform.Fail("TAVRGetSecretPathByUser");
        }
        std::string secret = "before";
        std::string path = "before";
        EXPECT_EQ(0, OTPUtils::GetUserSecretKey("alice", secret, path));
        EXPECT_EQ("before", secret);
        EXPECT_EQ("before", path);
        EXPECT_EQ(kNothing, platform.LogTexts());
    }
}

TEST(GetUserSecretKey, FailsOnAFileThatCannotBeOpened)
{
    const TempDir dir;
    FakePlatform platform;
    platform.secretPath = dir.Write("secret", std::string(16, 'A'));
    platform.Fail("fopen r");
    std::string secret = "before";
    std::string path = "before";
    EXPECT_EQ(-1, OTPUtils::GetUserSecretKey("alice", secret, path));
    EXPECT_EQ("before", secret);
    EXPECT_EQ("before", path);
    EXPECT_EQ(Texts{"3 OTPutils.cpp Failed to open file " + platform.secretPath}, platform.LogTexts());
}

TEST(GetUserSecretKey, FailsSilentlyOnAShortFileAndOnADirectory)
{
    const TempDir dir;
    std::filesystem::create_directory(dir.Path("folder"));
    for (const std::string& path :
         {dir.Write("empty", ""), dir.Write("short", std::string(15, 'A')), dir.Path("folder")}) {
        SCOPED_TRACE(path);
        FakePlatform platform;
        platform.secretPath = path;
        std::string secret = "before";
        std::string out = "before";
        EXPECT_EQ(-1, OTPUtils::GetUserSecretKey("alice", secret, out));
        EXPECT_EQ("before", secret);
        EXPECT_EQ("before", out);
        EXPECT_EQ(kNothing, platform.LogTexts());
    }
}

// --- MoveTmpSecret ---

TEST(MoveTmpSecret, RunsTheMoveTool)
{
    FakePlatform platform;
    platform.secretPath = "/prefs/alice/secret";
    EXPECT_TRUE(OTPUtils::MoveTmpSecret("alice", "/tmp/OTP_1026"));
    EXPECT_EQ((Texts{R"(TAVRGetSecretPathByUser("alice", path, 4096))",
                     R"(KLIBCExec("/bin/mv", "/tmp/OTP_1026", "/prefs/alice/secret", null, null))"}),
              platform.calls);
    EXPECT_EQ(kNothing, platform.LogTexts());
}

TEST(MoveTmpSecret, RunsNothingWhenTheFileIsInPlace)
{
    FakePlatform platform;
    platform.secretPath = "/tmp/OTP_1026";
    EXPECT_TRUE(OTPUtils::MoveTmpSecret("alice", "/tmp/OTP_1026"));
    EXPECT_EQ(kNothing, platform.CallsOf("KLIBCExec"));
}

TEST(MoveTmpSecret, FailsWithTheTool)
{
    for (const int status : {1, -1}) {
        FakePlatform platform;
        platform.secretPath = "/prefs/alice/secret";
        platform.Answer("KLIBCExec", status);
        EXPECT_FALSE(OTPUtils::MoveTmpSecret("alice", "/tmp/OTP_1026"));
        EXPECT_EQ(
            Texts{"3 OTPutils.cpp Failed to move secret file from /tmp/OTP_1026 to /prefs/alice/secret"},
            platform.LogTexts());
    }
}

// --- GenQRcodePNG ---

constexpr char kPictureTool[] = "/usr/bin/qrencode";

std::string UriOf(const FakePlatform& platform)
{
    const Texts calls = platform.CallsOf("KLIBCPopen");
    const std::string start = R"(KLIBCPopen("/usr/bin/qrencode", "r", ")";
    const std::size_t end = calls.at(0).find("\", \"-s\"");
    return calls.at(0).substr(start.size(), end - start.size());
}

TEST(GenQRcodePNG, BuildsTheUri)
{
    std::string everyByte;
    for (int byte = 0; byte < 256; ++byte) {
        everyByte += static_cast<char>(byte);
    }
    std::string escapedBytes;
    for (const char* control : {"0", "1"}) {
        for (const char digit : std::string("0123456789ABCDEF")) {
            escapedBytes += std::string("%") + control + digit;
        }
    }
    escapedBytes += "%20!\"#$%25%26'()*+,-./0123456789:;<%3D>%3F@ABCDEFGHIJKLMNOPQRSTUVWXYZ[%5C]^_`"
                    "abcdefghijklmnopqrstuvwxyz{|}~%7F";
    for (const char high : std::string("89ABCDEF")) {
        for (const char digit : std::string("0123456789ABCDEF")) {
            escapedBytes += std::string("%") + high + digit;
        }
    }
    const struct {
        const char* reason;
        std::string secret, account;
        std::optional<std::string> hardwareId;
        std::string uri;
    } cases[] = {
        {"no hardware id",
         "SECRET",
         "alice",
         {},
         "otpauth://totp/alice?secret=SECRET&issuer=Morvane%20Orbis"},
        {"an empty hardware id is none", "SECRET", "alice", "",
         "otpauth://totp/alice?secret=SECRET&issuer=Morvane%20Orbis"},
        {"with a hardware id", "SECRET", "alice", "0a 1&b",
         "otpauth://totp/alice?secret=SECRET&issuer=Morvane%20Orbis&hwid=0a%201%26b"},
        {"a blank in the label",
         "SECRET",
         "alice smith",
         {},
         "otpauth://totp/alice%20smith?secret=SECRET&issuer=Morvane%20Orbis"},
        {"characters with a meaning in the label",
         "S",
         "a&b=c/d:e",
         {},
         "otpauth://totp/a%26b%3Dc/d:e?secret=S&issuer=Morvane%20Orbis"},
        {"an empty label", "S", "", {}, "otpauth://totp/?secret=S&issuer=Morvane%20Orbis"},
        {"the secret is not escaped",
         "a b&c=%\n",
         "x",
         {},
         "otpauth://totp/x?secret=a b&c=%\n&issuer=Morvane%20Orbis"},
        {"every byte in the label",
         "S",
         everyByte,
         {},
         "otpauth://totp/" + escapedBytes + "?secret=S&issuer=Morvane%20Orbis"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reason);
        FakePlatform platform;
        platform.hardwareId = c.hardwareId;
        platform.outputs[kPictureTool] = "PNG";
        std::string png;
        EXPECT_EQ(0, OTPUtils::GenQRcodePNG(c.secret, c.account, png));
        EXPECT_EQ(c.uri, UriOf(platform));
    }
}

TEST(GenQRcodePNG, AsksForTheHardwareIdThenDrawsThenCodes)
{
    FakePlatform platform;
    platform.hardwareId = "id";
    platform.outputs[kPictureTool] = std::string("\x89PNG\0\r\n", 7);
    std::string png = "before";
    EXPECT_EQ(0, OTPUtils::GenQRcodePNG("S", "alice", png));
    EXPECT_EQ((Texts{"tavrcrypto_hwid_init()", "tavrcrypto_hwid_str(64)", "tavrcrypto_hwid_free(id)",
                     R"(KLIBCPopen("/usr/bin/qrencode", "r", )"
                     R"("otpauth://totp/alice?secret=S&issuer=Morvane%20Orbis&hwid=id", )"
                     R"("-s", "6", "-o", "-"))",
                     "KLIBCBase64SzEncodeFull(<7 bytes>, out, 14, 0)", "KLIBCPclose()"}),
              platform.calls);
    EXPECT_EQ("picture:89504", png); // what fits into twice the picture's size
    EXPECT_EQ(kNothing, platform.LogTexts());
}

TEST(GenQRcodePNG, LeavesTheMarginAwayOnDemandOnly)
{
    FakePlatform platform;
    platform.hardwareId = "id";
    platform.outputs[kPictureTool] = "PNG";
    std::string png;
    EXPECT_EQ(0, OTPUtils::GenQRcodePNG("S", "alice", png, false));
    EXPECT_EQ(0, OTPUtils::GenQRcodePNG("S", "alice", png, true));
    const std::string start = R"(KLIBCPopen("/usr/bin/qrencode", "r", )"
                              R"("otpauth://totp/alice?secret=S&issuer=Morvane%20Orbis&hwid=id", )";
    EXPECT_EQ((Texts{start + R"("-s", "6", "-m", "0", "-o", "-"))", start + R"("-s", "6", "-o", "-"))"}),
              platform.CallsOf("KLIBCPopen"));
}

TEST(GenQRcodePNG, GoesOnWithoutAHardwareId)
{
    const struct {
        const char* reason;
        const char* failing;
        int result;
        Texts freed;
    } cases[] = {
        {"there is none", "", 0, {"tavrcrypto_hwid_free(id)"}},
        {"the record cannot be made", "tavrcrypto_hwid_init", -1, {"tavrcrypto_hwid_free(null)"}},
        {"true, and no text", "tavrcrypto_hwid_str", 1, {"tavrcrypto_hwid_free(id)"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reason);
        FakePlatform platform;
        platform.Answer(c.failing, c.result);
        platform.outputs[kPictureTool] = "PNG";
        std::string png;
        EXPECT_EQ(0, OTPUtils::GenQRcodePNG("S", "alice", png));
        EXPECT_EQ("otpauth://totp/alice?secret=S&issuer=Morvane%20Orbis", UriOf(platform));
        EXPECT_EQ(Texts{"3 OTPutils.cpp Get HWID failed, ignore it"}, platform.LogTexts());
        EXPECT_EQ(c.freed, platform.CallsOf("tavrcrypto_hwid_free"));
    }
}

TEST(GenQRcodePNG, TakesATextOfNoRecord)
{
    FakePlatform platform;
    platform.Fail("tavrcrypto_hwid_init");
    platform.Answer("tavrcrypto_hwid_str", 1);
    platform.outputs[kPictureTool] = "PNG";
    std::string png;
    EXPECT_EQ(0, OTPUtils::GenQRcodePNG("S", "alice", png));
    EXPECT_EQ(Texts{"3 OTPutils.cpp Get HWID failed, ignore it"}, platform.LogTexts());
}

TEST(GenQRcodePNG, FailsWhenTheToolCannotBeStarted)
{
    FakePlatform platform;
    platform.hardwareId = "id";
    platform.Fail("KLIBCPopen");
    std::string png = "before";
    EXPECT_EQ(-1, OTPUtils::GenQRcodePNG("S", "alice", png));
    EXPECT_EQ("before", png);
    EXPECT_EQ(Texts{"3 OTPutils.cpp Failed to open pipe "
                    "otpauth://totp/alice?secret=S&issuer=Morvane%20Orbis&hwid=id -o -"},
              platform.LogTexts());
    EXPECT_EQ(kNothing, platform.CallsOf("KLIBCPclose"));
}

TEST(GenQRcodePNG, FailsWithoutMemoryForTheText)
{
    FakePlatform platform;
    platform.hardwareId = "id";
    platform.outputs[kPictureTool] = std::string(100, 'x');
    platform.Fail("calloc");
    std::string png = "before";
    EXPECT_EQ(-1, OTPUtils::GenQRcodePNG("S", "alice", png));
    EXPECT_EQ("before", png);
    EXPECT_EQ(Texts{"3 OTPutils.cpp Failed to alloc memory size: 200"}, platform.LogTexts());
    EXPECT_EQ(1u, platform.CallsOf("KLIBCPclose").size());
    EXPECT_EQ(kNothing, platform.CallsOf("KLIBCBase64SzEncodeFull"));
}

TEST(GenQRcodePNG, CutsAPictureAt4096Bytes)
{
    for (const std::size_t size : {4095u, 4096u, 4097u, 100000u}) {
        SCOPED_TRACE(size);
        FakePlatform platform;
        platform.hardwareId = "id";
        platform.outputs[kPictureTool] = std::string(size, 'x');
        std::string png;
        EXPECT_EQ(0, OTPUtils::GenQRcodePNG("S", "alice", png));
        EXPECT_EQ(Texts{size == 4095 ? "KLIBCBase64SzEncodeFull(<4095 bytes>, out, 8190, 0)"
                                     : "KLIBCBase64SzEncodeFull(<4096 bytes>, out, 8192, 0)"},
                  platform.CallsOf("KLIBCBase64SzEncodeFull"));
    }
}

TEST(GenQRcodePNG, TakesAnEmptyPictureAndAFailedCodingAsTheyCome)
{
    for (const char* picture : {"", "P", "PNG"}) {
        SCOPED_TRACE(picture);
        FakePlatform platform;
        platform.hardwareId = "id";
        platform.outputs[kPictureTool] = picture;
        platform.Fail("KLIBCBase64SzEncodeFull");
        std::string png = "before";
        EXPECT_EQ(0, OTPUtils::GenQRcodePNG("S", "alice", png));
        EXPECT_EQ("", png);
    }
}

// --- codes: AuthOTPcode ---

TEST(CheckCode, AsksTheVerifierAboutTheFile)
{
    FakePlatform platform;
    EXPECT_TRUE(OTPUtils::AuthOTPcode("alice", "123456", "/tmp/OTP_1026"));
    EXPECT_EQ(Texts{R"(TAVRGoogleAuth(3, "username=alice", "code=123456", "secret=/tmp/OTP_1026"))"},
              platform.calls);
    EXPECT_EQ(kNothing, platform.LogTexts());
}

TEST(CheckCode, TellsOfARefusal)
{
    for (const int status : {1, -1, 7}) {
        FakePlatform platform;
        platform.Answer("TAVRGoogleAuth", status);
        EXPECT_FALSE(OTPUtils::AuthOTPcode("alice", "123456", "/tmp/OTP_1026"));
        EXPECT_EQ(Texts{"3 OTPutils.cpp Failed to auth OTP code"}, platform.LogTexts());
    }
}

TEST(CheckCode, RefusesNullArgumentsUnasked)
{
    const char* const cases[][3] = {{nullptr, "1", "p"}, {"u", nullptr, "p"}, {"u", "1", nullptr}};
    for (const auto& c : cases) {
        FakePlatform platform;
        EXPECT_FALSE(OTPUtils::AuthOTPcode(c[0], c[1], c[2]));
        EXPECT_EQ(kNothing, platform.calls);
        EXPECT_EQ(Texts{"3 OTPutils.cpp Bad parameter"}, platform.LogTexts());
    }
}

TEST(CheckCode, PassesEmptyTextsOn)
{
    FakePlatform platform;
    EXPECT_TRUE(OTPUtils::AuthOTPcode("alice", "", ""));
    EXPECT_EQ(Texts{R"(TAVRGoogleAuth(3, "username=alice", "code=", "secret="))"}, platform.calls);
}

TEST(CheckCode, CutsLongTexts)
{
    const struct {
        std::size_t user, code, path;
        std::size_t userKept, codeKept, pathKept;
    } cases[] = {
        {1014, 58, 4088, 1014, 58, 4088},
        {1015, 59, 4089, 1014, 58, 4088},
        {9000, 9000, 9000, 1014, 58, 4088},
    };
    for (const auto& c : cases) {
        FakePlatform platform;
        EXPECT_TRUE(OTPUtils::AuthOTPcode(std::string(c.user, 'u').c_str(), std::string(c.code, '1').c_str(),
                                          std::string(c.path, 'p').c_str()));
        EXPECT_EQ(Texts{"TAVRGoogleAuth(3, \"username=" + std::string(c.userKept, 'u') +
                        "\", \"code=" + std::string(c.codeKept, '1') +
                        "\", \"secret=" + std::string(c.pathKept, 'p') + "\")"},
                  platform.calls);
    }
}

// --- recovery addresses: look-up ---

using Lookup = bool (*)(const char*, char*, size_t);

// What a look-up gives: the address, or that the buffer was left alone.
struct Found {
    bool result;
    std::string text;
};

Found Look(Lookup lookup, const std::string& user, std::size_t size = 64)
{
    std::string buffer(size, '#');
    const bool result = lookup(user.c_str(), buffer.data(), size);
    if (!result) {
        EXPECT_EQ(std::string(size, '#'), buffer) << "untouched on failure";
        return {false, ""};
    }
    EXPECT_NE(std::string::npos, buffer.find('\0')) << "terminated";
    return {true, buffer.c_str()};
}

TEST(MailLookup, RefusesNullArgumentsAndAsksNothing)
{
    char dst[8] = "before";
    const struct {
        Lookup lookup;
        const char* line;
        Texts calls; // of each refusal; nor are the ids raised
    } functions[] = {
        {OTPUtils::GetUserMail, "3 OTPutils.cpp Bad parameter", {}},
        {OTPUtils::GetNormalUserMail, "3 OTPutils.cpp Bad parameter", {}},
        {OTPUtils::GetDomainUserMail, "3 OTPutils.cpp Bad parameter", {}},
        {OTPUtils::GetLDAPUserMail,
         "3 OTPutils.cpp Bad parameters.",
         {"TAVRLDAPSearchOptionFree(null)", "TAVRLDAPHostFree(never opened)"}},
    };
    for (const auto& f : functions) {
        FakePlatform platform;
        EXPECT_FALSE(f.lookup(nullptr, dst, sizeof dst));
        EXPECT_EQ(f.calls, platform.calls);
        platform.calls.clear();
        EXPECT_FALSE(f.lookup("alice", nullptr, sizeof dst));
        EXPECT_EQ(f.calls, platform.calls);
        platform.calls.clear();
        EXPECT_FALSE(f.lookup("alice", dst, 0));
        EXPECT_EQ(f.calls, platform.calls);
        EXPECT_STREQ("before", dst);
        EXPECT_EQ((Texts{f.line, f.line, f.line}), platform.LogTexts());
    }
}

TEST(GetNormalUserMail, GivesTheAddressOfTheRecord)
{
    FakePlatform platform;
    platform.users["alice"].mail = "alice@home.example";
    const Found found = Look(OTPUtils::GetNormalUserMail, "alice");
    EXPECT_TRUE(found.result);
    EXPECT_EQ("alice@home.example", found.text);
    EXPECT_EQ((Texts{R"(TAVRUserGet("alice"))", R"(TAVRUserFree("alice"))"}), platform.calls);
    EXPECT_EQ(kNothing, platform.LogTexts());
}

TEST(GetNormalUserMail, CutsTheAddressToTheBuffer)
{
    const struct {
        std::size_t size;
        std::string text;
    } cases[] = {{1, ""}, {2, "a"}, {18, "alice@home.exampl"}, {19, "alice@home.example"}};
    for (const auto& c : cases) {
        FakePlatform platform;
        platform.users["alice"].mail = "alice@home.example";
        const Found found = Look(OTPUtils::GetNormalUserMail, "alice", c.size);
        EXPECT_TRUE(found.result);
        EXPECT_EQ(c.text, found.text);
    }
}

TEST(GetNormalUserMail, TellsWhyTheRecordCouldNotBeRead)
{
    const struct {
        int code;
        const char* shown;
    } cases[] = {{0xD00, "0x0D00"}, {0x1ABCD, "0x1ABCD"}, {7, "0x0007"}};
    for (const auto& c : cases) {
        FakePlatform platform;
        platform.error = {c.code, "users.cpp", 321};
        EXPECT_FALSE(Look(OTPUtils::GetNormalUserMail, "nobody").result);
        EXPECT_EQ(
            Texts{std::string("3 OTPutils.cpp Failed to get user: nobody [") + c.shown + " users.cpp:321]"},
            platform.LogTexts());
        EXPECT_EQ(Texts{R"(TAVRUserGet("nobody"))"}, platform.calls);
    }
}

TEST(GetNormalUserMail, WantsAnAddressThatIsNotEmpty)
{
    for (const std::optional<std::string>& mail :
         {std::optional<std::string>(), std::optional<std::string>("")}) {
        FakePlatform platform;
        platform.users["alice"].mail = mail;
        EXPECT_FALSE(Look(OTPUtils::GetNormalUserMail, "alice").result);
        EXPECT_EQ(Texts{"3 OTPutils.cpp User[alice] mail address not set. "}, platform.LogTexts());
        EXPECT_EQ(1u, platform.CallsOf("TAVRUserFree").size());
    }
}

// A domain account with a preference file.
class DomainUser : public testing::Test
{
protected:
    DomainUser() { platform.preferenceDir = dir.Path(); }

    FakePlatform platform;
    TempDir dir;
};

using GetDomainUserMail = DomainUser;
using SetDomainUserMail = DomainUser;

TEST_F(GetDomainUserMail, ReadsTheMemberOfThePreferenceFile)
{
    const struct {
        const char* reason;
        const char* content;
        const char* mail;
    } cases[] = {
        {"alone", R"({"TAVR.Ombra.App.PersonalSettings.Instance":{"otp_mail":"a@b.example"}})",
         "a@b.example"},
        {"empty", R"({"TAVR.Ombra.App.PersonalSettings.Instance":{"otp_mail":""}})", ""},
        {"among others", R"({"x":[1],"TAVR.Ombra.App.PersonalSettings.Instance":{"y":null,"otp_mail":"m"}})",
         "m"},
        {"comments",
         "// one\n{/* two */\"TAVR.Ombra.App.PersonalSettings.Instance\":{\"otp_mail\":\"m\"}// three\n}",
         "m"},
        {"escapes", R"({"TAVR.Ombra.App.PersonalSettings.Instance":{"otp_mail":"\u00e9\"x"}})",
         "\xC3\xA9\"x"},
        {"up to a zero byte", R"({"TAVR.Ombra.App.PersonalSettings.Instance":{"otp_mail":"a\u0000b"}})", "a"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reason);
        dir.Write("usersettings", c.content);
        const Found found = Look(OTPUtils::GetDomainUserMail, "CORP\\alice");
        EXPECT_TRUE(found.result);
        EXPECT_EQ(c.mail, found.text);
    }
    EXPECT_EQ(kNothing, platform.LogTexts());
    EXPECT_EQ(R"(TAVRUserPreferenceDirGet("CORP\alice", dir, 4096, 0))", platform.calls.at(0));
}

TEST_F(GetDomainUserMail, CutsTheAddressToTheBuffer)
{
    dir.Write("usersettings", R"({"TAVR.Ombra.App.PersonalSettings.Instance":{"otp_mail":"abc"}})");
    EXPECT_EQ("", Look(OTPUtils::GetDomainUserMail, "CORP\\alice", 1).text);
    EXPECT_EQ("ab", Look(OTPUtils::GetDomainUserMail, "CORP\\alice", 3).text);
}

TEST_F(GetDomainUserMail, ReadsLargeFiles)
{
    dir.Write("usersettings", "{\"filler\":\"" + std::string(100000, 'x') +
                                  R"(","TAVR.Ombra.App.PersonalSettings.Instance":{"otp_mail":"m"}})");
    EXPECT_EQ("m", Look(OTPUtils::GetDomainUserMail, "CORP\\alice").text);
}

TEST_F(GetDomainUserMail, TellsOfAMissingMember)
{
    for (const char* content :
         {"{}", "null", R"({"otp_mail":"x"})", R"({"TAVR.Ombra.App.PersonalSettings.Instance":null})",
          R"({"TAVR.Ombra.App.PersonalSettings.Instance":{}})",
          R"({"TAVR.Ombra.App.PersonalSettings.Instance":{"otp_mail":null}})"}) {
        SCOPED_TRACE(content);
        platform.log.clear();
        dir.Write("usersettings", content);
        EXPECT_FALSE(Look(OTPUtils::GetDomainUserMail, "CORP\\alice").result);
        EXPECT_EQ(Texts{"3 OTPutils.cpp Failed to get otp mail of user [CORP\\alice]"}, platform.LogTexts());
    }
}

constexpr char kNoValue[] = "3 OTPutils.cpp Failed to parse [CORP\\alice] settings: "
                            "* Line 1, Column 1\n  Syntax error: value, object or array expected.\n";

TEST_F(GetDomainUserMail, TakesAMissingFileForAnEmptyOne)
{
    EXPECT_FALSE(Look(OTPUtils::GetDomainUserMail, "CORP\\alice").result);
    dir.Write("usersettings", "");
    EXPECT_FALSE(Look(OTPUtils::GetDomainUserMail, "CORP\\alice").result);
    std::filesystem::remove(dir.Path("usersettings"));
    std::filesystem::create_directory(dir.Path("usersettings")); // opens, and cannot be read
    EXPECT_FALSE(Look(OTPUtils::GetDomainUserMail, "CORP\\alice").result);
    EXPECT_EQ((Texts{kNoValue, kNoValue, kNoValue}), platform.LogTexts());
}

TEST_F(GetDomainUserMail, TakesNothingFromAFileThatCannotBeReadToItsEnd)
{
    dir.Write("usersettings", R"({"TAVR.Ombra.App.PersonalSettings.Instance":{"otp_mail":"m"}})");
    platform.Answer("ferror", 1);
    EXPECT_FALSE(Look(OTPUtils::GetDomainUserMail, "CORP\\alice").result);
    EXPECT_EQ(Texts{kNoValue}, platform.LogTexts());
}

TEST_F(GetDomainUserMail, TellsWhatIsWrongWithTheFile)
{
    dir.Write("usersettings", "{\"a\":1");
    EXPECT_FALSE(Look(OTPUtils::GetDomainUserMail, "CORP\\alice").result);
    EXPECT_EQ(Texts{"3 OTPutils.cpp Failed to parse [CORP\\alice] settings: "
                    "* Line 1, Column 7\n  Missing ',' or '}' in object declaration\n"},
              platform.LogTexts());
}

TEST_F(GetDomainUserMail, TellsWhyThereIsNoDirectory)
{
    platform.Fail("TAVRUserPreferenceDirGet");
    platform.error = {0xD00, "names.cpp", 12};
    EXPECT_FALSE(Look(OTPUtils::GetDomainUserMail, "CORP\\alice").result);
    EXPECT_EQ(Texts{"3 OTPutils.cpp Get preference dir failed. [CORP\\alice] [0x0D00 names.cpp:12]"},
              platform.LogTexts());
}

const char* const kWrongShapes[] = {
    "[]",
    "[{}]",
    "\"text\"",
    "5",
    R"({"TAVR.Ombra.App.PersonalSettings.Instance":[]})",
    R"({"TAVR.Ombra.App.PersonalSettings.Instance":"text"})",
};

std::string Nested(int depth)
{
    return "{\"a\":" + std::string(static_cast<std::size_t>(depth), '[') +
           std::string(static_cast<std::size_t>(depth), ']') + "}";
}

std::size_t OpenDescriptors()
{
    const std::filesystem::directory_iterator files("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(files), end(files)));
}

TEST_F(GetDomainUserMail, EndsInAnExceptionOnAnotherShapeAndLeavesNothingOpen)
{
    Texts contents(std::begin(kWrongShapes), std::end(kWrongShapes));
    contents.push_back(R"({"TAVR.Ombra.App.PersonalSettings.Instance":{"otp_mail":5}})");
    contents.push_back(R"({"TAVR.Ombra.App.PersonalSettings.Instance":{"otp_mail":true}})");
    contents.push_back(R"({"TAVR.Ombra.App.PersonalSettings.Instance":{"otp_mail":["m"]}})");
    contents.push_back(Nested(2000));
    const std::size_t open = OpenDescriptors();
    for (const std::string& content : contents) {
        SCOPED_TRACE(content.substr(0, 80));
        dir.Write("usersettings", content);
        char dst[8] = "before";
        EXPECT_THROW(OTPUtils::GetDomainUserMail("CORP\\alice", dst, sizeof dst), Json::Exception);
        EXPECT_STREQ("before", dst);
        EXPECT_EQ(open, OpenDescriptors());
    }
}

// --- LDAP ---

const Texts kLdapCalls = {
    "TAVRLDAPSearchOptionAlloc()",
    "TAVRLDAPSearchOptionGet(options, 0)",
    R"(TAVRLDAPSplitName("mia@office.example", null, null, bare, 1024))",
    "TAVRLDAPHostInitByBindConfigOnly(host)",
    R"(TAVRLDAPBrowserGetDNByUserUID(host, "mia", dn, 1024, options))",
    R"(TAVRLDAPBrowserUserGet(host, "uid=mia,dc=office", record, 0, 0, options))",
};

class GetLDAPUserMail : public testing::Test
{
protected:
    GetLDAPUserMail()
    {
        platform.ldap.bare = "mia";
        platform.ldap.dn = "uid=mia,dc=office";
        platform.ldap.mail = "mia@home.example";
        platform.error = {0xD00, "ldap.cpp", 9};
    }

    FakePlatform platform;
};

TEST_F(GetLDAPUserMail, FindsTheEntryAndItsAddress)
{
    const Found found = Look(OTPUtils::GetLDAPUserMail, "mia@office.example");
    EXPECT_TRUE(found.result);
    EXPECT_EQ("mia@home.example", found.text);
    Texts expected = kLdapCalls;
    expected.insert(expected.end(), {"TAVRLDAPSearchOptionFree(options)", "TAVRLDAPHostFree(host)",
                                     R"(TAVRUserFree("uid=mia,dc=office"))"});
    EXPECT_EQ(expected, platform.calls);
    EXPECT_EQ(kNothing, platform.LogTexts());
}

TEST_F(GetLDAPUserMail, TakesAnAbsentAddressForAnEmptyOne)
{
    platform.ldap.mail.reset();
    const Found absent = Look(OTPUtils::GetLDAPUserMail, "mia@office.example");
    EXPECT_TRUE(absent.result);
    EXPECT_EQ("", absent.text);
    platform.ldap.mail = "";
    EXPECT_TRUE(Look(OTPUtils::GetLDAPUserMail, "mia@office.example").result);
}

TEST_F(GetLDAPUserMail, CutsTheAddressToTheBuffer)
{
    EXPECT_EQ("mia", Look(OTPUtils::GetLDAPUserMail, "mia@office.example", 4).text);
    EXPECT_EQ("", Look(OTPUtils::GetLDAPUserMail, "mia@office.example", 1).text);
}

TEST_F(GetLDAPUserMail, TakesTheFirstOfSeveralMatchesAndSaysSo)
{
    for (const int matches : {2, 3}) {
        platform.log.clear();
        platform.ldap.matches = matches;
        EXPECT_EQ("mia@home.example", Look(OTPUtils::GetLDAPUserMail, "mia@office.example").text);
        EXPECT_EQ(Texts{"3 OTPutils.cpp user 'mia' is ambigous"}, platform.LogTexts());
    }
}

TEST_F(GetLDAPUserMail, TellsWhatFailedAndGivesEverythingBack)
{
    const struct {
        const char* call;
        int result;
        std::size_t calls; // of the list above, that one included
        const char* line;
        const char* options;
        const char* host;
    } cases[] = {
        {"TAVRLDAPSearchOptionAlloc", -1, 1,
         "3 OTPutils.cpp TAVRLDAPSearchOptionAlloc() failed [0x0D00 ldap.cpp:9]", "null", "never opened"},
        {"TAVRLDAPSearchOptionGet", -1, 2,
         "3 OTPutils.cpp Failed to get ldapsearch options [0x0D00 ldap.cpp:9]", "options", "never opened"},
        {"TAVRLDAPSplitName", 0, 3, "3 OTPutils.cpp Failed to split LDAP username. [mia@office.example]",
         "options", "never opened"},
        {"TAVRLDAPSplitName", -1, 3, "3 OTPutils.cpp Failed to split LDAP username. [mia@office.example]",
         "options", "never opened"},
        {"TAVRLDAPHostInitByBindConfigOnly", -1, 4,
         "3 OTPutils.cpp Failed to get bind config. [mia@office.example]", "options", "never opened"},
        {"TAVRLDAPBrowserGetDNByUserUID", -1, 5, "3 OTPutils.cpp Failed to get DN. [mia@office.example]",
         "options", "host"},
        {"TAVRLDAPBrowserGetDNByUserUID", 0, 5, "3 OTPutils.cpp User not found [mia@office.example]",
         "options", "host"},
        {"TAVRLDAPBrowserUserGet", -1, 6, "3 OTPutils.cpp Failed to get User info [mia@office.example]",
         "options", "host"},
        {"TAVRLDAPBrowserUserGet", 0, 6, "3 OTPutils.cpp DN not found [mia@office.example]", "options",
         "host"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.call) + " gives " + std::to_string(c.result));
        platform.calls.clear();
        platform.log.clear();
        for (const std::string& call : kLdapCalls) {
            platform.Forget(call.substr(0, call.find('(')));
        }
        platform.Answer(c.call, c.result);
        EXPECT_FALSE(Look(OTPUtils::GetLDAPUserMail, "mia@office.example").result);
        Texts expected(kLdapCalls.begin(), kLdapCalls.begin() + static_cast<std::ptrdiff_t>(c.calls));
        expected.push_back(std::string("TAVRLDAPSearchOptionFree(") + c.options + ")");
        expected.push_back(std::string("TAVRLDAPHostFree(") + c.host + ")");
        EXPECT_EQ(expected, platform.calls);
        EXPECT_EQ(Texts{c.line}, platform.LogTexts());
    }
}

// --- by the kind of the name ---

TEST(GetUserMail, LooksWhereTheKindOfTheNameSays)
{
    const TempDir dir;
    dir.Write("usersettings", R"({"TAVR.Ombra.App.PersonalSettings.Instance":{"otp_mail":"domain"}})");
    const struct {
        const char* user;
        const char* mail;
    } cases[] = {
        {"alice", "local"},
        {"CORP\\alice", "domain"},
        {"CORP\\alice@office.example", "domain"},
        {"alice@CORP\\x", "domain"},
        {"mia@office.example", "directory"},
        {"@", "directory"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.user);
        FakePlatform platform;
        platform.preferenceDir = dir.Path();
        platform.users["alice"].mail = "local";
        platform.ldap.mail = "directory";
        const Found found = Look(OTPUtils::GetUserMail, c.user);
        EXPECT_TRUE(found.result);
        EXPECT_EQ(c.mail, found.text);
    }
}

TEST(GetUserMail, LooksAsRootAndAddsALineToAFailure)
{
    FakePlatform platform;
    platform.error = {1, "users.cpp", 2};
    EXPECT_FALSE(Look(OTPUtils::GetUserMail, "nobody").result);
    EXPECT_EQ(
        (Texts{"setresgid(-1, 0, -1)", "log: WARNING: setresgid(-1, 0, -1)", "setresuid(-1, 0, -1)",
               "log: WARNING: setresuid(-1, 0, -1)", R"(TAVRUserGet("nobody"))",
               "log: Failed to get user: nobody [0x0001 users.cpp:2]",
               "log: Failed to get mail for normal user nobody: ", "setresuid(-1, 0, -1)",
               "log: WARNING: setresuid(-1, 0, -1)", "setresgid(-1, 64217, -1)", "setresuid(-1, 64217, -1)"}),
        platform.logAndCalls);
    for (const LogLine& entry : platform.log) {
        EXPECT_EQ("OTPutils.cpp", entry.file);
        EXPECT_GT(entry.line, 0);
        EXPECT_EQ(entry.text.starts_with("WARNING") ? 39 : 3, entry.priority);
    }
}

TEST(GetUserMail, AddsALineOfTheKind)
{
    const struct {
        const char* user;
        const char* line;
    } cases[] = {
        {"nobody", "3 OTPutils.cpp Failed to get mail for normal user nobody: "},
        {"CORP\\nobody", "3 OTPutils.cpp Failed to get mail for Domain user CORP\\nobody: "},
        {"nobody@office.example", "3 OTPutils.cpp Failed to get mail for LDAP user nobody@office.example: "},
    };
    for (const auto& c : cases) {
        FakePlatform platform;
        platform.euid = 0;
        platform.egid = 0;
        platform.ldap.found = 0;
        platform.preferenceDir = "/nonexistent";
        EXPECT_FALSE(Look(OTPUtils::GetUserMail, c.user).result);
        EXPECT_EQ(2u, platform.log.size());
        EXPECT_EQ(c.line, platform.LogTexts().back());
    }
}

TEST(GetUserMail, LooksAllTheSameWhenTheIdsCannotBeRaised)
{
    FakePlatform platform;
    platform.users["alice"].mail = "a@b.example";
    platform.Fail("setresgid", 1);
    EXPECT_EQ("a@b.example", Look(OTPUtils::GetUserMail, "alice").text);
    EXPECT_EQ((Texts{"35 OTPutils.cpp ERROR: setresgid(-1, 0, -1) [Operation not permitted]",
                     "35 OTPutils.cpp ERROR: ENTERCriticalSection"}),
              platform.LogTexts());
}

TEST(GetUserMail, GivesTheIdsBackWhenTheFileEndsInAnException)
{
    const TempDir dir;
    FakePlatform platform;
    platform.preferenceDir = dir.Path();
    dir.Write("usersettings", "[]");
    char dst[8];
    EXPECT_THROW(OTPUtils::GetUserMail("CORP\\alice", dst, sizeof dst), Json::Exception);
    EXPECT_EQ(64217u, platform.euid);
    EXPECT_EQ(64217u, platform.egid);
}

// --- recovery addresses: update ---

TEST(MailUpdate, RefusesNullArgumentsUnasked)
{
    for (const auto update :
         {OTPUtils::SetUserMail, OTPUtils::SetNormalUserMail, OTPUtils::SetDomainUserMail}) {
        FakePlatform platform;
        EXPECT_FALSE(update(nullptr, "m"));
        EXPECT_FALSE(update("alice", nullptr));
        EXPECT_EQ(kNothing, platform.calls);
        EXPECT_EQ((Texts{"3 OTPutils.cpp Bad parameter", "3 OTPutils.cpp Bad parameter"}),
                  platform.LogTexts());
    }
}

TEST(SetNormalUserMail, WritesTheRecordBackWithTheAddress)
{
    for (const char* mail : {"a@b.example", "", "not an address"}) {
        FakePlatform platform;
        platform.users["alice"] = {1026, 100, 1, "Alice", "old"};
        EXPECT_TRUE(OTPUtils::SetNormalUserMail("alice", mail));
        EXPECT_EQ((Texts{R"(TAVRUserGet("alice"))",
                         R"(TAVRConfdUserUpdate("alice", "alice", 1026, 100, 1, "Alice", ")" +
                             std::string(mail) + "\", 0)",
                         R"(TAVRUserFree("alice"))"}),
                  platform.calls);
        EXPECT_EQ(kNothing, platform.LogTexts());
    }
}

TEST(SetNormalUserMail, HandsOutACopyOfTheText)
{
    FakePlatform platform;
    platform.users["alice"] = {};
    char mail[] = "a@b.example";
    platform.During("TAVRUserGet", [&] { mail[0] = 'a'; });
    platform.During("TAVRConfdUserUpdate", [&] { mail[0] = 'X'; });
    EXPECT_TRUE(OTPUtils::SetNormalUserMail("alice", mail));
    EXPECT_EQ("a@b.example", platform.users["alice"].mail);
}

TEST(SetNormalUserMail, TellsOfAnUnknownAccount)
{
    FakePlatform platform;
    EXPECT_FALSE(OTPUtils::SetNormalUserMail("nobody", "m"));
    EXPECT_EQ(Texts{"3 OTPutils.cpp Failed to get user info"}, platform.LogTexts());
    EXPECT_EQ(Texts{R"(TAVRUserGet("nobody"))"}, platform.calls);
}

TEST(SetNormalUserMail, TellsOfAFailedUpdateAndReleasesTheRecord)
{
    FakePlatform platform;
    platform.users["alice"] = {};
    platform.error = {0xD00, "accounts.cpp", 77};
    platform.Fail("TAVRConfdUserUpdate");
    EXPECT_FALSE(OTPUtils::SetNormalUserMail("alice", "m"));
    EXPECT_EQ(Texts{"3 OTPutils.cpp Failed to TAVRUserSetOne [0x0D00 accounts.cpp:77]"}, platform.LogTexts());
    EXPECT_EQ(1u, platform.CallsOf("TAVRUserFree").size());
}

TEST_F(SetDomainUserMail, SetsTheMemberAndKeepsTheOthers)
{
    const struct {
        const char* reason;
        std::string before;
        std::string mail;
        std::string after;
    } cases[] = {
        {"other members, sorted by the writer", R"({"other":1})", "new address",
         R"({"TAVR.Ombra.App.PersonalSettings.Instance":{"otp_mail":"new address"},"other":1})"},
        {"an empty object", "{}", "m", R"({"TAVR.Ombra.App.PersonalSettings.Instance":{"otp_mail":"m"}})"},
        {"null", "null", "m", R"({"TAVR.Ombra.App.PersonalSettings.Instance":{"otp_mail":"m"}})"},
        {"another address, beside others",
         R"({"TAVR.Ombra.App.PersonalSettings.Instance":{"otp_mail":"old","z":[1,2.5,null,true]},"b":{"c":"d"}})",
         "m",
         R"({"TAVR.Ombra.App.PersonalSettings.Instance":{"otp_mail":"m","z":[1,2.5,null,true]},"b":{"c":"d"}})"},
        {"a number as the address is replaced",
         R"({"TAVR.Ombra.App.PersonalSettings.Instance":{"otp_mail":5}})", "m",
         R"({"TAVR.Ombra.App.PersonalSettings.Instance":{"otp_mail":"m"}})"},
        {"comments and form are lost", "// note\n{\n  \"a\" : 1 /* x */\n}\n", "m",
         R"({"TAVR.Ombra.App.PersonalSettings.Instance":{"otp_mail":"m"},"a":1})"},
        {"an empty address", "{}", "", R"({"TAVR.Ombra.App.PersonalSettings.Instance":{"otp_mail":""}})"},
        {"characters to escape", "{}", "\"\n\xC3\xA9",
         R"({"TAVR.Ombra.App.PersonalSettings.Instance":{"otp_mail":"\"\n\u00e9"}})"},
        {"large numbers", R"({"a":18446744073709551615,"b":-9223372036854775808})", "m",
         R"({"TAVR.Ombra.App.PersonalSettings.Instance":{"otp_mail":"m"},)"
         R"("a":18446744073709551615,"b":-9223372036854775808})"},
        {"a shorter file than before",
         "{\"a\":\"b\"                                                      "
         "                                                                 }",
         "m", R"({"TAVR.Ombra.App.PersonalSettings.Instance":{"otp_mail":"m"},"a":"b"})"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reason);
        platform.calls.clear();
        dir.Write("usersettings", c.before);
        EXPECT_TRUE(OTPUtils::SetDomainUserMail("CORP\\alice", c.mail.c_str()));
        EXPECT_EQ(c.after + "\n", dir.Read("usersettings"));
        EXPECT_EQ(Texts{R"(TAVRUserPreferenceDirGet("CORP\alice", dir, 4096, 0))"}, platform.calls);
    }
    EXPECT_EQ(kNothing, platform.LogTexts());
}

TEST_F(SetDomainUserMail, KeepsTheFileItself)
{
    dir.Write("usersettings", "{}");
    std::filesystem::permissions(dir.Path("usersettings"), std::filesystem::perms(0640));
    std::filesystem::create_hard_link(dir.Path("usersettings"), dir.Path("other name"));
    EXPECT_TRUE(OTPUtils::SetDomainUserMail("CORP\\alice", "m"));
    EXPECT_EQ(std::filesystem::perms(0640), std::filesystem::status(dir.Path("usersettings")).permissions());
    EXPECT_EQ(dir.Read("usersettings"), dir.Read("other name"));
}

TEST_F(SetDomainUserMail, WritesNothingWithoutAJsonFile)
{
    EXPECT_FALSE(OTPUtils::SetDomainUserMail("CORP\\alice", "m"));
    EXPECT_FALSE(std::filesystem::exists(dir.Path("usersettings")));
    EXPECT_EQ(Texts{kNoValue}, platform.LogTexts());

    platform.log.clear();
    dir.Write("usersettings", "{\"a\":1");
    EXPECT_FALSE(OTPUtils::SetDomainUserMail("CORP\\alice", "m"));
    EXPECT_EQ("{\"a\":1", dir.Read("usersettings"));
    EXPECT_EQ(Texts{"3 OTPutils.cpp Failed to parse [CORP\\alice] settings: "
                    "* Line 1, Column 7\n  Missing ',' or '}' in object declaration\n"},
              platform.LogTexts());
}

TEST_F(SetDomainUserMail, WritesNothingToAnotherShape)
{
    Texts contents(std::begin(kWrongShapes), std::end(kWrongShapes));
    contents.push_back(Nested(2000));
    const std::size_t open = OpenDescriptors();
    for (const std::string& content : contents) {
        SCOPED_TRACE(content.substr(0, 80));
        dir.Write("usersettings", content);
        EXPECT_THROW(OTPUtils::SetDomainUserMail("CORP\\alice", "m"), Json::Exception);
        EXPECT_EQ(content, dir.Read("usersettings"));
        EXPECT_EQ(open, OpenDescriptors());
    }
}

TEST_F(SetDomainUserMail, TellsWhyThereIsNoDirectory)
{
    platform.Fail("TAVRUserPreferenceDirGet");
    platform.error = {0xD00, "names.cpp", 12};
    EXPECT_FALSE(OTPUtils::SetDomainUserMail("CORP\\alice", "m"));
    EXPECT_EQ(Texts{"3 OTPutils.cpp Get preference dir failed. [CORP\\alice] [0x0D00 names.cpp:12]"},
              platform.LogTexts());
}

TEST_F(SetDomainUserMail, TellsOfAFileThatCannotBeOpenedForWriting)
{
    dir.Write("usersettings", "{}");
    platform.Fail("fopen w");
    EXPECT_FALSE(OTPUtils::SetDomainUserMail("CORP\\alice", "m"));
    EXPECT_EQ("{}", dir.Read("usersettings"));
    EXPECT_EQ(Texts{"3 OTPutils.cpp Failed to open " + dir.Path("usersettings")}, platform.LogTexts());
}

TEST_F(SetDomainUserMail, TellsWhenNothingCouldBeWritten)
{
    dir.Write("usersettings", "{}");
    // Between reading and writing the disk fills up.
    platform.During("fopen w", [&] {
        std::filesystem::remove(dir.Path("usersettings"));
        std::filesystem::create_symlink("/dev/full", dir.Path("usersettings"));
    });
    const std::size_t open = OpenDescriptors();
    EXPECT_FALSE(OTPUtils::SetDomainUserMail("CORP\\alice", "m"));
    EXPECT_EQ(Texts{"3 OTPutils.cpp Failed to write to " + dir.Path("usersettings")}, platform.LogTexts());
    EXPECT_EQ(open, OpenDescriptors());
}

TEST(SetUserMail, StoresWhereTheKindOfTheNameSays)
{
    const TempDir dir;
    FakePlatform platform;
    platform.preferenceDir = dir.Path();
    platform.users["alice"] = {};
    dir.Write("usersettings", "{}");

    EXPECT_TRUE(OTPUtils::SetUserMail("alice", "local"));
    EXPECT_TRUE(OTPUtils::SetUserMail("CORP\\alice@x", "domain"));

    EXPECT_EQ("local", platform.users["alice"].mail);
    EXPECT_EQ("{\"TAVR.Ombra.App.PersonalSettings.Instance\":{\"otp_mail\":\"domain\"}}\n",
              dir.Read("usersettings"));
    EXPECT_EQ(kNothing, platform.LogTexts());
    EXPECT_EQ(kNothing, platform.CallsOf("setresuid")) << "with the ids of the caller";
}

TEST(SetUserMail, NeverWritesToADirectory)
{
    for (const char* mail : {"m", ""}) {
        FakePlatform platform;
        EXPECT_FALSE(OTPUtils::SetUserMail("mia@office.example", mail));
        EXPECT_EQ(kNothing, platform.calls);
        EXPECT_EQ(Texts{"3 OTPutils.cpp Do no support set LDAP user [mia@office.example] email. "},
                  platform.LogTexts());
    }
}

TEST(SetUserMail, AddsALineOfTheKind)
{
    FakePlatform platform;
    platform.preferenceDir = "/nonexistent";
    EXPECT_FALSE(OTPUtils::SetUserMail("nobody", "m"));
    EXPECT_FALSE(OTPUtils::SetUserMail("CORP\\alice", "m"));
    EXPECT_EQ((Texts{"3 OTPutils.cpp Failed to get user info",
                     "3 OTPutils.cpp Failed to set normal user [nobody] email. ", kNoValue,
                     "3 OTPutils.cpp Failed to set doamin user [CORP\\alice] email. "}),
              platform.LogTexts());
}

} // namespace
