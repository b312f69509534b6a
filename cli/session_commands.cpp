#include "cli/commands.h"
#include "cli/console.h"
#include "linux/audit.h"
#include "linux/session.h"

namespace tavr::console
{

namespace
{

Json::Value ToJson(const ListedSession& session)
{
    Json::Value entry;
    entry["id"] = session.handle;
    entry["user"] = session.account.name;
    entry["uid"] = session.account.uid;
    entry["state"] = TextOf(session.state);
    entry["second_step"] = session.secondStep;
    entry["age"] = Json::Int64{session.age};
    entry["idle"] = Json::Int64{session.idle};
    entry["expires_in"] = Json::Int64{session.expiresIn};
    return entry;
}

} // namespace

void ListSessionsCommand(const std::string& typedName)
{
    std::optional<uint32_t> account;
    if (!typedName.empty()) {
        account = KnownAccount(typedName).uid;
    }
    const std::vector<ListedSession> sessions = ListSessions(account);
    if (IsJson()) {
        JsonList list("sessions");
        for (const ListedSession& session : sessions) {
            list.Add(ToJson(session));
        }
        list.End();
        return;
    }
    for (const ListedSession& session : sessions) {
        Say(session.handle + '\t' + session.account.name + '\t' + TextOf(session.state) + '\t' +
            std::to_string(session.age) + '\t' + std::to_string(session.idle) + '\t' +
            std::to_string(session.expiresIn));
    }
}

void EndSessionsCommand(const std::string& typedName)
{
    const Account account = KnownAccount(typedName);
    const int64_t ended = EndSessionsOf(account.uid);
    Audit(AuditEvent::SessionsEnded, account, "all");
    Say("ended the sessions of " + account.name + ": " + std::to_string(ended));
    Json::Value answer;
    answer["user"] = account.name;
    answer["sessions_ended"] = Json::Int64{ended};
    Answer(std::move(answer));
}

void EndSessionCommand(const std::string& handle)
{
    const std::optional<Account> account = EndSessionByHandle(handle);
    if (!account) {
        throw Failure(Exit::NotFound, "no_such_session", "there is no such session");
    }
    Audit(AuditEvent::SessionsEnded, *account, "one");
    Say("ended a session of " + account->name);
    Json::Value answer;
    answer["user"] = account->name;
    answer["sessions_ended"] = 1;
    Answer(std::move(answer));
}

} // namespace tavr::console
