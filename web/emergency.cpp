// An emergency code by mail, for somebody who has typed the password and cannot produce a code.
#include "web/handlers.h"

#include "linux/attempts.h"
#include "linux/audit.h"
#include "linux/cipher.h"
#include "linux/enrolment.h"
#include "linux/ldap_accounts.h"
#include "linux/places.h"
#include "linux/request.h"
#include "linux/user_settings.h"
#include "otp/MailOtpCodeHandler.h"

#include <iterator>

namespace tavr::web
{

namespace
{

// The library's answer in the audit's words.
const char* RefusalDetail(const Json::Value& response)
{
    static constexpr struct {
        const char* err;
        const char* detail;
    } kDetails[] = {
        {"no_mail_address", "no-address"},
        {"otp_no_emergency_code", "no-code"},
        {"mail_service_not_enable", "no-mail-service"},
    };
    for (const auto& [err, detail] : kDetails) {
        if (response["err"] == err) {
            return detail;
        }
    }
    return "failed";
}

bool CanBeRead(const Account& account)
{
    if (!SettleUserSettings(account)) { // where the address stands
        NoteFault(Fault::StateUnavailable);
        return false;
    }
    return Settle(account).enrolment != Enrolment::Fault && NameAccountToCipher(account) == Fault::None;
}

// The library looks for the entry of a directory's account, and not whether that has an address.
bool LacksAddress(const Account& account)
{
    return account.kind == kKindLdap && MailOfLdapAccount(account).empty();
}

// Counted already; what mailed nothing is given back. An exception leaves it counted: nobody knows then
// whether a mail went out.
Answer MailCode(const Account& account, const MailTry& counted)
{
    const Fault& fault = CurrentRequest().fault;
    Answer answer;
    const bool sent = CanBeRead(account) &&
                      MailOtpCodeHandler().HandleSendRequest(account.name.c_str(), answer.body) &&
                      fault != Fault::MailNotQueued;
    if (sent) {
        Audit(AuditEvent::CodeMailed, account, answer.body["warning"] == true ? "last" : "-");
    } else {
        GiveBack(counted);
    }
    if (fault != Fault::None) {
        return Unavailable();
    }
    if (!sent) {
        Audit(AuditEvent::CodeMailRefused, account, RefusalDetail(answer.body));
    }
    return answer;
}

} // namespace

Answer SignInEmergency(Call& call)
{
    const Account& account = call.session->account;
    if (SecondStepOf(account.uid).closed) { // the code would be refused
        Audit(AuditEvent::CodeMailClosed, account);
        return Refusal(403, "otp_closed");
    }
    const Place place(WaitingFor::MailServer);
    if (!place.Taken()) {
        Audit(AuditEvent::CodeMailBusy, account);
        return Busy();
    }
    if (LacksAddress(account)) {
        Answer answer;
        answer.body["success"] = false;
        answer.body["err"] = "no_mail_address";
        Audit(AuditEvent::CodeMailRefused, account, RefusalDetail(answer.body));
        return answer;
    }
    const MailTry counted = CountMail(account.uid);
    if (counted.waitSeconds > 0) {
        Audit(AuditEvent::CodeMailThrottled, account);
        return Later(counted.waitSeconds);
    }
    return MailCode(account, counted);
}

} // namespace tavr::web
