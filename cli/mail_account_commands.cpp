#include "cli/commands.h"
#include "cli/console.h"
#include "linux/mail_accounts.h"

#include <sodium.h>

namespace tavr::console
{

namespace
{

Json::Value ToJson(const MailAccount& account)
{
    Json::Value entry;
    entry["alias"] = account.alias;
    entry["type"] = account.type;
    entry["is_default"] = account.isDefault;
    entry["host"] = account.server.host;
    entry["port"] = account.server.port;
    entry["security"] = MailSecurityText(account.server.security);
    entry["user"] = account.server.user;
    entry["from"] = account.server.from;
    return entry;
}

std::string ToText(const MailAccount& account)
{
    const MailServer& server = account.server;
    return account.alias + '\t' + (account.isDefault ? "default" : "-") + '\t' + server.host + '\t' +
           std::to_string(server.port) + '\t' + MailSecurityText(server.security) + '\t' +
           (server.user.empty() ? "-" : server.user) + '\t' + server.from;
}

std::optional<MailAccount> FindMailAccount(const Account& owner, const std::string& alias)
{
    for (MailAccount& account : MailAccountsOf(owner)) {
        if (account.alias == alias) {
            return std::move(account);
        }
    }
    return std::nullopt;
}

[[noreturn]] void NoSuchMailAccount(const Account& owner, const std::string& alias)
{
    throw Failure(Exit::NotFound, "no_such_mail_account", owner.name + " has no mail account " + alias);
}

[[noreturn]] void MailAccountExists(const Account& owner, const std::string& alias)
{
    throw Failure(Exit::Exists, "mail_account_exists",
                  owner.name + " has a mail account " + alias + " already");
}

MailAccount ExistingMailAccount(const Account& owner, const std::string& alias)
{
    auto account = FindMailAccount(owner, alias);
    if (!account) {
        NoSuchMailAccount(owner, alias);
    }
    return std::move(*account);
}

void AnswerMailAccount(const Account& owner, const MailAccount& account, const std::string& testedTo)
{
    Json::Value answer;
    answer["user"] = owner.name;
    answer["mail_account"] = ToJson(account);
    answer["tested_to"] = testedTo.empty() ? Json::Value() : Json::Value(testedTo);
    Answer(std::move(answer));
}

MailAccount NewMailAccount(const std::string& alias, const ServerTexts& texts)
{
    MailAccount account;
    account.alias = alias;
    account.server.host = texts.host.value_or("");
    account.server.security =
        MailSecurityOf(texts.security.value_or("starttls")).value_or(MailSecurity::StartTls);
    account.server.port = texts.port.value_or(UsualPort(account.server.security));
    account.server.user = texts.user.value_or("");
    account.server.from = texts.from.value_or("");
    if (const char* problem = MailAccountProblem(account)) {
        throw Failure(Exit::Usage, "bad_mail_account",
                      std::string("the mail account is refused: ") + problem);
    }
    return account;
}

// Where a test mail goes: to the address that codes would go to, or to the mail account itself.
std::string TestAddress(const Account& owner, const MailAccount& account, const std::string& wanted)
{
    const std::string own = owner.mail.empty() ? account.server.from : owner.mail;
    const std::string address = wanted.empty() ? own : wanted;
    if (!IsMailAddress(address)) {
        throw Failure(Exit::Usage, "bad_address", "this is no mail address: " + address);
    }
    return address;
}

// Ends the command with the mail server's own words when it does not take the mail.
void SendTest(const Account& owner, Json::Value params)
{
    const Json::Value answer =
        AskService("TAVR.PersonMailAccount.Mail", "test", std::move(params), owner.name);
    if (answer["success"] != true) {
        FailUnsent(answer);
    }
}

Json::Value TestParams(const MailAccount& account, const std::string& to)
{
    Json::Value params;
    params["to"] = to;
    params["host"] = account.server.host;
    params["port"] = account.server.port;
    params["security"] = MailSecurityText(account.server.security);
    params["user"] = account.server.user;
    params["password"] = account.server.password;
    params["from"] = account.server.from;
    return params;
}

} // namespace

void AddMailAccountCommand(const std::string& typedName, const NewMailAccountTexts& texts)
{
    const Account owner = KnownAccount(typedName);
    MailAccount account = NewMailAccount(texts.alias, texts.server);
    account.isDefault = texts.isDefault;
    const std::string to = texts.test ? TestAddress(owner, account, texts.to) : "";
    if (FindMailAccount(owner, account.alias)) {
        MailAccountExists(owner, account.alias);
    }
    if (account.server.user.empty() == texts.passwordStdin) {
        throw Failure(Exit::Usage, "usage", "--user and --password-stdin go together");
    }
    std::optional<Password> password;
    if (texts.passwordStdin) {
        account.server.password = password.emplace().Text();
    }
    if (texts.test) {
        SendTest(owner, TestParams(account, to));
    }
    const AddedMailAccount added = AddMailAccount(owner, account);
    sodium_memzero(account.server.password.data(), account.server.password.size());
    if (added == AddedMailAccount::No) {
        MailAccountExists(owner, account.alias);
    }
    account.isDefault = added == AddedMailAccount::AddedAsDefault;
    Say("added mail account " + account.alias + " of " + owner.name +
        (account.isDefault ? ", the default" : "") +
        (texts.test ? "; its server took a test mail to " + to : ", which was not tested"));
    AnswerMailAccount(owner, account, to);
}

void TestMailAccount(const std::string& typedName, const std::string& alias, const std::string& address)
{
    const Account owner = KnownAccount(typedName);
    const MailAccount account = ExistingMailAccount(owner, alias);
    const std::string to = TestAddress(owner, account, address);
    Json::Value params;
    params["to"] = to;
    params["email_type"] = account.type;
    params["alias"] = account.alias;
    SendTest(owner, std::move(params));
    Say("the server of mail account " + account.alias + " took a test mail to " + to);
    AnswerMailAccount(owner, account, to);
}

void SetDefaultMailAccountCommand(const std::string& typedName, const std::string& alias)
{
    const Account owner = KnownAccount(typedName);
    if (!SetDefaultMailAccount(owner, alias)) {
        NoSuchMailAccount(owner, alias);
    }
    Say("mail account " + alias + " is the default of " + owner.name);
    AnswerMailAccount(owner, ExistingMailAccount(owner, alias), "");
}

// One that is not usable, and is not listed, can be removed all the same.
void RemoveMailAccountCommand(const std::string& typedName, const std::string& alias)
{
    const Account owner = KnownAccount(typedName);
    const auto account = FindMailAccount(owner, alias);
    if (account) {
        Confirm("Remove mail account " + alias + " of " + owner.name + " with its password?");
    }
    if (!RemoveMailAccount(owner, alias)) {
        NoSuchMailAccount(owner, alias);
    }
    const bool wasDefault = account && account->isDefault;
    Say("removed mail account " + alias + " of " + owner.name +
        (wasDefault ? "; no other is the default now" : ""));
    Json::Value answer;
    answer["user"] = owner.name;
    answer["alias"] = alias;
    Answer(std::move(answer));
}

void ListMailAccounts(const std::string& typedName)
{
    const std::vector<MailAccount> accounts = MailAccountsOf(KnownAccount(typedName));
    if (IsJson()) {
        JsonList list("mail_accounts");
        for (const MailAccount& account : accounts) {
            list.Add(ToJson(account));
        }
        list.End();
        return;
    }
    for (const MailAccount& account : accounts) {
        Say(ToText(account));
    }
}

} // namespace tavr::console
