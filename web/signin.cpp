#include "web/facts.h"
#include "web/handlers.h"

#include "linux/accounts.h"
#include "linux/attempts.h"
#include "linux/audit.h"
#include "linux/names.h"
#include "linux/request.h"
#include "linux/verifier.h"
#include "otp/OTPWizardHandler.h"

#include <syslog.h>

#include <stdexcept>

namespace tavr::web
{

namespace
{

// The account whose password it is. Empty when refused, and when that could not be told: the request then
// holds a fault.
std::optional<Account> ComparePassword(const char* user, const char* password)
{
    if (!CanonicalName(user)) {
        // Not for the library, which logs such a name as it stands. It costs the work of a wrong password
        // too.
        CheckPassword({}, password);
        return std::nullopt;
    }
    const Request& request = CurrentRequest();
    OTPWizardHandler handler;
    const bool accepted = handler.AuthUserAccount(user, password, false, true);
    if (accepted && request.passwordOf) {
        std::optional<Account> account = FindAccount(*request.passwordOf);
        const bool stillRight = account && account->generation == request.passwordGeneration;
        return stillRight ? account : std::nullopt;
    }
    if (!request.passwordCompared && request.fault == Fault::None) {
        throw std::runtime_error("the password could not be compared");
    }
    return std::nullopt;
}

// Counted before it is compared; a right one, and one that could not be compared, is given back.
std::optional<Account> TestPassword(const PasswordTry& counted, const char* user, const char* password)
{
    std::optional<Account> account = ComparePassword(user, password);
    if (account || CurrentRequest().fault != Fault::None) {
        GiveBack(counted);
    }
    return account;
}

// A sign-in replaces whatever the cookies stood for.
void EndFormer(const Call& call, Answer& answer)
{
    for (const std::optional<Session>* session : {&call.live, &call.pending}) {
        if (*session) {
            EndSession(**session);
        }
    }
    const bool signedIn = answer.body["state"] == "signed_in";
    ClearCookie(answer, call.request, signedIn ? "pending" : "sid");
}

Answer WrongPassword(const Call& call)
{
    Audit(AuditEvent::PasswordRefused, call.Text("user"), "signin");
    return Refusal(401, "bad_credentials");
}

Answer HalfWay(const Call& call, const Account& account, SessionState state)
{
    const std::string identifier = OpenPending(account, state);
    if (identifier.empty()) {
        return WrongPassword(call); // it was right a moment ago
    }
    Answer answer = Success();
    answer.body["state"] = TextOf(state);
    answer.body["user"] = account.name;
    answer.body["TavrToken"] = TokenOf(identifier);
    SetCookie(answer, call.request, "pending", identifier);
    EndFormer(call, answer);
    return answer;
}

Answer SignedIn(const Call& call, const Account& account)
{
    const std::string& identifier = CurrentRequest().newSid;
    Answer answer = Success();
    answer.body["state"] = "signed_in";
    answer.body["user"] = account.name;
    answer.body["TavrToken"] = TokenOf(identifier);
    SetCookie(answer, call.request, "sid", identifier);
    EndFormer(call, answer);
    return answer;
}

} // namespace

Answer SignIn(Call& call)
{
    const PasswordTry counted = CountPassword(call.Text("user"), call.request.clientAddress);
    if (counted.waitSeconds > 0) {
        Audit(AuditEvent::PasswordThrottled, call.Text("user"), "signin");
        return Later(counted.waitSeconds);
    }
    const std::optional<Account> account = TestPassword(counted, call.Text("user"), call.Text("password"));
    if (CurrentRequest().fault != Fault::None) {
        return Unavailable();
    }
    if (!account) {
        return WrongPassword(call);
    }
    if (LearnFacts(*account).enrolment == Enrolment::Fault) {
        return Unavailable();
    }
    if (!MakePreferenceDirectory(*account)) {
        syslog(LOG_ERR, "no preference directory for %s", account->name.c_str());
    }
    const Request::Facts& facts = *CurrentRequest().facts;
    if (facts.enrolled) {
        return HalfWay(call, *account, SessionState::CodeRequired);
    }
    if (facts.demanded) {
        return HalfWay(call, *account, SessionState::EnrolmentRequired);
    }
    switch (OpenSession(*account)) {
    case Grant::Opened:
        return SignedIn(call, *account);
    case Grant::SecondStepMissing:
        return HalfWay(call, *account, SessionState::CodeRequired); // enrolled since the facts were learned
    case Grant::Ended:
        return WrongPassword(call);
    case Grant::Fault:
        break;
    }
    return Unavailable();
}

Answer SignInCode(Call& call)
{
    const FinishedSignIn finished = FinishSignIn(*call.session, call.Text("code"));
    if (std::optional<Answer> refusal = RefuseCodeAnswer(finished.code)) {
        return std::move(*refusal);
    }
    switch (finished.grant) {
    case Grant::Opened:
        return SignedIn(call, call.session->account);
    case Grant::Ended:
        return Refusal(403, "no_pending_signin");
    case Grant::SecondStepMissing: // not with an accepted code
    case Grant::Fault:
        break;
    }
    return Unavailable();
}

std::optional<Answer> RefuseCodeAnswer(const CodeAnswer& answer)
{
    switch (answer.result) {
    case CodeResult::Accepted:
        return std::nullopt;
    case CodeResult::Wrong:
        return Refusal(401, "otp_auth_failed");
    case CodeResult::Used:
        return Refusal(401, "otp_code_used");
    case CodeResult::Throttled:
        return Later(answer.retryAfterSeconds);
    case CodeResult::Closed:
        return Refusal(403, "otp_closed");
    case CodeResult::Fault:
        NoteFault(answer.fault);
        return Unavailable();
    }
    return Unavailable();
}

std::optional<Answer> RefuseCode(const Session& session, const char* code)
{
    const CodeAnswer verdict = VerifyCode(session.account, code);
    std::optional<Answer> refusal = RefuseCodeAnswer(verdict);
    if (refusal && verdict.result == CodeResult::Wrong) {
        AddClockHint(session, refusal->body);
    }
    return refusal;
}

void AddClockHint(const Session& session, Json::Value& body)
{
    if (const std::optional<int> minutes = ClockOffsetMinutes(session.account)) {
        body["clock_ahead_minutes"] = *minutes;
    }
}

} // namespace tavr::web
