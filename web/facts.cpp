#include "web/facts.h"

#include "linux/policy_file.h"
#include "linux/request.h"
#include "otp/OTPEnforceHandler.h"

#include <syslog.h>

namespace tavr::web
{

namespace
{

constexpr int kTries = 5; // while somebody writes the picks' file who knows no lock

bool PicksCount()
{
    return PolicyOption() == "custom";
}

} // namespace

// The library's "no" may rest on something that could not be looked up, or on half a file.
std::optional<bool> Demanded(const Account& account)
{
    Request& request = CurrentRequest();
    const Fault before = request.fault;
    for (int i = 0; i < kTries; ++i) {
        const PolicyReading policy;
        if ((policy.Usable() || !PicksCount()) && OTPEnforceIsEnabled(account.name)) {
            request.fault = before; // a "yes" needs nothing more
            return true;
        }
        const bool unchanged = policy.Unchanged();
        if (request.fault == before && (!PicksCount() || (policy.Usable() && unchanged))) {
            return false;
        }
        if (!policy.Usable() || unchanged) {
            break;
        }
    }
    syslog(LOG_ERR, "whether %s must use two-step sign-in cannot be told: %s", account.name.c_str(),
           request.fault == before ? "the picks cannot be used" : FaultText(request.fault));
    request.fault = Fault::PolicyUnavailable;
    return std::nullopt;
}

EnrolmentState LearnFacts(const Account& account)
{
    EnrolmentState state = Settle(account);
    if (state.enrolment == Enrolment::Fault) {
        return state;
    }
    const std::optional<bool> demanded = Demanded(account);
    if (!demanded) {
        return {Enrolment::Fault, Fault::PolicyUnavailable};
    }
    CurrentRequest().facts = Request::Facts{account.uid, state.enrolment == Enrolment::Yes, *demanded};
    return state;
}

} // namespace tavr::web
