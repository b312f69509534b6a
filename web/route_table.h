// All routes: who may ask, what a body must hold, who answers. Whatever does not stand here is refused. A new
// route gets a row in tests/web/routes_test.cpp, which does not compile without one.
#pragma once

#include "web/handlers.h"
#include "web/route.h"

namespace tavr::web
{

inline constexpr Member kUser = {"user", 256};
inline constexpr Member kPassword = {"password", 1024};
inline constexpr Member kCode = {"code", kLargestBody}; // of any length a wrong one, not a malformed request
inline constexpr Member kCodeIfEnrolled = {"code", kLargestBody, Form::Text, true};
inline constexpr Member kAccountName = {"account_name", 64};
inline constexpr Member kKey = {"key", 64, Form::Base32Key};
inline constexpr Member kMail = {"mail", 254};

inline constexpr Member kOption = {"option", 16};
inline constexpr Member kType = {"type", 16};

inline constexpr Member kSignIn[] = {kUser, kPassword};
inline constexpr Member kSignInCode[] = {kCode};
inline constexpr Member kQr[] = {kPassword, kAccountName};
inline constexpr Member kLabel[] = {kPassword, kKey, kAccountName};
inline constexpr Member kRenew[] = {kPassword, kCode, kAccountName};
inline constexpr Member kConfirm[] = {kPassword, kCode};
inline constexpr Member kSaveMail[] = {kPassword, kMail, kCodeIfEnrolled};
inline constexpr Member kDisable[] = {kPassword, kCode};
inline constexpr Member kSaveOption[] = {kOption};
inline constexpr Member kSavePicks[] = {kType}; // and the array `settings`, which the handler looks at
inline constexpr Member kReset[] = {kUser, kPassword};

inline constexpr unsigned kPending = kCodePending | kEnrolmentPending;
inline constexpr unsigned kSetup = kSignedIn | kEnrolmentPending;
inline constexpr bool kToken = true;
inline constexpr bool kNoToken = false;
inline constexpr const char* kNotSignedIn = nullptr;

inline constexpr Route kRoutes[] = {
    {"POST", "/api/signin", kNobody | kPending | kSignedIn, kNoToken, kNotSignedIn, kLargestBody, kSignIn,
     SignIn},
    {"POST", "/api/signin/code", kCodePending, kToken, "no_pending_signin", kLargestBody, kSignInCode,
     SignInCode},
    {"POST",
     "/api/signin/emergency",
     kCodePending,
     kToken,
     "no_pending_signin",
     kLargestBody,
     {},
     SignInEmergency},
    {"POST", "/api/signout", kPending | kSignedIn, kToken, kNotSignedIn, kLargestBody, {}, SignOut},
    {"GET", "/api/session", kPending | kSignedIn, kNoToken, kNotSignedIn, 0, {}, ShowSession},
    {"POST", "/api/otp/qr", kSetup, kToken, kNotSignedIn, kLargestBody, kQr, WizardQr},
    {"POST", "/api/otp/renew", kSignedIn, kToken, kNotSignedIn, kLargestBody, kRenew, WizardRenew},
    {"POST", "/api/otp/label", kSetup, kToken, kNotSignedIn, kLargestBody, kLabel, WizardLabel},
    {"POST", "/api/otp/confirm", kSetup, kToken, kNotSignedIn, kLargestBody, kConfirm, WizardConfirm},
    {"POST", "/api/otp/mail", kSetup, kToken, kNotSignedIn, kLargestBody, kSaveMail, WizardMail},
    {"POST", "/api/otp/disable", kSignedIn, kToken, kNotSignedIn, kLargestBody, kDisable, WizardDisable},
    {"GET", "/api/otp/status", kSetup, kNoToken, kNotSignedIn, 0, {}, WizardStatus},
    {"GET", "/api/enforce/option", kAdministrator, kNoToken, kNotSignedIn, 0, {}, ShowOption},
    {"POST", "/api/enforce/option", kAdministrator, kToken, kNotSignedIn, kLargestBody, kSaveOption,
     SaveOption},
    {"GET", "/api/enforce/list", kAdministrator, kNoToken, kNotSignedIn, 0, {}, ListPicks},
    {"POST", "/api/enforce/set", kAdministrator, kToken, kNotSignedIn, kLargestBody, kSavePicks, SavePicks},
    {"POST", "/api/admin/otp_reset", kAdministrator, kToken, kNotSignedIn, kLargestBody, kReset, ResetOtp},
};

} // namespace tavr::web
