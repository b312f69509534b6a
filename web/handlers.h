// The handlers of all routes. Each parses nothing (its route did), calls, and answers.
#pragma once

#include "linux/verifier.h"
#include "web/route.h"

namespace tavr::web
{

// signin.cpp
Answer SignIn(Call& call);
Answer SignInCode(Call& call);

// Empty when the code was accepted.
std::optional<Answer> RefuseCode(const Account& account, const char* code);
std::optional<Answer> RefuseCodeAnswer(const CodeAnswer& answer);

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

} // namespace tavr::web
