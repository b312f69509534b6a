#include "web/handlers.h"

#include "linux/enrolment.h"

namespace tavr::web
{

namespace
{

// The secret that this session's wizard made and did not confirm.
void DropWaitingOf(const Session& session)
{
    const std::optional<WaitingSecret> waiting = FindWaiting(session.account.uid);
    if (waiting && waiting->session == session.id) {
        DropWaiting(session.account.uid);
    }
}

} // namespace

Answer ShowSession(Call& call)
{
    if (!call.live) {
        Answer answer = Refusal(401, "not_signed_in");
        answer.body["state"] = TextOf(call.pending->state);
        answer.body["TavrToken"] = call.pending->token;
        answer.body["user"] = call.pending->account.name;
        return answer;
    }
    const Session& session = *call.live;
    Answer answer = Success();
    answer.body["user"] = session.account.name;
    answer.body["uid"] = session.account.uid;
    answer.body["is_admin"] = session.account.isAdmin;
    answer.body["expires_in"] = Json::Int64{session.expiresIn};
    answer.body["TavrToken"] = session.token;
    answer.headers.emplace_back("X-Tavr-User", session.account.name);
    return answer;
}

Answer SignOut(Call& call)
{
    for (const std::optional<Session>* session : {&call.live, &call.pending}) {
        if (*session) {
            EndSession(**session);
            DropWaitingOf(**session);
        }
    }
    Answer answer = Success();
    ClearCookie(answer, call.request, "sid");
    ClearCookie(answer, call.request, "pending");
    return answer;
}

} // namespace tavr::web
