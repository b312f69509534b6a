// Accounts and groups of a real directory, through the platform's calls.
#include "linux/directory_numbers.h"
#include "linux/ldap_accounts.h"
#include "linux/names.h"
#include "linux/paths.h"
#include "linux/request.h"
#include "platform/core.h"
#include "platform/directory.h"
#include "tests/support/directory.h"
#include "tests/support/fresh_server.h"
#include "tests/support/user_record.h"

#include <sys/resource.h>

#include <algorithm>
#include <cstdlib>
#include <set>

using namespace tavr;
using namespace tavr::test;

namespace
{

uint32_t NumberOf(const std::string& name)
{
    const UserRecord record = FindRecord(name);
    return record ? record->uid : 0;
}

bool IsPassword(const std::string& name, const std::string& password)
{
    StartRequest();
    const auto account = CheckLdapPassword(*CanonicalName(name), password);
    EXPECT_TRUE(!account || account->name == CanonicalName(name));
    return account.has_value();
}

std::set<uint32_t> GroupsOfName(const std::string& name)
{
    uint32_t* gids = nullptr;
    int count = -1;
    EXPECT_EQ(0, KLIBGroupInfoGidGet(name.c_str(), 0, &gids, &count)) << name;
    const std::set<uint32_t> groups(gids, gids + count);
    std::free(gids);
    return groups;
}

uint32_t GroupNumber(const std::string& name)
{
    uint32_t gid = 0;
    return TAVRGroupGetGID(name.c_str(), &gid) == 0 ? gid : 0;
}

struct Listed {
    int total = -1;
    std::vector<std::string> names;
    std::vector<std::string> texts; // of users: name and description
};

int TakeUser(const KLIBUserInfo* entry, void* listed)
{
    EXPECT_EQ(8, entry->source);
    const UserRecord record = FindRecord(entry->name); // as the library does for each of them
    EXPECT_TRUE(record && record->uid == entry->uid) << entry->name;
    static_cast<Listed*>(listed)->names.emplace_back(entry->name);
    static_cast<Listed*>(listed)->texts.push_back(std::string(entry->name) + '\n' + entry->description);
    return 0;
}

int TakeGroup(const KLIBGroupInfo* entry, void* listed)
{
    EXPECT_EQ(entry->gid, GroupNumber(entry->name));
    static_cast<Listed*>(listed)->names.emplace_back(entry->name);
    return 0;
}

Listed Users(const std::string& query, int offset = 0, int limit = -1)
{
    StartRequest();
    Listed listed;
    listed.total = KLIBUserInfoEnumBySubstr(8, "", offset, limit, query.c_str(), 1, TakeUser, &listed);
    return listed;
}

Listed Groups(const std::string& query, int offset = 0, int limit = -1)
{
    StartRequest();
    Listed listed;
    listed.total = KLIBGroupInfoEnumBySubstr(8, "", offset, limit, query.c_str(), 1, TakeGroup, &listed);
    return listed;
}

constexpr char kLea[] = "lea@office.example";

class LdapAccounts : public FreshServer
{
protected:
    static void SetUpTestSuite()
    {
        if (Directory::CanStart()) {
            directory_ = new Directory({"--users", "5000", "--groups", "200"});
        }
    }
    static void TearDownTestSuite()
    {
        delete directory_;
        directory_ = nullptr;
    }
    void SetUp() override
    {
        FreshServer::SetUp();
        if (directory_ == nullptr) {
            GTEST_SKIP() << "there is no slapd on this machine: run scripts/setup test first";
        }
        WriteSettings(directory_->SettingsLines());
        Directory::WriteSecret();
    }
    static Directory* directory_;
};
Directory* LdapAccounts::directory_ = nullptr;

} // namespace

TEST_F(LdapAccounts, AreReadIntoARecord)
{
    AsWorker([] {
        const UserRecord lea = FindRecord(" LEA@Office.Example");
        ASSERT_TRUE(lea) << KLIBCErrGet();
        EXPECT_STREQ(kLea, lea->name);
        EXPECT_EQ(2000000000U, lea->uid);
        EXPECT_EQ(8, lea->kind);
        EXPECT_STREQ("Lea B.", lea->description);
        EXPECT_STREQ("lea@home.example", lea->mail);
        EXPECT_STREQ("", FindRecord("nomail@office.example")->mail);
        EXPECT_STREQ("many00@home.example", FindRecord("manymail@office.example")->mail);
        EXPECT_EQ(0, KLIBGroupIsAdminGroupMem(kLea, 0));
        lea->mail = "other@home.example";
        EXPECT_EQ(-1, TAVRConfdUserUpdate(kLea, lea.get(), 0));
        EXPECT_EQ(0x2900, KLIBCErrGet());
    });
}

TEST_F(LdapAccounts, AreNoneWhereANameIsNotOneEntrys)
{
    AsWorker([] {
        for (const char* name :
             {"zoe@office.example", "twin@office.example", "other-alias@office.example",
              "undecided-a@office.example", "undecided-b@office.example", "noname@office.example",
              "admin@home@office.example", "*@office.example.org", "reader@office.example"}) {
            StartRequest();
            EXPECT_FALSE(FindRecord(name)) << name;
            EXPECT_EQ(Fault::None, CurrentRequest().fault) << name;
        }
        EXPECT_TRUE(FindRecord("alias@office.example"));
        EXPECT_FALSE(FindRecord("lea@other.example"));
        EXPECT_EQ(0x2100, KLIBCErrGet());
        EXPECT_FALSE(FindRecord("CORP\\lea"));
        EXPECT_EQ(0x2100, KLIBCErrGet());
    });
}

TEST_F(LdapAccounts, AreOpenedByTheirPasswordAlone)
{
    AsWorker([] {
        EXPECT_TRUE(IsPassword(kLea, "lea-password"));
        EXPECT_TRUE(IsPassword("user0007@office.example", "pw-0007"));
        for (const char* wrong : {"", "Lea-password", "lea-password ", "pw-0007", "admin-password"}) {
            EXPECT_FALSE(IsPassword(kLea, wrong)) << wrong;
        }
        EXPECT_FALSE(IsPassword(kLea, std::string("lea-password\0", 13)));
        EXPECT_FALSE(IsPassword(kLea, std::string(512, 'x')));
        EXPECT_FALSE(IsPassword("nopassword@office.example", ""));
        EXPECT_FALSE(IsPassword("nopassword@office.example", "x"));
        EXPECT_FALSE(IsPassword("twin@office.example", "one-password"));
        EXPECT_FALSE(IsPassword("twin@office.example", "two-password"));
        EXPECT_FALSE(IsPassword("other-alias@office.example", "alias-password"));
        EXPECT_FALSE(IsPassword("nobody@office.example", "x"));
        EXPECT_EQ(Fault::None, CurrentRequest().fault);
    });
}

TEST_F(LdapAccounts, AreSearchedAsTheServiceAgainAfterAPassword)
{
    AsWorker([] {
        EXPECT_TRUE(IsPassword("nomail@office.example", "nomail-password"));
        EXPECT_EQ(
            (std::set<uint32_t>{GroupNumber("ring1@office.example"), GroupNumber("ring2@office.example"),
                                GroupNumber("inner@office.example"), GroupNumber("outer@office.example")}),
            GroupsOfName("nomail@office.example"));
        EXPECT_FALSE(IsPassword("nomail@office.example", "wrong"));
        EXPECT_TRUE(FindRecord(kLea));
    });
}

TEST_F(LdapAccounts, AreInGroupsByNameByDnByPrimaryGroupAndThroughOthers)
{
    AsWorker([] {
        EXPECT_EQ(
            (std::set<uint32_t>{GroupNumber("inner@office.example"), GroupNumber("outer@office.example")}),
            GroupsOfName(kLea));
        EXPECT_EQ((std::set<uint32_t>{GroupNumber("group008@office.example"),
                                      GroupNumber("everybody@office.example")}),
                  GroupsOfName("user0007@office.example"));
        EXPECT_EQ((std::set<uint32_t>{GroupNumber("told@office.example")}),
                  GroupsOfName("told@office.example"));
        EXPECT_TRUE(GroupsOfName("manymail@office.example").empty());
        EXPECT_EQ(0U, GroupNumber("none@office.example"));
        char* description = nullptr;
        ASSERT_EQ(0, TAVRLDAPGroupDescGet("inner@office.example", &description, nullptr));
        EXPECT_STREQ("Inner ring", description);
        std::free(description);
        EXPECT_EQ(-1, TAVRLDAPGroupDescGet("none@office.example", &description, nullptr));
        EXPECT_EQ(0x1E00, KLIBCErrGet());
        EXPECT_EQ(-1, TAVRLDAPGroupDescGet("users", &description, nullptr)) << "a local one";
        EXPECT_EQ(0x1E00, KLIBCErrGet());
    });
}

TEST_F(LdapAccounts, AreListedPageByPageWithASearch)
{
    AsWorker([] {
        const Listed all = Users("");
        EXPECT_EQ(static_cast<int>(all.names.size()) + 1, all.total) << "the second twin is not shown";
        EXPECT_EQ(all.names.size(), std::set<std::string>(all.names.begin(), all.names.end()).size());
        EXPECT_LE(5000U, all.names.size());
        const Listed page = Users("", 600, 50);
        EXPECT_EQ(all.total, page.total);
        EXPECT_EQ(std::vector<std::string>(all.names.begin() + 600, all.names.begin() + 650), page.names);
        EXPECT_EQ((std::vector<std::string>{"user0123@office.example"}), Users("SER012", 3, 1).names);
        EXPECT_EQ(10, Users("ser012").total);
        EXPECT_EQ((std::vector<std::string>{kLea}), Users("lea@OFF").names);
        EXPECT_EQ((std::vector<std::string>{kLea}), Users("lea b.").names) << "by description";
        EXPECT_EQ((std::vector<std::string>{"zoé@office.example"}), Users("ZOE\u0301").names);
        EXPECT_EQ(all.total, Users("@office.example").total);
        EXPECT_EQ(0, Users("nobody").total);
        EXPECT_EQ(0, Users("of a domain").total) << "its uid is CORP\\dan";
        EXPECT_EQ(1, Users("twin").names.size());
        EXPECT_EQ(0, Users("", 100000, 10).names.size());
        EXPECT_EQ(206, Groups("").total);
        EXPECT_EQ((std::vector<std::string>{"inner@office.example"}), Groups("inner ring").names);
        EXPECT_EQ(Fault::None, CurrentRequest().fault);
    });
}

TEST_F(LdapAccounts, AreFoundLiterallyOrNotAtAll)
{
    // Every name of one to three of these characters, and a real name with each of them in it.
    AsWorker([] {
        const std::string specials[] = {"*", "(",    ")",    "\\",   "/",    "&",    "|", "!", "=", "~",
                                        "<", ">",    ",",    "+",    "\"",   ";",    "#", "%", "'", " ",
                                        ".", "\x7f", "\x01", "\xff", "\\2a", "\\00", "{", "}"};
        std::vector<std::string> corpus;
        for (const std::string& one : specials) {
            for (const std::string& two : specials) {
                corpus.push_back(one + two);
            }
            for (const char* around : {"lea", "user0001", "uid=lea", "(uid=", ")(uid="}) {
                corpus.insert(corpus.end(), {one + around, around + one, around + one + "*"});
            }
            corpus.push_back(one);
        }
        const std::set<std::string> there = {"*", "a*", "a(b)", ")(uid=*", "a*b", "a b"};
        size_t found = 0;
        for (const std::string& bare : corpus) {
            StartRequest();
            const LdapMatches matches = FindLdapEntries(bare);
            const auto canonical = CanonicalName(bare + "@office.example");
            const std::string trimmed = canonical ? canonical->substr(0, canonical->find('@')) : "";
            const bool isThere = there.contains(trimmed) || trimmed == "lea" || trimmed == "user0001";
            EXPECT_EQ(isThere ? 1 : 0, matches.count) << bare;
            const UserRecord record = FindRecord(bare + "@office.example");
            EXPECT_EQ(isThere, record != nullptr) << bare;
            EXPECT_TRUE(!record || *canonical == record->name) << bare;
            EXPECT_EQ(Fault::None, CurrentRequest().fault) << bare;
            found += isThere ? 1 : 0;
        }
        EXPECT_LE(1000U, corpus.size());
        EXPECT_LE(3U, found);
    });
}

TEST_F(LdapAccounts, AreListedByTextsThatStandForThemselves)
{
    AsWorker([] {
        const Listed all = Users("");
        size_t found = 0;
        size_t sought = 0;
        for (const char* special :
             {"*",  "(", ")", "\\", "&", "|", "!",    "=",    "~",    "<",    ">",       ",",        "+",
              "\"", ";", "#", "%",  " ", ".", "\x7f", "\x01", "\xff", "\\2a", "(uid=*)", "*)(uid=*", "_"}) {
            for (const char* before : {"", "a", "user00", "twin"}) {
                for (const char* behind : {"", "b", "1", "*", "@office"}) {
                    const std::string text = std::string(before) + special + behind;
                    const auto folded = SearchText(text);
                    std::vector<std::string> expected;
                    for (const std::string& one : all.texts) {
                        if (folded && SearchText(one)->find(*folded) != std::string::npos) {
                            expected.push_back(one);
                        }
                    }
                    EXPECT_EQ(expected, Users(text).texts) << text;
                    found += expected.size();
                    ++sought;
                }
            }
        }
        EXPECT_EQ(520U, sought);
        EXPECT_LE(50U, found);
        EXPECT_EQ(Fault::None, CurrentRequest().fault);
    });
}

TEST_F(LdapAccounts, KeepTheirNumberThroughRenamingAndMovingButNotRemoval)
{
    const Directory& directory = *directory_;
    directory.AddPerson("nina", "first");
    uint32_t uid = 0;
    AsWorker([] { test::WriteFile("/usr/tavr/etc/uid", std::to_string(NumberOf("nina@office.example"))); });
    uid = static_cast<uint32_t>(std::stoul(test::ReadFile("/usr/tavr/etc/uid")));
    directory.Rename("uid=nina,ou=people", "uid=nina", "ou=others");
    AsWorker([uid] { EXPECT_EQ(uid, NumberOf("nina@office.example")) << "moved"; });
    directory.Rename("uid=nina,ou=others", "uid=nina.b", "ou=people");
    AsWorker([uid] {
        EXPECT_EQ(0U, NumberOf("nina@office.example"));
        EXPECT_EQ(uid, NumberOf("nina.b@office.example"));
        EXPECT_EQ("nina.b@office.example", FindAccount(uid)->name);
    });
    directory.Remove("uid=nina.b,ou=people");
    directory.AddPerson("nina.b", "second");
    AsWorker([uid] {
        EXPECT_LT(uid, NumberOf("nina.b@office.example"));
        EXPECT_FALSE(FindAccount(uid));
    });
    directory.Remove("uid=nina.b,ou=people");
    // What a list finds under a name that stood for somebody else is asked for by that very name.
    directory.AddPerson("nina.b", "third");
    AsWorker([uid] {
        EXPECT_EQ(1, Users("nina.b").total);
        EXPECT_LT(uid + 1, NumberOf("nina.b@office.example"));
    });
    directory.Remove("uid=nina.b,ou=people");
}

TEST_F(LdapAccounts, AreNotKnownWhileTheDirectoryIsAway)
{
    WriteSettings("ldap_uri=\"ldap://127.0.0.1:1\"\nldap_realm=\"office.example\"\nldap_base=\"dc=x\"\n");
    AsWorker([] {
        EXPECT_FALSE(FindRecord(kLea));
        EXPECT_EQ(0x2200, KLIBCErrGet());
        EXPECT_EQ(Fault::DirectoryUnavailable, CurrentRequest().fault);
        EXPECT_THROW(IsPassword(kLea, "lea-password"), LdapError);
        EXPECT_EQ(-1, Users("").total);
        EXPECT_EQ(-1, Groups("").total);
        uint32_t* gids = nullptr;
        int count = 0;
        EXPECT_EQ(-1, KLIBGroupInfoGidGet(kLea, 0, &gids, &count));
        StartRequest();
        EXPECT_FALSE(FindRecord("alice")) << "a local name";
        EXPECT_EQ(Fault::None, CurrentRequest().fault);
    });
}

// Most bytes that this process ever held.
int64_t MostHeld()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return int64_t{usage.ru_maxrss} * 1024;
}

TEST_F(LdapAccounts, WithFiftyMegabytesInOneValueTakeNoMemoryAndDisturbNobody)
{
    const Directory large({"--users", "3", "--large"});
    WriteSettings(large.SettingsLines());
    AsWorker([] {
        EXPECT_TRUE(FindRecord("user0001@office.example"));
        const int64_t before = MostHeld();

        StartRequest();
        EXPECT_TRUE(FindRecord("picture@office.example")) << "pictures are not asked for";
        EXPECT_TRUE(IsPassword("picture@office.example", "large-password"));

        StartRequest();
        EXPECT_FALSE(FindRecord("address@office.example"));
        EXPECT_EQ(0x2200, KLIBCErrGet());
        EXPECT_EQ(Fault::DirectoryUnavailable, CurrentRequest().fault);
        try {
            IsPassword("address@office.example", "large-password");
            ADD_FAILURE() << "an entry that cannot be taken";
        } catch (const LdapError& error) {
            EXPECT_NE(std::string::npos, std::string(error.what()).find("longer than 1 MiB")) << error.what();
        }

        StartRequest();
        EXPECT_TRUE(FindRecord("user0002@office.example"));
        EXPECT_TRUE(IsPassword("user0002@office.example", "pw-0002"));
        const Listed all = Users("");
        EXPECT_EQ(static_cast<int>(all.names.size()) + 1, all.total) << "the second twin is not shown";
        EXPECT_EQ(1, std::count(all.names.begin(), all.names.end(), "address@office.example"));
        EXPECT_EQ(1, std::count(all.names.begin(), all.names.end(), "user0003@office.example"));
        EXPECT_EQ(1, Users("large address").total);
        EXPECT_EQ(Fault::None, CurrentRequest().fault);
        EXPECT_LT(MostHeld() - before, 32 << 20); // sanitizers keep what was freed for a while
    });
}

TEST_F(LdapAccounts, AreNotAskedForWithSettingsThatCannotBeUsed)
{
    const std::string good = directory_->SettingsLines();
    for (const char* bad :
         {"ldap_uri=\"http://127.0.0.1\"", "ldap_uri=\"ldap://127.0.0.1:99999\"", "ldap_realm=\"\"",
          "ldap_starttls=\"maybe\"", "ldap_base=\"\"", "ldap_user_filter=\"objectClass=*\"",
          "ldap_user_filter=\"(objectClass=*))(uid=*\"", "ldap_id=\"entry UUID\"",
          "ldap_user_name=\"uid)(x\"", "ldap_ca_file=\"/absent\"",
          "ldap_bind_dn=\"cn=nobody,dc=office,dc=example\""}) {
        WriteSettings(good + bad + "\n");
        AsWorker([bad] {
            EXPECT_FALSE(FindRecord(kLea)) << bad;
            EXPECT_EQ(Fault::DirectoryUnavailable, CurrentRequest().fault) << bad;
        });
    }
}

TEST_F(LdapAccounts, AreFoundByTheLibrarysSteps)
{
    AsWorker([] {
        TAVRLDAPSearchOption* options = TAVRLDAPSearchOptionAlloc();
        TAVRLDAPHost host{};
        char dn[1024] = "untouched";
        EXPECT_EQ(-1, TAVRLDAPBrowserGetDNByUserUID(&host, "lea", dn, sizeof dn, options));
        ASSERT_EQ(0, TAVRLDAPSearchOptionGet(options, 0));
        ASSERT_EQ(0, TAVRLDAPHostInitByBindConfigOnly(&host));
        EXPECT_EQ(0, TAVRLDAPBrowserGetDNByUserUID(&host, "nobody", dn, sizeof dn, options));
        EXPECT_EQ(0, TAVRLDAPBrowserGetDNByUserUID(&host, "l*", dn, sizeof dn, options));
        EXPECT_STREQ("untouched", dn);
        EXPECT_EQ(-1, TAVRLDAPBrowserGetDNByUserUID(&host, "lea", dn, 5, options));
        EXPECT_EQ(2, TAVRLDAPBrowserGetDNByUserUID(&host, "twin", dn, sizeof dn, options));
        TAVRUser* record = nullptr;
        ASSERT_EQ(1, TAVRLDAPBrowserUserGet(&host, dn, &record, 0, 0, options));
        EXPECT_STREQ("one@home.example", record->mail);
        TAVRUserFree(record);
        EXPECT_EQ(1, TAVRLDAPBrowserGetDNByUserUID(&host, "lea", dn, sizeof dn, options));
        EXPECT_STREQ("uid=Lea,ou=people,dc=office,dc=example", dn);
        EXPECT_EQ(
            0, TAVRLDAPBrowserUserGet(&host, "uid=x,ou=people,dc=office,dc=example", &record, 0, 0, options));
        TAVRLDAPHostFree(&host);
        TAVRLDAPHostFree(&host);
        TAVRLDAPSearchOptionFree(options);
    });
}
