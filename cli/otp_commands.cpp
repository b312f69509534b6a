#include "cli/commands.h"
#include "cli/console.h"
#include "linux/enrolment.h"

namespace tavr::console
{

void ShowOtpStatus(const std::string& typedName)
{
    const Account account = ExistingAccount(typedName);
    const EnrolmentState state = Settle(account);
    if (state.enrolment == Enrolment::Fault) {
        throw Failure(Exit::Failed, "otp_unavailable",
                      "it cannot be told whether " + account.name +
                          " is enrolled: " + FaultText(state.fault));
    }
    const bool enrolled = state.enrolment == Enrolment::Yes;
    Say(account.name + (enrolled ? ": enrolled, " + std::to_string(state.codesLeft) + " emergency codes left"
                                 : ": not enrolled"));
    Json::Value answer;
    answer["user"] = account.name;
    answer["uid"] = account.uid;
    answer["enrolled"] = enrolled;
    if (enrolled) {
        answer["codes_left"] = state.codesLeft;
    }
    Answer(std::move(answer));
}

} // namespace tavr::console
