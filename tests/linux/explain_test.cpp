// What the console tells about the policy against what the library decides, over every combination of option,
// source of the account and entries. Accounts of all sources: the linker puts another source into the record
// of a local one.
#include "cli/commands.h"
#include "cli/console.h"
#include "linux/paths.h"
#include "linux/request.h"
#include "linux/settings.h"
#include "otp/OTPEnforceHandler.h"
#include "platform/users.h"
#include "tests/support/fresh_server.h"

#include <json/json.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

namespace
{

int g_kind = 1;
bool g_directoryAway = false;

} // namespace

extern "C" int __real_TAVRUserGet(const char* name, TAVRUser** record);
extern "C" int __wrap_TAVRUserGet(const char* name, TAVRUser** record)
{
    const int result = __real_TAVRUserGet(name, record);
    if (result >= 0) {
        (*record)->kind = g_kind;
    }
    return result;
}

extern "C" int __real_KLIBGroupInfoGidGet(const char* name, int flags, uint32_t** gids, int* count);
extern "C" int __wrap_KLIBGroupInfoGidGet(const char* name, int flags, uint32_t** gids, int* count)
{
    if (g_directoryAway) {
        tavr::NoteFault(tavr::Fault::AccountsUnavailable);
        return -1;
    }
    return __real_KLIBGroupInfoGidGet(name, flags, gids, count);
}

namespace tavr::test
{
namespace
{

// What a command answers with --json.
Json::Value AnswerOf(const std::function<void()>& command)
{
    std::fflush(stdout);
    const int kept = dup(STDOUT_FILENO);
    const int answer = memfd_create("answer", MFD_CLOEXEC);
    dup2(answer, STDOUT_FILENO);
    command();
    std::fflush(stdout);
    dup2(kept, STDOUT_FILENO);
    close(kept);
    char text[4096] = {};
    EXPECT_GT(pread(answer, text, sizeof text - 1, 0), 0);
    close(answer);
    Json::Value value;
    EXPECT_TRUE(Json::Reader().parse(text, value)) << text;
    return value;
}

Json::Value Explain(const std::string& name)
{
    StartRequest();
    return AnswerOf([&] { console::ExplainPolicy(name); });
}

struct Case {
    const char* option;
    int kind;
    bool isAdmin;
    bool userEntry;
    bool groupEntry;
    bool others; // the same numbers in the lists of the other sources
};

std::string PicksOf(const Case& one, uint32_t uid, uint32_t gid)
{
    Json::Value picks(Json::objectValue);
    for (const auto& [kind, source] : {std::pair(1, "local"), std::pair(2, "domain"), std::pair(8, "ldap")}) {
        const bool own = kind == one.kind;
        if (own ? one.userEntry : one.others) {
            picks[std::string(source) + "_user"].append(std::to_string(uid));
        }
        if (own ? one.groupEntry : one.others) {
            picks[std::string(source) + "_group"].append(std::to_string(gid));
        }
    }
    return picks.toStyledString();
}

// By the rules as people know them.
const char* ReasonFor(const Case& one)
{
    const std::string option = one.option;
    if (option == "user") {
        return "everybody";
    }
    if (option == "admin") {
        return one.isAdmin ? "administrator" : "no_administrator";
    }
    if (option != "custom") {
        return "nobody";
    }
    return one.userEntry ? "user_entry" : one.groupEntry ? "group_entry" : "no_entry";
}

class Explanation : public FreshServer
{
};

TEST_F(Explanation, IsTheLibrarysVerdictInEveryCase)
{
    AsWorker([] {
        console::UseJson(true);
        const Group staff = *AddGroup("staff", "");
        const Account plain = MakeAccount("alice");
        const Account admin = MakeAccount("ann");
        ASSERT_TRUE(JoinGroup(admin, *FindGroup(kAdministrators)));
        ASSERT_TRUE(JoinGroup(plain, staff) && JoinGroup(admin, staff));
        int cases = 0;
        for (const char* option : {"", "none", "user", "admin", "custom", "Custom"}) {
            ASSERT_TRUE(WriteSetting("otp_enforce_option", option));
            for (int bits = 0; bits < 48; ++bits) {
                constexpr int kKinds[] = {1, 2, 8};
                const Case one{option,          kKinds[bits / 16], (bits & 1) != 0,
                               (bits & 2) != 0, (bits & 4) != 0,   (bits & 8) != 0};
                const Account& account = one.isAdmin ? admin : plain;
                g_kind = one.kind;
                WriteFile(kPolicyFile, PicksOf(one, account.uid, staff.gid));
                const Json::Value told = Explain(account.name);
                const std::string what = std::string(option) + ' ' + std::to_string(bits);
                EXPECT_EQ(OTPEnforceIsEnabled(account.name), told["demanded"].asBool()) << what;
                EXPECT_EQ(ReasonFor(one), told["because"].asString()) << what;
                EXPECT_EQ(one.isAdmin, told["is_admin"].asBool()) << what;
                EXPECT_EQ(one.userEntry, told["user_entry"].asBool()) << what;
                EXPECT_EQ(one.groupEntry ? 1U : 0U, told["group_entries"].size()) << what;
                EXPECT_EQ(one.kind, told["kind"].asInt()) << what;
                ++cases;
            }
        }
        EXPECT_EQ(288, cases);
    });
}

TEST_F(Explanation, ReadsNumbersAsTheLibraryDoes)
{
    AsWorker([] {
        console::UseJson(true);
        const Account alice = MakeAccount("alice");
        ASSERT_TRUE(WriteSetting("otp_enforce_option", "custom"));
        g_kind = 1;
        for (const char* picks :
             {"{\"local_user\":[\"01026\"]}", "{\"local_user\":[1026]}", "{\"local_user\":[\"+1026\"]}",
              "{\"local_user\":[\" 1026\"]}", "{\"local_user\":[\"1026x\"]}", "{\"local_user\":[\"\"]}",
              "{\"local_user\":[\"4294968322\"]}", "{\"local_user\":[1026.0]}",
              "{\"local_group\":[\"065537\"]}", "{\"local_group\":[65537]}", "{\"local_group\":[\"\"]}",
              "{\"local_group\":[\"65537 \"]}"}) {
            WriteFile(kPolicyFile, picks);
            const Json::Value told = Explain("alice");
            EXPECT_EQ(OTPEnforceIsEnabled("alice"), told["demanded"].asBool()) << picks;
        }
    });
}

TEST_F(Explanation, IsNoneWhenItCannotBeTold)
{
    AsWorker([] {
        console::UseJson(true);
        MakeAccount("alice");
        ASSERT_TRUE(WriteSetting("otp_enforce_option", "custom"));
        WriteFile(kPolicyFile, "{\"local_group\":[\"1\"]}");
        g_directoryAway = true;
        EXPECT_THROW(Explain("alice"), console::Failure);
        g_directoryAway = false;
        EXPECT_EQ("no_entry", Explain("alice")["because"].asString());
        unlink(kPolicyCopyFile);
        WriteFile(kPolicyFile, "[]");
        EXPECT_THROW(Explain("alice"), console::Failure);
    });
}

} // namespace
} // namespace tavr::test
