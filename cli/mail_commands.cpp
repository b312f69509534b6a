#include "cli/commands.h"
#include "cli/console.h"
#include "linux/mail_queue.h"
#include "linux/mail_settings.h"
#include "linux/settings.h"

#include <fcntl.h>
#include <unistd.h>

#include <tuple>
#include <vector>

namespace tavr::console
{

namespace
{

constexpr char kPasswordKey[] = "mail_password";

// Where `text` is given and is not right, ends the command.
void Check(const std::optional<std::string>& text, bool (*isRight)(std::string_view), const char* problem)
{
    if (text && !isRight(*text)) {
        throw Failure(Exit::Usage, "bad_mail_server", problem);
    }
}

// The service reads it, so the console asks with the service's ids as well.
bool IsReadableFile(std::string_view path)
{
    return path.empty() || (path.starts_with('/') && IsSettingValue(path) &&
                            faccessat(AT_FDCWD, std::string(path).c_str(), R_OK, AT_EACCESS) == 0);
}

void CheckTexts(const ServerTexts& texts)
{
    Check(texts.host, IsHostName, "--host takes the name or the address of a server");
    Check(texts.from, IsMailAddress, "--from takes one mail address");
    Check(texts.user, IsSettingValue, "--user takes a name without quotes and control characters");
    Check(texts.caFile, IsReadableFile, "--ca-file takes the whole path of a file that the service can read");
    for (const auto& [given, key, option] : {std::tuple{texts.host.has_value(), "mail_server", "--host"},
                                             std::tuple{texts.from.has_value(), "mail_from", "--from"}}) {
        if (!given && Setting(key, "").empty()) {
            throw Failure(Exit::Usage, "usage", std::string("no mail server without ") + option);
        }
    }
}

void StorePassword(std::string_view password)
{
    if (!WriteSecretSetting(kPasswordKey, password)) {
        throw Failure(Exit::Failed, "settings",
                      "the password could not be stored; it may hold a control character");
    }
}

Json::Value ToJson(const MailServer& server)
{
    Json::Value entry;
    entry["host"] = server.host;
    entry["port"] = server.port;
    entry["security"] = MailSecurityText(server.security);
    entry["user"] = server.user;
    entry["from"] = server.from;
    entry["ca_file"] = server.caFile;
    entry["password"] = !server.password.empty(); // whether there is one
    return entry;
}

Json::Value ToJson(const ListedMail& mail)
{
    Json::Value entry;
    entry["id"] = Json::Int64{mail.id};
    entry["state"] = mail.state;
    entry["to"] = mail.to;
    entry["queued"] = TimeText(mail.date);
    entry["attempts"] = mail.attempts;
    entry["due_in"] = mail.state == "waiting" ? Json::Value(Json::Int64{mail.dueIn}) : Json::Value();
    entry["reply"] = mail.reply;
    entry["text"] = mail.text;
    return entry;
}

std::string ToText(const ListedMail& mail)
{
    const bool waits = mail.state == "waiting";
    return std::to_string(mail.id) + '\t' + mail.state + '\t' + (mail.to.empty() ? "-" : mail.to) + '\t' +
           TimeText(mail.date) + '\t' + std::to_string(mail.attempts) + '\t' +
           (waits ? std::to_string(mail.dueIn) : "-") + '\t' +
           (mail.reply == 0 ? "-" : std::to_string(mail.reply)) + '\t' +
           (mail.text.empty() ? "-" : mail.text);
}

void AnswerQueued(int64_t id, const char* what)
{
    Say(std::string(what) + " mail " + std::to_string(id));
    Json::Value answer;
    answer["id"] = Json::Int64{id};
    Answer(std::move(answer));
}

[[noreturn]] void NoSuchMail(int64_t id)
{
    throw Failure(Exit::NotFound, "no_such_mail", "no mail with the number " + std::to_string(id) + " waits");
}

} // namespace

// --- The server ---

void SetMailServer(const ServerTexts& texts, bool passwordStdin)
{
    std::vector<SettingValue> values;
    const auto add = [&](const char* key, const std::optional<std::string>& text) {
        if (text) {
            values.push_back({key, *text});
        }
    };
    std::optional<std::string> port;
    if (texts.port) {
        port = std::to_string(*texts.port);
    }
    add("mail_server", texts.host);
    add("mail_port", port);
    add("mail_security", texts.security);
    add("mail_user", texts.user);
    add("mail_from", texts.from);
    add("mail_ca_file", texts.caFile);
    if (values.empty() && !passwordStdin) {
        throw Failure(Exit::Usage, "usage", "nothing to set (see tavrctl mail server --help)");
    }
    CheckTexts(texts);
    if (passwordStdin) {
        const Password password;
        StorePassword(password.Text());
    }
    if (!values.empty() && !WriteSettings(values)) {
        throw Failure(Exit::Failed, "settings", "the settings could not be written");
    }
    ShowMailServer();
}

void SwitchMailServerOff()
{
    if (SecretSetting(kPasswordKey)) {
        StorePassword("");
    }
    if (!WriteSetting("mail_server", "")) {
        throw Failure(Exit::Failed, "settings", "the settings could not be written");
    }
    ShowMailServer();
}

void ShowMailServer()
{
    const std::optional<MailServer> server = NotificationServer();
    if (server) {
        Say(server->host + '\t' + std::to_string(server->port) + '\t' + MailSecurityText(server->security) +
            '\t' + (server->user.empty() ? "-" : server->user) + '\t' +
            (server->password.empty() ? "no password" : "with a password") + '\t' + server->from + '\t' +
            (server->caFile.empty() ? "-" : server->caFile));
    } else {
        Say("no mail server is set up");
    }
    Json::Value answer;
    answer["server"] = server ? ToJson(*server) : Json::Value();
    Answer(std::move(answer));
}

void TestMailServer(const std::string& address)
{
    if (!IsMailAddress(address)) {
        throw Failure(Exit::Usage, "bad_address", "this is no mail address");
    }
    if (!NotificationServer()) {
        throw Failure(Exit::Failed, "no_mail_server", "no mail server is set up (see tavrctl mail server)");
    }
    Json::Value params;
    params["to"] = address;
    const Json::Value answer = AskService("TAVR.Notification.Mail", "test", std::move(params));
    if (answer["success"] != true) {
        FailUnsent(answer);
    }
    Say("the mail server took a test mail to " + address);
    Json::Value said;
    said["to"] = address;
    Answer(std::move(said));
}

// --- The queue ---

void ListMailQueue()
{
    const std::vector<ListedMail> mails = ListMails();
    if (IsJson()) {
        JsonList list("mails");
        for (const ListedMail& mail : mails) {
            list.Add(ToJson(mail));
        }
        list.End();
        return;
    }
    for (const ListedMail& mail : mails) {
        Say(ToText(mail));
    }
}

void RetryQueuedMail(int64_t id)
{
    if (!RetryMail(id)) {
        NoSuchMail(id);
    }
    AnswerQueued(id, "due now:");
}

void DropQueuedMail(int64_t id)
{
    if (!DropMail(id)) {
        NoSuchMail(id);
    }
    AnswerQueued(id, "dropped");
}

} // namespace tavr::console
