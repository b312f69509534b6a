// The two ways of raising the effective ids, on a process that is scripted. ids_real_test.cpp has real ones.
#include "otp/OTPCommon.h"

#include "tests/support/fake_platform.h"

#include <stdexcept>

#include <gtest/gtest.h>

namespace
{

using Texts = std::vector<std::string>;

// --- RunAsGuard ---

struct GuardCase {
    const char* reason;
    uint32_t euid, egid; // of the process
    uint32_t rootUid, rootGid;
    const char* failing; // call that fails
    int failingNth;
    bool switched;
    uint32_t euidInside, egidInside;
    uint32_t euidAfter, egidAfter;
    Texts calls; // after the look-up
    Texts log;
};

TEST(RunAsGuard, ChangesTheIdsThatDifferAndGivesThemBack)
{
    const GuardCase cases[] = {
        {"an ordinary worker",
         64217,
         64217,
         0,
         0,
         "",
         0,
         true,
         0,
         0,
         64217,
         64217,
         {"setresuid(-1, 0, -1)", "setresgid(-1, 0, -1)", "setresuid(-1, 0, -1)", "setresgid(-1, 64217, -1)",
          "setresuid(-1, 64217, -1)"},
         {}},
        {"root already", 0, 0, 0, 0, "", 0, true, 0, 0, 0, 0, {}, {}},
        {"root with another group: only the group changes",
         0,
         33,
         0,
         0,
         "",
         0,
         true,
         0,
         0,
         0,
         33,
         {"setresgid(-1, 0, -1)", "setresgid(-1, 33, -1)"},
         {}},
        {"root's group with another user",
         64217,
         0,
         0,
         0,
         "",
         0,
         true,
         0,
         0,
         64217,
         0,
         {"setresuid(-1, 0, -1)", "setresuid(-1, 0, -1)", "setresuid(-1, 64217, -1)"},
         {}},
        {"a target that is not root",
         64217,
         64217,
         7,
         8,
         "",
         0,
         true,
         7,
         8,
         64217,
         64217,
         {"setresuid(-1, 0, -1)", "setresgid(-1, 8, -1)", "setresuid(-1, 7, -1)", "setresuid(-1, 0, -1)",
          "setresgid(-1, 64217, -1)", "setresuid(-1, 64217, -1)"},
         {}},
        {"the target's user already, with another group",
         7,
         64217,
         7,
         8,
         "",
         0,
         true,
         7,
         8,
         7,
         64217,
         {"setresgid(-1, 8, -1)", "setresgid(-1, 64217, -1)"},
         {}},
        {"a target of all bits set is never applied",
         64217,
         64217,
         0xFFFFFFFF,
         0xFFFFFFFF,
         "",
         0,
         true,
         0,
         64217,
         64217,
         64217,
         {"setresuid(-1, 0, -1)", "setresuid(-1, 64217, -1)"},
         {}},
        {"becoming root fails",
         64217,
         64217,
         0,
         0,
         "setresuid",
         1,
         false,
         64217,
         64217,
         64217,
         64217,
         {"setresuid(-1, 0, -1)"},
         {"35 area.cpp:77 ERROR: IF_RUN_AS2(\"root\")"}},
        {"the group fails: undone at the end of the scope",
         64217,
         64217,
         0,
         0,
         "setresgid",
         1,
         false,
         0,
         64217,
         64217,
         64217,
         {"setresuid(-1, 0, -1)", "setresgid(-1, 0, -1)", "setresuid(-1, 64217, -1)"},
         {"35 area.cpp:77 ERROR: IF_RUN_AS2(\"root\")"}},
        {"the user fails",
         64217,
         64217,
         0,
         0,
         "setresuid",
         2,
         false,
         0,
         0,
         64217,
         64217,
         {"setresuid(-1, 0, -1)", "setresgid(-1, 0, -1)", "setresuid(-1, 0, -1)", "setresgid(-1, 64217, -1)",
          "setresuid(-1, 64217, -1)"},
         {"35 area.cpp:77 ERROR: IF_RUN_AS2(\"root\")"}},
        {"the group cannot be given back",
         64217,
         64217,
         0,
         0,
         "setresgid",
         2,
         true,
         0,
         0,
         0,
         0,
         {"setresuid(-1, 0, -1)", "setresgid(-1, 0, -1)", "setresuid(-1, 0, -1)", "setresgid(-1, 64217, -1)"},
         {"34 area.cpp:77 ERROR: ~IF_RUN_AS2(64217, 64217)"}},
        {"the user cannot be given back",
         64217,
         64218,
         0,
         0,
         "setresuid",
         3,
         true,
         0,
         0,
         0,
         64218,
         {"setresuid(-1, 0, -1)", "setresgid(-1, 0, -1)", "setresuid(-1, 0, -1)", "setresgid(-1, 64218, -1)",
          "setresuid(-1, 64217, -1)"},
         {"34 area.cpp:77 ERROR: ~IF_RUN_AS2(64217, 64218)"}},
        {"from a target that is not root, root cannot be had again",
         64217,
         64218,
         7,
         8,
         "setresuid",
         3,
         true,
         7,
         8,
         7,
         8,
         {"setresuid(-1, 0, -1)", "setresgid(-1, 8, -1)", "setresuid(-1, 7, -1)", "setresuid(-1, 0, -1)"},
         {"34 area.cpp:77 ERROR: ~IF_RUN_AS2(64217, 64218)"}},
    };
    for (const GuardCase& c : cases) {
        SCOPED_TRACE(c.reason);
        FakePlatform platform;
        platform.euid = c.euid;
        platform.egid = c.egid;
        platform.rootUid = c.rootUid;
        platform.rootGid = c.rootGid;
        platform.Fail(c.failing, c.failingNth);
        {
            const otp::RunAsGuard guard("root", "area.cpp", 77);
            EXPECT_EQ(c.switched, guard.Switched());
            EXPECT_EQ(c.euidInside, platform.euid);
            EXPECT_EQ(c.egidInside, platform.egid);
        }
        EXPECT_EQ(c.euidAfter, platform.euid);
        EXPECT_EQ(c.egidAfter, platform.egid);
        Texts expected = {"getpwnam_r(\"root\", 1024)"};
        expected.insert(expected.end(), c.calls.begin(), c.calls.end());
        EXPECT_EQ(expected, platform.calls);
        EXPECT_EQ(c.log, platform.LogLines());
    }
}

TEST(RunAsGuard, FailsWithoutTheNamedAccount)
{
    FakePlatform platform;
    platform.rootUid.reset();
    {
        const otp::RunAsGuard guard("root", "area.cpp", 5);
        EXPECT_FALSE(guard.Switched());
    }
    EXPECT_EQ((Texts{"35 area.cpp:5 ERROR: getpwnam(root) [Name not found]",
                     "35 area.cpp:5 ERROR: IF_RUN_AS2(\"root\")"}),
              platform.LogLines());
    EXPECT_EQ(Texts{"getpwnam_r(\"root\", 1024)"}, platform.calls);
}

TEST(RunAsGuard, TellsWhyTheAccountCouldNotBeLookedUp)
{
    FakePlatform platform;
    platform.Answer("getpwnam_r", ERANGE);
    {
        const otp::RunAsGuard guard("root", "area.cpp", 5);
        EXPECT_FALSE(guard.Switched());
    }
    EXPECT_EQ((Texts{"35 area.cpp:5 ERROR: getpwnam(root) [Numerical result out of range]",
                     "35 area.cpp:5 ERROR: IF_RUN_AS2(\"root\")"}),
              platform.LogLines());
}

TEST(RunAsGuard, FailsWithoutMemoryForTheLookUp)
{
    FakePlatform platform;
    platform.passwdBufferSize = 4711;
    platform.Fail("malloc", 1);
    {
        const otp::RunAsGuard guard("root", "area.cpp", 5);
        EXPECT_FALSE(guard.Switched());
    }
    EXPECT_EQ((Texts{"35 area.cpp:5 ERROR: malloc(4711) [Cannot allocate memory]",
                     "35 area.cpp:5 ERROR: IF_RUN_AS2(\"root\")"}),
              platform.LogLines());
    EXPECT_EQ(Texts{}, platform.calls);
}

TEST(RunAsGuard, TakesABufferOf16384BytesWhenTheSystemNamesNoSize)
{
    FakePlatform platform;
    platform.passwdBufferSize = -1;
    {
        const otp::RunAsGuard guard("root", "area.cpp", 5);
        EXPECT_TRUE(guard.Switched());
    }
    EXPECT_EQ(Texts{"getpwnam_r(\"root\", 16384)"}, platform.CallsOf("getpwnam_r"));
}

TEST(RunAsGuard, GivesTheIdsBackWhenAnExceptionPasses)
{
    FakePlatform platform;
    try {
        const otp::RunAsGuard guard("root", "area.cpp", 5);
        throw std::runtime_error("inside");
    } catch (const std::runtime_error&) {
    }
    EXPECT_EQ(64217u, platform.euid);
    EXPECT_EQ(64217u, platform.egid);
}

// --- root critical section ---

struct SectionCase {
    const char* reason;
    uint32_t euid, egid;
    const char* failing;
    int failingNth;
    uint32_t euidInside, egidInside;
    int errnoInside;
    uint32_t euidAfter, egidAfter;
    int errnoAfter;
    Texts calls;
    Texts log;
};

constexpr char kGidRaised[] = "39 area.cpp:56 WARNING: setresgid(-1, 0, -1)";
constexpr char kUidRaised[] = "39 area.cpp:56 WARNING: setresuid(-1, 0, -1)";
constexpr char kUidRaisedAgain[] = "39 area.cpp:111 WARNING: setresuid(-1, 0, -1)";

TEST(RootCriticalSection, RaisesTheIdsThatDifferAndGivesThemBack)
{
    const SectionCase cases[] = {
        {"an ordinary worker",
         64217,
         64218,
         "",
         0,
         0,
         0,
         0,
         64217,
         64218,
         0,
         {"setresgid(-1, 0, -1)", "setresuid(-1, 0, -1)", "setresuid(-1, 0, -1)", "setresgid(-1, 64218, -1)",
          "setresuid(-1, 64217, -1)"},
         {kGidRaised, kUidRaised, kUidRaisedAgain}},
        {"root already", 0, 0, "", 0, 0, 0, 0, 0, 0, 0, {}, {}},
        {"root's user with another group",
         0,
         33,
         "",
         0,
         0,
         0,
         0,
         0,
         33,
         0,
         {"setresgid(-1, 0, -1)", "setresgid(-1, 33, -1)"},
         {kGidRaised}},
        {"root's group with another user",
         64217,
         0,
         "",
         0,
         0,
         0,
         0,
         64217,
         0,
         0,
         {"setresuid(-1, 0, -1)", "setresuid(-1, 0, -1)", "setresuid(-1, 64217, -1)"},
         {kUidRaised, kUidRaisedAgain}},
        {"the group cannot be raised: the user is not tried, the stretch runs",
         64217,
         64218,
         "setresgid",
         1,
         64217,
         64218,
         1,
         64217,
         64218,
         0,
         {"setresgid(-1, 0, -1)"},
         {"35 area.cpp:56 ERROR: setresgid(-1, 0, -1) [Operation not permitted]",
          "35 area.cpp:56 ERROR: ENTERCriticalSection"}},
        {"the user cannot be raised: the group is given back as far as root is to be had",
         64217,
         64218,
         "setresuid",
         1,
         64217,
         0,
         1,
         64217,
         64218,
         0,
         {"setresgid(-1, 0, -1)", "setresuid(-1, 0, -1)", "setresgid(-1, 64218, -1)"},
         {kGidRaised, "35 area.cpp:56 ERROR: setresuid(-1, 0, -1) [Operation not permitted]",
          "35 area.cpp:56 ERROR: ENTERCriticalSection"}},
        {"leaving: root first, and that fails",
         64217,
         64218,
         "setresuid",
         2,
         0,
         0,
         0,
         0,
         0,
         1,
         {"setresgid(-1, 0, -1)", "setresuid(-1, 0, -1)", "setresuid(-1, 0, -1)"},
         {kGidRaised, kUidRaised, "35 area.cpp:111 ERROR: setresuid(-1, 0, -1) [Operation not permitted]",
          "35 area.cpp:111 ERROR: LEAVECriticalSection"}},
        {"leaving: the group fails",
         64217,
         64218,
         "setresgid",
         2,
         0,
         0,
         0,
         0,
         0,
         1,
         {"setresgid(-1, 0, -1)", "setresuid(-1, 0, -1)", "setresuid(-1, 0, -1)", "setresgid(-1, 64218, -1)"},
         {kGidRaised, kUidRaised, kUidRaisedAgain,
          "35 area.cpp:111 ERROR: setresgid(-1, 64218, -1) [Operation not permitted]",
          "35 area.cpp:111 ERROR: LEAVECriticalSection"}},
        {"leaving: the user fails",
         64217,
         64218,
         "setresuid",
         3,
         0,
         0,
         0,
         0,
         64218,
         1,
         {"setresgid(-1, 0, -1)", "setresuid(-1, 0, -1)", "setresuid(-1, 0, -1)", "setresgid(-1, 64218, -1)",
          "setresuid(-1, 64217, -1)"},
         {kGidRaised, kUidRaised, kUidRaisedAgain,
          "35 area.cpp:111 ERROR: setresuid(-1, 64217, -1) [Operation not permitted]",
          "35 area.cpp:111 ERROR: LEAVECriticalSection"}},
    };
    for (const SectionCase& c : cases) {
        SCOPED_TRACE(c.reason);
        FakePlatform platform;
        platform.euid = c.euid;
        platform.egid = c.egid;
        platform.errnoOfFailure = EPERM;
        platform.Fail(c.failing, c.failingNth);
        errno = EINTR;
        {
            const otp::RootCriticalSection asRoot("area.cpp", 56, 111);
            EXPECT_EQ(c.errnoInside, errno);
            EXPECT_EQ(c.euidInside, platform.euid);
            EXPECT_EQ(c.egidInside, platform.egid);
            errno = EINTR;
        }
        EXPECT_EQ(c.errnoAfter, errno);
        EXPECT_EQ(c.euidAfter, platform.euid);
        EXPECT_EQ(c.egidAfter, platform.egid);
        EXPECT_EQ(c.calls, platform.calls);
        EXPECT_EQ(c.log, platform.LogLines());
    }
}

// Whoever changes the ids inside gets the saved ones back all the same.
TEST(RootCriticalSection, GivesRootBackToRoot)
{
    FakePlatform platform;
    platform.euid = 0;
    platform.egid = 0;
    {
        const otp::RootCriticalSection asRoot("area.cpp", 56, 111);
        platform.euid = 7;
        platform.egid = 8;
    }
    EXPECT_EQ((Texts{"setresuid(-1, 0, -1)", "setresgid(-1, 0, -1)", "setresuid(-1, 0, -1)"}),
              platform.calls);
    EXPECT_EQ((Texts{"39 area.cpp:111 WARNING: setresuid(-1, 0, -1)",
                     "39 area.cpp:111 WARNING: setresgid(-1, 0, -1)",
                     "39 area.cpp:111 WARNING: setresuid(-1, 0, -1)"}),
              platform.LogLines());
}

TEST(RootCriticalSection, TellsTheSystemsReason)
{
    FakePlatform platform;
    platform.errnoOfFailure = EAGAIN;
    platform.Fail("setresgid", 1);
    {
        const otp::RootCriticalSection asRoot("area.cpp", 56, 111);
        EXPECT_EQ(EPERM, errno); // whatever the reason was
    }
    EXPECT_EQ("ERROR: setresgid(-1, 0, -1) [Resource temporarily unavailable]", platform.log.at(0).text);
}

TEST(RootCriticalSection, GivesTheIdsBackWhenAnExceptionPasses)
{
    FakePlatform platform;
    try {
        const otp::RootCriticalSection asRoot("area.cpp", 56, 111);
        throw std::runtime_error("inside");
    } catch (const std::runtime_error&) {
    }
    EXPECT_EQ(64217u, platform.euid);
    EXPECT_EQ(64217u, platform.egid);
}

} // namespace
