#include "otp/MailOtpCodeHandler.h"

#include "otp/OTPCommon.h"
#include "otp/OTPutils.h"
#include "platform/cgi.h"
#include "platform/core.h"
#include "platform/db.h"
#include "platform/json.h"
#include "platform/mail.h"
#include "platform/secrets.h"
#include "platform/users.h"
#include "platform/webapi.h"

#include <string>

#include <json/reader.h>

namespace
{

constexpr char kSourceFile[] = "MailOtpCodeHandler.cpp";

constexpr std::size_t kTypedNameSize = 1024;
constexpr std::size_t kLoginNameSize = 493;
constexpr std::size_t kMailSize = 4096;
constexpr std::size_t kCodeSize = 9;
constexpr std::size_t kPlainSize = 1024;
constexpr std::size_t kLangSize = 8;
constexpr std::size_t kSubjectSize = 256;
constexpr int kHashSize = 1024;

constexpr char kWebApiSocket[] = "/run/tavrscgi-fastapi.sock";
constexpr char kMailAccounts[] = "emailaccount.db";

// --- owners ---

// One line of a file at a time, in a buffer that getline grows.
class LineBuffer
{
public:
    LineBuffer() = default;
    ~LineBuffer() { std::free(text_); }
    LineBuffer(const LineBuffer&) = delete;
    LineBuffer& operator=(const LineBuffer&) = delete;

    // The next line, its line feed included. False when there is none.
    bool Read(FILE* file)
    {
        length_ = getline(&text_, &size_, file);
        return length_ >= 1;
    }

    char* Text() { return text_; }
    void CutLast() { text_[length_ - 1] = '\0'; }

private:
    char* text_ = nullptr;
    std::size_t size_ = 0;
    ssize_t length_ = 0;
};

// The values for the placeholders of a template. The platform may move the table, so its users get the
// address of the handle.
class Substitutions
{
public:
    Substitutions() : hash_(KLIBCSzHashAlloc(kHashSize)) {}
    ~Substitutions()
    {
        if (hash_ != nullptr) {
            KLIBCSzHashFree(hash_);
        }
    }
    Substitutions(const Substitutions&) = delete;
    Substitutions& operator=(const Substitutions&) = delete;

    [[nodiscard]] bool Allocated() const { return hash_ != nullptr; }
    KLIBCSzHash** Address() { return &hash_; }

private:
    KLIBCSzHash* hash_;
};

// What the administrator has set up for notification mails. Goes back also when it was never filled.
class NotificationService
{
public:
    NotificationService() = default;
    ~NotificationService() { TAVRMailFree(&settings_); }
    NotificationService(const NotificationService&) = delete;
    NotificationService& operator=(const NotificationService&) = delete;

    // False when none is set up, and when that cannot be told.
    bool Find() { return TAVRMailGet(&settings_) >= 0 && settings_.server[0] != '\0'; }

private:
    TAVRMail settings_{};
};

struct FreeResult {
    void operator()(TAVRDBResult* result) const noexcept { TAVRDBFreeResult(result); }
};
using QueryResult = std::unique_ptr<TAVRDBResult, FreeResult>;

// --- the web API ---

// Where the failures of one exchange are logged: each has lines of its own.
struct ExchangeLines {
    int connect;
    int send;
    int receive;
    int parse;
};

// The message texts of the old reader are not used here, but what it takes for JSON is what others see.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

bool ParseAnswer(const std::string& text, Json::Value& answer)
{
    return Json::Reader().parse(text, answer, true);
}

#pragma GCC diagnostic pop

// One request, one answer. False, and logged, when no answer came that is JSON; it may be JSON of any shape.
bool AskWebApi(const Json::Value& request, const ExchangeLines& lines, Json::Value& answer)
{
    tavrdaemon::DomainSockConnection connection(kWebApiSocket);
    if (!connection.Connect()) {
        OTP_LOG(LOG_ERR, kSourceFile, lines.connect, "Webapi socket connection failed");
        return false;
    }
    if (!connection.Send(JsonToString(request))) {
        OTP_LOG(LOG_ERR, kSourceFile, lines.send, "Webapi command failed");
        return false;
    }
    std::string text;
    if (!connection.Recv(text)) {
        OTP_LOG(LOG_ERR, kSourceFile, lines.receive, "Webapi get resp failed");
        return false;
    }
    if (!ParseAnswer(text, answer)) {
        OTP_LOG(LOG_ERR, kSourceFile, lines.parse, "Parse webapi resp failed");
        return false;
    }
    return true;
}

// What the library's own look-ups would throw at is simply not there: a member of something that is no
// object.
const Json::Value* FindMember(const Json::Value& value, const char* name)
{
    return value.isObject() ? value.find(name, name + std::strlen(name)) : nullptr;
}

// What converts to neither true nor false is not true.
bool Succeeded(const Json::Value& answer)
{
    const Json::Value* success = FindMember(answer, "success");
    return success != nullptr && success->isConvertibleTo(Json::booleanValue) && success->asBool();
}

// The address that the user service has for the account; empty when it tells none.
std::string MailOf(const Json::Value& answer)
{
    if (!Succeeded(answer)) {
        return {};
    }
    const Json::Value* data = FindMember(answer, "data");
    const Json::Value* mail = data == nullptr ? nullptr : FindMember(*data, "email");
    return mail != nullptr && mail->isConvertibleTo(Json::stringValue) ? mail->asString() : std::string();
}

// --- the account's own mail account ---

// Puts the recipient into the request `send`.
bool FindRecipient(const std::string& user, Json::Value& send)
{
    Json::Value request;
    request["params"]["api"] = "TAVR.Core.NormalUser";
    request["params"]["method"] = "get";
    request["params"]["version"] = 1;
    request["runner"]["username"] = user;
    Json::Value answer;
    if (!AskWebApi(request, {146, 150, 154, 158}, answer)) {
        return false;
    }
    const std::string mail = MailOf(answer);
    if (mail.empty()) {
        return false;
    }
    send["params"]["to"] = "[\"" + mail + "\"]"; // a text that looks like an array: what the service takes
    return true;
}

// Puts the default mail account of the user into the request `send`.
bool FindSender(const std::string& user, const TAVRUser& record, Json::Value& send)
{
    char dir[otp::kPathSize] = {};
    if (TAVRUserPreferenceDirGet(user.c_str(), dir, sizeof dir, 0) < 0) {
        const otp::PlatformError error;
        OTP_LOG(LOG_ERR, kSourceFile, 189, "Get preference dir failed. [%s] [0x%04X %s:%d]", user.c_str(),
                error.code, error.file, error.line);
        return false;
    }
    const std::string path = std::string(dir) + "/" + kMailAccounts;
    if (access(path.c_str(), F_OK) != 0) {
        OTP_LOG(LOG_ERR, kSourceFile, 196, "Customized mail DB not exist");
        return false;
    }
    TAVRDB* database = TAVRDBConnect(nullptr, nullptr, nullptr, path.c_str()); // stays the platform's
    if (database == nullptr) {
        OTP_LOG(LOG_ERR, kSourceFile, 201, "Open customized mail DB failed");
        return false;
    }
    const std::string query = "SELECT * FROM emailaccountinfo WHERE is_default='true' and uid='" +
                              std::to_string(record.uid) + "';";
    TAVRDBResult* handedOut = nullptr;
    const int status = TAVRDBExecute(database, query.c_str(), &handedOut);
    const QueryResult result(handedOut);
    if (status == -1) {
        OTP_LOG(LOG_ERR, kSourceFile, 206, "Exec DB command failed");
        return false;
    }
    const int64_t count = TAVRDBNumRows(result.get());
    if (count == 0) {
        return false;
    }
    if (count != 1) {
        OTP_LOG(LOG_ERR, kSourceFile, 212, "Get bad response, row[%ld]", static_cast<long>(count));
        return false;
    }
    TAVRDBRow* row = nullptr;
    if (TAVRDBFetchRow(result.get(), &row) == -1) {
        OTP_LOG(LOG_ERR, kSourceFile, 217, "Get response row failed");
        return false;
    }
    for (const char* column : {"email_type", "alias"}) {
        const char* text = TAVRDBFetchField(result.get(), row, column);
        if (text == nullptr) {
            return false; // a table of another shape
        }
        send["params"][column] = text;
    }
    return true;
}

// HTML has no line feeds of its own.
std::string WithLineBreaks(const char* content)
{
    std::string body;
    for (const char* next = content; *next != '\0'; ++next) {
        if (*next == '\n') {
            body += "<br>";
        } else {
            body += *next;
        }
    }
    return body;
}

// Puts subject and body of the template into the request `send`.
bool WriteMail(const std::string& tag, KLIBCSzHash** hash, Json::Value& send)
{
    char lang[kLangSize] = {};
    if (KLIBCFileGetKeyValue("/etc/tavrinfo.conf", "maillang", lang, sizeof lang, 0) < 1) {
        OTP_LOG(LOG_ERR, kSourceFile, 290, "Failed to get maillang, use enu instead. tavrerr=[0x%04X]",
                static_cast<unsigned int>(KLIBCErrGet()));
        std::snprintf(lang, sizeof lang, "%s", "enu");
    }
    char subject[kSubjectSize] = {};
    char* text = nullptr;
    if (TAVRMailReadByTagAndConvertRealEx(lang, tag.c_str(), subject, sizeof subject, &text, hash, 0) != 0) {
        OTP_LOG(LOG_ERR, kSourceFile, 294, "Failed to get mail content.");
        return false;
    }
    const otp::MallocText content(text);
    if (!content) {
        OTP_LOG(LOG_ERR, kSourceFile, 298, "content is null");
        return false;
    }
    send["params"]["subject"] = subject;
    send["params"]["body"] = WithLineBreaks(content.get());
    return true;
}

// 0: the mail service has taken the mail. -1: this road is closed, whatever the reason; logged.
int SendByPersonalMailAccount(const char* user, const std::string& tag, KLIBCSzHash** hash)
{
    std::string name = user;
    char loginName[kLoginNameSize] = {};
    if (TAVRUserLoginNameConvert(user, loginName, sizeof loginName) == 1) {
        name = loginName;
    }
    TAVRUser* handedOut = nullptr;
    const int status = TAVRUserGet(name.c_str(), &handedOut);
    const otp::UserRecord record(handedOut);
    if (status != 0) {
        OTP_LOG(LOG_ERR, kSourceFile, 278, "Can't get user info");
        return -1;
    }
    Json::Value send;
    if (!FindRecipient(name, send)) {
        OTP_LOG(LOG_ERR, kSourceFile, 282, "Can't get user mail info");
        return -1;
    }
    if (!FindSender(name, *record, send)) {
        OTP_LOG(LOG_ERR, kSourceFile, 286, "Can't get user mail account info");
        return -1;
    }
    if (!WriteMail(tag, hash, send)) {
        return -1;
    }
    send["params"]["api"] = "TAVR.PersonMailAccount.Mail";
    send["params"]["method"] = "send";
    send["params"]["version"] = 1;
    send["params"]["app_name"] = "TAVR.Ombra.App.PersonalSettings.Instance";
    send["params"]["app_title"] = "personal_settings:otp_settings";
    send["runner"]["username"] = name;
    Json::Value answer;
    if (!AskWebApi(send, {239, 243, 247, 251}, answer)) {
        return -1;
    }
    return Succeeded(answer) ? 0 : -1;
}

} // namespace

MailOtpCodeHandler::MailOtpCodeHandler() = default;
MailOtpCodeHandler::~MailOtpCodeHandler() = default;

bool MailOtpCodeHandler::HandleSendRequest(const char* userName, Json::Value& response)
{
    char user[kTypedNameSize] = {};
    char address[kMailSize] = {};
    char code[kCodeSize] = {};
    bool done = false;
    if (userName == nullptr) {
        OTP_LOG(LOG_ERR, kSourceFile, 377, "Bad parameter: username is NULL");
    } else if (WebUtils::ParseInputUserName(userName, user, sizeof user) < 0) {
        OTP_LOG(LOG_ERR, kSourceFile, 382, "Faile to convert input username: %s", userName); // sic
    } else if (!OTPUtils::GetUserMail(user, address, sizeof address)) {
        response["err"] = "no_mail_address";
    } else if (GetEmergencyCode(user, code, sizeof code, response)) {
        done = SendNotificationMail(user, code, address, response);
    }
    response["success"] = done;
    return done;
}

bool MailOtpCodeHandler::GetEmergencyCode(const char* user, char* code, unsigned long codeSize,
                                          Json::Value& response)
{
    char path[otp::kPathSize] = {};
    char plain[kPlainSize] = {};
    const otp::RootCriticalSection asRoot(kSourceFile, 56, 111); // left last, on every return below
    if (code == nullptr || codeSize == 0 || user == nullptr) {
        OTP_LOG(LOG_ERR, kSourceFile, 59, "Bad parameter");
        return false;
    }
    TAVRGetSecretPathByUser(user, path, sizeof path);
    if (access(path, F_OK) != 0) {
        OTP_LOG(LOG_ERR, kSourceFile, 66, "Failed to access secret file: %s %m", path);
        return false;
    }
    LineBuffer line;
    const otp::File file(std::fopen(path, "r"));
    if (!file) {
        OTP_LOG(LOG_ERR, kSourceFile, 73, "Failed to open file %s %m", path);
        return false;
    }
    for (int number = 1; line.Read(file.get()) && std::ferror(file.get()) == 0; ++number) {
        if (number == 1 || line.Text()[0] == '"') { // the secret, and options
            continue;
        }
        line.CutLast(); // the line feed, or what stands in its place: such a code no longer deciphers
        if (KLIBCCryptSzDecrypt(line.Text(), plain, sizeof plain) == 0) {
            continue;
        }
        std::snprintf(code, codeSize, "%s", plain);
        code[codeSize - 1] = '\0';
        line.Text()[0] = '\0';
        if (code[0] == '\0') {
            break;
        }
        if (!line.Read(file.get())) {
            response["warning"] = true;
        }
        return true;
    }
    response["err"] = "otp_no_emergency_code";
    return false;
}

bool MailOtpCodeHandler::SendNotificationMail(const char* user, const char* code, const char* mailAddress,
                                              Json::Value& response)
{
    NotificationService service; // given back last
    // Asked for so that a "warning" that is missing is null from here on: callers see it.
    const std::string tag =
        response["warning"].asBool() ? "OTP_emergency_mail_warning" : "OTP_emergency_mail";
    if (code == nullptr || mailAddress == nullptr || user == nullptr) {
        OTP_LOG(LOG_ERR, kSourceFile, 334, "Bad parameter");
        return false;
    }
    Substitutions values;
    if (!values.Allocated()) {
        const otp::PlatformError error;
        OTP_LOG(LOG_ERR, kSourceFile, 339, "Failed to malloc. [0x%04X %s:%d]", error.code, error.file,
                error.line);
        return false;
    }
    if (KLIBCSzHashSetValue(values.Address(), "%USER_NAME%", user) == -1 ||
        KLIBCSzHashSetValue(values.Address(), "%EMG_CODE%", code) == -1) {
        const otp::PlatformError error;
        OTP_LOG(LOG_ERR, kSourceFile, 345, "Failed to set hash value. [0x%04X %s:%d]", error.code, error.file,
                error.line);
        return false;
    }
    if (SendByPersonalMailAccount(user, tag, values.Address()) == 0) {
        OTP_LOG(LOG_ERR, kSourceFile, 350, "Send OTP Code with user[%s] mail account", user);
        return true;
    }
    if (!service.Find()) {
        response["err"] = "mail_service_not_enable";
        return false;
    }
    TAVRMailSendMessageWithoutBlock(tag.c_str(), values.Address(), mailAddress, 0);
    return true;
}
