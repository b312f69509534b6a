#include "webapi/queue_runner.h"

#include "linux/clock.h"
#include "webapi/smtp.h"

#include <sodium.h>
#include <syslog.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace tavr::webapi
{

namespace
{

using std::chrono::milliseconds;

constexpr size_t kTakenAtOnce = 512;
constexpr int64_t kLookAgainSeconds = 60; // while something waits
constexpr int64_t kPauseSeconds = 60;     // after a server could not be reached
constexpr std::chrono::seconds kStoreAgain{5};
constexpr std::chrono::seconds kStartAgain{5};
constexpr std::chrono::seconds kKeepIdle{5}; // a thread, and its connection

// False: there was no server to decide about it.
bool SendOne(MailSender& sender, QueuedMail& queued, QueueResult& result)
{
    Mail mail{queued.to, queued.subject, std::move(queued.html), queued.messageId, queued.date};
    try {
        sender.Load(mail);
    } catch (const std::invalid_argument& error) {
        result.retry = false;
        result.text = error.what();
        return true;
    }
    sodium_memzero(mail.html.data(), mail.html.size());
    const MailOutcome outcome = sender.Send();
    result.sent = outcome.delivery == Delivery::Sent;
    result.retry = outcome.delivery == Delivery::Later;
    result.reply = outcome.reply;
    result.text = outcome.text;
    return !(result.retry && result.reply == 0);
}

} // namespace

// --- The service's thread ---

milliseconds QueueRunner::GoOn()
{
    const int64_t now = BootSeconds();
    TakeResults();
    if (IsPauseOver(now)) {
        HandOut({});
    }
    if (lookAt_ >= 0 && lookAt_ <= now && HasRoom()) {
        Look(); // first: the threads need not wait for what is stored
    }
    if (!storing_.empty() && Clock::now() >= storeAgainAt_) {
        Store();
    }
    StartSenders();
    return UntilNext();
}

// Those that are to be stored now: when they are many, the first has waited long enough, or no more will
// come.
void QueueRunner::TakeResults()
{
    const std::lock_guard lock(mutex_);
    const bool isTime = desk_.results.size() >= kStoredAtOnce || !desk_.IsBusy() ||
                        Clock::now() >= desk_.firstResultAt + kStoreAfter;
    if (storing_.empty() && isTime) {
        storing_.swap(desk_.results);
    }
}

// Begins a pause where a server could not be reached.
bool QueueRunner::IsPauseOver(int64_t now)
{
    const std::lock_guard lock(mutex_);
    if (!desk_.unreachable) {
        pausedUntil_ = -1;
        return false;
    }
    if (pausedUntil_ < 0) {
        pausedUntil_ = now + kPauseSeconds;
    }
    desk_.unreachable = pausedUntil_ > now;
    return !desk_.unreachable;
}

bool QueueRunner::HasRoom() const
{
    const std::lock_guard lock(mutex_);
    return !desk_.stopping && !desk_.unreachable && desk_.waiting.size() < desk_.few &&
           desk_.unstored < kMostUnstored;
}

void QueueRunner::Look()
{
    try {
        std::vector<QueuedMail> due = DueMails(kTakenAtOnce);
        const int64_t seconds = due.size() == kTakenAtOnce ? 0 : SecondsUntilDue();
        const int64_t soonest = due.empty() ? 1 : 0;
        lookAt_ = seconds < 0 ? -1 : BootSeconds() + std::clamp(seconds, soonest, kLookAgainSeconds);
        if (!due.empty()) {
            HandOut(std::move(due));
        }
    } catch (const std::exception& error) {
        syslog(LOG_ERR, "mail queue: %s", error.what());
        lookAt_ = BootSeconds() + kLookAgainSeconds;
    }
}

// These and those that wait, with the server as it is set up now.
void QueueRunner::HandOut(std::vector<QueuedMail> mails)
{
    const std::optional<MailServer> server = NotificationServer();
    const std::lock_guard lock(mutex_);
    if (!mails.empty()) {
        desk_.few = 1 + mails.size() / 2;
    }
    std::move(mails.begin(), mails.end(), std::back_inserter(desk_.waiting));
    if (!server) {
        for (const QueuedMail& mail : desk_.waiting) {
            storing_.push_back({mail.id, false, true, 0, "no mail server is set up"});
        }
        desk_.unstored += desk_.waiting.size();
        desk_.waiting.clear();
    } else if (!desk_.server || *desk_.server != *server) {
        desk_.server = std::make_shared<const MailServer>(*server);
    }
    work_.notify_all();
}

void QueueRunner::Store()
{
    try {
        StoreResults(storing_);
        // One that is to be tried again has its time only now.
        lookAt_ = BootSeconds();
    } catch (const std::exception& error) {
        syslog(LOG_ERR, "mail queue: %s", error.what());
        storeAgainAt_ = Clock::now() + kStoreAgain;
        return;
    }
    const std::lock_guard lock(mutex_);
    desk_.unstored -= storing_.size();
    storing_.clear();
    work_.notify_all();
}

void QueueRunner::StartSenders()
{
    size_t wanted = 0;
    {
        const std::lock_guard lock(mutex_);
        if (!desk_.stopping && !desk_.unreachable && desk_.waiting.size() > desk_.idle) {
            wanted = desk_.waiting.size() - desk_.idle;
        }
        if (senders_ == 0 && desk_.waiting.empty()) {
            desk_.server.reset(); // its password is not kept for nothing
        }
    }
    try {
        for (; wanted > 0 && senders_ < kMostAtOnce; --wanted) {
            transfers_.Start([this] { SendThem(); }, [this] { --senders_; });
            ++senders_;
        }
    } catch (const std::exception& error) {
        syslog(LOG_ERR, "mail queue: %s", error.what());
    }
}

milliseconds QueueRunner::UntilNext() const
{
    milliseconds next(-1);
    const auto sooner = [&next](milliseconds time) {
        time = std::max(time, milliseconds(0));
        next = next.count() < 0 ? time : std::min(next, time);
    };
    const auto until = [](Clock::time_point time) {
        return std::chrono::ceil<milliseconds>(time - Clock::now());
    };
    const int64_t now = BootSeconds();
    const std::lock_guard lock(mutex_);
    if (!storing_.empty()) {
        sooner(until(storeAgainAt_));
    } else if (!desk_.results.empty()) {
        sooner(until(desk_.firstResultAt + kStoreAfter));
    } else if (desk_.sending > 0) {
        sooner(kStoreAfter);
    }
    if (desk_.stopping) {
        return next;
    }
    if (desk_.unreachable) {
        sooner(milliseconds(1000 * (pausedUntil_ - now)));
    } else if (senders_ == 0 && !desk_.waiting.empty()) { // no thread could be started
        sooner(kStartAgain);
    } else if (lookAt_ >= 0 && desk_.waiting.size() < desk_.few && desk_.unstored < kMostUnstored) {
        sooner(milliseconds(1000 * (lookAt_ - now)));
    }
    return next;
}

void QueueRunner::Stop()
{
    const std::lock_guard lock(mutex_);
    desk_.stopping = true;
    work_.notify_all();
}

bool QueueRunner::IsIdle() const
{
    const std::lock_guard lock(mutex_);
    return senders_ == 0 && desk_.unstored == 0;
}

// --- The threads that send ---

void QueueRunner::SendThem()
{
    Server server;
    std::unique_ptr<MailSender> sender;
    while (std::optional<Task> task = Take()) {
        QueueResult result{task->mail.id, false, true, 0, ""};
        bool reached = true;
        try {
            if (!sender || task->server != server) {
                server = task->server;
                sender = std::make_unique<MailSender>(*server);
            }
            reached = SendOne(*sender, task->mail, result);
        } catch (const std::exception& error) {
            sender.reset();
            result.text = error.what();
        }
        Give(std::move(result), reached);
    }
}

std::optional<QueueRunner::Task> QueueRunner::Take()
{
    std::unique_lock lock(mutex_);
    ++desk_.idle;
    const bool isTime = work_.wait_for(lock, kKeepIdle, [this] {
        return desk_.stopping ||
               (!desk_.waiting.empty() && !desk_.unreachable && desk_.unstored < kMostUnstored);
    });
    --desk_.idle;
    if (!isTime || desk_.stopping) {
        return std::nullopt;
    }
    Task task{desk_.server, std::move(desk_.waiting.front())};
    desk_.waiting.pop_front();
    ++desk_.sending;
    if (desk_.waiting.size() + 1 == desk_.few) {
        transfers_.Ring();
    }
    return task;
}

void QueueRunner::Give(QueueResult result, bool reached)
{
    const std::lock_guard lock(mutex_);
    if (desk_.results.empty()) {
        desk_.firstResultAt = Clock::now();
    }
    desk_.results.push_back(std::move(result));
    ++desk_.unstored;
    --desk_.sending;
    desk_.unreachable = desk_.unreachable || !reached;
    if (desk_.results.size() == kStoredAtOnce || !desk_.IsBusy()) {
        transfers_.Ring();
    }
}

} // namespace tavr::webapi
