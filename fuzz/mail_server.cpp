// A mail server as a row of emailaccount.db or the settings describe it, here as lines key="value": it is
// refused, or a transfer to that very server can be made of it.
#include "fuzz/demand.h"
#include "linux/mail_accounts.h"
#include "linux/settings.h"
#include "webapi/smtp.h"

#include <cstdint>
#include <stdexcept>

using namespace tavr;
using namespace tavr::webapi;

namespace
{

Mail AnyMail()
{
    Mail mail;
    mail.to = "alice@home.example";
    mail.messageId = "<1@nas.example>";
    return mail;
}

// An address that is none (":::") is left to libcurl to refuse.
void CheckTransfer(const MailServer& server)
{
    for (const char c : server.host + server.from + server.user) {
        Demand(c != '\r' && c != '\n' && c != '\0', "nothing ends a command");
    }
    Demand(server.host.find_first_of("/@?#%[] ") == std::string::npos, "a host is nothing but a host");
    Demand(server.from.find_first_of("<>, ") == std::string::npos, "a sender is one address");
    try {
        MailSender(server).Load(AnyMail());
    } catch (const std::invalid_argument&) {
        return;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const bool started = StartMailTransfers();
    Demand(started, "libcurl starts");
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    MailAccountRow row;
    for (const char* column : {"alias", "email_type", "is_default", "server", "port", "security", "user_name",
                               "sealed_password", "sender"}) {
        if (const auto value = FindKey(text, column)) {
            row[column] = *value;
        }
    }
    if (const auto account = ParseMailAccount(row)) {
        Demand(MailAccountProblem(*account) == nullptr, "a row that is taken has no problem");
        Demand(!account->server.privateAddresses, "no row allows a private address");
        const int port = account->server.port;
        Demand(port == 25 || port == 465 || port == 587, "a port is one of three");
        CheckTransfer(account->server);
    }

    MailServer server;
    server.host = row["server"];
    server.from = row["sender"];
    if (IsHostName(server.host) && IsMailAddress(server.from)) {
        server.security = MailSecurityOf(row["security"]).value_or(MailSecurity::StartTls);
        server.port = UsualPort(server.security);
        CheckTransfer(server);
    }
    return 0;
}
