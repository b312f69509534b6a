// A mail and a person's mail account, for tests that change what they are about.
#pragma once

#include "linux/mail_accounts.h"
#include "webapi/message.h"

#include <string>

namespace tavr::test
{

inline webapi::Mail EasyMail()
{
    webapi::Mail mail;
    mail.to = "alice@home.example";
    mail.subject = "Your emergency code";
    mail.html = "Hello alice,<br><br>12345678";
    mail.messageId = "<1@nas.example>";
    mail.date = 1'795'283'999;
    return mail;
}

inline MailAccount OfficeAccount(const std::string& alias, const std::string& password = "relay-pw")
{
    MailAccount account;
    account.alias = alias;
    account.server.host = "mail.office.example";
    account.server.port = 587;
    account.server.user = "alice@office.example";
    account.server.password = password;
    account.server.from = "alice@office.example";
    return account;
}

} // namespace tavr::test
