// Sends what waits in the mail queue (linux/mail_queue.h) while callers are served.
//
// A few mails go at the same time, over connections that are used again. Results are stored several in one
// commit, and no later than kStoreAfter: what the server has taken and is not stored yet would be sent again
// after a kill.
#pragma once

#include "linux/mail_queue.h"
#include "linux/mail_settings.h"
#include "webapi/smtp.h"
#include "webapi/transfers.h"

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

namespace tavr::webapi
{

class QueueRunner
{
public:
    static constexpr size_t kMostAtOnce = 8; // more than that many connections annoy mail servers
    static constexpr size_t kStoredAtOnce = 32;
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

    // Does what is due. Gives the time until it has to be called again; -1: not before it is woken or a
    // transfer is done. Never throws: what cannot be read or stored now is tried again, and logged.
    std::chrono::milliseconds GoOn();

    void Stop() { stopping_ = true; } // begins no more mails
    [[nodiscard]] bool IsIdle() const { return running_ == 0 && results_.empty(); }

private:
    using Clock = std::chrono::steady_clock;

    void Look();
    void Start(const QueuedMail& mail);
    void OnDone(int64_t id, const MailOutcome& outcome);
    void Add(QueueResult result);
    void Store();
    [[nodiscard]] bool HasRoom() const;
    [[nodiscard]] bool IsTimeToStore() const;

    Transfers& transfers_;
    bool stopping_ = false;

    // BootSeconds. Queued mails are looked for at the first, and begun from the second on: a server that
    // cannot be reached is not asked anew for each of ten thousand mails. A negative time to look: not before
    // Wake.
    int64_t lookAt_ = 0;
    int64_t pausedUntil_ = 0;

    std::optional<MailServer> server_;
    bool mayHaveChanged_ = true;   // the server's settings, since they were read
    std::deque<QueuedMail> taken_; // out of the queue, not begun
    size_t running_ = 0;

    std::vector<QueueResult> results_;
    Clock::time_point storeAt_; // of these
};

} // namespace tavr::webapi
