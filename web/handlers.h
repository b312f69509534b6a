// The handlers of all routes. Each parses nothing (its route did), calls, and answers.
#pragma once

#include "linux/verifier.h"
#include "web/route.h"

class OTPWizardHandler;

namespace tavr::web
{

// signin.cpp
Answer SignIn(Call& call);
Answer SignInCode(Call& call);

// Empty when the code of the session's account was accepted. A wrong one comes with a hint about the phone's
// clock; so never for a half sign-in that waits for its code.
std::optional<Answer> RefuseCode(const Session& session, const char* code);
std::optional<Answer> RefuseCodeAnswer(const CodeAnswer& answer);
void AddClockHint(const Session& session, Json::Value& body);

// emergency.cpp
Answer SignInEmergency(Call& call);

// session_routes.cpp
Answer ShowSession(Call& call);
Answer SignOut(Call& call);

// wizard.cpp
Answer WizardQr(Call& call);
Answer WizardRenew(Call& call);
Answer WizardLabel(Call& call);
Answer WizardConfirm(Call& call);
Answer WizardMail(Call& call);
Answer WizardStatus(Call& call);
Answer WizardDisable(Call& call);

// Empty when the password in the body is that of the session's account, which `handler` then keeps. Passwords
// in a session have a counter of their own, which nobody outside can move.
std::optional<Answer> RefusePassword(OTPWizardHandler& handler, const Call& call);

// enforce.cpp
Answer ShowOption(Call& call);
Answer SaveOption(Call& call);
Answer ListPicks(Call& call);
Answer SavePicks(Call& call);
Answer ResetOtp(Call& call);

} // namespace tavr::web
