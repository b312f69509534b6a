#include "otp/OTPWizardHandler.h"

#include "otp/OTPCommon.h"
#include "otp/OTPutils.h"
#include "platform/core.h"

namespace
{

constexpr char kSourceFile[] = "OTPWizardHandler.cpp";

// Callers see these in the "line" of an error record.
constexpr int kLineAuthFailed = 104;
constexpr int kLineSetMailFailed = 143;

constexpr std::size_t kUserNameSize = 493;
constexpr std::size_t kSidSize = 1024;
constexpr int kSidLimit = 122; // what the login is told of the buffer
constexpr std::size_t kPlainSize = 1024;
constexpr std::size_t kMailSize = 4096;

constexpr int kLoginFlags = 15;
constexpr int kLoginFlagsSafeMode = 1;
constexpr int kLoginAccepted = 1;
constexpr int kLoginOtpPending = -5;
constexpr int kOptionToken = 2;

} // namespace

OTPWizardHandler::OTPWizardHandler()
{
    TavrCgiInit("", &cgi_);
}

OTPWizardHandler::~OTPWizardHandler()
{
    TavrCgiFree(&cgi_);
    explicit_bzero(password_.data(), password_.size());
}

bool OTPWizardHandler::AuthUserAccount(const char* user, const char* password, bool login,
                                       bool allowOtpPending)
{
    if (user == nullptr || password == nullptr) {
        return false;
    }
    char name[kUserNameSize] = {};
    if (WebUtils::ParseInputUserName(user, name, sizeof name) < 0) {
        OTP_LOG(LOG_ERR, kSourceFile, 167, "Failed to convert input username %s", user);
        return false;
    }

    TavrLogin record{name, password, "webui", 0};
    int status = 0;
    if (login) {
        record.flags = TAVRHAIsSafemode() != 0 ? kLoginFlagsSafeMode : kLoginFlags;
        char sid[kSidSize] = {};
        {
            const otp::RunAsGuard asRoot("root", kSourceFile, 181);
            if (!asRoot.Switched()) {
                OTP_LOG(LOG_ERR, kSourceFile, 184, "Failed to switch user...");
                return false;
            }
            status = TavrCgiLogin(&cgi_, sid, kSidLimit, &record);
        }
        response_["sid"] = sid; // whatever came out
    } else {
        const otp::RunAsGuard asRoot("root", kSourceFile, 189);
        if (!asRoot.Switched()) {
            OTP_LOG(LOG_ERR, kSourceFile, 192, "Failed to switch user...");
            return false;
        }
        status = TavrCgiTestLoginEx2(&record, nullptr, nullptr, allowOtpPending ? 0 : 1);
    }

    // Kept whether or not the password was right. `password` may be our own text.
    user_ = name;
    password_ = password;
    if (status != kLoginAccepted) {
        return status == kLoginOtpPending && allowOtpPending;
    }
    if (login && TavrCgiIsTokenEnable(&cgi_) != 0) {
        TavrCgiLoadInCookies(&cgi_);
        response_["TavrToken"] = TavrCgiGetOption(&cgi_, kOptionToken, "");
    }
    return true;
}

bool OTPWizardHandler::GetQRcodePage(const char* accountName, unsigned int uid)
{
    if (accountName == nullptr) {
        OTP_LOG(LOG_ERR, kSourceFile, 31, "Bad parameter");
        SetSuccess(false);
        return false;
    }
    std::string secret;
    std::string path;
    if (OTPUtils::GetUserSecretKey(user_.c_str(), secret, path) != 0) {
        OTP_LOG(LOG_ERR, kSourceFile, 37, "Failed to get existing secret key");
        SetSuccess(false);
        return false;
    }
    if (secret.empty() && OTPUtils::CreateSecretKey(uid, secret, path) != 0) {
        OTP_LOG(LOG_ERR, kSourceFile, 42, "Failed to generate secret key");
        SetSuccess(false);
        return false;
    }
    char plain[kPlainSize] = {};
    if (KLIBCCryptSzDecrypt(secret.c_str(), plain, sizeof plain) != 0) {
        secret = plain;
    }
    std::string png;
    if (OTPUtils::GenQRcodePNG(secret, accountName, png) != 0) {
        OTP_LOG(LOG_ERR, kSourceFile, 51, "Failed to generate QRcode png");
        SetSuccess(false);
        return false;
    }
    response_["key"] = secret;
    response_["img"] = png;
    SetSuccess(true);
    return true;
}

bool OTPWizardHandler::EditAccountName(const char* key, const char* accountName)
{
    if (key == nullptr || accountName == nullptr) {
        OTP_LOG(LOG_ERR, kSourceFile, 71, "Bad parameter");
        SetSuccess(false);
        return false;
    }
    std::string png;
    if (OTPUtils::GenQRcodePNG(key, accountName, png) != 0) {
        OTP_LOG(LOG_ERR, kSourceFile, 76, "Failed to generate QRcode png");
        SetSuccess(false);
        return false;
    }
    response_["img"] = png;
    response_["key"] = key;
    SetSuccess(true);
    return true;
}

bool OTPWizardHandler::AuthOTPcode(const char* code, unsigned int uid)
{
    if (code == nullptr) {
        OTP_LOG(LOG_ERR, kSourceFile, 96, "Bad parameter");
        SetSuccess(false);
        return false;
    }
    char path[otp::kPathSize] = {};
    otp::FormatTmpSecretPath(path, uid);
    if (!OTPUtils::AuthOTPcode(user_.c_str(), code, path)) {
        OTP_LOG(LOG_ERR, kSourceFile, 103, "Failed to auth OTP code");
        SetError("personal_settings", "otp_auth_failed", kLineAuthFailed);
        SetSuccess(true); // the step was carried out; the error is about the code
        return true;
    }
    if (!OTPUtils::MoveTmpSecret(user_.c_str(), path)) {
        OTP_LOG(LOG_ERR, kSourceFile, 109, "Failed to move secret form tmp to user preference"); // sic
        SetSuccess(false);
        return false;
    }
    response_["auth_ok"] = true;
    char mail[kMailSize] = {};
    if (OTPUtils::GetUserMail(user_.c_str(), mail, sizeof mail)) {
        response_["mail"] = mail;
    }
    // The secret is in place whatever the login says; an empty "sid" tells that there is no new session.
    AuthUserAccount(user_.c_str(), password_.c_str(), true, false);
    SetSuccess(true);
    return true;
}

bool OTPWizardHandler::SaveMail(const char* mail)
{
    if (mail == nullptr) {
        SetSuccess(false);
        return false;
    }
    if (!OTPUtils::SetUserMail(user_.c_str(), mail)) {
        OTP_LOG(LOG_ERR, kSourceFile, 141, "Failed to set mail for user: %s", user_.c_str());
        if (otp::KindOfName(user_.c_str()) == otp::AccountKind::Ldap) {
            SetError("personal_settings", "failed_to_set_ldap_otp_mail", kLineSetMailFailed);
        }
    }
    SetSuccess(true); // only directory accounts hear of a failure, by "errno"
    return true;
}

void OTPWizardHandler::SetError(const char* section, const char* key, int line)
{
    response_["errno"]["section"] = section;
    response_["errno"]["key"] = key;
    response_["errno"]["line"] = line;
}

void OTPWizardHandler::SetSuccess(bool success)
{
    response_["success"] = success;
}

Json::Value OTPWizardHandler::GetResponse()
{
    return response_;
}
