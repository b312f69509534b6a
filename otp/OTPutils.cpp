#include "otp/OTPutils.h"

#include "otp/OTPCommon.h"
#include "platform/core.h"
#include "platform/directory.h"
#include "platform/secrets.h"
#include "platform/users.h"

#include <string_view>
#include <utility>

#include <json/reader.h>
#include <json/value.h>

namespace
{

constexpr char kSourceFile[] = "OTPutils.cpp";

constexpr char kSecretTool[] = "/usr/bin/google-authenticator";
constexpr char kPictureTool[] = "/usr/bin/qrencode";
constexpr char kMoveTool[] = "/bin/mv";

// Different on purpose: what the tool prints, and what stands in the file.
constexpr std::size_t kPrintedSecretLength = 24;
constexpr std::size_t kStoredSecretLength = 16;

constexpr char kIssuer[] = "Morvane Orbis";
constexpr int kHwidSize = 64;
constexpr std::size_t kPictureLimit = 4096;

constexpr char kSettingsMember[] = "TAVR.Ombra.App.PersonalSettings.Instance";
constexpr char kMailMember[] = "otp_mail";

// --- owners ---

struct ClosePipe {
    void operator()(FILE* stream) const noexcept { KLIBCPclose(stream); }
};
using Pipe = std::unique_ptr<FILE, ClosePipe>;

// The platform wants it back even when it could not be made.
class HardwareId
{
public:
    HardwareId() : id_(tavrcrypto_hwid_init()) {}
    ~HardwareId() { tavrcrypto_hwid_free(id_); }
    HardwareId(const HardwareId&) = delete;
    HardwareId& operator=(const HardwareId&) = delete;

    // Empty when there is none.
    [[nodiscard]] std::string Text() const
    {
        const bool filled = tavrcrypto_hwid_str(id_, kHwidSize);
        return filled && id_ != nullptr && id_->text != nullptr ? id_->text : "";
    }

private:
    TavrHwid* id_;
};

// What a look-up in the directory holds, given back in this order on every way out. Options and host go back
// also when they were never filled.
struct LdapLookup {
    TAVRLDAPSearchOption* options = nullptr;
    TAVRLDAPHost host{};
    TAVRUser* record = nullptr;

    LdapLookup() = default;
    LdapLookup(const LdapLookup&) = delete;
    LdapLookup& operator=(const LdapLookup&) = delete;
    ~LdapLookup()
    {
        TAVRLDAPSearchOptionFree(options);
        TAVRLDAPHostFree(&host);
        if (record != nullptr) {
            TAVRUserFree(record);
        }
    }
};

// --- QR code ---

// Narrower than what URLs need: the label, the issuer and the hardware id are all that ever goes through.
bool IsEscaped(unsigned char byte)
{
    return byte <= 0x20 || byte >= 0x7F || std::strchr("%&=?\\", byte) != nullptr;
}

std::string Escape(std::string_view text)
{
    constexpr char kDigits[] = "0123456789ABCDEF";
    std::string escaped;
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (IsEscaped(byte)) {
            escaped += {'%', kDigits[byte >> 4], kDigits[byte & 0xF]};
        } else {
            escaped += character;
        }
    }
    return escaped;
}

std::string KeyUri(const std::string& secret, const std::string& account)
{
    const std::string hwid = HardwareId().Text();
    std::string uri = "otpauth://totp/";
    uri.append(Escape(account)).append("?secret=").append(secret).append("&issuer=").append(Escape(kIssuer));
    if (hwid.empty()) {
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "Get HWID failed, ignore it");
    } else {
        uri.append("&hwid=").append(Escape(hwid));
    }
    return uri;
}

// PNG on standard output, modules of six pixels.
Pipe StartPictureTool(const std::string& uri, bool defaultMargin)
{
    constexpr char* kEnd = nullptr;
    if (defaultMargin) {
        return Pipe(KLIBCPopen(kPictureTool, "r", uri.c_str(), "-s", "6", "-o", "-", kEnd));
    }
    return Pipe(KLIBCPopen(kPictureTool, "r", uri.c_str(), "-s", "6", "-m", "0", "-o", "-", kEnd));
}

// --- recovery addresses ---

// Cut to fit.
void CopyText(const char* text, char* dst, std::size_t n)
{
    std::snprintf(dst, n, "%s", text);
}

// Empty when the directory is not known; logged.
std::string SettingsPath(const char* user)
{
    char dir[otp::kPathSize] = {};
    if (TAVRUserPreferenceDirGet(user, dir, sizeof dir, 0) < 0) {
        const otp::PlatformError error;
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "Get preference dir failed. [%s] [0x%04X %s:%d]", user,
                error.code, error.file, error.line);
        return {};
    }
    return std::string(dir) + "/usersettings";
}

// Empty when the file cannot be read to its end.
std::string ReadWhole(const std::string& path)
{
    const otp::File file(std::fopen(path.c_str(), "r"));
    if (!file) {
        return {};
    }
    std::string text;
    char block[8192];
    std::size_t count = 0;
    while ((count = std::fread(block, 1, sizeof block, file.get())) > 0) {
        text.append(block, count);
    }
    return std::ferror(file.get()) == 0 ? text : std::string();
}

// The message texts of the old reader are what others see; its successor's differ.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

// False, and logged, when the file is missing, empty or no JSON.
bool LoadSettings(const char* user, const std::string& path, Json::Value& settings)
{
    const std::string text = ReadWhole(path);
    Json::Reader reader; // takes comments; they are not collected, as they are never written back
    if (!reader.parse(text.data(), text.data() + text.size(), settings, false)) {
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "Failed to parse [%s] settings: %s", user,
                reader.getFormattedErrorMessages().c_str());
        return false;
    }
    return true;
}

#pragma GCC diagnostic pop

// In place: the file keeps its owner and mode. False, and logged, when nothing could be written.
bool StoreText(const std::string& path, const std::string& text)
{
    const otp::File file(std::fopen(path.c_str(), "w"));
    if (!file) {
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "Failed to open %s", path.c_str());
        return false;
    }
    std::setvbuf(file.get(), nullptr, _IONBF, 0); // so that fwrite tells what became of the file
    if (std::fwrite(text.data(), 1, text.size(), file.get()) == 0) {
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "Failed to write to %s", path.c_str());
        return false;
    }
    return true;
}

// The address of the record that the lookup ends with; empty text when the entry has none. Null, and logged,
// when the entry cannot be had.
const char* FindLdapMail(const char* user, LdapLookup& lookup)
{
    lookup.options = TAVRLDAPSearchOptionAlloc();
    if (lookup.options == nullptr) {
        const otp::PlatformError error;
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "TAVRLDAPSearchOptionAlloc() failed [0x%04X %s:%d]",
                error.code, error.file, error.line);
        return nullptr;
    }
    if (TAVRLDAPSearchOptionGet(lookup.options, 0) < 0) {
        const otp::PlatformError error;
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "Failed to get ldapsearch options [0x%04X %s:%d]", error.code,
                error.file, error.line);
        return nullptr;
    }
    char bare[1024] = {};
    if (TAVRLDAPSplitName(user, nullptr, nullptr, bare, sizeof bare) <= 0) {
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "Failed to split LDAP username. [%s]", user);
        return nullptr;
    }
    if (TAVRLDAPHostInitByBindConfigOnly(&lookup.host) < 0) {
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "Failed to get bind config. [%s]", user);
        return nullptr;
    }
    char dn[1024] = {};
    const int matches = TAVRLDAPBrowserGetDNByUserUID(&lookup.host, bare, dn, sizeof dn, lookup.options);
    if (matches < 0) {
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "Failed to get DN. [%s]", user);
        return nullptr;
    }
    if (matches == 0) {
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "User not found [%s]", user);
        return nullptr;
    }
    if (matches > 1) {
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "user '%s' is ambigous", bare); // sic; the first one counts
    }
    const int found = TAVRLDAPBrowserUserGet(&lookup.host, dn, &lookup.record, 0, 0, lookup.options);
    if (found < 0) {
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "Failed to get User info [%s]", user);
        return nullptr;
    }
    if (found == 0) {
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "DN not found [%s]", user);
        return nullptr;
    }
    return lookup.record->mail != nullptr ? lookup.record->mail : "";
}

} // namespace

namespace OTPUtils
{

// --- the secret file ---

int CreateSecretKey(unsigned int uid, std::string& secret, std::string& tmpPath)
{
    char path[otp::kPathSize] = {};
    otp::FormatTmpSecretPath(path, uid);
    char command[8192] = {}; // for the log; no shell ever sees it
    std::snprintf(command, sizeof command, "%s -s %s", kSecretTool, path);

    constexpr char* kEnd = nullptr;
    const Pipe tool(KLIBCPopen(kSecretTool, "r", "-s", path, kEnd));
    if (!tool) {
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "Failed to open pipe %s", command);
        return -1;
    }
    char printed[kPrintedSecretLength + 1] = {};
    if (std::fread(printed, 1, kPrintedSecretLength, tool.get()) < kPrintedSecretLength) {
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "Failed to excute cmd: %s", command); // sic
        return -1;
    }
    secret = printed;
    tmpPath = path;
    return 0;
}

int GetUserSecretKey(const char* user, std::string& secret, std::string& path)
{
    char secretPath[otp::kPathSize] = {};
    TAVRGetSecretPathByUser(user, secretPath, sizeof secretPath);
    if (access(secretPath, F_OK) != 0) {
        return 0;
    }
    const otp::File file(std::fopen(secretPath, "r"));
    if (!file) {
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "Failed to open file %s", secretPath);
        return -1;
    }
    char stored[kStoredSecretLength + 1] = {};
    if (std::fread(stored, 1, kStoredSecretLength, file.get()) < kStoredSecretLength) {
        return -1;
    }
    secret = stored;
    path = secretPath;
    return 0;
}

bool MoveTmpSecret(const char* user, const char* tmpPath)
{
    char secretPath[otp::kPathSize] = {};
    TAVRGetSecretPathByUser(user, secretPath, sizeof secretPath);
    if (std::strcmp(tmpPath, secretPath) == 0) {
        return true;
    }
    if (KLIBCExec(kMoveTool, tmpPath, secretPath, nullptr, nullptr) != 0) {
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "Failed to move secret file from %s to %s", tmpPath,
                secretPath);
        return false;
    }
    return true;
}

// --- the QR code ---

// By value: the shape is fixed.  NOLINTNEXTLINE(performance-unnecessary-value-param)
int GenQRcodePNG(std::string secret, std::string account, std::string& pngBase64, bool defaultMargin)
{
    const std::string uri = KeyUri(secret, account);
    const Pipe tool = StartPictureTool(uri, defaultMargin);
    if (!tool) {
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "Failed to open pipe %s -o -", uri.c_str());
        return -1;
    }
    char picture[kPictureLimit] = {};
    const std::size_t count = std::fread(picture, 1, sizeof picture, tool.get());

    const std::size_t size = 2 * count;
    const otp::MallocText text(static_cast<char*>(std::calloc(size, 1)));
    if (!text) {
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "Failed to alloc memory size: %zu", size);
        return -1;
    }
    KLIBCBase64SzEncodeFull(picture, static_cast<int>(count), text.get(), static_cast<int>(size), 0);
    pngBase64.assign(text.get(), strnlen(text.get(), size)); // a picture of no bytes has no terminator either
    return 0;
}

int GenQRcodePNG(std::string secret, std::string account, std::string& pngBase64)
{
    return GenQRcodePNG(std::move(secret), std::move(account), pngBase64, true);
}

// --- codes ---

bool AuthOTPcode(const char* user, const char* code, const char* secretPath)
{
    if (user == nullptr || code == nullptr || secretPath == nullptr) {
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "Bad parameter");
        return false;
    }
    char userText[1024] = {};
    char codeText[64] = {};
    char secretText[4096] = {};
    std::snprintf(userText, sizeof userText, "username=%s", user);
    std::snprintf(codeText, sizeof codeText, "code=%s", code);
    std::snprintf(secretText, sizeof secretText, "secret=%s", secretPath);
    const char* const texts[] = {userText, codeText, secretText};
    if (TAVRGoogleAuth(3, texts) != 0) {
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "Failed to auth OTP code");
        return false;
    }
    return true;
}

// --- recovery addresses: look-up ---

bool GetUserMail(const char* user, char* dst, size_t n)
{
    if (dst == nullptr || n == 0 || user == nullptr) {
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "Bad parameter");
        return false;
    }
    const otp::RootCriticalSection asRoot(kSourceFile, __LINE__, __LINE__); // left on every return below
    switch (otp::KindOfName(user)) {
    case otp::AccountKind::Domain:
        if (GetDomainUserMail(user, dst, n)) {
            return true;
        }
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "Failed to get mail for Domain user %s: ", user);
        return false;
    case otp::AccountKind::Ldap:
        if (GetLDAPUserMail(user, dst, n)) {
            return true;
        }
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "Failed to get mail for LDAP user %s: ", user);
        return false;
    case otp::AccountKind::Local:
        break;
    }
    if (!GetNormalUserMail(user, dst, n)) {
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "Failed to get mail for normal user %s: ", user);
        return false;
    }
    return true;
}

bool GetNormalUserMail(const char* user, char* dst, size_t n)
{
    if (user == nullptr || dst == nullptr || n == 0) {
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "Bad parameter");
        return false;
    }
    const otp::UserRecord record = otp::FindUser(user);
    if (!record) {
        const otp::PlatformError error;
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "Failed to get user: %s [0x%04X %s:%d]", user, error.code,
                error.file, error.line);
        return false;
    }
    if (record->mail == nullptr || record->mail[0] == '\0') {
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "User[%s] mail address not set. ", user);
        return false;
    }
    CopyText(record->mail, dst, n);
    return true;
}

bool GetDomainUserMail(const char* user, char* dst, size_t n)
{
    if (dst == nullptr || n == 0 || user == nullptr) {
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "Bad parameter");
        return false;
    }
    const std::string path = SettingsPath(user);
    Json::Value settings;
    if (path.empty() || !LoadSettings(user, path, settings)) {
        return false;
    }
    // Looked at through const, so that nothing is added; members of another shape make this throw.
    const Json::Value& personal = std::as_const(settings)[kSettingsMember];
    const Json::Value& mail = personal[kMailMember];
    if (mail.isNull()) {
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "Failed to get otp mail of user [%s]", user);
        return false;
    }
    CopyText(mail.asCString(), dst, n); // asString would take numbers
    return true;
}

bool GetLDAPUserMail(const char* user, char* dst, size_t n)
{
    LdapLookup lookup; // released on every path, also with nothing in it
    if (user == nullptr || dst == nullptr || n == 0) {
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "Bad parameters.");
        return false;
    }
    const char* mail = FindLdapMail(user, lookup);
    if (mail == nullptr) {
        return false;
    }
    CopyText(mail, dst, n);
    return true;
}

// --- recovery addresses: update ---

bool SetUserMail(const char* user, const char* mail)
{
    if (user == nullptr || mail == nullptr) {
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "Bad parameter");
        return false;
    }
    switch (otp::KindOfName(user)) {
    case otp::AccountKind::Domain:
        if (SetDomainUserMail(user, mail)) {
            return true;
        }
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "Failed to set doamin user [%s] email. ", user); // sic
        return false;
    case otp::AccountKind::Ldap:
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "Do no support set LDAP user [%s] email. ", user); // sic
        return false;
    case otp::AccountKind::Local:
        break;
    }
    if (!SetNormalUserMail(user, mail)) {
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "Failed to set normal user [%s] email. ", user);
        return false;
    }
    return true;
}

bool SetNormalUserMail(const char* user, const char* mail)
{
    if (user == nullptr || mail == nullptr) {
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "Bad parameter");
        return false;
    }
    const otp::UserRecord record = otp::FindUser(user);
    if (!record) {
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "Failed to get user info");
        return false;
    }
    const std::string copy = mail; // outlives the update, and goes before the record
    record->mail = copy.c_str();
    if (TAVRConfdUserUpdate(user, record.get(), 0) < 0) {
        const otp::PlatformError error;
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "Failed to TAVRUserSetOne [0x%04X %s:%d]", error.code,
                error.file, error.line);
        return false;
    }
    return true;
}

bool SetDomainUserMail(const char* user, const char* mail)
{
    if (user == nullptr || mail == nullptr) {
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "Bad parameter");
        return false;
    }
    const std::string path = SettingsPath(user);
    Json::Value settings;
    if (path.empty() || !LoadSettings(user, path, settings)) {
        return false;
    }
    settings[kSettingsMember][kMailMember] = mail;
    return StoreText(path, otp::CompactText(settings));
}

} // namespace OTPUtils
