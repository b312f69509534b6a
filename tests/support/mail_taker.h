// A mail server that takes everything, fast and without TLS, and tells its test what happens at the moment it
// does.
#pragma once

#include "linux/descriptor.h"

#include <functional>
#include <latch>
#include <list>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace tavr::test
{

class MailTaker
{
public:
    // Called by the server's thread: with each command (its first word) before it is answered, with "taken"
    // when a whole message has come and is not answered, and with "answered" when it has been.
    using Hook = std::function<void(std::string_view moment)>;

    explicit MailTaker(Hook hook = [](std::string_view) {}); // throws std::runtime_error
    ~MailTaker();
    MailTaker(const MailTaker&) = delete;
    MailTaker& operator=(const MailTaker&) = delete;

    [[nodiscard]] int Port() const { return port_; }
    void RefuseRecipients(std::string reply); // empty: takes them again

    // Each recipient's mails, by their Message-IDs, in the order of their coming.
    std::map<std::string, std::vector<std::string>> Taken();
    size_t Count(); // mails
    std::string LastMessage();

private:
    struct Caller {
        Descriptor socket;
        std::string input;
        std::string recipient;
        bool inMessage = false;
    };

    void Run();
    void Tell(std::string_view moment);
    bool Serve(Caller& caller);
    void OnCommand(Caller& caller, std::string_view line);
    void OnMessage(Caller& caller, std::string_view message);

    Hook hook_;
    Descriptor listener_;
    Descriptor end_[2]; // a pipe: closed at the end
    int port_ = 0;
    std::list<Caller> callers_; // the thread's
    std::mutex mutex_;          // of what follows
    std::string refusal_;
    std::map<std::string, std::vector<std::string>> taken_;
    size_t count_ = 0;
    std::string last_;
    std::latch started_{1};
    std::thread thread_;
};

} // namespace tavr::test
