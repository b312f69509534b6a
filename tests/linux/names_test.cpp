#include "linux/names.h"

#include "linux/domain_settings.h"
#include "linux/ids.h"
#include "linux/paths.h"
#include "platform/cgi.h"
#include "platform/core.h"
#include "platform/secrets.h"

#include <gtest/gtest.h>
#include <unistd.h>
#include <utf8proc.h>

#include <cstring>
#include <fstream>
#include <set>

using tavr::CanonicalName;
using tavr::FolderName;

TEST(CanonicalNames, GiveEverySpellingOneForm)
{
    const struct {
        const char* typed;
        const char* canonical;
        const char* reason;
    } cases[] = {
        {"alice", "alice", "as it is"},
        {"Alice", "alice", "case"},
        {"  ALICE ", "alice", "blanks at the ends"},
        {"mary ann", "mary ann", "a blank inside"},
        {"o'neil-1_x.y", "o'neil-1_x.y", "marks"},
        {"J\xC3\x96RG", "j\xC3\xB6rg", "a letter beyond ASCII"},
        {"Jo\xCC\x88rg", "j\xC3\xB6rg", "decomposed"},
        {"JO\xCC\x88RG", "j\xC3\xB6rg", "decomposed capitals"},
        {"I\xCC\x87x", "ix", "decomposed dotted capital I, as composed"},
        {"\xC4\xB0x", "ix", "composed dotted capital I"},
        {"\xE2\x84\xAA"
         "elvin",
         "kelvin", "the sign for kelvin is a k"},
        {"\xEF\xBC\xA1lice", "alice", "full width"},
        {"\xE3\x80\x80"
         "alice",
         "alice", "a full-width blank in front"},
        {"corp\\Alice", "CORP\\alice", "domain user"},
        {"CORP\\alice@x", "CORP\\alice@x", "domain user with an at sign"},
        {"corp\xEF\xBC\xBC"
         "alice",
         "CORP\\alice", "full-width backslash"},
        {"Mia@Office.Example", "mia@office.example", "directory user"},
        {"..", "..", "dots"},
        {"-rf", "-rf", "a dash in front"},
    };
    for (const auto& one : cases) {
        EXPECT_EQ(one.canonical, CanonicalName(one.typed).value_or("refused")) << one.reason;
        EXPECT_EQ(one.canonical, CanonicalName(one.canonical).value_or("refused")) << one.reason << ", again";
    }
}

TEST(CanonicalNames, RefuseWhatCanBeNoName)
{
    const struct {
        std::string typed;
        const char* reason;
    } cases[] = {
        {"", "empty"},
        {"   ", "blanks"},
        {"a/b", "slash"},
        {"a\xEF\xBC\x8F"
         "b",
         "full-width slash"},
        {"a\nb", "line feed"},
        {std::string("a\0b", 3), "NUL"},
        {"a\tb", "tab"},
        {"a\x7F", "delete"},
        {"\xC2\x85"
         "a",
         "C1 control"},
        {"a\xE2\x80\xAE"
         "b",
         "direction override"},
        {"a\xE2\x80\x8B"
         "b",
         "zero-width space"},
        {"a\xC2\xAD"
         "b",
         "soft hyphen"},
        {"a\xEF\xBB\xBF", "byte order mark"},
        {"a\xC2\xA0"
         "b",
         "no-break space"},
        {"\xEF\xAC\x81le", "ligature"},
        {"\xF0\x9D\x90\x9A"
         "dmin",
         "mathematical letter"},
        {"a\xEE\x80\x80", "private use"},
        {"a\xCD\xB8", "unassigned"},
        {"a\xFF", "not UTF-8"},
        {"a\xC3", "cut UTF-8"},
        {"\xC0\xAF", "over-long form of a slash"},
        {"\xED\xA0\x80", "surrogate"},
        {"\\alice", "no domain"},
        {"CORP\\", "no user"},
        {"CORP\\a\\b", "two backslashes"},
        {"a@b\\c", "at sign in a domain's name"},
        {"CORP\\ alice", "blank at the start of a part"},
        {"@b", "no user before the at sign"},
        {"a@", "nothing behind the at sign"},
        {"a@b@c", "two at signs"},
        {std::string(493, 'a'), "over-long"},
        {std::string(200, '\xCC'), "not UTF-8, and long"},
    };
    for (const auto& one : cases) {
        EXPECT_EQ("refused", CanonicalName(one.typed).value_or("refused")) << one.reason;
    }
    EXPECT_EQ(std::string(492, 'a'), CanonicalName(std::string(492, 'A')));
}

TEST(CanonicalNames, AreTheirOwnCanonicalSpellingForEveryCharacter)
{
    for (utf8proc_int32_t character = 1; character <= 0x10FFFF; ++character) {
        if (!utf8proc_codepoint_valid(character)) {
            continue;
        }
        utf8proc_uint8_t bytes[4];
        const auto size = utf8proc_encode_char(character, bytes);
        const std::string text(reinterpret_cast<const char*>(bytes), static_cast<size_t>(size));
        for (const std::string& typed : {text, "x" + text + "y", "x" + text + "\xCC\x81"}) {
            const auto name = CanonicalName(typed);
            if (name) {
                ASSERT_EQ(*name, CanonicalName(*name).value_or("refused")) << std::hex << character;
            }
        }
    }
}

namespace
{

class Domains : public testing::Test
{
protected:
    ~Domains() override { Write(""); }
    static void Write(const std::string& settings)
    {
        const tavr::EffectiveIds root = tavr::EffectiveIds::Root();
        unlink(tavr::kSettingsFile); // a new file: one that is emptied may still be written
        std::ofstream(tavr::kSettingsFile) << settings;
    }
};

constexpr char kCorp[] = "domain_name=\"corp\"\ndomain_realm=\"CORP.Test\"\n";

} // namespace

TEST_F(Domains, AreCalledByEitherNameOnEitherSide)
{
    Write(std::string(kCorp) + "domain_trusted=\" OTHER=other.test  third=THIRD.test \"\n");
    const struct {
        const char* typed;
        const char* canonical;
        const char* reason;
    } cases[] = {
        {"CORP\\dan", "CORP\\dan", "as it is"},
        {" corp\\DAN ", "CORP\\dan", "case and blanks"},
        {"dan@corp.test", "CORP\\dan", "name@realm"},
        {"Dan@CORP.TEST", "CORP\\dan", "likewise, in capitals"},
        {"dan@corp", "CORP\\dan", "name@short name"},
        {"corp.test\\dan", "CORP\\dan", "the realm in front"},
        {"jo\xCC\x88rg@corp.test", "CORP\\j\xC3\xB6rg", "decomposed"},
        {"dan\xEF\xBC\xA0"
         "corp.test",
         "CORP\\dan", "a full-width at sign"},
        {"dan@other.test", "OTHER\\dan", "a trusted one"},
        {"third.test\\dan", "THIRD\\dan", "likewise"},
        {"dan@corp.test.example", "dan@corp.test.example", "another realm"},
        {"dan@sub.corp.test", "dan@sub.corp.test", "one below"},
        {"NOTCORP\\dan", "NOTCORP\\dan", "another domain"},
        {"CORP\\dan@corp.test", "CORP\\dan@corp.test", "an at sign in the name"},
        {"dan", "dan", "a local name"},
    };
    for (const auto& one : cases) {
        EXPECT_EQ(one.canonical, CanonicalName(one.typed).value_or("refused")) << one.reason;
        EXPECT_EQ(one.canonical, CanonicalName(one.canonical).value_or("refused")) << one.reason << ", again";
    }
    const std::string longest = std::string(tavr::kMaxName - 5, 'x') + "@corp";
    EXPECT_EQ("CORP\\" + longest.substr(0, longest.size() - 5), CanonicalName(longest));
}

TEST_F(Domains, AreReadFromSettingsThatNameThemOnce)
{
    EXPECT_FALSE(tavr::ReadDomainSettings());
    EXPECT_FALSE(tavr::ReadDomainCopySettings());
    Write(kCorp);
    const auto settings = tavr::ReadDomainSettings();
    ASSERT_TRUE(settings);
    EXPECT_EQ((std::vector<tavr::DomainName>{{"CORP", "corp.test"}}), settings->names);
    EXPECT_EQ(tavr::DomainClient::Sssd, settings->client);
    EXPECT_EQ('\\', settings->separator);
    EXPECT_FALSE(tavr::ReadDomainCopySettings()) << "no controllers";
    Write(std::string(kCorp) + "domain_uri=\"ldaps://dc1.corp.test\"\n");
    const auto copy = tavr::ReadDomainCopySettings();
    ASSERT_TRUE(copy);
    EXPECT_EQ("dc=corp,dc=test", copy->ldap.userBase);
    EXPECT_EQ(1U, copy->ldap.servers.size());
    EXPECT_EQ(500, copy->pageSize);

    for (const char* line : {"domain_realm=\"\"", "domain_realm=\"corp..test\"", "domain_realm=\"corp test\"",
                             "domain_name=\"COR\\P\"", "domain_name=\"a-name-of-16-xxx\"",
                             "domain_client=\"other\"", "domain_separator=\"\"", "domain_separator=\"/\"",
                             "domain_trusted=\"OTHER\"", "domain_trusted=\"CORP=other.test\"",
                             "domain_trusted=\"OTHER=corp.test\"", "domain_trusted=\"A=a.test A=b.test\""}) {
        Write(kCorp + std::string(line) + '\n');
        EXPECT_THROW(static_cast<void>(tavr::ReadDomainSettings()), tavr::LdapError) << line;
    }
    Write(std::string(kCorp) + "domain_trusted=\"OTHER\"\n");
    EXPECT_EQ("dan@corp.test", CanonicalName("dan@corp.test")) << "no domain is known";
    Write(std::string(kCorp) + "domain_uri=\"http://dc1.corp.test\"\n");
    EXPECT_THROW(static_cast<void>(tavr::ReadDomainCopySettings()), tavr::LdapError);
    Write(std::string(kCorp) +
          "ldap_uri=\"ldap://127.0.0.1\"\nldap_realm=\"corp.test\"\nldap_base=\"dc=x\"\n");
    EXPECT_THROW(static_cast<void>(tavr::ReadLdapSettings()), tavr::LdapError) << "one realm, two kinds";
}

TEST(FolderNames, KeepPlainNamesAndEncodeTheRest)
{
    EXPECT_EQ("alice", FolderName("alice"));
    EXPECT_EQ("a.b-c_9", FolderName("a.b-c_9"));
    EXPECT_EQ("%2E.", FolderName(".."));
    EXPECT_EQ("%2E", FolderName("."));
    EXPECT_EQ("%43%4F%52%50%5Calice", FolderName("CORP\\alice"));
    EXPECT_EQ("mia%40office.example", FolderName("mia@office.example"));
    EXPECT_EQ("a%25b", FolderName("a%b"));
    EXPECT_EQ("j%C3%B6rg", FolderName("j\xC3\xB6rg"));
    EXPECT_EQ("/usr/tavr/etc/preference/alice", tavr::PreferencePath("alice"));
    EXPECT_EQ("/usr/tavr/etc/preference/alice/otp_secret", tavr::SecretPath("alice"));
}

TEST(FolderNames, AreDifferentForDifferentNames)
{
    std::set<std::string> folders;
    std::set<std::string> names;
    const auto add = [&](const std::string& name) {
        const std::string folder = FolderName(name);
        EXPECT_LE(folder.size(), 255U);
        EXPECT_EQ(std::string::npos, folder.find('/'));
        EXPECT_NE('.', folder.front());
        folders.insert(folder);
        names.insert(name);
    };
    // Every text of up to three of these, which are what an encoding could mix up.
    const std::string hard = "a%25.-\\E@ ";
    for (const char a : hard) {
        add({a});
        for (const char b : hard) {
            add({a, b});
            for (const char c : hard) {
                add({a, b, c});
            }
        }
    }
    // Around the length where names are shortened.
    for (size_t length = 250; length <= 260; ++length) {
        add(std::string(length, 'a'));
        add(std::string(length, 'a') + "%");
        add(std::string(length - 1, 'a') + "b");
    }
    for (size_t length = 80; length <= 90; ++length) {
        add(std::string(length, '\\'));
    }
    add(std::string(491, 'a') + "x");
    add(std::string(491, 'a') + "y");
    EXPECT_EQ(names.size(), folders.size());
}

TEST(ParseInputUserName, WritesTheCanonicalNameIfItFits)
{
    char out[493];
    std::memset(out, '#', sizeof out);
    EXPECT_EQ(0, WebUtils::ParseInputUserName(" Corp\\Alice", out, sizeof out));
    EXPECT_STREQ("CORP\\alice", out);
    EXPECT_EQ(0, WebUtils::ParseInputUserName("ALICE", out, 6));
    EXPECT_STREQ("alice", out);
    EXPECT_GT(0, WebUtils::ParseInputUserName("bobby", out, 5));
    EXPECT_EQ(0x0300, KLIBCErrGet());
    EXPECT_STREQ("alice", out) << "untouched on failure";
    EXPECT_GT(0, WebUtils::ParseInputUserName("a/b", out, sizeof out));
    EXPECT_EQ(0x1400, KLIBCErrGet());
    EXPECT_STREQ("names.cpp", KLIBCErrorGetFile());
    EXPECT_GT(0, WebUtils::ParseInputUserName(nullptr, out, sizeof out));
    EXPECT_GT(0, WebUtils::ParseInputUserName("a", nullptr, 10));
    EXPECT_GT(0, WebUtils::ParseInputUserName("a", out, 0));
    EXPECT_STREQ("alice", out);
    EXPECT_EQ(0, WebUtils::ParseInputUserName(std::string(492, 'a').c_str(), out, sizeof out));
}

TEST(SecretPath, IsTheSameForEverySpellingAndCreatesNothing)
{
    char first[4096] = {};
    char second[4096] = {};
    EXPECT_EQ(0, TAVRGetSecretPathByUser("Nobody.Yet", first, sizeof first));
    EXPECT_EQ(0, TAVRGetSecretPathByUser(" nobody.yet ", second, sizeof second));
    EXPECT_STREQ("/usr/tavr/etc/preference/nobody.yet/otp_secret", first);
    EXPECT_STREQ(first, second);
    EXPECT_EQ(0, KLIBCFileExist("/usr/tavr/etc/preference/nobody.yet"));
    const struct {
        const char* name;
        int size;
    } cases[] = {{"../x", sizeof second}, {"bob", 10}, {nullptr, 10}};
    for (const auto& one : cases) {
        second[0] = '#';
        EXPECT_GT(0, TAVRGetSecretPathByUser(one.name, second, one.size));
        EXPECT_STREQ("", second) << "no path, for callers who look at that alone";
    }
}
