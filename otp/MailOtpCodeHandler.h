// An emergency code by mail, for an account whose owner cannot produce a one-time code.
//
// The handler holds nothing; one object serves any number of requests, one at a time. Outcomes go to the
// caller's JSON object, null or an object before: "err", a key of the message catalogue; "warning", true when
// the code is the last one in the account's secret file, null when a mail was made and it is not; and, by
// HandleSendRequest alone, "success". Nothing is ever taken out of the secret file, so an unchanged file
// gives the same code again.
//
// Needs the right to raise the effective ids to root (real or saved uid 0). Exceptions of the JSON and string
// libraries pass through; the effective ids are then as they were before the call.
#pragma once

#include <json/value.h>

class [[gnu::visibility("default")]] MailOtpCodeHandler
{
public:
    MailOtpCodeHandler();
    ~MailOtpCodeHandler(); // empty, and part of the library.  NOLINT(performance-trivially-destructible)

    // The whole request: finds the recovery address of `userName`, a name as somebody typed it, takes a code
    // and mails it. The result is also "success". "err" is "no_mail_address", "otp_no_emergency_code" or
    // "mail_service_not_enable"; other failures have none.
    bool HandleSendRequest(const char* userName, Json::Value& response);

    // The first code of the account's secret file that deciphers, read as root, into `code` of `codeSize`
    // bytes, cut to fit. False, with "err": the file holds none; without: it cannot be read. `code` is
    // written when one was found, also an empty one, which counts as none.
    bool GetEmergencyCode(const char* user, char* code, unsigned long codeSize, Json::Value& response);

    // Mails `code`: from the account's own default mail account to the address that the user service has for
    // it, else as a notification mail of the system to `mailAddress`. True when the mail service took the
    // mail, or the notification was handed over; its delivery is not waited for.
    bool SendNotificationMail(const char* user, const char* code, const char* mailAddress,
                              Json::Value& response);
};
