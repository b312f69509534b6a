#include "platform/users.h"

#include "linux/accounts.h"
#include "platform/core.h"
#include "platform/directory.h"
#include "tests/support/user_record.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <vector>

using namespace tavr::test;

namespace
{

class Users : public testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        tavr::NewAccount alice;
        alice.name = "alice";
        alice.description = "Alice A.";
        alice.mail = "alice@home.example";
        alice.isAdmin = true;
        tavr::AddAccount(alice, "x");
        tavr::NewAccount bob;
        bob.name = "bob";
        tavr::AddAccount(bob, "x");
        tavr::AddGroup("crew", "On 100% board");
        tavr::JoinGroup(*tavr::FindAccount("bob"), *tavr::FindGroup("crew"));
    }
};

} // namespace

TEST_F(Users, AreReadIntoARecord)
{
    const UserRecord record = FindRecord(" ALICE");
    ASSERT_TRUE(record);
    EXPECT_STREQ("alice", record->name);
    EXPECT_EQ(1026U, record->uid);
    EXPECT_EQ(65537U, record->gid);
    EXPECT_EQ(1, record->kind);
    EXPECT_STREQ("Alice A.", record->description);
    EXPECT_STREQ("alice@home.example", record->mail);
    const UserRecord other = FindRecord("bob");
    ASSERT_TRUE(other);
    EXPECT_STREQ("", other->mail);
    EXPECT_STREQ("alice", record->name) << "records stand on their own";
}

TEST_F(Users, ThatCannotBeReadLeaveTheRecordAlone)
{
    const struct {
        const char* name;
        int code;
    } cases[] = {{"carol", 0x1D00},
                 {"a/b", 0x1400},
                 {"", 0x1400},
                 {"CORP\\alice", 0x2100},
                 {"mia@office.example", 0x2100},
                 {nullptr, 0x0D00}};
    for (const auto& one : cases) {
        auto* record = reinterpret_cast<TAVRUser*>(0x10);
        EXPECT_EQ(-1, TAVRUserGet(one.name, &record)) << one.code;
        EXPECT_EQ(one.code, KLIBCErrGet());
        EXPECT_STREQ("users.cpp", KLIBCErrorGetFile());
        EXPECT_EQ(reinterpret_cast<TAVRUser*>(0x10), record);
    }
    EXPECT_EQ(-1, TAVRUserGet("alice", nullptr));
    TAVRUserFree(nullptr);
}

TEST_F(Users, AreUpdatedInTheFieldThatTheCallerReplaced)
{
    UserRecord record = FindRecord("alice");
    char* mail = strdup("other@home.example");
    record->mail = mail;
    EXPECT_EQ(0, TAVRConfdUserUpdate("alice", record.get(), 0));
    EXPECT_EQ("other@home.example", tavr::FindAccount("alice")->mail);
    EXPECT_EQ("Alice A.", tavr::FindAccount("alice")->description);
    // The library's order: its own text first, then the record, which must not look at it.
    free(mail);
    record.reset();

    record = FindRecord("alice");
    EXPECT_TRUE(tavr::ChangeAccount(record->uid, {"changed meanwhile", "meanwhile@home.example"}));
    const std::string same = record->mail;
    record->mail = same.c_str();
    EXPECT_EQ(0, TAVRConfdUserUpdate("alice", record.get(), 0));
    EXPECT_EQ("other@home.example", tavr::FindAccount("alice")->mail)
        << "put there, so stored, though equal to what was read";
    EXPECT_EQ("changed meanwhile", tavr::FindAccount("alice")->description);

    TAVRUser copy = *record;
    EXPECT_TRUE(tavr::ChangeAccount(record->uid, {"again", std::nullopt}));
    copy.mail = "";
    EXPECT_EQ(0, TAVRConfdUserUpdate("alice", &copy, 0)) << "a copy of a record, an empty text";
    EXPECT_EQ("", tavr::FindAccount("alice")->mail);
    EXPECT_EQ("again", tavr::FindAccount("alice")->description);

    copy.mail = nullptr;
    copy.description = "Alice A.";
    EXPECT_EQ(0, TAVRConfdUserUpdate("alice", &copy, 0));
    copy.mail = "alice@home.example";
    copy.description = nullptr;
    EXPECT_EQ(0, TAVRConfdUserUpdate("alice", &copy, 0));
    EXPECT_EQ("alice@home.example", tavr::FindAccount("alice")->mail);
    EXPECT_EQ("Alice A.", tavr::FindAccount("alice")->description);
}

TEST_F(Users, AreNotUpdatedWithWhatCannotBeStored)
{
    const UserRecord record = FindRecord("bob");
    const std::string tooLong(255, 'm');
    for (const char* mail : {tooLong.c_str(), "a@b.example\r\nBcc: c@d.example"}) {
        record->mail = mail;
        EXPECT_EQ(-1, TAVRConfdUserUpdate("bob", record.get(), 0));
        EXPECT_EQ(0x0D00, KLIBCErrGet());
        EXPECT_EQ("", tavr::FindAccount("bob")->mail);
    }
    record->mail = "a@b.example";
    EXPECT_EQ(-1, TAVRConfdUserUpdate("alice", record.get(), 0)) << "another account's record";
    EXPECT_EQ(-1, TAVRConfdUserUpdate("carol", record.get(), 0));
    EXPECT_EQ(0x1D00, KLIBCErrGet());
    EXPECT_EQ(-1, TAVRConfdUserUpdate("CORP\\bob", record.get(), 0));
    EXPECT_EQ(-1, TAVRConfdUserUpdate("bob", nullptr, 0));
    EXPECT_EQ(-1, TAVRConfdUserUpdate(nullptr, record.get(), 0));
    EXPECT_EQ("alice@home.example", tavr::FindAccount("alice")->mail);
}

TEST_F(Users, OfARemovedAccountAreNotUpdatedIntoItsSuccessor)
{
    tavr::NewAccount account;
    account.name = "successor";
    const auto first = tavr::AddAccount(account, "x");
    const UserRecord record = FindRecord("successor");
    tavr::RemoveAccount(first->uid);
    tavr::AddAccount(account, "x");
    record->mail = "first@home.example";
    EXPECT_EQ(-1, TAVRConfdUserUpdate("successor", record.get(), 0));
    EXPECT_EQ(0x1D00, KLIBCErrGet());
    EXPECT_EQ("", tavr::FindAccount("successor")->mail);
}

TEST_F(Users, HaveOneLoginNameAndOnePreferenceDirectory)
{
    char out[493] = "-";
    EXPECT_EQ(1, TAVRUserLoginNameConvert(" Alice", out, sizeof out));
    EXPECT_STREQ("alice", out);
    EXPECT_EQ(1, TAVRUserLoginNameConvert("corp\\Alice", out, sizeof out));
    EXPECT_STREQ("CORP\\alice", out);
    EXPECT_EQ(-1, TAVRUserLoginNameConvert("a/b", out, sizeof out));
    EXPECT_EQ(-1, TAVRUserLoginNameConvert("alice", out, 5));
    EXPECT_EQ(0x0300, KLIBCErrGet());
    EXPECT_EQ(-1, TAVRUserLoginNameConvert(nullptr, out, 5));
    EXPECT_STREQ("CORP\\alice", out);

    char dir[4096] = "-";
    EXPECT_EQ(0, TAVRUserPreferenceDirGet("Alice", dir, sizeof dir, 0));
    EXPECT_STREQ("/usr/tavr/etc/preference/alice", dir);
    EXPECT_FALSE(std::filesystem::exists(dir)) << "asking creates nothing";
    EXPECT_EQ(0, TAVRUserPreferenceDirGet("CORP\\alice", dir, sizeof dir, 0));
    EXPECT_STREQ("/usr/tavr/etc/preference/%43%4F%52%50%5Calice", dir);
    EXPECT_EQ(-1, TAVRUserPreferenceDirGet("../x", dir, sizeof dir, 0));
    EXPECT_EQ(-1, TAVRUserPreferenceDirGet("alice", dir, 30, 0));
    EXPECT_EQ(-1, TAVRUserPreferenceDirGet("alice", nullptr, 30, 0));
}

TEST_F(Users, AndGroupsHaveNumbers)
{
    uint32_t uid = 0;
    uint32_t gid = 0;
    EXPECT_EQ(0, TAVRUserGetUGID("ALICE", &uid, &gid));
    EXPECT_EQ(1026U, uid);
    EXPECT_EQ(65537U, gid);
    EXPECT_EQ(0, TAVRUserGetUGID("alice", &uid, nullptr));
    EXPECT_EQ(-1, TAVRUserGetUGID("carol", &uid, &gid));
    EXPECT_EQ(0, TAVRGroupGetGID("Administrators", &gid));
    EXPECT_EQ(65536U, gid);
    EXPECT_EQ(-1, TAVRGroupGetGID("nobody", &gid));
    EXPECT_EQ(0x1E00, KLIBCErrGet());
    EXPECT_EQ(-1, TAVRGroupGetGID("CORP\\crew", &gid));
    EXPECT_EQ(0x2100, KLIBCErrGet());
    EXPECT_EQ(65536U, gid);

    char* description = nullptr;
    char unused = 0;
    char* second = &unused;
    EXPECT_EQ(0, TAVRGroupDescGet("crew", &description, &second));
    EXPECT_STREQ("On 100% board", description);
    EXPECT_EQ(nullptr, second);
    free(description);
    description = nullptr;
    EXPECT_EQ(0, TAVRGroupDescGet("crew", &description, nullptr));
    free(description);
    EXPECT_EQ(-1, TAVRGroupDescGet("nobody", &description, &second));
}

TEST_F(Users, BelongToGroups)
{
    EXPECT_EQ(1, KLIBGroupIsAdminGroupMem("Alice", 0));
    EXPECT_EQ(0, KLIBGroupIsAdminGroupMem("bob", 0));
    EXPECT_EQ(-1, KLIBGroupIsAdminGroupMem("carol", 0));
    EXPECT_EQ(-1, KLIBGroupIsAdminGroupMem("CORP\\alice", 0));
    EXPECT_EQ(-1, KLIBGroupIsAdminGroupMem(nullptr, 0));

    uint32_t* gids = nullptr;
    int count = 0;
    ASSERT_EQ(0, KLIBGroupInfoGidGet("bob", 0, &gids, &count));
    EXPECT_EQ((std::vector<uint32_t>{65537, 65538}), std::vector<uint32_t>(gids, gids + count));
    free(gids);
    gids = nullptr;
    EXPECT_EQ(-1, KLIBGroupInfoGidGet("carol", 0, &gids, &count));
    EXPECT_EQ(nullptr, gids);
    EXPECT_EQ(2, count);
}

// --- Enumeration -------------------------------------------------------------------------------------------

namespace
{

std::string names;

int AppendUser(const KLIBUserInfo* entry, void* data)
{
    *static_cast<std::string*>(data) += std::string(entry->name) + ":" + std::to_string(entry->uid) + ":" +
                                        entry->description + ":" + std::to_string(entry->source) + " ";
    return 0;
}

int AppendGroup(const KLIBGroupInfo* entry, void* data)
{
    *static_cast<std::string*>(data) += std::string(entry->name) + ":" + std::to_string(entry->gid) + " ";
    return -1; // a row that its caller drops does not end the enumeration
}

struct Found {
    int total;
    std::string rows;
    bool operator==(const Found&) const = default;
};

Found FindUsers(int offset, int limit, const char* query)
{
    std::string rows;
    const int total = KLIBUserInfoEnumBySubstr(1, "", offset, limit, query, 1, AppendUser, &rows);
    return {total, rows};
}

Found FindGroups(int offset, int limit, const char* query)
{
    std::string rows;
    const int total = KLIBGroupInfoEnumBySubstr(1, "", offset, limit, query, 1, AppendGroup, &rows);
    return {total, rows};
}

} // namespace

TEST_F(Users, AndGroupsAreEnumeratedByPages)
{
    tavr::NewAccount account;
    for (const char* name : {"zz-3", "zz-1", "zz-2"}) {
        account.name = name;
        account.description = std::string("5_") + name;
        tavr::AddAccount(account, "x");
    }
    const std::string uid1 = std::to_string(tavr::FindAccount("zz-1")->uid);
    const std::string uid2 = std::to_string(tavr::FindAccount("zz-2")->uid);
    EXPECT_EQ((Found{3, "zz-1:" + uid1 + ":5_zz-1:1 zz-2:" + uid2 + ":5_zz-2:1 "}), FindUsers(0, 2, "ZZ-"));
    EXPECT_EQ((Found{3, "zz-2:" + uid2 + ":5_zz-2:1 "}), FindUsers(1, 1, "zz-"));
    EXPECT_EQ((Found{3, ""}), FindUsers(3, -1, "zz-"));
    EXPECT_EQ((Found{1, "zz-1:" + uid1 + ":5_zz-1:1 "}), FindUsers(0, -1, "_zz-1"))
        << "found in the description";
    EXPECT_EQ((Found{0, ""}), FindUsers(0, -1, "5%zz")) << "no pattern characters";
    EXPECT_EQ((Found{0, ""}), FindUsers(0, -1, "'; DROP TABLE account; --"));
    EXPECT_EQ(FindUsers(0, -1, ""), FindUsers(0, -1, nullptr));
    EXPECT_GE(FindUsers(0, 0, "").total, 5);

    EXPECT_EQ((Found{3, "administrators:65536 crew:65538 users:65537 "}), FindGroups(0, -1, ""));
    EXPECT_EQ((Found{1, "crew:65538 "}), FindGroups(0, -1, "100% BOARD"));
}

TEST_F(Users, AndGroupsOfDirectoriesAreNotEnumerated)
{
    for (const int source : {2, 8, 0, 99}) {
        EXPECT_EQ(-1, KLIBUserInfoEnumBySubstr(source, "", 0, -1, "", 1, AppendUser, &names));
        EXPECT_EQ(-1, KLIBGroupInfoEnumBySubstr(source, "", 0, -1, "", 1, AppendGroup, &names));
        EXPECT_EQ(0x2100, KLIBCErrGet());
    }
    EXPECT_EQ(-1, KLIBUserInfoEnumBySubstr(1, "", -1, -1, "", 1, AppendUser, &names));
    EXPECT_EQ(-1, KLIBUserInfoEnumBySubstr(1, "", 0, -2, "", 1, AppendUser, &names));
    EXPECT_EQ(-1, KLIBUserInfoEnumBySubstr(1, "", 0, -1, "", 1, nullptr, &names));
    EXPECT_EQ("", names);
}

// --- Directories -------------------------------------------------------------------------------------------

TEST(Directories, AnswerThatNoneIsSetUp)
{
    TAVRLDAPHost host{};
    TAVRUser* record = nullptr;
    char dn[64] = "-";
    char* text = nullptr;
    TAVRLDAPSearchOption* options = TAVRLDAPSearchOptionAlloc();
    ASSERT_NE(nullptr, options);
    const auto notSetUp = [](int result) { return result == -1 && KLIBCErrGet() == 0x2100; };
    EXPECT_TRUE(notSetUp(TAVRLDAPSearchOptionGet(options, 0)));
    EXPECT_TRUE(notSetUp(TAVRLDAPHostInitByBindConfigOnly(&host)));
    EXPECT_TRUE(notSetUp(TAVRLDAPBrowserGetDNByUserUID(&host, "mia", dn, sizeof dn, options)));
    EXPECT_TRUE(notSetUp(TAVRLDAPBrowserUserGet(&host, "cn=mia", &record, 0, 0, options)));
    EXPECT_TRUE(notSetUp(TAVRLDAPGroupDescGet("crew", &text, &text)));
    TAVRLDAPSearchOptionFree(options);
    TAVRLDAPSearchOptionFree(nullptr);
    TAVRLDAPHostFree(&host);
    TAVRLDAPHostFree(&host);
    EXPECT_EQ(nullptr, record);

    TAVRWinsDomainEnumOpt* option = nullptr;
    EXPECT_TRUE(notSetUp(TAVRWinsDomainEnumOptAlloc(&option)));
    EXPECT_EQ(nullptr, option);
    EXPECT_EQ(-1, TAVRWinsDomainCoreFullDbEnum(nullptr, nullptr, nullptr));
    TAVRWinsDomainEnumOptFree(nullptr);
    EXPECT_EQ(0, TAVRWinIsEnableTrustDomain());
}

TEST(Directories, SplitNamesByThemselves)
{
    char bare[8] = "-";
    EXPECT_EQ(1, TAVRLDAPSplitName("mia@office.example", nullptr, nullptr, bare, sizeof bare));
    EXPECT_STREQ("mia", bare);
    EXPECT_EQ(-1, TAVRLDAPSplitName("@office.example", nullptr, nullptr, bare, sizeof bare));
    EXPECT_EQ(-1, TAVRLDAPSplitName("mia", nullptr, nullptr, bare, sizeof bare)) << "of no directory";
    EXPECT_EQ(-1, TAVRLDAPSplitName("12345678@office.example", nullptr, nullptr, bare, sizeof bare));
    EXPECT_EQ(-1, TAVRLDAPSplitName(nullptr, nullptr, nullptr, bare, sizeof bare));
    EXPECT_STREQ("mia", bare);
}
