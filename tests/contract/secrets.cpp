// platform/secrets.h and cgi.h: one enrolment and the logins around it, by the platform's calls alone, as the
// library makes them.
#include "platform/secrets.h"

#include "platform/cgi.h"
#include "tests/contract/support.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <ctime>
#include <sstream>
#include <vector>

#include <liboath/oath.h>
#include <sys/stat.h>
#include <unistd.h>

namespace contract
{
namespace
{

constexpr char kName[] = "contract-mia";
constexpr char kPassword[] = "mia's password";

// --- Codes ---

int64_t Step()
{
    return time(nullptr) / 30;
}

std::string CodeOf(const std::string& secretBase32, int64_t step)
{
    char* secret = nullptr;
    size_t size = 0;
    if (oath_base32_decode(secretBase32.data(), secretBase32.size(), &secret, &size) != OATH_OK) {
        throw std::runtime_error("the secret is no base-32 text");
    }
    const Text owner(secret);
    char code[7] = {};
    oath_hotp_generate(secret, size, static_cast<uint64_t>(step), 6, false, OATH_HOTP_DYNAMIC_TRUNCATION,
                       code);
    return code;
}

// A code that no step near the present one has.
std::string WrongCode(const std::string& secretBase32)
{
    for (int number = 0;; ++number) {
        std::string code = std::to_string(1'000'000 + number).substr(1);
        bool near = false;
        for (int64_t step = Step() - 25; step <= Step() + 25; ++step) {
            near = near || CodeOf(secretBase32, step) == code;
        }
        if (!near) {
            return code;
        }
    }
}

int Verify(const std::string& user, const std::string& code, const std::string& path)
{
    const std::string texts[] = {"username=" + user, "code=" + code, "secret=" + path};
    const char* const pointers[] = {texts[0].c_str(), texts[1].c_str(), texts[2].c_str()};
    return TAVRGoogleAuth(3, pointers);
}

// As the library shows a stored text to people.
std::string Plain(const std::string& stored)
{
    Out plain;
    if (KLIBCCryptSzDecrypt(stored.c_str(), plain.Get(), 1024) == 0) {
        EXPECT_TRUE(plain.Untouched()) << "declined, and written to all the same";
        return stored;
    }
    return plain.Text();
}

bool IsBase32(const std::string& text)
{
    return text.size() >= 16 &&
           text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ234567=") == std::string::npos;
}

// --- Logins ---

int Login(TavrCgi* cgi, const char* name, const char* password, int flags, Out& sid, int size = 122)
{
    std::string user = name;
    TavrLogin login{user.data(), password, "webui", flags};
    const AsRoot raised;
    const int status = TavrCgiLogin(cgi, sid.Get(), size, &login);
    EXPECT_EQ(0U, geteuid()) << "the ids are the caller's to give back";
    return status;
}

int TestLogin(const char* name, const char* password, int refusePending)
{
    std::string user = name;
    TavrLogin login{user.data(), password, "webui", 0};
    const AsRoot raised;
    const int status = TavrCgiTestLoginEx2(&login, nullptr, nullptr, refusePending);
    EXPECT_EQ(0U, geteuid()) << "the ids are the caller's to give back";
    return status;
}

// The context of one request, in the place where a handler has it.
class Context
{
public:
    Context() { EXPECT_EQ(0, TavrCgiInit("", &cgi_)); }
    ~Context() { TavrCgiFree(&cgi_); }
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;
    TavrCgi* Get() { return &cgi_; }

private:
    TavrCgi cgi_{};
};

// An account that has signed in once, so that it has its preference directory.
class SignedIn : public Case
{
protected:
    void SetUp() override
    {
        Case::SetUp();
        StartRequest(kName);
        Context context;
        Out sid;
        ASSERT_EQ(1, Login(context.Get(), kName, kPassword, 15, sid));
        ASSERT_EQ(0, TAVRUserGetUGID(kName, &uid_, nullptr));
        ASSERT_EQ(0, TAVRGetSecretPathByUser(kName, path_.Get(), 4096));
        waiting_ = "/tmp/OTP_" + std::to_string(uid_);
        StartRequest(kName);
    }
    void TearDown() override
    {
        unlink(waiting_.c_str());
        Case::TearDown();
    }

    // Runs the secret tool; gives the first 24 bytes that it prints.
    std::string MakeSecret()
    {
        return OutputOf("/usr/bin/google-authenticator", "-s", waiting_.c_str()).substr(0, 24);
    }

    // The tool's file is at its place after a first code; gives the secret.
    std::string Enrol()
    {
        const std::string printed = MakeSecret();
        StartRequest(kName);
        const std::string secret = Plain(printed).substr(0, 32);
        EXPECT_TRUE(IsBase32(secret));
        EXPECT_EQ(0, Verify(kName, CodeOf(secret, Step()), waiting_));
        EXPECT_EQ(0, KLIBCExec("/bin/mv", waiting_.c_str(), path_.Text().c_str(), nullptr, nullptr));
        StartRequest(kName);
        return secret;
    }

    const Account account_{{kName, kPassword, "", "", false, {}}};
    uint32_t uid_ = 0;
    Out path_;
    std::string waiting_;
};

// --- Where secrets lie ---

using SecretsPath = SignedIn;

TEST_F(SecretsPath, IsTheAccountsOwnAndAbsolute)
{
    ASSERT_FALSE(path_.Text().empty());
    EXPECT_EQ('/', path_.Text().front());
    EXPECT_FALSE(Stands(path_.Text())) << "asking creates nothing";
    Out other;
    EXPECT_EQ(0, TAVRGetSecretPathByUser("contract-bob", other.Get(), 4096))
        << "nobody is asked who there is";
    EXPECT_NE(path_.Text(), other.Text());
    Out again;
    EXPECT_EQ(0, TAVRGetSecretPathByUser(kName, again.Get(), static_cast<int>(path_.Text().size()) + 1));
    EXPECT_EQ(path_.Text(), again.Text()) << "it just fits";
}

TEST_F(SecretsPath, OfNobodyIsAnEmptyText)
{
    const int size = static_cast<int>(path_.Text().size());
    for (const auto& [name, room] :
         {std::pair("", 4096), {"a\nb", 4096}, {"\xff", 4096}, {kName, size}, {kName, 1}}) {
        Out path;
        EXPECT_TRUE(Fails([&, asked = name, size = room] {
            return TAVRGetSecretPathByUser(asked, path.Get(), size);
        })) << name;
        EXPECT_EQ("", path.Text()) << "callers look at the path alone";
        EXPECT_TRUE(path.Untouched(1)) << name;
    }
    Out path;
    EXPECT_TRUE(Fails([&] { return TAVRGetSecretPathByUser(nullptr, path.Get(), 4096); }));
    EXPECT_EQ("", path.Text());
    EXPECT_TRUE(Fails([] { return TAVRGetSecretPathByUser(kName, nullptr, 4096); }));
    Out none;
    EXPECT_TRUE(Fails([&] { return TAVRGetSecretPathByUser(kName, none.Get(), 0); }));
    EXPECT_TRUE(none.Untouched());
}

TEST_F(SecretsPath, LiesWhereNobodyElseReads)
{
    Enrol();
    struct stat file {
    };
    ASSERT_EQ(0, stat(path_.Text().c_str(), &file));
    EXPECT_EQ(0U, file.st_mode & 077U) << "the file's mode";
    EXPECT_EQ(getuid(), file.st_uid) << "it is the service's";
    const std::string folder = path_.Text().substr(0, path_.Text().rfind('/'));
    ASSERT_EQ(0, stat(folder.c_str(), &file));
    EXPECT_EQ(0U, file.st_mode & 022U) << "the folder's mode";
    EXPECT_EQ(getuid(), file.st_uid) << "the folder is the service's";
}

// --- The tool, its file, and the check of a code ---

using SecretsCodes = SignedIn;

TEST_F(SecretsCodes, AreThoseOfTheToolsFile)
{
    const std::string printed = MakeSecret();
    ASSERT_EQ(24U, printed.size());
    struct stat file {
    };
    ASSERT_EQ(0, stat(waiting_.c_str(), &file));
    EXPECT_EQ(0U, file.st_mode & 077U);
    const std::string text = ReadText(waiting_);
    EXPECT_EQ('\n', text.back());
    EXPECT_EQ(printed.substr(0, 16), text.substr(0, 16)) << "line 1 is what was printed";

    const std::string secret = Plain(printed).substr(0, 32);
    ASSERT_TRUE(IsBase32(secret));
    const std::string wrong = WrongCode(secret);
    EXPECT_NE(0, Verify(kName, wrong, waiting_));
    EXPECT_NE(0, Verify(kName, "", waiting_));
    EXPECT_NE(0, Verify(kName, "12345", waiting_));
    EXPECT_NE(0, Verify(kName, CodeOf(secret, Step() - 20), waiting_)) << "ten minutes old";
    EXPECT_NE(0, Verify(kName, CodeOf(secret, Step()) + " or more", waiting_));
    EXPECT_NE(0, Verify(kName, CodeOf(secret, Step()), waiting_ + "-not-there"));
    EXPECT_NE(0, Verify(kName, CodeOf(secret, Step()), ""));
    EXPECT_NE(0, Verify("", CodeOf(secret, Step()), waiting_));
    EXPECT_EQ(0, Verify(kName, CodeOf(secret, Step()), waiting_));
    EXPECT_TRUE(Stands(waiting_)) << "the library moves it";
}

TEST_F(SecretsCodes, AreRefusedInAnotherForm)
{
    const std::string secret = Plain(MakeSecret()).substr(0, 32);
    ASSERT_TRUE(IsBase32(secret));
    const std::string texts[] = {"username=" + std::string(kName), "code=" + CodeOf(secret, Step()),
                                 "secret=" + waiting_};
    const char* const right[] = {texts[0].c_str(), texts[1].c_str(), texts[2].c_str()};
    const char* const unnamed[] = {kName, texts[1].c_str() + 5, waiting_.c_str()};
    const char* const missing[] = {texts[0].c_str(), nullptr, texts[2].c_str()};
    EXPECT_NE(0, TAVRGoogleAuth(2, right)) << "three texts, no fewer";
    EXPECT_NE(0, TAVRGoogleAuth(0, right));
    EXPECT_NE(0, TAVRGoogleAuth(-1, right));
    EXPECT_NE(0, TAVRGoogleAuth(3, nullptr));
    EXPECT_NE(0, TAVRGoogleAuth(3, missing));
    EXPECT_NE(0, TAVRGoogleAuth(3, unnamed));
}

TEST_F(SecretsCodes, AreOfTheFilesOwnAccount)
{
    const Account bob({"contract-bob", "bob's password", "", "", false, {}});
    const std::string secret = Plain(MakeSecret()).substr(0, 32);
    ASSERT_TRUE(IsBase32(secret));
    StartRequest("contract-bob");
    EXPECT_NE(0, Verify("contract-bob", CodeOf(secret, Step()), waiting_));
    EXPECT_NE(0, Verify("contract-nobody", CodeOf(secret, Step()), waiting_));
}

// --- The cipher ---

using CoreSecretTexts = SignedIn;

TEST_F(CoreSecretTexts, ComeOutAsTheyWentIn)
{
    if (!Has().cipher) {
        GTEST_SKIP() << "the maker says that secret files hold plain texts";
    }
    const std::string secret = Enrol();
    std::istringstream lines(ReadText(path_.Text()));
    std::string line;
    std::vector<std::string> plain;
    for (int number = 0; std::getline(lines, line); ++number) {
        if (line.starts_with('"')) {
            continue;
        }
        Out text;
        ASSERT_NE(0, KLIBCCryptSzDecrypt(line.c_str(), text.Get(), 1024)) << "line " << number + 1;
        EXPECT_NE(line, text.Text());
        plain.push_back(text.Text());
        Out exact;
        const int size = static_cast<int>(plain.back().size());
        EXPECT_NE(0, KLIBCCryptSzDecrypt(line.c_str(), exact.Get(), size + 1)) << "it just fits";
        EXPECT_TRUE(exact.Untouched(plain.back().size() + 1));
        Out tooSmall;
        EXPECT_EQ(0, KLIBCCryptSzDecrypt(line.c_str(), tooSmall.Get(), size)) << "half a secret is none";
        EXPECT_TRUE(tooSmall.Untouched());
        line[line.size() / 2] = line[line.size() / 2] == 'A' ? 'B' : 'A';
        EXPECT_EQ(0, KLIBCCryptSzDecrypt(line.c_str(), tooSmall.Get(), 1024)) << "a changed byte";
    }
    ASSERT_GE(plain.size(), 2U) << "a secret and one scratch code at least";
    EXPECT_EQ(secret, plain[0]);
    for (size_t i = 1; i < plain.size(); ++i) {
        EXPECT_FALSE(plain[i].empty());
        EXPECT_LE(plain[i].size(), 8U) << "the mail has room for eight characters";
    }
}

// --- The machine's id ---

using SecretsHardwareId = Case;

TEST_F(SecretsHardwareId, IsAStableText)
{
    TavrHwid* id = tavrcrypto_hwid_init();
    ASSERT_NE(nullptr, id);
    EXPECT_EQ(nullptr, id->text) << "not filled yet";
    if (!Has().hardwareId) {
        EXPECT_FALSE(tavrcrypto_hwid_str(id, 64));
        EXPECT_EQ(nullptr, id->text);
        tavrcrypto_hwid_free(id);
        GTEST_SKIP() << "the maker says that the machine has no id";
    }
    ASSERT_TRUE(tavrcrypto_hwid_str(id, 64));
    ASSERT_NE(nullptr, id->text);
    const std::string text = id->text;
    EXPECT_FALSE(text.empty());
    EXPECT_LE(text.size(), 64U);
    EXPECT_EQ(static_cast<int>(text.size()), id->size);
    EXPECT_TRUE(tavrcrypto_hwid_str(id, 64)) << "a second time";
    EXPECT_EQ(text, id->text);
    EXPECT_FALSE(tavrcrypto_hwid_str(id, 1)) << "it does not come cut";
    tavrcrypto_hwid_free(id);

    id = tavrcrypto_hwid_init();
    ASSERT_TRUE(tavrcrypto_hwid_str(id, 64));
    EXPECT_EQ(text, id->text) << "of another record";
    tavrcrypto_hwid_free(id);
}

TEST_F(SecretsHardwareId, TakesNullAndIsGivenBackWhole)
{
    EXPECT_TRUE(Fails([] { return tavrcrypto_hwid_str(nullptr, 64); }));
    tavrcrypto_hwid_free(nullptr);
    EXPECT_TRUE(GivesEverythingBack([] {
        TavrHwid* id = tavrcrypto_hwid_init();
        tavrcrypto_hwid_str(id, 64);
        tavrcrypto_hwid_free(id);
    }));
}

// --- Logins ---

class CgiLogin : public Case
{
protected:
    void SetUp() override
    {
        Case::SetUp();
        StartRequest(kName);
    }
    const Account account_{{kName, kPassword, "", "", false, {}}};
};

TEST_F(CgiLogin, IsAcceptedWithTheRightPassword)
{
    EXPECT_EQ(1, TestLogin(kName, kPassword, 0));
    EXPECT_EQ(1, TestLogin(kName, kPassword, 1)) << "no second step is missing";
    for (const int flags : {15, 1}) {
        StartRequest(kName);
        Context context;
        Out sid;
        ASSERT_EQ(1, Login(context.Get(), kName, kPassword, flags, sid));
        EXPECT_FALSE(sid.Text().empty());
        EXPECT_LT(sid.Text().size(), 122U);
        EXPECT_TRUE(sid.Untouched(sid.Text().size() + 1));
        EXPECT_EQ(kName, OwnerOfSession(sid.Text()));
    }
}

TEST_F(CgiLogin, IsRefusedWithAnyOther)
{
    EXPECT_EQ("", OwnerOfSession("contract")) << "the maker's own answer";
    const std::string longer = std::string(kPassword) + "x";
    const std::string shorter = std::string(kPassword, sizeof kPassword - 2);
    for (const char* password : {"", "wrong", longer.c_str(), shorter.c_str(), "MIA'S PASSWORD"}) {
        EXPECT_EQ(0, TestLogin(kName, password, 0)) << password;
        EXPECT_EQ(0, TestLogin(kName, password, 1)) << password;
        Context context;
        Out sid;
        EXPECT_EQ(0, Login(context.Get(), kName, password, 15, sid)) << password;
        EXPECT_TRUE(sid.Untouched()) << password;
    }
    Context context;
    Out sid;
    EXPECT_EQ(0, TestLogin("contract-nobody", kPassword, 0));
    EXPECT_EQ(0, Login(context.Get(), "contract-nobody", kPassword, 15, sid));
    EXPECT_TRUE(sid.Untouched());
}

TEST_F(CgiLogin, OpensNoTwoSessionsOfOneName)
{
    Context context;
    Out first;
    Out second;
    ASSERT_EQ(1, Login(context.Get(), kName, kPassword, 15, first));
    StartRequest(kName);
    ASSERT_EQ(1, Login(context.Get(), kName, kPassword, 15, second));
    EXPECT_NE(first.Text(), second.Text());
}

TEST_F(CgiLogin, MakesThePreferenceDirectory)
{
    Out dir;
    ASSERT_EQ(0, TAVRUserPreferenceDirGet(kName, dir.Get(), 4096, 0));
    EXPECT_EQ(1, TestLogin(kName, kPassword, 0));
    EXPECT_FALSE(Stands(dir.Text())) << "a test makes nothing";
    Context context;
    Out sid;
    ASSERT_EQ(1, Login(context.Get(), kName, kPassword, 15, sid));
    struct stat folder {
    };
    ASSERT_EQ(0, stat(dir.Text().c_str(), &folder));
    EXPECT_TRUE(S_ISDIR(folder.st_mode));
    EXPECT_EQ(0U, folder.st_mode & 077U) << "its mode";
    EXPECT_EQ(getuid(), folder.st_uid) << "it is the service's, though the login was raised";
    EXPECT_EQ(getgid(), folder.st_gid);
}

TEST_F(CgiLogin, MakesNoPreferenceDirectoryInSafeMode)
{
    Out dir;
    ASSERT_EQ(0, TAVRUserPreferenceDirGet(kName, dir.Get(), 4096, 0));
    Context context;
    Out sid;
    ASSERT_EQ(1, Login(context.Get(), kName, kPassword, 1, sid));
    EXPECT_FALSE(Stands(dir.Text())) << "flag 1 asks for the session and nothing else";
}

TEST_F(CgiLogin, IsNotRefusedWhenItCouldNotBeChecked)
{
    Context context;
    Out sid;
    const auto login = [&] { return Login(context.Get(), kName, kPassword, 15, sid); };
    const auto tooSmall = [&] { return Login(context.Get(), kName, kPassword, 15, sid, 1); };
    EXPECT_TRUE(Fails(tooSmall)) << "no room for an identifier";
    EXPECT_TRUE(sid.Untouched());
    TavrLogin empty{};
    EXPECT_TRUE(Fails([&] { return TavrCgiLogin(context.Get(), sid.Get(), 122, &empty); }));
    EXPECT_TRUE(Fails([&] { return TavrCgiLogin(context.Get(), sid.Get(), 122, nullptr); }));
    EXPECT_TRUE(Fails([&] { return TavrCgiTestLoginEx2(&empty, nullptr, nullptr, 0); }));
    EXPECT_TRUE(Fails([&] { return TavrCgiTestLoginEx2(nullptr, nullptr, nullptr, 0); }));
    EXPECT_TRUE(sid.Untouched());
    if (!Has().accountsAway) {
        GTEST_SKIP() << "the maker says that the store cannot be taken away";
    }
    TakeAccountsAway(true);
    const auto test = [] { return TestLogin(kName, kPassword, 1); };
    EXPECT_TRUE(Fails(login));
    EXPECT_TRUE(Fails(test));
    TakeAccountsAway(false);
    EXPECT_TRUE(sid.Untouched());
}

using CgiSecondStep = SignedIn;

TEST_F(CgiSecondStep, IsDemandedOnceItIsSetUp)
{
    Enrol();
    EXPECT_EQ(-5, TestLogin(kName, kPassword, 1));
    EXPECT_EQ(1, TestLogin(kName, kPassword, 0));
    EXPECT_EQ(0, TestLogin(kName, "wrong", 1))
        << "whether there is one is told to nobody without the password";
    Context context;
    Out sid;
    EXPECT_EQ(-5, Login(context.Get(), kName, kPassword, 15, sid));
    EXPECT_TRUE(sid.Untouched());
}

TEST_F(CgiSecondStep, IsDoneByTheRequestThatHadItsFirstCodeAccepted)
{
    const std::string printed = MakeSecret();
    StartRequest(kName);
    const std::string secret = Plain(printed).substr(0, 32);
    ASSERT_TRUE(IsBase32(secret));
    EXPECT_EQ(0, Verify(kName, CodeOf(secret, Step()), waiting_));
    EXPECT_EQ(0, KLIBCExec("/bin/mv", waiting_.c_str(), path_.Text().c_str(), nullptr, nullptr));
    Context context;
    Out sid;
    EXPECT_EQ(1, Login(context.Get(), kName, kPassword, 15, sid)) << "the wizard's last step";
    EXPECT_EQ(kName, OwnerOfSession(sid.Text()));
}

// --- Contexts, cookies, tokens ---

class CgiContext : public CgiLogin
{
protected:
    static std::string Token(TavrCgi* cgi) { return TavrCgiGetOption(cgi, 2, "(none)"); }
};

TEST_F(CgiContext, HasTheTokenOfTheSession)
{
    Context context;
    EXPECT_EQ(Has().tokens, TavrCgiIsTokenEnable(context.Get()) != 0);
    EXPECT_EQ(0, TavrCgiLoadInCookies(context.Get()));
    EXPECT_EQ("(none)", Token(context.Get())) << "there is no session";
    if (!Has().tokens) {
        GTEST_SKIP() << "the maker says that requests carry no tokens";
    }
    Out first;
    ASSERT_EQ(1, Login(context.Get(), kName, kPassword, 15, first));
    EXPECT_EQ(0, TavrCgiLoadInCookies(context.Get()));
    const std::string token = Token(context.Get());
    EXPECT_NE("(none)", token);
    EXPECT_NE("", token);
    EXPECT_NE(first.Text(), token) << "a token is shown to scripts, the session's identifier is not";
    EXPECT_EQ(token, Token(context.Get()));
    EXPECT_STREQ("(none)", TavrCgiGetOption(context.Get(), 99, "(none)")) << "no such option";
    EXPECT_EQ(nullptr, TavrCgiGetOption(context.Get(), 99, nullptr));

    StartRequest(kName);
    Context another;
    Out second;
    ASSERT_EQ(1, Login(another.Get(), kName, kPassword, 15, second));
    EXPECT_EQ(0, TavrCgiLoadInCookies(another.Get()));
    EXPECT_NE(token, Token(another.Get())) << "each session has its own";
}

TEST_F(CgiContext, IsSafeToFreeWhateverBecameOfIt)
{
    TavrCgi cgi{};
    TavrCgiFree(&cgi);
    EXPECT_TRUE(Fails([&] { return TavrCgiInit(nullptr, &cgi); }));
    TavrCgiFree(&cgi);
    EXPECT_TRUE(Fails([] { return TavrCgiInit("", nullptr); }));
    EXPECT_TRUE(Fails([] { return TavrCgiLoadInCookies(nullptr); }));
    EXPECT_TRUE(GivesEverythingBack([] { const Context context; }));
}

// --- Names as people type them ---

using CgiNames = Case;

int Parse(const std::string& input, Out& out, unsigned long size = 493)
{
    return WebUtils::ParseInputUserName(input.c_str(), out.Get(), size);
}

std::string Parsed(const std::string& input)
{
    Out out;
    return Parse(input, out) < 0 ? "(refused)" : out.Text();
}

TEST_F(CgiNames, AreJudgedByTheirFormAlone)
{
    for (const char* name :
         {"contract-mia", "contract-nobody", "CORP\\contract-mia", "contract-mia@office.example"}) {
        Out out;
        EXPECT_GE(Parse(name, out), 0) << name;
        EXPECT_FALSE(out.Text().empty());
        EXPECT_TRUE(out.Untouched(out.Text().size() + 1));
        EXPECT_EQ(out.Text(), Parsed(out.Text())) << "a canonical name is its own";
    }
    EXPECT_EQ("contract-mia", Parsed("contract-mia"));
    EXPECT_NE(std::string::npos, Parsed("CORP\\contract-mia").find('\\'))
        << "the library tells a domain's by it";
    const std::string ldap = Parsed("contract-mia@office.example");
    EXPECT_NE(std::string::npos, ldap.find('@')) << "the library tells a directory's by it";
    EXPECT_EQ(std::string::npos, ldap.find('\\'));
}

TEST_F(CgiNames, ThatAreNoneAreRefused)
{
    const std::string tooLong(5000, 'a');
    for (const char* input : {"", "   ", "\xff\xfe", "a\xc3", "a\nb", "a\rb",
                              "a\x01"
                              "b",
                              "a\x7f", tooLong.c_str()}) {
        Out out;
        EXPECT_LT(Parse(input, out), 0) << input;
        EXPECT_TRUE(out.Untouched()) << input;
    }
    Out out;
    EXPECT_LT(WebUtils::ParseInputUserName(nullptr, out.Get(), 493), 0);
    EXPECT_LT(Parse("contract-mia", out, 12), 0) << "it does not fit";
    EXPECT_LT(Parse("contract-mia", out, 0), 0);
    EXPECT_TRUE(out.Untouched());
    EXPECT_GE(Parse("contract-mia", out, 13), 0) << "it just fits";
    EXPECT_LT(WebUtils::ParseInputUserName("contract-mia", nullptr, 493), 0);
}

} // namespace
} // namespace contract
