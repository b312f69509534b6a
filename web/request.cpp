#include "web/request.h"

#include "linux/session.h"

#include <algorithm>

namespace tavr::web
{

namespace
{

char Lower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool EqualIgnoringCase(std::string_view a, std::string_view b)
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](char left, char right) { return Lower(left) == Lower(right); });
}

std::string_view Trim(std::string_view text)
{
    const size_t first = text.find_first_not_of(" \t");
    return first == std::string_view::npos ? std::string_view()
                                           : text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// Takes the part before the next `separator` off the front of `rest`.
std::string_view NextPart(std::string_view& rest, char separator)
{
    const size_t end = rest.find(separator);
    const std::string_view part = rest.substr(0, end);
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
    return part;
}

bool IsIdentifier(std::string_view text)
{
    return text.size() == kIdentifierSize &&
           text.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

int HexDigit(char c)
{
    const size_t at = std::string_view("0123456789abcdef").find(Lower(c));
    return at == std::string_view::npos ? -1 : static_cast<int>(at);
}

// Of a query's name or value: "+" is a blank, "%" and two digits a byte.
std::optional<std::string> Decode(std::string_view text)
{
    std::string decoded;
    decoded.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            decoded += text[i] == '+' ? ' ' : text[i];
            continue;
        }
        const int high = i + 2 < text.size() ? HexDigit(text[i + 1]) : -1;
        const int low = i + 2 < text.size() ? HexDigit(text[i + 2]) : -1;
        if (high < 0 || low < 0) {
            return std::nullopt;
        }
        decoded += static_cast<char>(high * 16 + low);
        i += 2;
    }
    const bool plain = decoded.find('\0') == std::string::npos && IsUtf8(decoded);
    return plain ? std::optional(std::move(decoded)) : std::nullopt;
}

bool HasForm(std::string_view text, Form form)
{
    switch (form) {
    case Form::Text:
        return true;
    case Form::Base32Key:
        return text.size() >= 16 &&
               text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ234567") == std::string_view::npos;
    }
    return false;
}

bool Fits(const Json::Value& object, const Member& member)
{
    if (object.find(member.name, member.name + std::char_traits<char>::length(member.name)) == nullptr) {
        return member.optional;
    }
    const std::optional<std::string_view> text = TextMember(object, member.name);
    return text && text->size() <= member.limit && HasForm(*text, member.form);
}

} // namespace

std::string Cookie(std::string_view header, std::string_view name)
{
    std::string_view found;
    bool seen = false;
    while (!header.empty()) {
        std::string_view value = NextPart(header, ';');
        if (Trim(NextPart(value, '=')) != name) {
            continue;
        }
        if (seen) {
            return {}; // one of the two was planted, and nothing tells which
        }
        seen = true;
        found = Trim(value);
    }
    return IsIdentifier(found) ? std::string(found) : std::string();
}

bool OriginAllowed(const HttpRequest& request)
{
    if (!request.fetchSite.empty()) {
        return request.fetchSite == "same-origin" || request.fetchSite == "none";
    }
    if (request.origin.empty()) {
        return true;
    }
    if (request.host.empty()) {
        return false;
    }
    // Without TLS here it may still have ended before the web server.
    return EqualIgnoringCase(request.origin, "https://" + request.host) ||
           (!request.secure && EqualIgnoringCase(request.origin, "http://" + request.host));
}

bool IsJsonContentType(std::string_view contentType)
{
    return EqualIgnoringCase(Trim(NextPart(contentType, ';')), "application/json");
}

std::optional<std::map<std::string, std::string>> ParseQuery(std::string_view query)
{
    std::map<std::string, std::string> parameters;
    while (!query.empty()) {
        std::string_view rest = NextPart(query, '&');
        if (rest.empty()) {
            continue;
        }
        const std::optional<std::string> name = Decode(NextPart(rest, '='));
        std::optional<std::string> value = Decode(rest);
        if (!name || !value || !parameters.emplace(*name, std::move(*value)).second) {
            return std::nullopt;
        }
    }
    return parameters;
}

std::optional<Json::Value> ParseBody(std::string_view body, std::span<const Member> members)
{
    std::optional<Json::Value> object = ParseStrictObject(body);
    if (object && !std::all_of(members.begin(), members.end(),
                               [&](const Member& member) { return Fits(*object, member); })) {
        Wipe(*object);
        return std::nullopt;
    }
    return object;
}

} // namespace tavr::web
