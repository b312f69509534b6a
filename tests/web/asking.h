// Somebody with an account and a browser, who asks the routes without a web server. For work in a child of
// FreshServer.
#pragma once

#include "linux/accounts.h"
#include "web/route.h"

#include <string>
#include <string_view>

namespace tavr::web
{

inline constexpr char kRightPassword[] = "the right pässword";

// An account, and what its browser holds.
struct Somebody {
    Account account;
    std::string key; // where enrolled
    std::string sid; // identifiers; empty: no such cookie
    std::string pending;
    std::string token;
    std::string code; // typed instead of the app's
};

// Accounts whose password costs no time. The enrolled one has used the steps up to the last but one.
Somebody AddSomebody(const std::string& name);
Somebody AddEnrolled(const std::string& name);

// Picked by the administrator, for the option "custom".
void Demand(const Account& account);

// For another process: everything but the account, through a file.
void Keep(const Somebody& somebody, const std::string& path);
Somebody Recall(const std::string& path);

// A new secret is the account's at once: enrolled, or renewed. Gives its key. The steps up to this one from
// now are used.
std::string Enrol(const Account& account, int64_t usedStep = -2);

// What the app shows; a code that is wrong where nothing is enrolled.
std::string CodeNow(const Somebody& somebody);
std::string Open(const Account& account, bool withCode); // a session's identifier

// With somebody's cookies and token, and a query and a body with everything that any route takes.
HttpRequest RequestOf(const char* method, const char* path, const Somebody& somebody);
std::string FullBody(const Somebody& somebody);

Answer Ask(HttpRequest http, const std::string& body);      // a request from its beginning to its end
void TakeCookies(Somebody& somebody, const Answer& answer); // and the token, as a browser and its page do
Answer SignInAs(Somebody& somebody);                        // with kRightPassword

std::string Said(const Answer& answer);                            // "200", "403 bad_token"
std::string HeaderOf(const Answer& answer, std::string_view name); // empty: none

} // namespace tavr::web
