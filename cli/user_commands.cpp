#include "cli/commands.h"
#include "cli/console.h"
#include "linux/attempts.h"
#include "linux/audit.h"
#include "linux/enrolment.h"
#include "linux/session.h"
#include "linux/vault.h"

namespace tavr::console
{

namespace
{

bool LooksLikeAddress(const std::string& mail)
{
    const size_t at = mail.find('@');
    return at != std::string::npos && at > 0 && at + 1 < mail.size() &&
           mail.find('@', at + 1) == std::string::npos && mail.find(' ') == std::string::npos;
}

void CheckTexts(const UserTexts& texts)
{
    if (texts.mail && !texts.mail->empty()) {
        const char* problem = MailProblem(*texts.mail);
        if (problem != nullptr || !LooksLikeAddress(*texts.mail)) {
            throw Failure(Exit::Usage, "bad_mail",
                          std::string("the mail address is refused: ") +
                              (problem != nullptr ? problem : "it is no address"));
        }
    }
    if (const char* problem = texts.description ? DescriptionProblem(*texts.description) : nullptr) {
        throw Failure(Exit::Usage, "bad_description", std::string("the description is refused: ") + problem);
    }
}

Json::Value ToJson(const Account& account)
{
    Json::Value entry;
    entry["name"] = account.name;
    entry["uid"] = account.uid;
    entry["gid"] = account.gid;
    entry["description"] = account.description;
    entry["mail"] = account.mail;
    entry["is_admin"] = account.isAdmin;
    entry["disabled"] = account.disabled;
    return entry;
}

void AnswerAccount(const Account& account)
{
    Json::Value answer;
    answer["user"] = ToJson(account);
    Answer(std::move(answer));
}

// Ends what the sign-in database has of the account: sessions, then the secret with its file. A file that
// cannot be removed stays dead, as the vault knows none of its references any more.
void RetireSignin(const Account& account)
{
    MarkSwitchingOff(account, std::nullopt);
    if (Settle(account).enrolment == Enrolment::No) {
        return;
    }
    const AccountLock lock(account);
    if (!lock.Held()) {
        throw DatabaseError(0, "the account's lock cannot be had");
    }
    FinishSwitchingOff(account.uid);
}

} // namespace

void AddUser(const std::string& typedName, const UserTexts& texts, bool isAdmin)
{
    RequireEmbeddedAccounts();
    NewAccount account;
    account.name = LocalName(typedName);
    account.mail = texts.mail.value_or("");
    account.description = texts.description.value_or("");
    account.isAdmin = isAdmin;
    CheckTexts(texts);
    const Password password;
    const auto added = AddAccount(account, password.Text());
    if (!added) {
        throw Failure(Exit::Exists, "user_exists", "there is a user " + account.name + " already");
    }
    Audit(AuditEvent::AccountAdded, *added);
    ForgetPasswords(added->name); // tries on a former account of the name, or on none
    Say("added user " + added->name + " with number " + std::to_string(added->uid) +
        (isAdmin ? ", an administrator" : ""));
    AnswerAccount(*added);
}

void SetUser(const std::string& typedName, const UserTexts& texts)
{
    if (!texts.mail && !texts.description) {
        throw Failure(Exit::Usage, "usage", "nothing to set: give --mail or --desc");
    }
    if (texts.description) {
        RequireEmbeddedAccounts(); // an address is kept here, wherever the account comes from
    }
    CheckTexts(texts);
    const Account account = ExistingAccount(typedName);
    if (!ChangeAccount(account.uid, {texts.description, texts.mail})) {
        throw Failure(Exit::NotFound, "no_such_user", account.name + " has just been removed");
    }
    if (texts.mail) {
        Audit(AuditEvent::AddressChanged, account);
    }
    Say("changed user " + account.name);
    AnswerAccount(ExistingAccount(account.name));
}

void SetUserPassword(const std::string& typedName)
{
    RequireEmbeddedAccounts();
    const Account account = ExistingAccount(typedName);
    const Password password;
    if (!SetPassword(account.uid, password.Text())) {
        throw Failure(Exit::NotFound, "no_such_user", account.name + " has just been removed");
    }
    EndSessionsOf(account.uid);
    Audit(AuditEvent::PasswordChanged, account);
    Say("changed the password of " + account.name + " and ended its sessions");
    AnswerAccount(account);
}

void ListUsers()
{
    if (IsJson()) {
        JsonList list("users");
        ForEachAccount([&](const Account& account) { list.Add(ToJson(account)); });
        list.End();
        return;
    }
    ForEachAccount([](const Account& account) {
        Say(std::to_string(account.uid) + '\t' + account.name + '\t' +
            (account.isAdmin ? "administrator" : "-") + (account.disabled ? ",disabled" : "") + '\t' +
            (account.mail.empty() ? "-" : account.mail) + '\t' + account.description);
    });
}

// Disabled first: a removal that is cut short anywhere leaves an account that nobody can use, not one without
// its second step, and removing it again goes on from there.
void RemoveUser(const std::string& typedName)
{
    RequireEmbeddedAccounts();
    const Account account = ExistingAccount(typedName);
    Confirm("Remove user " + account.name + " with secret and preference directory?");
    SetDisabled(account.uid, true);
    RetireSignin(account);
    const Removal removal = RemoveAccount(account.uid);
    if (!removal.removed) {
        throw Failure(Exit::NotFound, "no_such_user", account.name + " has just been removed");
    }
    Audit(AuditEvent::AccountRemoved, account);
    if (!removal.cleaned) {
        throw Failure(Exit::Failed, "not_cleaned",
                      "removed user " + account.name + ", but its preference directory could not be deleted");
    }
    Say("removed user " + account.name);
    AnswerAccount(account);
}

void DisableUser(const std::string& typedName)
{
    RequireEmbeddedAccounts();
    const Account account = ExistingAccount(typedName);
    if (!SetDisabled(account.uid, true)) {
        throw Failure(Exit::NotFound, "no_such_user", account.name + " has just been removed");
    }
    EndSessionsOf(account.uid);
    Audit(AuditEvent::AccountDisabled, account);
    Say("disabled user " + account.name + " and ended its sessions");
    AnswerAccount(ExistingAccount(account.name));
}

void EnableUser(const std::string& typedName)
{
    RequireEmbeddedAccounts();
    const Account account = ExistingAccount(typedName);
    if (!SetDisabled(account.uid, false)) {
        throw Failure(Exit::NotFound, "no_such_user", account.name + " has just been removed");
    }
    Audit(AuditEvent::AccountEnabled, account);
    Say("enabled user " + account.name);
    AnswerAccount(ExistingAccount(account.name));
}

} // namespace tavr::console
