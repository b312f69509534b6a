#include "webapi/calls.h"

#include "linux/accounts.h"
#include "linux/domain_accounts.h"
#include "linux/ldap_accounts.h"
#include "linux/names.h"
#include "linux/request.h"
#include "linux/user_settings.h"
#include "webapi/mail_calls.h"
#include "webapi/queue_runner.h"
#include "webapi/transfers.h"

#include <json/writer.h>
#include <syslog.h>

#include <algorithm>
#include <memory>
#include <span>

namespace tavr::webapi
{

namespace
{

// --- TAVR.Core.NormalUser ---

void AnswerUser(const std::string& name, uint32_t uid, const std::string& mail, const Reply& reply)
{
    // Written by hand: as a Json::Value it would take as long as the rest of the call.
    reply.Data(R"({"email":)" + Json::valueToQuotedString(mail.c_str()) + R"(,"name":)" +
               Json::valueToQuotedString(name.c_str()) + R"(,"uid":)" + std::to_string(uid) + '}');
}

// A directory may take its time: it is asked on a thread of the transfers'.
void GetDirectoryUser(const LdapSettings& settings, const std::string& name, const Reply& reply, Tools& tools)
{
    struct LookUp {
        std::optional<UnnumberedAccount> found;
        bool failed = false;
    };
    const auto lookUp = std::make_shared<LookUp>();
    const auto ask = [lookUp, settings, name] {
        try {
            lookUp->found = AskLdapAccount(settings, name);
        } catch (const std::exception& error) {
            syslog(LOG_ERR, "directory: %s", error.what());
            lookUp->failed = true;
        }
    };
    tools.transfers.Start(ask, [lookUp, reply] {
        if (lookUp->failed || !lookUp->found) {
            reply.Refuse(lookUp->failed ? Code::Unavailable : Code::NoAccount);
            return;
        }
        try {
            const Account account = Numbered(std::move(*lookUp->found));
            AnswerUser(account.name, account.uid, account.mail, reply);
        } catch (const DatabaseError& error) {
            syslog(LOG_ERR, "accounts: %s", error.what());
            reply.Refuse(Code::Unavailable);
        }
    });
}

void GetLocalUser(const std::string& name, const Reply& reply)
{
    const std::optional<Addressee> user = FindAddressee(name);
    user ? AnswerUser(name, user->uid, user->mail, reply) : reply.Refuse(Code::NoAccount);
}

// What is asked of a domain's account is kept here, so the domain is not asked.
void GetDomainUser(const std::string& name, const Reply& reply)
{
    const std::optional<Account> user = FindAccount(name);
    user ? AnswerUser(name, user->uid, UserSettingsMail(*user), reply) : reply.Refuse(Code::NoAccount);
}

void GetNormalUser(const Request& request, const Reply& reply, Tools& tools)
{
    if (request.runner.empty()) {
        reply.Refuse(Code::BadArgument);
        return;
    }
    try {
        const auto name = CanonicalName(request.runner);
        if (name && IsLdapName(*name)) {
            GetDirectoryUser(*ReadLdapSettings(), *name, reply, tools);
        } else if (name && IsDomainName(*name)) {
            GetDomainUser(*name, reply);
        } else if (name && !IsDirectoryName(*name)) {
            GetLocalUser(*name, reply);
        } else {
            reply.Refuse(Code::NoAccount); // no name, or of a directory that is not set up
        }
    } catch (const std::runtime_error& error) {
        syslog(LOG_ERR, "accounts: %s", error.what());
        reply.Refuse(Code::Unavailable);
    }
}

// --- TAVR.Notification.Mail ---

void WakeQueue(const Request& /*request*/, const Reply& reply, Tools& tools)
{
    tools.queue.Wake();
    reply.Data("{}");
}

// --- The table ---

struct Call {
    const char* api;
    const char* method;
    int version;
    void (*run)(const Request& request, const Reply& reply, Tools& tools);
};

constexpr Call kCalls[] = {
    {"TAVR.Core.NormalUser", "get", 1, GetNormalUser},
    {"TAVR.PersonMailAccount.Mail", "send", 1, SendPersonalMail},
    {"TAVR.PersonMailAccount.Mail", "test", 1, TestPersonalMail},
    {"TAVR.Notification.Mail", "test", 1, TestNotificationMail},
    {"TAVR.Notification.Mail", "wake", 1, WakeQueue},
};

// The call, or which part of its name is unknown.
struct Found {
    const Call* call = nullptr;
    Code code = Code::UnknownApi;
};

Found FindCall(const Request& request)
{
    Found found;
    for (const Call& call : kCalls) {
        if (request.api != call.api) {
            continue;
        }
        found.code = std::max(found.code, Code::UnknownMethod);
        if (request.method == call.method) {
            found.code = Code::UnknownVersion;
            if (request.version == call.version) {
                return {&call, Code::None};
            }
        }
    }
    return found;
}

} // namespace

void RunCall(const Request& request, const Reply& reply, Tools& tools)
{
    const Found found = FindCall(request);
    if (found.call == nullptr) {
        reply.Refuse(found.code);
        return;
    }
    try {
        StartRequest();
        found.call->run(request, reply, tools);
    } catch (const std::exception& error) {
        syslog(LOG_ERR, "%s %s: %s", found.call->api, found.call->method, error.what());
        reply.Refuse(Code::Internal);
    }
}

} // namespace tavr::webapi
