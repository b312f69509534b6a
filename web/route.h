// What a route is and what its handler gets and gives. The table of all of them: routes.cpp.
#pragma once

#include "linux/session.h"
#include "web/request.h"

#include <json/value.h>

#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace tavr::web
{

inline constexpr size_t kLargestBody = 64 * 1024;

struct Answer {
    int status = 200;
    Json::Value body; // an object
    std::vector<std::pair<const char*, std::string>> headers;
};

Answer Success();                              // 200 with success true
Answer Refusal(int status, const char* error); // success false and err
Answer Unavailable();                          // the fault that the request has noted
Answer Later(int seconds);                     // too many attempts
Answer Busy(int seconds = 5);                  // nothing is wrong with the request; again after so long

// Who may ask, as bits.
enum Caller : unsigned {
    kNobody = 1,
    kCodePending = 2,      // half sign-in: second step missing
    kEnrolmentPending = 4, // half sign-in: demanded enrolment missing
    kSignedIn = 8,
    kAdministrator = 16, // signed in, a member of the administrators
};

struct Call {
    const HttpRequest& request;
    Json::Value body;            // checked against the route's members
    std::optional<Session> live; // what the cookies stand for
    std::optional<Session> pending;
    const Session* session = nullptr; // the one of the two that the route is served for, if any

    [[nodiscard]] const char* Text(const char* member) const { return body[member].asCString(); }
};

struct Route {
    const char* method;
    const char* path;
    unsigned callers;
    bool token;            // must carry the token of the session that it is served for
    const char* otherwise; // err for other callers, with 403; none: 401 not_signed_in
    size_t bodyLimit;
    std::span<const Member> members;
    Answer (*handler)(Call& call);
};

// Cookies, by their names without prefix; over TLS they carry __Host- and are Secure.
std::string ReadCookie(const HttpRequest& request, const char* name);
void SetCookie(Answer& answer, const HttpRequest& request, const char* name, const std::string& identifier);
void ClearCookie(Answer& answer, const HttpRequest& request, const char* name);

// The whole way from a request to its answer. Exceptions pass through.
Answer Serve(const HttpRequest& request, const std::string& body);

} // namespace tavr::web
