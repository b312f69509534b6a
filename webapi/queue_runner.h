// Sends what waits in the mail queue (linux/mail_queue.h) while callers are served.
//
// A few threads of the transfers send: each builds and sends one mail after the other over a connection of
// its own, which it keeps while mails come. The service's thread alone reads and writes the queue, many mails
// at a time, ahead of them and after them. What a server has taken is stored kStoreAfter later at most: a
// kill before that repeats it. So there are never more than kMostUnstored such mails, and those that are on
// their way.
#pragma once

#include "linux/mail_queue.h"
#include "linux/mail_settings.h"
#include "webapi/transfers.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace tavr::webapi
{

class QueueRunner
{
public:
    static constexpr size_t kMostAtOnce = 8; // more than that many connections annoy mail servers
    static constexpr size_t kStoredAtOnce = 256;
    static constexpr size_t kMostUnstored = 1'000;
    static constexpr std::chrono::milliseconds kStoreAfter{50};

    explicit QueueRunner(Transfers& transfers) : transfers_(transfers) {}
    QueueRunner(const QueueRunner&) = delete;
    QueueRunner& operator=(const QueueRunner&) = delete;

    // Something was queued, or is to be tried at once.
    void Wake()
    {
        lookAt_ = 0;
        pausedUntil_ = 0;
    }

    // Does what is due. Gives the time until it has to be called again, unless the transfers' bell rings
    // before; -1: not before it is woken or the bell rings. Never throws: what cannot be read or stored now
    // is tried again, and logged.
    std::chrono::milliseconds GoOn();

    void Stop(); // begins no more mails
    [[nodiscard]] bool IsIdle() const;

private:
    using Clock = std::chrono::steady_clock;
    using Server = std::shared_ptr<const MailServer>;

    // What the threads have to do, and have done. Under the mutex.
    struct Desk {
        Server server;
        std::deque<QueuedMail> waiting; // out of the queue, not begun
        size_t few = 1; // when less wait, more are looked for: half as many as came the last time
        std::vector<QueueResult> results;
        Clock::time_point firstResultAt;
        size_t unstored = 0;      // `results`, and those that are being stored
        size_t idle = 0;          // threads that wait for a mail
        size_t sending = 0;       // threads that have one
        bool unreachable = false; // a mail found no server: no more are begun
        bool stopping = false;

        // More results are to come soon.
        [[nodiscard]] bool IsBusy() const
        {
            return sending > 0 || (!waiting.empty() && !unreachable && !stopping);
        }
    };
    struct Task {
        Server server;
        QueuedMail mail;
    };

    // The service's thread.
    void TakeResults();
    [[nodiscard]] bool IsPauseOver(int64_t now);
    [[nodiscard]] bool HasRoom() const;
    void Look();
    void HandOut(std::vector<QueuedMail> mails);
    void Store();
    void StartSenders();
    std::chrono::milliseconds UntilNext() const;

    // The others.
    void SendThem();
    std::optional<Task> Take();
    void Give(QueueResult result, bool reached);

    Transfers& transfers_;

    // BootSeconds. Queued mails are looked for at the first (negative: not before Wake). Until the second
    // none is begun: a server that cannot be reached is not asked anew for each of ten thousand mails
    // (negative: it can).
    int64_t lookAt_ = 0;
    int64_t pausedUntil_ = -1;

    size_t senders_ = 0;
    std::vector<QueueResult> storing_;
    Clock::time_point storeAgainAt_; // after a failure

    mutable std::mutex mutex_;
    std::condition_variable work_;
    Desk desk_;
};

} // namespace tavr::webapi
