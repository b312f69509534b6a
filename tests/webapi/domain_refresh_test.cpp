// The copy of a domain, refreshed by the service and by the console.
#include "linux/clock.h"
#include "linux/domain_copy.h"
#include "linux/ids.h"
#include "linux/request.h"
#include "platform/directory.h"
#include "platform/users.h"
#include "tests/support/directory.h"
#include "tests/support/running_service.h"

#include <csignal>
#include <cstdlib>

namespace tavr::test
{
namespace
{

struct Listed {
    int total = -2;
    std::vector<std::string> texts;
};

// What the library asks next.
uint32_t NumberOf(const char* name, bool group)
{
    uint32_t number = 0;
    return (group ? TAVRGroupGetGID(name, &number) : TAVRUserGetUGID(name, &number, nullptr)) == 0 ? number
                                                                                                   : 0;
}

int TakeNumber(int /*count*/, char** values, char** /*names*/, void* numbers)
{
    static_cast<std::vector<uint32_t>*>(numbers)->push_back(NumberOf(values[0], false));
    return 0;
}

int TakeUser(const KLIBUserInfo* entry, void* texts)
{
    EXPECT_EQ(2, entry->source);
    static_cast<std::vector<std::string>*>(texts)->push_back(std::to_string(entry->uid) + ' ' + entry->name +
                                                             ' ' + entry->description);
    return 0;
}

int TakeGroup(const KLIBGroupInfo* entry, void* texts)
{
    EXPECT_EQ(entry->gid, NumberOf(entry->name, true));
    char* description = nullptr;
    EXPECT_EQ(0, TAVRGroupDescGet(entry->name, &description, nullptr));
    static_cast<std::vector<std::string>*>(texts)->push_back(std::string(entry->name) + ' ' + description);
    std::free(description);
    return 0;
}

int TakeRow(int count, char** values, char** names, void* listed)
{
    std::string text;
    for (int i = 0; i < count; ++i) {
        text += std::string(names[i]) + '=' + values[i] + ' ';
    }
    static_cast<Listed*>(listed)->texts.push_back(text);
    return 0;
}

// As the library asks for it.
Listed Enumerate(int groups, const char* text, const char* unit, int start, int limit)
{
    StartRequest();
    Listed listed;
    TAVRWinsDomainEnumOpt* option = nullptr;
    EXPECT_EQ(0, TAVRWinsDomainEnumOptAlloc(&option));
    EXPECT_EQ(0, TAVRWinsDomainEnumOptAddSearchFields(option, "Name"));
    EXPECT_EQ(0, TAVRWinsDomainEnumOptAddSearchFields(option, "Description"));
    EXPECT_EQ(0, TAVRWinsDomainEnumOptSetStart(option, start));
    EXPECT_EQ(0, TAVRWinsDomainEnumOptSetLimit(option, limit));
    EXPECT_EQ(0, TAVRWinsDomainEnumOptSetUGType(option, groups));
    EXPECT_EQ(0, TAVRWinsDomainEnumOptSetSearchSubString(option, text));
    EXPECT_EQ(0, TAVRWinIsEnableTrustDomain() != 0 ? TAVRWinsDomainEnumOptSetDomain(option, unit)
                                                   : TAVRWinsDomainEnumOptSetOU(option, unit));
    listed.total = TAVRWinsDomainCoreFullDbEnum(option, TakeRow, &listed);
    TAVRWinsDomainEnumOptFree(option);
    return listed;
}

class DomainRefresh : public ServiceTest
{
protected:
    void SetUp() override
    {
        ServiceTest::SetUp();
        if (!Directory::CanStart()) {
            GTEST_SKIP() << "there is no slapd on this machine: run scripts/setup test first";
        }
        Directory::WriteSecret();
    }

    // Waits for a copy that holds so many accounts.
    void UntilCopied(int64_t accounts)
    {
        AsWorker([&] {
            for (int i = 0; i < 600; ++i) {
                const std::vector<CopyState> states = CopyStates();
                if (!states.empty() && states[0].counts.accounts == accounts) {
                    return;
                }
                usleep(50'000);
            }
            ADD_FAILURE() << "the service has not refreshed the copy";
        });
    }
};

TEST_F(DomainRefresh, IsMadeByTheServiceFromTimeToTime)
{
    const Directory directory({"--users", "20"}, kController);
    WriteSettings(directory.DomainSettingsLines());
    {
        Service service;
        service.UntilServed();
        UntilCopied(21);
        EXPECT_EQ(0, service.Stop(SIGTERM));
    }
    directory.Remove("cn=User 000001,ou=Sales");
    {
        Service service;
        service.UntilServed();
        AsWorker([] { EXPECT_EQ(21, CopyStates()[0].counts.accounts) << "its time has not come"; });
        EXPECT_EQ(0, service.Stop(SIGTERM));
    }
    SetWallClock(WallSeconds() + 4000);
    Service service;
    service.UntilServed();
    UntilCopied(20);
}

TEST_F(DomainRefresh, KeepsNobodyWaitingForADirectoryThatHangs)
{
    const Directory directory({"--users", "20"}, kController);
    WriteSettings(directory.DomainSettingsLines());
    directory.server.Pause(true);
    Service service;
    service.UntilServed();
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ("alice", Ask(GetRequest("alice"))["data"]["name"].asString());
    }
    directory.server.Pause(false);
    UntilCopied(21);
}

TEST_F(DomainRefresh, IsMadeByTheConsoleWhichTellsHowItWent)
{
    Directory directory({"--users", "20"}, kController);
    WriteSettings("");
    Ran ran = RunProgram({"/usr/sbin/tavrctl", "domain", "sync"});
    EXPECT_EQ(1, ran.status);
    EXPECT_EQ("tavrctl: there is no domain to be copied: domain_name or domain_uri is empty\n",
              ran.complaint);
    WriteSettings(directory.DomainSettingsLines());
    ran = RunProgram({"/usr/sbin/tavrctl", "domain", "sync"});
    EXPECT_EQ("CORP: 21 accounts, 5 groups, 6 left out\n", ran.output) << ran.complaint;
    ran = RunProgram({"/usr/sbin/tavrctl", "domain", "sync", "--json"});
    EXPECT_EQ("{\"domains\":[{\"accounts\":21,\"domain\":\"CORP\",\"groups\":5,\"left_out\":6}],"
              "\"success\":true}\n",
              ran.output);
    AsWorker([] {
        const CopyRunner other;
        const EffectiveIds root = EffectiveIds::Root();
        const Ran busy = RunProgram({"/usr/sbin/tavrctl", "domain", "sync", "--json"});
        EXPECT_NE(std::string::npos, busy.output.find("\"busy\"")) << busy.output;
    });
    directory.server.Stop();
    ran = RunProgram({"/usr/sbin/tavrctl", "domain", "sync"});
    EXPECT_EQ(1, ran.status);
    EXPECT_NE(std::string::npos, ran.complaint.find("CORP: cannot connect to ldap://127.0.0.1:"));
    ran = RunProgram({"/usr/sbin/tavrctl", "domain", "status"});
    EXPECT_EQ(0, ran.status);
    EXPECT_EQ(0U, ran.output.find("CORP: 21 accounts, 5 groups, 6 left out, as of 20")) << ran.output;
    EXPECT_NE(std::string::npos, ran.output.find("; failed at 20")) << ran.output;
    ran = RunProgram({"/usr/sbin/tavrctl", "domain", "status", "--json"});
    EXPECT_NE(std::string::npos, ran.output.find("\"failure\":\"cannot connect")) << ran.output;
}

TEST_F(DomainRefresh, MakesTheListsOfTheLibrary)
{
    const Directory directory({"--users", "20"}, kController);
    WriteSettings(directory.DomainSettingsLines());
    AsWorker([] { EXPECT_EQ(-1, Enumerate(0, "", "", 0, -1).total) << "the library asks otherwise then"; });
    EXPECT_EQ(0, RunProgram({"/usr/sbin/tavrctl", "domain", "sync"}).status);
    AsWorker([] {
        const Listed page = Enumerate(0, "user", "Berlin", 1, 2);
        EXPECT_EQ(10, page.total);
        EXPECT_EQ((std::vector<std::string>{"Name=CORP\\user000004 Description=User 000004 ",
                                            "Name=CORP\\user000006 Description=User 000006 "}),
                  page.texts);
        EXPECT_EQ(5, Enumerate(1, "", "", 0, 0).total);
        EXPECT_EQ(1, Enumerate(0, "The MAN", "", 0, -1).total);
        EXPECT_EQ(0, Enumerate(0, "*", "", 0, -1).total);
        EXPECT_EQ(0, Enumerate(0, "", "No such unit", 0, -1).total);
    });
    WriteSettings(directory.DomainSettingsLines() + "domain_trusted=\"OTHER=other.test\"\n");
    AsWorker([] { EXPECT_EQ(-1, Enumerate(0, "", "other.test", 0, -1).total) << "no copy of it yet"; });
    EXPECT_EQ(0, RunProgram({"/usr/sbin/tavrctl", "domain", "sync"}).status);
    AsWorker([] {
        EXPECT_EQ(1, Enumerate(0, "", "Other.Test", 0, -1).total);
        EXPECT_EQ(21, Enumerate(0, "", "corp", 0, -1).total);
        EXPECT_EQ(22, Enumerate(0, "", "", 0, -1).total);
    });
}

// Each has one number, whoever asks; it is one of its own, not the copy's.
TEST_F(DomainRefresh, GivesNumbersToWhatIsListed)
{
    const Directory directory({"--users", "4"}, kController);
    WriteSettings(directory.DomainSettingsLines());
    EXPECT_EQ(0, RunProgram({"/usr/sbin/tavrctl", "domain", "sync"}).status);
    AsWorker([] {
        TAVRWinsDomainEnumOpt* option = nullptr;
        ASSERT_EQ(0, TAVRWinsDomainEnumOptAlloc(&option));
        std::vector<uint32_t> numbers;
        EXPECT_EQ(5, TAVRWinsDomainCoreFullDbEnum(option, TakeNumber, &numbers));
        TAVRWinsDomainEnumOptFree(option);
        EXPECT_EQ((std::vector<uint32_t>{2000000004, 2000000000, 2000000001, 2000000002, 2000000003}),
                  numbers)
            << "given in the directory's order, listed in that of the names";
        std::vector<std::string> texts;
        EXPECT_EQ(4, KLIBUserInfoEnumBySubstr(2, "", 1, 2, "user", 1, TakeUser, &texts));
        EXPECT_EQ((std::vector<std::string>{"2000000001 CORP\\user000002 User 000002",
                                            "2000000002 CORP\\user000003 User 000003"}),
                  texts);
        EXPECT_EQ(2, KLIBUserInfoEnumBySubstr(2, "berlin", 0, 0, "", 1, TakeUser, &texts));
        texts.clear();
        EXPECT_EQ(5, KLIBGroupInfoEnumBySubstr(2, "", 0, 1, "", 1, TakeGroup, &texts));
        EXPECT_EQ((std::vector<std::string>{"CORP\\group0001 Group 0001"}), texts);
        EXPECT_EQ(0U, NumberOf("CORP\\group0001", true)) << "nothing is being listed any more";
    });
    RunSql("/var/lib/tavr/domain.db", "DELETE FROM domain; DELETE FROM account");
    AsWorker([] {
        std::vector<std::string> texts;
        EXPECT_EQ(5, KLIBUserInfoEnumBySubstr(2, "", 1, 1, "", 1, TakeUser, &texts)) << "seen before";
        EXPECT_EQ((std::vector<std::string>{"2000000000 CORP\\user000001 "}), texts);
        EXPECT_EQ(1, KLIBUserInfoEnumBySubstr(2, "", 0, 0, "Dan", 1, TakeUser, &texts));
        EXPECT_EQ(-1, KLIBUserInfoEnumBySubstr(2, "berlin", 0, 0, "", 1, TakeUser, &texts));
        EXPECT_EQ(-1, KLIBGroupInfoEnumBySubstr(2, "", 0, 0, "", 1, TakeGroup, &texts));
    });
    WriteSettings("");
    AsWorker([] { EXPECT_EQ(-1, KLIBUserInfoEnumBySubstr(2, "", 0, -1, "", 1, TakeUser, nullptr)); });
}

TEST_F(DomainRefresh, RefusesWhatIsNoPartOfAList)
{
    WriteSettings("domain_name=\"CORP\"\ndomain_realm=\"corp.test\"\n");
    AsWorker([] {
        TAVRWinsDomainEnumOpt* option = nullptr;
        EXPECT_EQ(-1, TAVRWinsDomainEnumOptAlloc(nullptr));
        EXPECT_EQ(0, TAVRWinsDomainEnumOptAlloc(&option));
        EXPECT_EQ(-1, TAVRWinsDomainEnumOptAddSearchFields(option, "Password"));
        EXPECT_EQ(-1, TAVRWinsDomainEnumOptAddSearchFields(option, nullptr));
        EXPECT_EQ(-1, TAVRWinsDomainEnumOptSetStart(option, -1));
        EXPECT_EQ(-1, TAVRWinsDomainEnumOptSetLimit(option, -2));
        EXPECT_EQ(-1, TAVRWinsDomainEnumOptSetUGType(option, 2));
        EXPECT_EQ(-1, TAVRWinsDomainEnumOptSetSearchSubString(option, nullptr));
        EXPECT_EQ(-1, TAVRWinsDomainEnumOptSetDomain(option, nullptr));
        EXPECT_EQ(-1, TAVRWinsDomainEnumOptSetOU(nullptr, ""));
        EXPECT_EQ(-1, TAVRWinsDomainCoreFullDbEnum(option, nullptr, nullptr));
        EXPECT_EQ(-1, TAVRWinsDomainCoreFullDbEnum(nullptr, TakeRow, nullptr));
        TAVRWinsDomainEnumOptFree(option);
        TAVRWinsDomainEnumOptFree(nullptr);
    });
}

} // namespace
} // namespace tavr::test
