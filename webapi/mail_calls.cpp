#include "webapi/mail_calls.h"

#include "linux/clock.h"
#include "linux/mail_accounts.h"
#include "linux/names.h"
#include "linux/settings.h"
#include "platform/json.h"
#include "webapi/transfers.h"

#include <sodium.h>
#include <syslog.h>

#include <memory>
#include <stdexcept>

namespace tavr::webapi
{

namespace
{

constexpr size_t kLongestAppText = 200; // app_name, app_title
constexpr size_t kLongestPassword = kMaxPassword;

// What a server said, or what went wrong, for people.
std::string Said(int reply, const std::string& text)
{
    Json::Value said;
    said["reply"] = reply;
    said["text"] = text;
    return JsonToString(said);
}

// The text of a JSON array that holds one text.
std::optional<std::string> OnlyAddress(std::string_view text)
{
    std::string list(text);
    const std::vector<JsonValue> values = ReadStrictJson(list);
    const bool single = values.size() == 2 && values[0].kind == JsonValue::Kind::Array &&
                        values[1].kind == JsonValue::Kind::Text;
    return single ? std::optional(std::string(values[1].text)) : std::nullopt;
}

std::optional<Account> Runner(const Request& request)
{
    const auto name = CanonicalName(request.runner);
    return name ? FindAccount(*name) : std::nullopt;
}

// Calls use(account, server) with the mail account that the arguments name, unless it cannot be had.
template<class Use>
void WithMailAccount(const Request& request, const Reply& reply, Use use)
{
    const auto type = request.params.Text("email_type");
    const auto alias = request.params.Text("alias");
    if (!type || !alias || request.runner.empty()) {
        reply.Refuse(Code::BadArgument);
        return;
    }
    try {
        const auto account = Runner(request);
        auto opened = account ? OpenMailAccount(*account, *type, *alias) : std::nullopt;
        if (!opened) {
            reply.Refuse(account ? Code::NoMailAccount : Code::NoAccount);
            return;
        }
        use(*account, opened->server);
    } catch (const DatabaseError& error) {
        syslog(LOG_ERR, "a mail account cannot be read: %s", error.what());
        reply.Refuse(Code::Unavailable);
    } catch (const VaultError& error) {
        syslog(LOG_ERR, "the password of a mail account cannot be opened: %s", error.what());
        reply.Refuse(Code::Unavailable);
    }
}

// The server that is described by the arguments of a test; with what is wrong with them, in a few words.
struct Described {
    MailAccount account;
    const char* problem = nullptr;
};

Described DescribedServer(const JsonObject& params)
{
    const auto text = [&](const char* name) { return std::string(params.Text(name).value_or("")); };
    Described described;
    MailServer& server = described.account.server;
    const auto security = MailSecurityOf(text("security"));
    described.account.alias = "test";
    server.host = text("host");
    server.port = params.Int("port").value_or(0);
    server.security = security.value_or(MailSecurity::StartTls);
    server.user = text("user");
    server.password = text("password");
    server.from = text("from");
    server.caFile = Setting("mail_ca_file", "");
    server.privateAddresses = MayPersonalServersBePrivate();
    described.problem = MailAccountProblem(described.account);
    if (!security) {
        described.problem = "the security is none of starttls, tls and none";
    }
    if (server.password.size() > kLongestPassword) {
        described.problem = "the password is too long";
    }
    return described;
}

} // namespace

void SendAndAnswer(const MailServer& server, const Mail& mail, const Reply& reply, Tools& tools)
{
    struct Transfer {
        std::unique_ptr<MailSender> sender;
        MailOutcome outcome;
    };
    const auto transfer = std::make_shared<Transfer>();
    try {
        transfer->sender = std::make_unique<MailSender>(server);
        transfer->sender->Load(mail);
    } catch (const std::invalid_argument& error) {
        reply.Refuse(Code::BadArgument, Said(0, error.what()));
        return;
    }
    const auto send = [transfer] {
        transfer->outcome = transfer->sender->Send();
        transfer->sender.reset(); // here, where a goodbye may take its time
    };
    tools.transfers.Start(send, [transfer, reply] {
        const MailOutcome& outcome = transfer->outcome;
        const std::string said = Said(outcome.reply, outcome.text);
        if (outcome.delivery == Delivery::Sent) {
            reply.Data(said);
        } else {
            const bool refused = outcome.delivery == Delivery::Refused;
            reply.Refuse(refused ? Code::MailRefused : Code::MailNotSent, said);
        }
    });
}

Mail TestMail(const std::string& to, const std::string& about)
{
    Mail mail;
    mail.to = to;
    mail.subject = "Test mail of " + OwnHostName();
    mail.html = "This mail shows that " + about + " can send. Nobody needs to answer it.";
    mail.messageId = NewMessageId();
    mail.date = WallSeconds();
    return mail;
}

void TestNotificationMail(const Request& request, const Reply& reply, Tools& tools)
{
    const auto to = request.params.Text("to");
    if (!to) {
        reply.Refuse(Code::BadArgument);
        return;
    }
    const std::optional<MailServer> server = NotificationServer();
    if (!server) {
        reply.Refuse(Code::NoMailServer);
        return;
    }
    SendAndAnswer(*server, TestMail(std::string(*to), "the mail server that is set up on " + OwnHostName()),
                  reply, tools);
}

void SendPersonalMail(const Request& request, const Reply& reply, Tools& tools)
{
    const JsonObject& params = request.params;
    const auto to = params.Text("to");
    const auto subject = params.Text("subject");
    const auto body = params.Text("body");
    const auto appName = params.Text("app_name");
    const auto appTitle = params.Text("app_title");
    const auto address = to ? OnlyAddress(*to) : std::nullopt;
    if (!address || !subject || !body || !appName || !appTitle || appName->size() > kLongestAppText ||
        appTitle->size() > kLongestAppText) {
        reply.Refuse(Code::BadArgument);
        return;
    }
    WithMailAccount(request, reply, [&](const Account& /*account*/, const MailServer& server) {
        Mail mail;
        mail.to = *address;
        mail.subject = *subject;
        mail.html = *body;
        mail.messageId = NewMessageId();
        mail.date = WallSeconds();
        SendAndAnswer(server, mail, reply, tools);
        sodium_memzero(mail.html.data(), mail.html.size());
    });
}

// A server that is described, or a mail account that is stored.
void TestPersonalMail(const Request& request, const Reply& reply, Tools& tools)
{
    const auto to = request.params.Text("to");
    if (!to) {
        reply.Refuse(Code::BadArgument);
        return;
    }
    const Mail mail = TestMail(std::string(*to), "a personal mail account");
    if (request.params.Find("host") == nullptr) {
        WithMailAccount(request, reply, [&](const Account& /*account*/, const MailServer& server) {
            SendAndAnswer(server, mail, reply, tools);
        });
        return;
    }
    const Described described = DescribedServer(request.params);
    if (described.problem != nullptr) {
        reply.Refuse(Code::BadArgument, Said(0, described.problem));
        return;
    }
    SendAndAnswer(described.account.server, mail, reply, tools);
}

} // namespace tavr::webapi
