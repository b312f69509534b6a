#include "cli/commands.h"
#include "cli/console.h"
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
    return entry;
}

void AnswerAccount(const Account& account)
{
    Json::Value answer;
    answer["user"] = ToJson(account);
    Answer(std::move(answer));
}

// What the sign-in database still has of an account that is gone. Dead already: its number stands for nobody.
void ForgetSignin(uint32_t uid)
{
    EndSessionsOf(uid);
    const AccountLock lock(uid);
    if (!lock.Held()) {
        throw DatabaseError(0, "the account's lock cannot be had");
    }
    FinishSwitchingOff(uid);
}

} // namespace

void AddUser(const std::string& typedName, const UserTexts& texts, bool isAdmin)
{
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
    Say("added user " + added->name + " with number " + std::to_string(added->uid) +
        (isAdmin ? ", an administrator" : ""));
    AnswerAccount(*added);
}

void SetUser(const std::string& typedName, const UserTexts& texts)
{
    if (!texts.mail && !texts.description) {
        throw Failure(Exit::Usage, "usage", "nothing to set: give --mail or --desc");
    }
    CheckTexts(texts);
    const Account account = ExistingAccount(typedName);
    if (!ChangeAccount(account.uid, {texts.description, texts.mail})) {
        throw Failure(Exit::NotFound, "no_such_user", account.name + " has just been removed");
    }
    Say("changed user " + account.name);
    AnswerAccount(ExistingAccount(account.name));
}

void SetUserPassword(const std::string& typedName)
{
    const Account account = ExistingAccount(typedName);
    const Password password;
    if (!SetPassword(account.uid, password.Text())) {
        throw Failure(Exit::NotFound, "no_such_user", account.name + " has just been removed");
    }
    EndSessionsOf(account.uid);
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
            (account.isAdmin ? "administrator" : "-") + '\t' + (account.mail.empty() ? "-" : account.mail) +
            '\t' + account.description);
    });
}

void RemoveUser(const std::string& typedName)
{
    const Account account = ExistingAccount(typedName);
    const Removal removal = RemoveAccount(account.uid);
    if (!removal.removed) {
        throw Failure(Exit::NotFound, "no_such_user", account.name + " has just been removed");
    }
    ForgetSignin(account.uid);
    if (!removal.cleaned) {
        throw Failure(Exit::Failed, "not_cleaned",
                      "removed user " + account.name + ", but its preference directory could not be deleted");
    }
    Say("removed user " + account.name);
    AnswerAccount(account);
}

} // namespace tavr::console
