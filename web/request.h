// A request as the web server hands it over, and what can be read from it without asking anything: path,
// cookies, origin, body. Everything in it is hostile until one of these functions has accepted it.
#pragma once

#include "linux/untrusted_json.h"

#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace tavr::web
{

struct HttpRequest {
    std::string method;
    std::string path;  // without the query
    std::string query; // what stands behind the "?", as it came
    std::string contentType;
    std::string cookies;
    std::string token;     // X-Tavr-Token
    std::string fetchSite; // Sec-Fetch-Site
    std::string origin;
    std::string host;
    std::string clientAddress;      // as the web server saw it
    std::optional<size_t> bodySize; // as announced; empty when it is no number
    bool secure = false;
};

// The identifier in the cookie `name`; empty when it is absent, stands there more than once, or is no
// identifier.
std::string Cookie(std::string_view header, std::string_view name);

// False for a request that a browser marks as coming from another site. Programs mark nothing.
bool OriginAllowed(const HttpRequest& request);

bool IsJsonContentType(std::string_view contentType);

// The parameters of a query by their names, decoded. Empty when one comes twice, an escape is broken, or a
// text is no UTF-8 or holds a NUL.
std::optional<std::map<std::string, std::string>> ParseQuery(std::string_view query);

enum class Form {
    Text,
    Base32Key, // 16 to 64 base-32 characters
};

struct Member {
    const char* name;
    size_t limit; // bytes
    Form form = Form::Text;
    bool optional = false;
};

// The body as an object in which every one of `members` is a text of its form and within its limit, without a
// NUL. Empty for anything else: not UTF-8, no strict JSON, no object, nested deeply, a member missing.
std::optional<Json::Value> ParseBody(std::string_view body, std::span<const Member> members);

} // namespace tavr::web
