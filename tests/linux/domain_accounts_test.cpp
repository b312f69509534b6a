// Accounts and groups of a domain, through the platform's calls, SSSD and a controller's directory.
#include "linux/domain_accounts.h"

#include "linux/apart.h"
#include "linux/directory_numbers.h"
#include "linux/names.h"
#include "linux/request.h"
#include "platform/cgi.h"
#include "platform/core.h"
#include "platform/users.h"
#include "tests/support/domain.h"
#include "tests/support/fresh_server.h"
#include "tests/support/user_record.h"

#include <fcntl.h>

#include <csignal>
#include <cstdlib>
#include <set>
#include <thread>
#include <utility>

using namespace tavr;
using namespace tavr::test;

namespace
{

// Each in a request of its own.
UserRecord Find(const std::string& name)
{
    StartRequest();
    return FindRecord(name);
}

uint32_t GroupNumber(const std::string& name)
{
    StartRequest();
    uint32_t gid = 0;
    return TAVRGroupGetGID(name.c_str(), &gid) == 0 ? gid : 0;
}

std::set<uint32_t> GroupsOfName(const std::string& name)
{
    StartRequest();
    uint32_t* gids = nullptr;
    int count = -1;
    EXPECT_EQ(0, KLIBGroupInfoGidGet(name.c_str(), 0, &gids, &count)) << name;
    const std::set<uint32_t> groups(gids, gids + std::max(count, 0));
    std::free(gids);
    return groups;
}

// What the platform's login says: 1, 0, or -1 for what could not be told.
int LogIn(const std::string& typed, const std::string& password)
{
    StartRequest();
    std::string name = CanonicalName(typed).value_or("");
    TavrLogin login{name.data(), password.c_str(), "", 0};
    const int result = TavrCgiTestLoginEx2(&login, nullptr, nullptr, 0);
    EXPECT_EQ(getuid(), geteuid()) << "no id is left raised";
    EXPECT_EQ(getgid(), getegid());
    return result;
}

class DomainAccounts : public FreshServer
{
protected:
    static void SetUpTestSuite()
    {
        if (Domain::CanStart()) {
            domain_ = new Domain;
        }
    }
    static void TearDownTestSuite()
    {
        delete domain_;
        domain_ = nullptr;
    }
    void SetUp() override
    {
        FreshServer::SetUp();
        if (domain_ == nullptr) {
            GTEST_SKIP() << "there is no slapd, or no SSSD in build/sssd: run scripts/setup test first";
        }
        WriteSettings(domain_->SettingsLines());
    }
    static Domain* domain_;
};
Domain* DomainAccounts::domain_ = nullptr;

constexpr char kDan[] = "CORP\\dan";

} // namespace

TEST_F(DomainAccounts, AreReadIntoARecordByEverySpelling)
{
    AsWorker([] {
        for (const char* name : {kDan, " corp\\DAN", "Dan@CORP.test", "dan@corp", "corp.test\\dan"}) {
            const UserRecord dan = Find(name);
            ASSERT_TRUE(dan) << name << KLIBCErrGet();
            EXPECT_STREQ(kDan, dan->name);
            EXPECT_EQ(2000000000U, dan->uid) << "one account, one number";
            EXPECT_EQ(2, dan->kind);
            EXPECT_STREQ("Dan, the Man", dan->description);
            EXPECT_STREQ("", dan->mail) << "kept here, in a file of its own";
        }
        EXPECT_EQ(2000000001U, Find("CORP\\user000001")->uid);
        EXPECT_EQ(0, KLIBGroupIsAdminGroupMem(kDan, 0));
        const UserRecord dan = Find(kDan);
        dan->mail = "dan@home.example";
        EXPECT_EQ(-1, TAVRConfdUserUpdate(kDan, dan.get(), 0));
        EXPECT_EQ(0x2900, KLIBCErrGet());
    });
}

TEST_F(DomainAccounts, AreNumberedByTheirSids)
{
    AsWorker([] {
        const uint32_t number = Find(kDan)->uid;
        EXPECT_EQ(number, NumberOfAccount(kKindDomain, {"S-1-5-21-1-2-3-1111", kDan}));
        const std::string groups[] = {"S-1-5-21-1-2-3-1118"};
        EXPECT_EQ(GroupNumber("CORP\\inner circle"), NumbersOfGroups(kKindDomain, groups)[0]);
    });
}

TEST_F(DomainAccounts, AreNoneWhereTheDomainHasNone)
{
    AsWorker([] {
        for (const char* name : {"CORP\\nobody", "CORP\\*", "CORP\\group0001", "CORP\\root", "CORP\\tavr-web",
                                 "CORP\\dan)(uid=*", "CORP\\dan@corp.test"}) {
            EXPECT_FALSE(Find(name)) << name;
            EXPECT_EQ(Fault::None, CurrentRequest().fault) << name;
        }
        EXPECT_EQ(0U, GroupNumber("CORP\\nobodies"));
        EXPECT_EQ(0U, GroupNumber("CORP\\root"));
        EXPECT_FALSE(Find("OTHER\\dan"));
        EXPECT_EQ(0x2100, KLIBCErrGet()) << "a domain that is not known";
        EXPECT_FALSE(Find("dan@office.example"));
        EXPECT_FALSE(Find("dan")) << "a local name is another's";
    });
}

TEST_F(DomainAccounts, AreOpenedByTheirPasswordAlone)
{
    AsWorker([] {
        EXPECT_EQ(1, LogIn("dan@corp.test", "dan-password"));
        EXPECT_EQ(1, LogIn("CORP\\user000007", "pw-000007"));
        for (const char* wrong : {"", "Dan-password", "dan-password ", "pw-000007", "reader-password"}) {
            EXPECT_EQ(0, LogIn(kDan, wrong)) << wrong;
        }
        EXPECT_EQ(0, LogIn(kDan, std::string(512, 'x')));
        EXPECT_EQ(0, LogIn("CORP\\nobody", "x"));
        EXPECT_EQ(0, LogIn("CORP\\root", "x"));
        EXPECT_EQ(0, LogIn("dan", "dan-password")) << "a local account of that name is none of the domain's";
        EXPECT_EQ(Fault::None, CurrentRequest().fault);
    });
}

TEST_F(DomainAccounts, AreInTheirGroupsNestedOnesToo)
{
    AsWorker([] {
        EXPECT_EQ((std::set<uint32_t>{GroupNumber("CORP\\inner circle"), GroupNumber("CORP\\Storage")}),
                  GroupsOfName(kDan));
        EXPECT_EQ((std::set<uint32_t>{GroupNumber("CORP\\group0002")}), GroupsOfName("CORP\\user000002"));
        EXPECT_EQ((std::set<uint32_t>{}), GroupsOfName("CORP\\user000009"));
        char* description = nullptr;
        ASSERT_EQ(0, TAVRGroupDescGet("CORP\\storage", &description, nullptr));
        EXPECT_STREQ("", description);
        std::free(description);
    });
}

TEST_F(DomainAccounts, CannotBeToldWhileTheClientHangs)
{
    domain_->Pause(true);
    AsWorker([] {
        EXPECT_FALSE(Find("CORP\\user000003"));
        EXPECT_EQ(0x2200, KLIBCErrGet());
        EXPECT_EQ(Fault::DirectoryUnavailable, CurrentRequest().fault);
        const auto before = std::chrono::steady_clock::now();
        uint32_t number = 0;
        EXPECT_EQ(-1, TAVRUserGetUGID("CORP\\user000004", &number, nullptr));
        EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(5)) << "waited for once";
    });
    domain_->Pause(false);
    AsWorker([] { EXPECT_TRUE(Find("CORP\\user000003")); });
}

TEST_F(DomainAccounts, CannotBeToldWhileTheClientOrItsControllerIsGone)
{
    AsWorker([] { ASSERT_EQ(1, LogIn(kDan, "dan-password")); });
    domain_->KillController();
    AsWorker([] {
        EXPECT_EQ(-1, LogIn(kDan, "dan-password"));
        EXPECT_EQ(Fault::DirectoryUnavailable, CurrentRequest().fault);
        EXPECT_EQ(-1, LogIn(kDan, "wrong"));
    });
    domain_->KillClient();
    AsWorker([] {
        EXPECT_EQ(-1, LogIn(kDan, "dan-password"));
        EXPECT_EQ(-1, LogIn(kDan, "wrong"));
        EXPECT_FALSE(Find("CORP\\user000005"));
        EXPECT_EQ(Fault::DirectoryUnavailable, CurrentRequest().fault);
    });
    delete std::exchange(domain_, nullptr);
    domain_ = new Domain;
    WriteSettings(domain_->SettingsLines());
    AsWorker([] { EXPECT_EQ(1, LogIn(kDan, "dan-password")); });
}

TEST_F(DomainAccounts, CannotBeToldWithSettingsThatCannotBeUsed)
{
    WriteSettings(domain_->SettingsLines() + "domain_client=\"other\"\n");
    AsWorker([] {
        EXPECT_FALSE(Find(kDan));
        EXPECT_EQ(Fault::DirectoryUnavailable, CurrentRequest().fault);
        EXPECT_EQ(-1, LogIn(kDan, "dan-password"));
    });
    WriteSettings(domain_->SettingsLines() + "domain_client=\"winbind\"\n");
    AsWorker([] { EXPECT_EQ(-1, LogIn(kDan, "dan-password")) << "which is not installed"; });
    WriteSettings("");
    AsWorker([] {
        EXPECT_FALSE(Find(kDan));
        EXPECT_EQ(0x2100, KLIBCErrGet());
        EXPECT_EQ(0, LogIn(kDan, "dan-password"));
    });
}

// --- Work apart --------------------------------------------------------------------------------------------

namespace
{

using std::chrono::milliseconds;
constexpr milliseconds kLong{20'000};

} // namespace

TEST(Apart, GivesWhatTheWorkReturns)
{
    EXPECT_EQ("", RunApart(kLong, [] { return std::string(); }));
    const std::string all = std::string("a\0b", 3) + std::string(kMostFromApart - 3, 'x');
    EXPECT_EQ(all, RunApart(kLong, [&] { return all; }));
    EXPECT_FALSE(RunApart(kLong, [&] { return all + 'x'; })) << "too much";
}

TEST(Apart, GivesNothingOfWorkThatFails)
{
    EXPECT_FALSE(RunApart(kLong, []() -> std::string { throw std::runtime_error("told to"); }));
    EXPECT_FALSE(RunApart(kLong, [] {
        std::raise(SIGKILL);
        return std::string("x");
    }));
    EXPECT_FALSE(RunApart(kLong, []() -> std::string { _exit(1); }));
    EXPECT_FALSE(RunApart(milliseconds(50), [] {
        std::this_thread::sleep_for(kLong);
        return std::string("x");
    })) << "killed";
}

TEST(Apart, HasNoDescriptorsOfItsParent)
{
    const auto open = RunApart(kLong, [] {
        std::string found;
        for (int fd = 3; fd < 100; ++fd) {
            found += fcntl(fd, F_GETFD) >= 0 ? std::to_string(fd) + ' ' : "";
        }
        return found;
    });
    EXPECT_EQ("3 ", open) << "its own way out";
}
