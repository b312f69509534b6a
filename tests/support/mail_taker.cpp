#include "tests/support/mail_taker.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>
#include <utility>

namespace tavr::test
{

namespace
{

constexpr std::string_view kMessageEnd = "\r\n.\r\n";

void Reply(const Descriptor& socket, std::string_view text)
{
    send(socket.Get(), text.data(), text.size(), MSG_NOSIGNAL);
}

// The text between `before` and `after`; empty where they do not stand there.
std::string Between(std::string_view text, std::string_view before, std::string_view after)
{
    const size_t start = text.find(before);
    const size_t end = start == std::string_view::npos ? start : text.find(after, start + before.size());
    return end == std::string_view::npos
               ? ""
               : std::string(text.substr(start + before.size(), end - start - before.size()));
}

// Held while the thread works, and by who forks: a child made in the middle of one of the thread's
// allocations waits for ever at its own first one where the allocator is a sanitizer's.
std::mutex& Working()
{
    static std::mutex working;
    static const int set =
        pthread_atfork([] { Working().lock(); }, [] { Working().unlock(); }, [] { Working().unlock(); });
    static_cast<void>(set);
    return working;
}

} // namespace

MailTaker::MailTaker(Hook hook)
    : hook_(std::move(hook)), listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    int ends[2] = {};
    if (bind(listener_.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener_.Get(), 64) != 0 ||
        getsockname(listener_.Get(), reinterpret_cast<sockaddr*>(&address), &size) != 0 ||
        pipe2(ends, O_CLOEXEC) != 0) {
        throw std::runtime_error("no mail server");
    }
    port_ = ntohs(address.sin_port);
    end_[0] = Descriptor(ends[0]);
    end_[1] = Descriptor(ends[1]);
    Working(); // before anybody can fork
    thread_ = std::thread([this] { Run(); });
    started_.wait();
}

MailTaker::~MailTaker()
{
    end_[1] = Descriptor();
    thread_.join();
}

void MailTaker::RefuseRecipients(std::string reply)
{
    const std::lock_guard lock(mutex_);
    refusal_ = std::move(reply);
}

std::map<std::string, std::vector<std::string>> MailTaker::Taken()
{
    const std::lock_guard lock(mutex_);
    return taken_;
}

size_t MailTaker::Count()
{
    const std::lock_guard lock(mutex_);
    return count_;
}

std::string MailTaker::LastMessage()
{
    const std::lock_guard lock(mutex_);
    return last_;
}

void MailTaker::Run()
{
    std::unique_lock working(Working());
    started_.count_down();
    for (;;) {
        std::vector<pollfd> waiting = {{end_[0].Get(), POLLIN, 0}, {listener_.Get(), POLLIN, 0}};
        for (const Caller& caller : callers_) {
            waiting.push_back({caller.socket.Get(), POLLIN, 0});
        }
        working.unlock();
        poll(waiting.data(), waiting.size(), -1);
        working.lock();
        if (waiting[0].revents != 0) {
            return;
        }
        size_t i = 2;
        for (auto caller = callers_.begin(); caller != callers_.end(); ++i) {
            caller = waiting[i].revents == 0 || Serve(*caller) ? std::next(caller) : callers_.erase(caller);
        }
        if (waiting[1].revents != 0) {
            Descriptor socket(accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
            const int on = 1;
            setsockopt(socket.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            Reply(socket, "220 test\r\n");
            callers_.push_back({std::move(socket), "", "", false});
        }
    }
}

// The test may wait for something in there, and fork meanwhile.
void MailTaker::Tell(std::string_view moment)
{
    Working().unlock();
    hook_(moment);
    Working().lock();
}

// False when the caller is gone.
bool MailTaker::Serve(Caller& caller)
{
    char block[16384];
    const ssize_t got = recv(caller.socket.Get(), block, sizeof block, 0);
    if (got <= 0) {
        return false;
    }
    caller.input.append(block, static_cast<size_t>(got));
    for (;;) {
        const std::string_view end = caller.inMessage ? kMessageEnd : std::string_view("\r\n");
        const size_t found = caller.input.find(end);
        if (found == std::string::npos) {
            return true;
        }
        const std::string text = caller.input.substr(0, found);
        caller.input.erase(0, found + end.size());
        caller.inMessage ? OnMessage(caller, text) : OnCommand(caller, text);
    }
}

void MailTaker::OnCommand(Caller& caller, std::string_view line)
{
    const std::string_view word = line.substr(0, line.find(' '));
    Tell(word);
    if (word == "DATA") {
        caller.inMessage = true;
        Reply(caller.socket, "354 go on\r\n");
        return;
    }
    if (word == "RCPT") {
        caller.recipient = Between(line, "<", ">");
        const std::lock_guard lock(mutex_);
        Reply(caller.socket, refusal_.empty() ? "250 ok\r\n" : refusal_ + "\r\n");
        return;
    }
    Reply(caller.socket, word == "QUIT" ? "221 bye\r\n" : "250 ok\r\n");
}

void MailTaker::OnMessage(Caller& caller, std::string_view message)
{
    caller.inMessage = false;
    {
        const std::lock_guard lock(mutex_);
        taken_[caller.recipient].push_back(Between(message, "Message-ID: ", "\r\n"));
        ++count_;
        last_ = message;
    }
    Tell("taken");
    Reply(caller.socket, "250 taken\r\n");
    Tell("answered");
}

} // namespace tavr::test
