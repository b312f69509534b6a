#include "cli/commands.h"
#include "cli/console.h"
#include "linux/attempts.h"
#include "linux/audit.h"
#include "linux/enrolment.h"
#include "linux/verifier.h"

namespace tavr::console
{

void ShowOtpStatus(const std::string& typedName)
{
    const Account account = KnownAccount(typedName);
    const EnrolmentState state = Settle(account);
    if (state.enrolment == Enrolment::Fault) {
        throw Failure(Exit::Failed, "otp_unavailable",
                      "it cannot be told whether " + account.name +
                          " is enrolled: " + FaultText(state.fault));
    }
    const bool enrolled = state.enrolment == Enrolment::Yes;
    const bool closed = SecondStepOf(account.uid).closed;
    Say(account.name +
        (enrolled ? ": enrolled, " + std::to_string(state.codesLeft) + " emergency codes left"
                  : ": not enrolled") +
        (closed ? ", closed by too many wrong codes" : ""));
    Json::Value answer;
    answer["user"] = account.name;
    answer["uid"] = account.uid;
    answer["enrolled"] = enrolled;
    answer["closed"] = closed;
    if (enrolled) {
        answer["codes_left"] = state.codesLeft;
    }
    Answer(std::move(answer));
}

void ResetOtp(const std::string& typedName)
{
    const Account account = KnownAccount(typedName);
    Confirm("Remove the second step of " + account.name + "? The user has to enrol anew.");
    const Reset reset = ResetSecondStep(account);
    if (reset.state.enrolment != Enrolment::No) {
        throw Failure(Exit::Failed, "otp_unavailable",
                      account.name +
                          " is marked and its sessions have ended, but the secret is not removed yet: " +
                          FaultText(reset.state.fault));
    }
    Say("removed the second step of " + account.name + " and ended its sessions");
    Json::Value answer;
    answer["user"] = account.name;
    answer["uid"] = account.uid;
    answer["sessions_ended"] = Json::Int64{reset.sessionsEnded};
    Answer(std::move(answer));
}

void OpenOtp(const std::string& typedName)
{
    const Account account = KnownAccount(typedName);
    const bool opened = OpenSecondStep(account);
    if (opened) {
        Audit(AuditEvent::SecondStepOpened, account);
    }
    Say(opened ? "opened the second step of " + account.name
               : "the second step of " + account.name + " was neither closed nor waiting");
    Json::Value answer;
    answer["user"] = account.name;
    answer["opened"] = opened;
    Answer(std::move(answer));
}

// The code is the answer: it goes to standard output and nowhere else.
void MakeOtpCode(const std::string& typedName, int minutes)
{
    const Account account = KnownAccount(typedName);
    const EnrolmentState state = Settle(account);
    if (state.enrolment == Enrolment::Fault) {
        throw Failure(Exit::Failed, "otp_unavailable",
                      "it cannot be told whether " + account.name +
                          " is enrolled: " + FaultText(state.fault));
    }
    if (state.enrolment == Enrolment::No) {
        throw Failure(Exit::NotAllowed, "not_enrolled", account.name + " is not enrolled and needs no code");
    }
    const std::string code = MintTemporaryCode(account, minutes);
    Audit(AuditEvent::TemporaryCodeMade, account);
    Say(code);
    Json::Value answer;
    answer["user"] = account.name;
    answer["code"] = code;
    answer["minutes"] = minutes;
    Answer(std::move(answer));
}

} // namespace tavr::console
