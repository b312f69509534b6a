// tavr-webapid as a process of its own, for tests that run as root in a view.
#pragma once

#include "linux/descriptor.h"
#include "tests/support/fresh_server.h"

#include <json/value.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <string_view>

namespace tavr::test
{

// The process, ended with SIGKILL at the end of the scope unless it has been waited for.
class Service
{
public:
    // Runs `prepare` in the child before tavr-webapid takes its place.
    explicit Service(const std::function<void()>& prepare = [] {});
    ~Service();
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    [[nodiscard]] pid_t Pid() const { return pid_; }
    void UntilServed() const; // fails the test when it ends first
    int Wait();               // its exit status; minus the signal that killed it
    int Stop(int signal);     // sends it and waits

private:
    pid_t pid_ = -1;
};

// In the child that becomes the service: how many files it may have open.
void LimitFiles(unsigned long most);

class ServiceTest : public FreshServer
{
protected:
    void SetUp() override; // alice, uid 1026, has an address; bob, uid 1027, has none
};

Descriptor ConnectRaw(); // no descriptor: nobody takes it
void SendRaw(const Descriptor& socket, std::string_view bytes);
std::string ReceiveAll(const Descriptor& socket); // until the service closes
std::string Frame(std::string_view text);
Json::Value AnswerIn(const std::string& bytes); // of one whole frame; null: it is none

Json::Value Ask(const std::string& request); // one exchange by the platform's client; null: it failed
std::string GetRequest(const std::string& user);
int CodeIn(const Json::Value& answer); // of a refusal; 0: it is none

} // namespace tavr::test
