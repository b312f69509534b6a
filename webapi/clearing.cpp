#include "webapi/clearing.h"

#include "linux/attempts.h"
#include "linux/audit.h"
#include "linux/clock.h"
#include "linux/session.h"

#include <syslog.h>

#include <exception>

namespace tavr::webapi
{

namespace
{

// Nothing waits for it: what is too old is not looked at any more. The web program clears some of it too,
// where it adds more: sessions and tries with each new one, the audit now and then.
constexpr int64_t kClearingSeconds = 60 * 60;

} // namespace

int64_t Clearing::GoOn()
{
    const int64_t now = BootSeconds();
    if (now >= next_) {
        next_ = now + kClearingSeconds;
        try {
            ClearAudit();
            ClearSessions();
            ClearTries();
        } catch (const std::exception& error) {
            syslog(LOG_ERR, "cannot clear old rows: %s", error.what());
        }
    }
    return next_ - now;
}

} // namespace tavr::webapi
