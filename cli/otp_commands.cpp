#include "cli/commands.h"
#include "cli/console.h"
#include "linux/audit.h"
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

// Marked first: whoever asks after a cut try finishes it.
void ResetOtp(const std::string& typedName)
{
    const Account account = ExistingAccount(typedName);
    Confirm("Remove the second step of " + account.name + "? The user has to enrol anew.");
    const int64_t sessions = MarkSwitchingOff(account.uid);
    const EnrolmentState state = Settle(account);
    Audit(AuditEvent::Reset, account);
    if (state.enrolment != Enrolment::No) {
        throw Failure(Exit::Failed, "otp_unavailable",
                      account.name +
                          " is marked and its sessions have ended, but the secret is not removed yet: " +
                          FaultText(state.fault));
    }
    Say("removed the second step of " + account.name + " and ended its sessions");
    Json::Value answer;
    answer["user"] = account.name;
    answer["uid"] = account.uid;
    answer["sessions_ended"] = Json::Int64{sessions};
    Answer(std::move(answer));
}

} // namespace tavr::console
