#include "webapi/domain_refresh.h"

#include "linux/clock.h"

#include <syslog.h>

#include <algorithm>
#include <exception>
#include <utility>

namespace tavr::webapi
{

namespace
{

constexpr int64_t kNoDomainSeconds = 60 * 60; // until the settings are looked at again
constexpr int64_t kRetrySeconds = 5 * 60;     // after a failure
constexpr int64_t kSoonSeconds = 60;          // when another one is at it, or nothing is known

void Refresh(CopyRunner& runner, const CopiedDomain& domain, const std::atomic<bool>& stopped)
{
    try {
        runner.Refresh(domain, [&](int64_t) { return !stopped; });
    } catch (const Interrupted&) {
    } catch (const std::exception& error) {
        syslog(LOG_ERR, "the copy of the domain %s stays as it is: %s", domain.name.c_str(), error.what());
    }
}

} // namespace

// The time of the last try counts, so a restart does not begin anew.
int64_t DomainRefresh::SecondsUntilDue(const CopyPlan& plan, std::vector<CopiedDomain>& due)
{
    const std::vector<CopyState> states = CopyStates();
    const int64_t now = WallSeconds();
    int64_t soonest = plan.refreshSeconds;
    for (const CopiedDomain& domain : plan.domains) {
        const auto state = std::find_if(states.begin(), states.end(),
                                        [&](const CopyState& one) { return one.domain == domain.name; });
        int64_t left = 0;
        if (state != states.end() && state->tried <= now) {
            const int64_t pause =
                state->failure.empty() ? plan.refreshSeconds : std::min(kRetrySeconds, plan.refreshSeconds);
            left = state->tried + pause - now;
        }
        if (left <= 0) {
            due.push_back(domain);
        }
        soonest = std::min(soonest, std::max<int64_t>(left, 0));
    }
    return soonest;
}

int64_t DomainRefresh::GoOn()
{
    const int64_t now = BootSeconds();
    if (isRunning_ || stopped_) {
        return -1;
    }
    if (now < next_) {
        return next_ - now;
    }
    next_ = now + kSoonSeconds;
    try {
        CopyPlan plan = ReadCopyPlan();
        if (plan.domains.empty()) {
            next_ = now + kNoDomainSeconds;
        } else {
            std::vector<CopiedDomain> due;
            const int64_t left = SecondsUntilDue(plan, due);
            if (!due.empty()) {
                Begin(std::move(plan), std::move(due));
                return -1;
            }
            next_ = now + std::max<int64_t>(left, 1);
        }
    } catch (const std::exception& error) {
        syslog(LOG_ERR, "the domain cannot be copied: %s", error.what());
    }
    return next_ - now;
}

void DomainRefresh::Begin(CopyPlan plan, std::vector<CopiedDomain> due)
{
    const auto work = [this, plan = std::move(plan), due = std::move(due)] {
        try {
            CopyRunner runner;
            if (!runner) {
                return; // the console is at it
            }
            runner.KeepOnly(plan.domains);
            for (const CopiedDomain& domain : due) {
                Refresh(runner, domain, stopped_);
            }
        } catch (const std::exception& error) {
            syslog(LOG_ERR, "the domain cannot be copied: %s", error.what());
        }
    };
    transfers_.Start(work, [this] {
        isRunning_ = false;
        next_ = BootSeconds() + kSoonSeconds;
    });
    isRunning_ = true;
}

} // namespace tavr::webapi
