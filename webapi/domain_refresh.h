// The copy of the domain's directory is kept in step with it, in the background.
#pragma once

#include "linux/domain_copy.h"
#include "webapi/transfers.h"

#include <atomic>
#include <cstdint>
#include <vector>

namespace tavr::webapi
{

class DomainRefresh
{
public:
    explicit DomainRefresh(Transfers& transfers) : transfers_(transfers) {}

    // Begins a refresh when it is time. Gives the seconds until it has to be called again; negative: not
    // before the transfers have something to tell. Never throws: what cannot be done now is tried later, and
    // logged.
    int64_t GoOn();

    void Stop() { stopped_ = true; } // one that is under way ends with its next page

private:
    void Begin(CopyPlan plan, std::vector<CopiedDomain> due);
    [[nodiscard]] static int64_t SecondsUntilDue(const CopyPlan& plan, std::vector<CopiedDomain>& due);

    Transfers& transfers_;
    std::atomic<bool> stopped_ = false;
    bool isRunning_ = false;
    int64_t next_ = 0; // BootSeconds
};

} // namespace tavr::webapi
