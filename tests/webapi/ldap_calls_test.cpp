// Calls about accounts of a directory, and who has to wait for it.
#include "tests/support/directory.h"
#include "tests/support/running_service.h"

#include <optional>

namespace tavr::test
{
namespace
{

class LdapCalls : public ServiceTest
{
protected:
    void SetUp() override
    {
        ServiceTest::SetUp();
        if (!Directory::CanStart()) {
            GTEST_SKIP() << "there is no slapd on this machine: run scripts/setup test first";
        }
        directory_.emplace();
        WriteSettings(directory_->SettingsLines());
        Directory::WriteSecret();
        service_.emplace();
        service_->UntilServed();
    }

    std::optional<Directory> directory_;
    std::optional<Service> service_;
};

TEST_F(LdapCalls, TellWhatTheDirectoryKnowsOfAnAccount)
{
    const Json::Value lea = Ask(GetRequest(" LEA@office.example"));
    EXPECT_TRUE(lea["success"].asBool());
    EXPECT_EQ(3U, lea["data"].size());
    EXPECT_EQ("lea@home.example", lea["data"]["email"].asString());
    EXPECT_EQ("lea@office.example", lea["data"]["name"].asString());
    EXPECT_EQ(2000000000, lea["data"]["uid"].asInt64());
    EXPECT_EQ("", Ask(GetRequest("nomail@office.example"))["data"]["email"].asString());
    for (const char* name :
         {"nobody@office.example", "twin@office.example", "lea@other.example", "*@office.example.x"}) {
        EXPECT_EQ(20, CodeIn(Ask(GetRequest(name)))) << name;
    }
    directory_->server.Stop();
    EXPECT_EQ(21, CodeIn(Ask(GetRequest("lea@office.example"))));
    EXPECT_EQ("alice", Ask(GetRequest("alice"))["data"]["name"].asString());
}

TEST_F(LdapCalls, KeepNobodyElseWaitingForADirectoryThatHangs)
{
    directory_->server.Pause(true);
    const Descriptor waiting = ConnectRaw();
    SendRaw(waiting, Frame(GetRequest("lea@office.example")));
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ("alice", Ask(GetRequest("alice"))["data"]["name"].asString());
    }
    directory_->server.Pause(false);
    EXPECT_EQ("lea@home.example", AnswerIn(ReceiveAll(waiting))["data"]["email"].asString());
}

} // namespace
} // namespace tavr::test
