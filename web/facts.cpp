#include "web/facts.h"

#include "linux/policy_file.h"
#include "linux/request.h"
#include "otp/OTPEnforceHandler.h"

namespace tavr::web
{

std::optional<bool> Demanded(const Account& account)
{
    return AskPolicy(OTPEnforceIsEnabled, account.name);
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
