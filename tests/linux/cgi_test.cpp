#include "platform/cgi.h"

#include "linux/ids.h"
#include "linux/session.h"
#include "platform/core.h"
#include "tests/linux/fake_account.h"
#include "tests/support/test_clock.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>

using namespace tavr;

namespace
{

class Logins : public testing::Test
{
protected:
    void SetUp() override
    {
        ResetFake();
        SetClock(0, 0);
        SigninDatabase().Prepare("DELETE FROM session").Run();
        StartRequest();
        Fake().Add("mia", 1026, "right");
        ASSERT_EQ(0, TavrCgiInit("", &cgi));
        std::memset(sid, '#', sizeof sid);
    }
    void TearDown() override { TavrCgiFree(&cgi); }

    static void Know(bool enrolled, bool demanded)
    {
        CurrentRequest().facts = Request::Facts{1026, enrolled, demanded};
    }

    // As the library calls them: with raised ids.
    int Login(const char* name, const char* password, int flags = 15, int size = 122)
    {
        std::string user = name;
        TavrLogin login{user.data(), password, "webui", flags};
        const EffectiveIds root = EffectiveIds::Root();
        return TavrCgiLogin(&cgi, sid, size, &login);
    }
    static int Test(const char* name, const char* password, int refusePending)
    {
        std::string user = name;
        TavrLogin login{user.data(), password, "webui", 0};
        const EffectiveIds root = EffectiveIds::Root();
        return TavrCgiTestLoginEx2(&login, nullptr, nullptr, refusePending);
    }

    static int64_t Rows()
    {
        Statement count = SigninDatabase().Prepare("SELECT count(*) FROM session");
        return count.Step() ? count.Int(0) : -1;
    }

    void ExpectNothingWritten() const
    {
        EXPECT_EQ(std::string(sizeof sid, '#'), std::string(sid, sizeof sid));
    }

    TavrCgi cgi{};
    char sid[1024];
};

TEST_F(Logins, OpenASessionForTheRightPassword)
{
    Know(false, false);
    EXPECT_EQ(1, Login("mia", "right"));
    EXPECT_EQ(32U, std::strlen(sid));
    EXPECT_EQ(std::string(sizeof sid - 33, '#'), std::string(sid + 33, sizeof sid - 33));
    ASSERT_TRUE(FindSession(sid));
    EXPECT_EQ("mia", FindSession(sid)->account.name);
    EXPECT_EQ(1026U, CurrentRequest().passwordOf);
    EXPECT_TRUE(CurrentRequest().passwordCompared);
}

TEST_F(Logins, RefuseAWrongPasswordAndAnUnknownNameAlike)
{
    Know(false, false);
    EXPECT_EQ(0, Login("mia", "wrong"));
    EXPECT_TRUE(CurrentRequest().passwordCompared);
    EXPECT_EQ(0, Login("nobody", "right"));
    EXPECT_FALSE(CurrentRequest().passwordOf);
    EXPECT_EQ(0, Rows());
    ExpectNothingWritten();
}

TEST_F(Logins, SayThatTheSecondStepIsMissing)
{
    Know(true, false);
    EXPECT_EQ(-5, Login("mia", "right"));
    Know(false, true);
    EXPECT_EQ(-5, Login("mia", "right"));
    CurrentRequest().facts.reset();
    EXPECT_EQ(-5, Login("mia", "right")) << "nothing known of the account";
    EXPECT_EQ(0, Rows());
    ExpectNothingWritten();
}

TEST_F(Logins, OpenASessionAfterTheCodeOfThisRequest)
{
    Know(false, true);
    Fake().settlesAs[1026] = Enrolment::Yes;
    CurrentRequest().codeOf = 1026;
    EXPECT_EQ(1, Login("mia", "right"));
    EXPECT_EQ(1, Fake().settled);
    EXPECT_EQ(1, Rows());
}

TEST_F(Logins, OpenNothingAfterACodeWhenTheAccountDoesNotSettle)
{
    CurrentRequest().codeOf = 1026;
    for (const Enrolment state : {Enrolment::No, Enrolment::Fault}) {
        Fake().settlesAs[1026] = state;
        EXPECT_EQ(-1, Login("mia", "right"));
    }
    EXPECT_EQ(0, Rows());
    ExpectNothingWritten();
}

TEST_F(Logins, TellAFaultFromARefusal)
{
    Know(false, false);
    Fake().storeFails = true;
    EXPECT_EQ(-1, Login("mia", "right"));
    EXPECT_NE(0, KLIBCErrGet());
    EXPECT_EQ(Fault::AccountsUnavailable, CurrentRequest().fault);
    EXPECT_FALSE(CurrentRequest().passwordCompared);
    EXPECT_EQ(-1, Test("mia", "right", 0));
    ExpectNothingWritten();
}

TEST_F(Logins, NeedRoomForTheIdentifier)
{
    Know(false, false);
    EXPECT_EQ(-1, Login("mia", "right", 15, 32));
    EXPECT_EQ(0, Rows()) << "nobody would know it";
    ExpectNothingWritten();
    EXPECT_EQ(1, Login("mia", "right", 15, 33));
}

TEST_F(Logins, MakeThePreferenceDirectoryByTheirFlags)
{
    Know(false, false);
    EXPECT_EQ(1, Login("mia", "right", 1));
    EXPECT_EQ(0, Fake().directoriesMade);
    EXPECT_EQ(0, Login("mia", "wrong", 15));
    EXPECT_EQ(0, Fake().directoriesMade);
    EXPECT_EQ(1, Login("mia", "right", 15));
    EXPECT_EQ(1, Fake().directoriesMade);
    Fake().directoriesFail = true;
    EXPECT_EQ(1, Login("mia", "right", 15)) << "signing in does not hang on it";
}

TEST_F(Logins, TestsOpenNothing)
{
    Know(false, false);
    EXPECT_EQ(1, Test("mia", "right", 1));
    EXPECT_EQ(1026U, CurrentRequest().passwordOf);
    EXPECT_EQ(0, Test("mia", "wrong", 1));
    EXPECT_EQ(0, Test("nobody", "right", 0));
    EXPECT_EQ(0, Rows());
    EXPECT_EQ(0, Fake().directoriesMade);
}

TEST_F(Logins, TestsRefuseAPendingSecondStepWhenToldTo)
{
    Know(true, false);
    EXPECT_EQ(-5, Test("mia", "right", 1));
    EXPECT_EQ(1, Test("mia", "right", 0));
    CurrentRequest().facts.reset();
    EXPECT_EQ(-5, Test("mia", "right", 1));
    EXPECT_EQ(1, Test("mia", "right", 0));
    EXPECT_EQ(0, Test("mia", "wrong", 0));
}

TEST_F(Logins, GiveTheTokenOfTheNewSession)
{
    EXPECT_STREQ("none", TavrCgiGetOption(&cgi, 2, "none"));
    Know(false, false);
    ASSERT_EQ(1, Login("mia", "right"));
    EXPECT_EQ(1, TavrCgiIsTokenEnable(&cgi));
    EXPECT_EQ(0, TavrCgiLoadInCookies(&cgi));
    EXPECT_EQ(TokenOf(sid), TavrCgiGetOption(&cgi, 2, "none"));
    EXPECT_STREQ("none", TavrCgiGetOption(&cgi, 1, "none"));
}

TEST_F(Logins, TakeNothingForAnythingElseThanABadParameter)
{
    TavrLogin nobody{nullptr, "right", "webui", 15};
    std::string user = "mia";
    TavrLogin noPassword{user.data(), nullptr, "webui", 15};
    TavrLogin good{user.data(), "right", "webui", 15};
    EXPECT_EQ(-1, TavrCgiInit(nullptr, &cgi));
    EXPECT_EQ(-1, TavrCgiInit("", nullptr));
    EXPECT_EQ(-1, TavrCgiLogin(nullptr, sid, 122, &good));
    EXPECT_EQ(-1, TavrCgiLogin(&cgi, nullptr, 122, &good));
    EXPECT_EQ(-1, TavrCgiLogin(&cgi, sid, 122, nullptr));
    EXPECT_EQ(-1, TavrCgiLogin(&cgi, sid, 122, &nobody));
    EXPECT_EQ(-1, TavrCgiLogin(&cgi, sid, 122, &noPassword));
    EXPECT_EQ(-1, TavrCgiTestLoginEx2(nullptr, nullptr, nullptr, 0));
    EXPECT_EQ(-1, TavrCgiTestLoginEx2(&nobody, nullptr, nullptr, 0));
    EXPECT_EQ(-1, TavrCgiTestLoginEx2(&noPassword, nullptr, nullptr, 0));
    EXPECT_EQ(-1, TavrCgiLoadInCookies(nullptr));
    EXPECT_STREQ("none", TavrCgiGetOption(nullptr, 2, "none"));
    TavrCgiFree(nullptr);
    ExpectNothingWritten();
}

} // namespace
