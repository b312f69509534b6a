#include "webapi/queue_runner.h"

#include "linux/clock.h"

#include <syslog.h>

#include <algorithm>
#include <memory>
#include <utility>

namespace tavr::webapi
{

namespace
{

using std::chrono::milliseconds;

constexpr size_t kTakenAtOnce = 64;
constexpr int64_t kLookAgainSeconds = 60; // while something waits
constexpr int64_t kPauseSeconds = 60;     // after a server could not be reached
constexpr std::chrono::seconds kStoreAgain{5};

} // namespace

// While results cannot be stored, no more are made: each would be a mail that a kill repeats.
bool QueueRunner::HasRoom() const
{
    return results_.size() < 2 * kStoredAtOnce;
}

bool QueueRunner::IsTimeToStore() const
{
    return !results_.empty() && Clock::now() >= storeAt_;
}

milliseconds QueueRunner::GoOn()
{
    if (IsTimeToStore()) {
        Store();
    }
    const int64_t now = BootSeconds();
    while (!stopping_ && now >= pausedUntil_ && HasRoom() && running_ < kMostAtOnce) {
        if (taken_.size() < kMostAtOnce && lookAt_ >= 0 && lookAt_ <= now) {
            Look();
        }
        if (taken_.empty()) {
            break;
        }
        const QueuedMail mail = std::move(taken_.front());
        taken_.pop_front();
        Start(mail);
    }
    milliseconds next(-1);
    const auto sooner = [&next](milliseconds time) {
        next = next.count() < 0 ? time : std::min(next, std::max(time, milliseconds(0)));
    };
    if (!results_.empty()) {
        sooner(std::chrono::ceil<milliseconds>(storeAt_ - Clock::now()));
    }
    if (!stopping_ && running_ < kMostAtOnce && HasRoom() && (lookAt_ >= 0 || !taken_.empty())) {
        sooner(milliseconds(1000 * (std::max(taken_.empty() ? lookAt_ : 0, pausedUntil_) - now)));
    }
    return next;
}

void QueueRunner::Look()
{
    try {
        std::vector<QueuedMail> due = DueMails(kTakenAtOnce);
        const bool more = due.size() == kTakenAtOnce;
        std::move(due.begin(), due.end(), std::back_inserter(taken_));
        mayHaveChanged_ = true;
        const int64_t seconds = more ? 0 : SecondsUntilDue();
        lookAt_ = seconds < 0 ? -1
                  : more      ? 0
                              : BootSeconds() + std::clamp<int64_t>(seconds, 1, kLookAgainSeconds);
    } catch (const std::exception& error) {
        syslog(LOG_ERR, "mail queue: %s", error.what());
        lookAt_ = BootSeconds() + kLookAgainSeconds;
    }
}

void QueueRunner::Start(const QueuedMail& mail)
{
    if (std::exchange(mayHaveChanged_, false)) {
        server_ = NotificationServer();
    }
    if (!server_) {
        Add({mail.id, false, true, 0, "no mail server is set up"});
        return;
    }
    try {
        const auto transfer = std::make_shared<MailTransfer>(
            *server_, Mail{mail.to, mail.subject, mail.html, mail.messageId, mail.date});
        transfer->KeepConnection();
        transfers_.Start(transfer->Handle(), [this, transfer, id = mail.id](CURLcode result) {
            --running_;
            OnDone(id, transfer->Finish(result));
        });
        ++running_;
    } catch (const std::invalid_argument& error) {
        Add({mail.id, false, false, 0, error.what()});
    } catch (const std::exception& error) {
        Add({mail.id, false, true, 0, error.what()});
    }
}

void QueueRunner::OnDone(int64_t id, const MailOutcome& outcome)
{
    if (outcome.delivery == Delivery::Later && outcome.reply == 0) {
        pausedUntil_ = BootSeconds() + kPauseSeconds;
        mayHaveChanged_ = true;
    }
    Add({id, outcome.delivery == Delivery::Sent, outcome.delivery == Delivery::Later, outcome.reply,
         outcome.text});
}

void QueueRunner::Add(QueueResult result)
{
    results_.push_back(std::move(result));
    if (results_.size() == kStoredAtOnce || running_ == 0) {
        storeAt_ = Clock::now();
    } else if (results_.size() == 1) {
        storeAt_ = Clock::now() + kStoreAfter;
    }
}

void QueueRunner::Store()
{
    try {
        StoreResults(results_);
        results_.clear();
        // One that is to be tried again has its time only now.
        lookAt_ = lookAt_ == 0 ? 0 : BootSeconds();
    } catch (const std::exception& error) {
        syslog(LOG_ERR, "mail queue: %s", error.what());
        storeAt_ = Clock::now() + kStoreAgain;
    }
}

} // namespace tavr::webapi
