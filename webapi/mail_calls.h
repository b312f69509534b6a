// Calls that send one mail at once and answer when its server has: through a person's mail account, and to
// try one out. What of the answer is the server's own stands in "reply" and "text".
#pragma once

#include "webapi/calls.h"
#include "webapi/smtp.h"

namespace tavr::webapi
{

// TAVR.PersonMailAccount.Mail, version 1: "send" and "test".
void SendPersonalMail(const Request& request, const Reply& reply, Tools& tools);
void TestPersonalMail(const Request& request, const Reply& reply, Tools& tools);

// TAVR.Notification.Mail, version 1: "test".
void TestNotificationMail(const Request& request, const Reply& reply, Tools& tools);

// Sends it through the service's transfers, and tells what became of it. A mail that cannot be sent at all is
// Code::BadArgument.
void SendAndAnswer(const MailServer& server, const Mail& mail, const Reply& reply, Tools& tools);

// A mail that shows that a server works; `about` is what was tried out, in HTML.
Mail TestMail(const std::string& to, const std::string& about);

} // namespace tavr::webapi
