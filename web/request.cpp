#include "web/request.h"

#include "linux/session.h"

#include <json/reader.h>
#include <sodium.h>

#include <algorithm>
#include <memory>

namespace tavr::web
{

namespace
{

constexpr int kNesting = 16;

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

// Bytes of the character at the front: none for what is no UTF-8 (over-long, a surrogate, beyond U+10FFFF,
// cut).
size_t CharacterSize(std::string_view text)
{
    const auto byte = [text](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char first = byte(0);
    if (first < 0x80) {
        return 1;
    }
    const size_t size = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || text.size() < size) {
        return 0;
    }
    for (size_t i = 1; i < size; ++i) {
        if ((byte(i) & 0xC0) != 0x80) {
            return 0;
        }
    }
    const unsigned char second = byte(1);
    const bool wrong = (first == 0xE0 && second < 0xA0) || (first == 0xED && second > 0x9F) ||
                       (first == 0xF0 && second < 0x90) || (first == 0xF4 && second > 0x8F);
    return wrong ? 0 : size;
}

bool IsUtf8(std::string_view text)
{
    while (!text.empty()) {
        const size_t size = CharacterSize(text);
        if (size == 0) {
            return false;
        }
        text.remove_prefix(size);
    }
    return true;
}

std::unique_ptr<Json::CharReader> StrictReader()
{
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder["stackLimit"] = kNesting;
    return std::unique_ptr<Json::CharReader>(builder.newCharReader());
}

std::optional<Json::Value> ParseObject(std::string_view text)
{
    Json::Value value;
    try {
        if (!StrictReader()->parse(text.data(), text.data() + text.size(), &value, nullptr) ||
            !value.isObject()) {
            Wipe(value);
            return std::nullopt;
        }
    } catch (const Json::Exception&) { // what jsoncpp says to a document that nests too deep
        Wipe(value);
        return std::nullopt;
    }
    return value;
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
    const Json::Value* value =
        object.find(member.name, member.name + std::char_traits<char>::length(member.name));
    if (value == nullptr) {
        return member.optional;
    }
    const char* begin = nullptr;
    const char* end = nullptr;
    if (!value->isString() || !value->getString(&begin, &end)) {
        return false;
    }
    const std::string_view text(begin, static_cast<size_t>(end - begin));
    return text.size() <= member.limit && text.find('\0') == std::string_view::npos && IsUtf8(text) &&
           HasForm(text, member.form);
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

std::optional<Json::Value> ParseBody(std::string_view body, std::span<const Member> members)
{
    if (!IsUtf8(body)) {
        return std::nullopt;
    }
    std::optional<Json::Value> object = ParseObject(body);
    if (object && !std::all_of(members.begin(), members.end(),
                               [&](const Member& member) { return Fits(*object, member); })) {
        Wipe(*object);
        return std::nullopt;
    }
    return object;
}

void Wipe(Json::Value& value)
{
    if (value.isString()) {
        const char* begin = nullptr;
        const char* end = nullptr;
        if (value.getString(&begin, &end)) {
            sodium_memzero(const_cast<char*>(begin), static_cast<size_t>(end - begin));
        }
        return;
    }
    if (value.isObject() || value.isArray()) {
        for (Json::Value& member : value) {
            Wipe(member);
        }
    }
}

} // namespace tavr::web
