#include "web/facts.h"

#include "linux/request.h"

namespace tavr::web
{

bool Demanded(const Account& /*account*/)
{
    return false; // the policy has no writer yet, so it demands nothing of anybody
}

EnrolmentState LearnFacts(const Account& account)
{
    EnrolmentState state = Settle(account);
    if (state.enrolment != Enrolment::Fault) {
        CurrentRequest().facts =
            Request::Facts{account.uid, state.enrolment == Enrolment::Yes, Demanded(account)};
    }
    return state;
}

} // namespace tavr::web
