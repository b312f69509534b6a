#include "web/databases.h"
#include "web/route_table.h"

#include "linux/database.h"
#include "linux/guarded.h"
#include "linux/machine_key.h"
#include "linux/request.h"

#include <sodium.h>
#include <syslog.h>

#include <algorithm>
#include <cstring>

namespace tavr::web
{

namespace
{

unsigned CallerOf(const Session& session)
{
    switch (session.state) {
    case SessionState::Live:
        return session.account.isAdmin ? kSignedIn | kAdministrator : kSignedIn;
    case SessionState::CodeRequired:
        return kCodePending;
    case SessionState::EnrolmentRequired:
        return kEnrolmentPending;
    }
    return 0;
}

// Null when there is none; `refusal` is then 404, or 405 with the methods that the path has.
const Route* FindRoute(const HttpRequest& request, Answer& refusal)
{
    std::string allowed;
    for (const Route& route : kRoutes) {
        if (request.path != route.path) {
            continue;
        }
        if (request.method == route.method) {
            return &route;
        }
        allowed += (allowed.empty() ? "" : ", ") + std::string(route.method);
    }
    if (allowed.empty()) {
        refusal = Refusal(404, "not_found");
    } else {
        refusal = Refusal(405, "method_not_allowed");
        refusal.headers.emplace_back("Allow", allowed);
    }
    return nullptr;
}

bool IsChange(const Route& route)
{
    return std::strcmp(route.method, "POST") == 0;
}

// What can be refused by the headers alone.
std::optional<Answer> RefuseHeaders(const Route& route, const HttpRequest& request)
{
    if (!IsChange(route)) {
        return std::nullopt;
    }
    if (!OriginAllowed(request)) {
        return Refusal(403, "bad_origin");
    }
    if (!IsJsonContentType(request.contentType)) {
        return Refusal(415, "bad_content_type");
    }
    if (request.bodySize && *request.bodySize > route.bodyLimit) {
        return Refusal(413, "too_large");
    }
    return std::nullopt;
}

bool HasCookie()
{
    const Request& current = CurrentRequest();
    return !current.sidCookie.empty() || !current.pendingCookie.empty();
}

// A cookie stands for what it is called: a half sign-in in the session's cookie is none, and the other way
// round.
void FindSessions(Call& call)
{
    Request& current = CurrentRequest();
    if (!current.sidCookie.empty()) {
        call.live = FindSession(current.sidCookie);
        if (call.live && call.live->state != SessionState::Live) {
            call.live.reset();
        }
    }
    if (!current.pendingCookie.empty()) {
        call.pending = FindSession(current.pendingCookie);
        if (call.pending && call.pending->state == SessionState::Live) {
            call.pending.reset();
        }
    }
}

std::optional<Answer> RefuseCaller(const Route& route, Call& call)
{
    for (const std::optional<Session>* session : {&call.live, &call.pending}) {
        if (*session && (route.callers & CallerOf(**session)) != 0) {
            call.session = &**session;
            return std::nullopt;
        }
    }
    if ((route.callers & kNobody) != 0) {
        return std::nullopt;
    }
    if (route.callers == kAdministrator && call.live) {
        return Refusal(403, "not_admin");
    }
    return route.otherwise != nullptr ? Refusal(403, route.otherwise) : Refusal(401, "not_signed_in");
}

bool TokenMatches(const HttpRequest& request, const Session& session)
{
    return request.token.size() == session.token.size() &&
           sodium_memcmp(request.token.data(), session.token.data(), session.token.size()) == 0;
}

Answer ServeRoute(const Route& route, Call& call, const std::string& body)
{
    if (HasCookie() || (route.callers & kNobody) != 0) { // others are refused, whatever stands in a database
        OpenDatabases();
        FindSessions(call);
    }
    if (std::optional<Answer> refusal = RefuseCaller(route, call)) {
        return std::move(*refusal);
    }
    if (route.token && !TokenMatches(call.request, *call.session)) {
        return Refusal(403, "bad_token");
    }
    if (IsChange(route)) {
        std::optional<Json::Value> object = ParseBody(body, route.members);
        if (!object) {
            return Refusal(400, "bad_request");
        }
        call.body = std::move(*object);
    }
    return route.handler(call);
}

std::string CookieName(const HttpRequest& request, const char* name)
{
    return request.secure ? std::string("__Host-") + name : name;
}

std::string CookieFlags(const HttpRequest& request)
{
    return std::string("; Path=/; HttpOnly; SameSite=Strict") + (request.secure ? "; Secure" : "");
}

} // namespace

Answer Success()
{
    Answer answer;
    answer.body["success"] = true;
    return answer;
}

Answer Refusal(int status, const char* error)
{
    Answer answer;
    answer.status = status;
    answer.body["success"] = false;
    answer.body["err"] = error;
    return answer;
}

Answer Unavailable()
{
    const Fault fault = CurrentRequest().fault;
    if (fault == Fault::DirectoryBusy) {
        return Busy();
    }
    syslog(LOG_ERR, "two-step sign-in unavailable: %s", FaultText(fault));
    return Refusal(503, fault == Fault::PolicyUnavailable ? "policy_unavailable" : "otp_unavailable");
}

Answer Later(int seconds)
{
    Answer answer = Refusal(429, "too_many_attempts");
    answer.headers.emplace_back("Retry-After", std::to_string(std::max(1, seconds)));
    return answer;
}

Answer Busy(int seconds)
{
    Answer answer = Refusal(503, "busy");
    answer.headers.emplace_back("Retry-After", std::to_string(seconds));
    return answer;
}

std::string ReadCookie(const HttpRequest& request, const char* name)
{
    return Cookie(request.cookies, CookieName(request, name));
}

void SetCookie(Answer& answer, const HttpRequest& request, const char* name, const std::string& identifier)
{
    answer.headers.emplace_back("Set-Cookie",
                                CookieName(request, name) + "=" + identifier + CookieFlags(request));
}

void ClearCookie(Answer& answer, const HttpRequest& request, const char* name)
{
    answer.headers.emplace_back("Set-Cookie",
                                CookieName(request, name) + "=; Max-Age=0" + CookieFlags(request));
}

Answer Serve(const HttpRequest& request, const std::string& body)
{
    Answer refusal;
    const Route* route = FindRoute(request, refusal);
    if (route == nullptr) {
        return refusal;
    }
    if (std::optional<Answer> refused = RefuseHeaders(*route, request)) {
        return std::move(*refused);
    }
    Call call{request, {}, {}, {}, nullptr};
    struct WipeBody {
        Json::Value& body;
        ~WipeBody() { Wipe(body); }
    } wipe{call.body};
    try {
        return ServeRoute(*route, call, body);
    } catch (const DatabaseError& error) {
        syslog(LOG_ERR, "sign-in state: %s", error.what());
        NoteFault(Fault::StateUnavailable);
        return Unavailable();
    } catch (const DirectoryError& error) {
        syslog(LOG_ERR, "directory: %s", error.what());
        NoteFault(FaultOf(error));
        return Unavailable();
    } catch (const VaultError& error) {
        NoteFault(error.fault);
        return Unavailable();
    }
}

} // namespace tavr::web
