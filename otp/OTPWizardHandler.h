// The setup wizard for one account: password, QR code, first code, recovery address.
//
// A handler serves one web request on one thread. AuthUserAccount comes first; it tells the handler whose
// wizard this is. Then comes the step that the request asks for, and last GetResponse for the answer. Steps
// report twice: by their result to the caller, and by "success" and "errno" in the answer to the browser.
//
// Needs the right to raise the effective ids to root (real or saved uid 0). Exceptions of the JSON and string
// libraries pass through; the effective ids are then as they were before the call.
#pragma once

#include "platform/cgi.h"

#include <string>

#include <json/value.h>

class [[gnu::visibility("default")]] OTPWizardHandler
{
public:
    OTPWizardHandler();
    ~OTPWizardHandler();
    OTPWizardHandler(const OTPWizardHandler&) = delete;
    OTPWizardHandler& operator=(const OTPWizardHandler&) = delete;

    // Checks the password of `user`, a name as somebody typed it, and keeps canonical name and password for
    // the steps, also when the password was wrong. With `login` it opens a session: "sid" is written whatever
    // came out, "TavrToken" when the platform uses tokens and the login was accepted. `allowOtpPending` takes
    // "right password, second step missing" for success. Writes neither "success" nor "errno".
    bool AuthUserAccount(const char* user, const char* password, bool login, bool allowOtpPending);

    // Shows the account's secret, or makes a new one at the temporary path of `uid` when it has none: "key",
    // and the QR code under the label `accountName`, "img".
    bool GetQRcodePage(const char* accountName, unsigned int uid);

    // Draws the QR code of `key` again under another label. Touches no file, and checks nothing about `key`.
    bool EditAccountName(const char* key, const char* accountName);

    // Confirms the first code against the secret that waits for `uid`, makes that secret the account's, tells
    // the recovery address ("mail", when there is one) and logs in afresh. A wrong code is a step that was
    // carried out: true, "success" true, and "errno".
    bool AuthOTPcode(const char* code, unsigned int uid);

    // Stores the recovery address. True for every address that is not null; only accounts of an LDAP
    // directory are told, by "errno", that it could not be stored.
    bool SaveMail(const char* mail);

    // Records a message of the catalogue and the source line that recorded it; the last one stays.
    void SetError(const char* section, const char* key, int line);
    void SetSuccess(bool success);

    // A copy of the answer so far; null before the first step.
    Json::Value GetResponse();

private:
    TavrCgi cgi_{}; // first: the platform knows the handler by this address
    std::string user_;
    std::string password_;
    Json::Value response_;
};
