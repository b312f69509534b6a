// A domain user's recovery address, saved by the library in place and killed at any system call, and with
// files that are no settings: afterwards the file is that of before or that of after, and usable.
#include "linux/database.h"
#include "linux/directory_numbers.h"
#include "linux/names.h"
#include "linux/request.h"
#include "linux/user_settings.h"
#include "otp/OTPutils.h"
#include "tests/support/killed_writer.h"

#include <fcntl.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <string>

namespace tavr::test
{
namespace
{

constexpr char kDan[] = "CORP\\dan";

Account Dan()
{
    Account account;
    account.name = kDan;
    account.uid = kFirstDirectoryNumber;
    account.kind = kKindDomain;
    return account;
}

std::string PathOf(const char* name)
{
    return PreferencePath(kDan) + '/' + name;
}

// More than a block of the library's stream, so that a kill can leave a part.
std::string Document(const std::string& mail)
{
    return R"({"TAVR.Ombra.App.PersonalSettings.Instance":{"otp_mail":")" + mail + R"("},"other":")" +
           std::string(100'000, 'x') + "\"}\n";
}

const std::string kBefore = Document("old@home.example");
const std::string kAfter = Document("new@home.example");

bool Save(const char* mail)
{
    const Account dan = Dan();
    UserSettingsWriting settings(dan);
    return settings.Usable() && OTPUtils::SetDomainUserMail(kDan, mail) && settings.Commit();
}

bool SaveMarked()
{
    SigninDatabase(); // whose making is somebody else's test
    AccountsDatabase();
    MarkStart();
    return Save("new@home.example");
}

std::set<std::string> Names()
{
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(PreferencePath(kDan))) {
        names.insert(entry.path().filename());
    }
    return names;
}

class KilledSettings : public KilledWriter
{
protected:
    void SetUp() override
    {
        FreshServer::SetUp();
        Leave("usersettings", kBefore);
    }

    void Leave(const char* name, const std::string& text)
    {
        AsWorker([&] {
            SigninDatabase();
            ASSERT_EQ(Dan().uid, NumberOfAccount(kKindDomain, {"S-1-5-21-1-2-3-1111", kDan}));
            ASSERT_TRUE(MakePreferenceDirectory(Dan()));
            WriteFile(PathOf(name), text);
            const timespec longAgo[2] = {{1'000'000'000, 0}, {1'000'000'000, 0}};
            ASSERT_EQ(0, utimensat(AT_FDCWD, PathOf(name).c_str(), longAgo, 0));
        });
        KeepState();
    }
};

TEST_F(KilledSettings, AreSavedOrAsBefore)
{
    AtEveryCall(SaveMarked, [&](bool ended) {
        EXPECT_TRUE(SettleUserSettings(Dan()));
        const std::string found = ReadFile(PathOf("usersettings"));
        EXPECT_TRUE(found == kAfter || (found == kBefore && !ended)) << found.size();
        EXPECT_TRUE(Save("third@home.example"));
        EXPECT_EQ("third@home.example", UserSettingsMail(Dan()));
        EXPECT_EQ(std::set<std::string>{"usersettings"}, Names());
    });
}

// --- An account that is called otherwise ---

constexpr char kSid[] = "S-1-5-21-1-2-3-1111";
constexpr char kDaniel[] = "CORP\\daniel";

std::string SettingsBelow(const char* name)
{
    return ReadFile(PreferencePath(name) + "/usersettings");
}

bool RenameMarked()
{
    AccountsDatabase();
    std::filesystem::create_directory(PreferencePath(kDaniel));
    WriteFile(PreferencePath(kDaniel) + "/usersettings", "of somebody who was called so once");
    MarkStart();
    return NumberOfAccount(kKindDomain, {kSid, kDaniel}) == Dan().uid;
}

TEST_F(KilledSettings, GoToTheNewName)
{
    AtEveryCall(RenameMarked, [](bool) {
        EXPECT_EQ(Dan().uid, NumberOfAccount(kKindDomain, {kSid, kDaniel}));
        EXPECT_EQ(kBefore, SettingsBelow(kDaniel));
        EXPECT_FALSE(std::filesystem::exists(PreferencePath(kDan)));
    });
}

TEST_F(KilledSettings, GoToAThirdNameFromWhereverTheyAre)
{
    AtEveryCall(RenameMarked, [](bool) {
        const DirectoryEntry third[] = {{kSid, "CORP\\d"}};
        EXPECT_EQ(Dan().uid, NumbersOfAccounts(kKindDomain, third)[0]);
        EXPECT_EQ(kBefore, SettingsBelow("CORP\\d"));
        EXPECT_FALSE(std::filesystem::exists(PreferencePath(kDan)));
    });
}

TEST_F(KilledSettings, AreNotTakenByWhoGetsTheNewName)
{
    AtEveryCall(RenameMarked, [](bool) {
        const bool renamed = FindAccount(kDaniel).has_value(); // then the name and its files are lost to him
        EXPECT_LT(Dan().uid, NumberOfAccount(kKindDomain, {"S-1-5-21-1-2-3-1112", kDaniel}));
        EXPECT_FALSE(std::filesystem::exists(PreferencePath(kDaniel)));
        EXPECT_EQ(Dan().uid, NumberOfAccount(kKindDomain, {kSid, kDan}));
        EXPECT_EQ(renamed ? "" : kBefore, SettingsBelow(kDan));
    });
}

TEST_F(KilledSettings, AreAsBeforeWhenTheyCannotBeWrittenWhole)
{
    AsWorker([] {
        const Account dan = Dan();
        for (const char* text : {"", "{", "{\"otp_mail\":", "[]"}) {
            {
                UserSettingsWriting settings(dan);
                ASSERT_TRUE(settings.Usable());
                WriteFile(PathOf("usersettings"), text); // as a full disk leaves it
                EXPECT_FALSE(settings.Commit());
            }
            EXPECT_EQ(kBefore, ReadFile(PathOf("usersettings")));
            EXPECT_EQ(std::set<std::string>{"usersettings"}, Names());
        }
    });
}

TEST_F(KilledSettings, ThatAreNoneArePutAside)
{
    const struct {
        std::string text;
        const char* reason;
    } cases[] = {
        {"", "empty"},
        {"[1,2]", "an array"},
        {"17", "a number"},
        {"null", "nothing"},
        {"{\"a\":", "cut"},
        {std::string(100'000, '[') + std::string(100'000, ']'), "nested"},
        {"{\"x\":" + std::string(5000, '[') + std::string(5000, ']') + '}', "nested inside"},
        {R"({"TAVR.Ombra.App.PersonalSettings.Instance":[]})", "an array of settings"},
        {R"({"TAVR.Ombra.App.PersonalSettings.Instance":"x"})", "a text of settings"},
        {R"({"TAVR.Ombra.App.PersonalSettings.Instance":{"otp_mail":{}}})", "an object for an address"},
        {R"({"TAVR.Ombra.App.PersonalSettings.Instance":{"otp_mail":7}})", "a number for an address"},
        {std::string((1 << 20) + 1, ' ') + "{}", "too large"},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(one.reason);
        Leave("usersettings", one.text);
        AsWorker([&] {
            EXPECT_EQ("", UserSettingsMail(Dan()));
            EXPECT_TRUE(SettleUserSettings(Dan()));
            EXPECT_EQ("{}\n", ReadFile(PathOf("usersettings")));
            EXPECT_EQ(one.text, ReadFile(PathOf("usersettings.unusable"))) << "nothing is lost";
            WriteFile(PathOf("usersettings"), one.text);
            EXPECT_FALSE(SettleUserSettings(Dan())) << "somebody may be writing it";
            EXPECT_EQ(one.text, ReadFile(PathOf("usersettings")));
        });
    }
    Leave("usersettings",
          "// settings\n{\"other\":1, \"TAVR.Ombra.App.PersonalSettings.Instance\":{\"a\":[1]}}");
    AsWorker([] {
        EXPECT_TRUE(Save("new@home.example")) << "with a comment";
        EXPECT_EQ(
            "{\"TAVR.Ombra.App.PersonalSettings.Instance\":{\"a\":[1],\"otp_mail\":\"new@home.example\"},"
            "\"other\":1}\n",
            ReadFile(PathOf("usersettings")));
    });
}

TEST_F(KilledSettings, AreLeftAloneForOtherKindsAndMadeForThisOne)
{
    AsWorker([] {
        unlink(PathOf("usersettings").c_str());
        EXPECT_TRUE(SettleUserSettings(Dan()));
        EXPECT_EQ("{}\n", ReadFile(PathOf("usersettings")));
        Account other = Dan();
        other.name = "alice";
        other.kind = kKindLocal;
        EXPECT_TRUE(SettleUserSettings(other));
        UserSettingsWriting settings(other);
        EXPECT_TRUE(settings.Usable());
        EXPECT_TRUE(settings.Commit());
        EXPECT_FALSE(std::filesystem::exists(PreferencePath("alice")));
        std::filesystem::remove_all(PreferencePath(kDan));
        EXPECT_FALSE(SettleUserSettings(Dan())) << "no folder";
    });
}

} // namespace
} // namespace tavr::test
