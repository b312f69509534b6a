// The library's two ways of raising the effective ids, with real ids: real and effective ones tavr-web's,
// saved ones root's. The log is caught by the linker (--wrap).
#include "otp/OTPCommon.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

std::vector<std::string> g_log; // "priority text"

[[gnu::format(printf, 2, 0)]] void Catch(int priority, const char* format, va_list list)
{
    char line[512];
    std::vsnprintf(line, sizeof line, format, list);
    g_log.push_back(std::to_string(priority) + " " + line);
}

using Ids = std::array<uid_t, 6>; // real, effective, saved user; the same of the group

Ids Now()
{
    Ids ids{};
    getresuid(&ids[0], &ids[1], &ids[2]);
    getresgid(&ids[3], &ids[4], &ids[5]);
    return ids;
}

constexpr uid_t kService = 64217;
constexpr Ids kWorker = {kService, kService, 0, kService, kService, 0};
constexpr Ids kRaised = {kService, 0, 0, kService, 0, 0};

bool CanOpenRootsFile()
{
    const int descriptor = open("/etc/shadow", O_RDONLY | O_CLOEXEC);
    if (descriptor >= 0) {
        close(descriptor);
    }
    return descriptor >= 0;
}

class RealIds : public testing::Test
{
protected:
    void SetUp() override
    {
        g_log.clear();
        ASSERT_EQ(kWorker, Now());
        ASSERT_FALSE(CanOpenRootsFile());
    }
    void TearDown() override
    {
        EXPECT_EQ(kWorker, Now());
        EXPECT_FALSE(CanOpenRootsFile());
    }
};

// Runs `check` in a child; true when it says so.
bool InChild(const std::function<bool()>& check)
{
    const pid_t child = fork();
    if (child == 0) {
        _exit(check() ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// For good: nothing can raise this process any more.
void GiveUpRoot()
{
    if (setresgid(kService, kService, kService) != 0 || setresuid(kService, kService, kService) != 0) {
        _exit(2);
    }
}

TEST_F(RealIds, TheGuardRaisesTheEffectiveOnesAndGivesThemBack)
{
    for (int round = 0; round < 1000; ++round) {
        {
            const otp::RunAsGuard guard("root", "test.cpp", 1);
            ASSERT_TRUE(guard.Switched());
            ASSERT_EQ(kRaised, Now());
            ASSERT_TRUE(CanOpenRootsFile());
        }
        ASSERT_EQ(kWorker, Now());
    }
    EXPECT_TRUE(g_log.empty());
}

TEST_F(RealIds, TheGuardGivesThemBackWhenAnExceptionPasses)
{
    try {
        const otp::RunAsGuard guard("root", "test.cpp", 1);
        throw std::runtime_error("inside");
    } catch (const std::runtime_error&) {
    }
    EXPECT_EQ(kWorker, Now());
}

TEST_F(RealIds, TheGuardKnowsNoUnknownAccount)
{
    const otp::RunAsGuard guard("no-such-account", "test.cpp", 1);
    EXPECT_FALSE(guard.Switched());
    EXPECT_EQ((std::vector<std::string>{"35 test.cpp:1 ERROR: getpwnam(no-such-account) [Name not found]",
                                        "35 test.cpp:1 ERROR: IF_RUN_AS2(\"no-such-account\")"}),
              g_log);
}

TEST_F(RealIds, TheGuardSwitchesToAnAccountThatIsNotRoot)
{
    {
        const otp::RunAsGuard guard("www-data", "test.cpp", 1);
        EXPECT_TRUE(guard.Switched());
        EXPECT_EQ((Ids{kService, 33, 0, kService, 33, 0}), Now());
    }
    EXPECT_EQ(kWorker, Now());
    EXPECT_TRUE(g_log.empty());
}

TEST_F(RealIds, TheGuardFailsWhereRootIsGone)
{
    EXPECT_TRUE(InChild([] {
        GiveUpRoot();
        const Ids before = Now();
        {
            const otp::RunAsGuard guard("root", "test.cpp", 1);
            if (guard.Switched()) {
                return false;
            }
        }
        return before == Now() &&
               g_log == std::vector<std::string>{"35 test.cpp:1 ERROR: IF_RUN_AS2(\"root\")"};
    }));
}

TEST_F(RealIds, TheGuardTellsWhenTheIdsCannotBeGivenBack)
{
    EXPECT_TRUE(InChild([] {
        {
            const otp::RunAsGuard guard("www-data", "test.cpp", 7);
            // From now on nothing but www-data's ids can be had.
            if (!guard.Switched() || setresuid(33, 33, 33) != 0) {
                return false;
            }
        }
        return g_log == std::vector<std::string>{"34 test.cpp:7 ERROR: ~IF_RUN_AS2(64217, 64217)"};
    }));
}

TEST_F(RealIds, TheSectionRaisesTheEffectiveOnesAndGivesThemBack)
{
    for (int round = 0; round < 1000; ++round) {
        g_log.clear();
        errno = EINTR;
        {
            const otp::RootCriticalSection asRoot("test.cpp", 1, 2);
            ASSERT_EQ(0, errno);
            ASSERT_EQ(kRaised, Now());
            ASSERT_TRUE(CanOpenRootsFile());
            ASSERT_NE(0, access("/etc/shadow", R_OK)) << "access asks with the real ids";
            errno = EINTR;
        }
        ASSERT_EQ(0, errno);
        ASSERT_EQ(kWorker, Now());
    }
    EXPECT_EQ((std::vector<std::string>{"39 test.cpp:1 WARNING: setresgid(-1, 0, -1)",
                                        "39 test.cpp:1 WARNING: setresuid(-1, 0, -1)",
                                        "39 test.cpp:2 WARNING: setresuid(-1, 0, -1)"}),
              g_log);
}

TEST_F(RealIds, TheSectionGivesThemBackWhenAnExceptionPasses)
{
    try {
        const otp::RootCriticalSection asRoot("test.cpp", 1, 2);
        throw std::runtime_error("inside");
    } catch (const std::runtime_error&) {
    }
    EXPECT_EQ(kWorker, Now());
}

TEST_F(RealIds, TheSectionRunsOnWithoutRoot)
{
    EXPECT_TRUE(InChild([] {
        GiveUpRoot();
        const Ids before = Now();
        bool ran = false;
        {
            const otp::RootCriticalSection asRoot("test.cpp", 1, 2);
            ran = errno == EPERM;
        }
        return ran && errno == 0 && before == Now() &&
               g_log == std::vector<std::string>{
                            "35 test.cpp:1 ERROR: setresgid(-1, 0, -1) [Operation not permitted]",
                            "35 test.cpp:1 ERROR: ENTERCriticalSection"};
    }));
}

TEST_F(RealIds, TheSectionTellsWhenTheIdsCannotBeGivenBack)
{
    EXPECT_TRUE(InChild([] {
        {
            const otp::RootCriticalSection asRoot("test.cpp", 1, 2);
            g_log.clear();
            if (setresuid(33, 33, 33) != 0) {
                return false;
            }
        }
        return errno == EPERM &&
               g_log == std::vector<std::string>{
                            "35 test.cpp:2 ERROR: setresuid(-1, 0, -1) [Operation not permitted]",
                            "35 test.cpp:2 ERROR: LEAVECriticalSection"};
    }));
}

} // namespace

extern "C" {

[[gnu::format(printf, 2, 3)]] void __wrap_syslog(int priority, const char* format, ...)
{
    va_list list;
    va_start(list, format);
    Catch(priority, format, list);
    va_end(list);
}

[[gnu::format(printf, 3, 4)]] void __wrap___syslog_chk(int priority, int /*flag*/, const char* format, ...)
{
    va_list list;
    va_start(list, format);
    Catch(priority, format, list);
    va_end(list);
}

} // extern "C"
