// Somebody with an account and a browser, who asks the routes without a web server. For work in a child of
// FreshServer.
#pragma once

#include "linux/accounts.h"
#include "web/route.h"

#include <string>
#include <string_view>

namespace tavr::web
{

// An account, and what its browser holds.
struct Somebody {
    Account account;
    std::string key; // where enrolled
    std::string sid; // identifiers; empty: no such cookie
    std::string pending;
    std::string token;
};

// Makes the account enrolled; gives the key of its app.
std::string Enrol(const Account& account);

// What the app shows; a code that is wrong where nothing is enrolled.
std::string CodeNow(const Somebody& somebody);

// A request that is right but for its body, and its answer.
HttpRequest RequestOf(const char* method, const char* path, const Somebody& somebody);
Answer Ask(HttpRequest http, const std::string& body);

std::string Said(const Answer& answer);                            // "200", "403 bad_token"
std::string HeaderOf(const Answer& answer, std::string_view name); // empty: none

} // namespace tavr::web
