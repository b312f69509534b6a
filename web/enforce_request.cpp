#include "web/enforce_request.h"

#include "web/request.h"

#include "linux/untrusted_json.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <initializer_list>
#include <map>

namespace tavr::web
{

namespace
{

constexpr size_t kLongestQuery = 1024; // bytes
constexpr size_t kLongestDomain = 256;
constexpr size_t kLongestWord = 16;

bool IsOneOf(std::string_view text, std::initializer_list<std::string_view> texts)
{
    return std::find(texts.begin(), texts.end(), text) != texts.end();
}

template<typename Number>
bool ReadNumber(std::string_view text, Number& number)
{
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && stop == end;
}

// What is not given stays as it is.
using Parameters = std::map<std::string, std::string>;

bool TakeText(const Parameters& parameters, const char* name, size_t limit, std::string& text)
{
    const auto found = parameters.find(name);
    if (found != parameters.end()) {
        text = found->second;
    }
    return text.size() <= limit;
}

bool TakeNumber(const Parameters& parameters, const char* name, int& number)
{
    const auto found = parameters.find(name);
    return found == parameters.end() || ReadNumber(found->second, number);
}

bool IsId(std::string_view text)
{
    uint32_t number = 0;
    return ReadNumber(text, number) && (text == "0" || text.front() != '0');
}

} // namespace

std::optional<ListRequest> ParseListRequest(std::string_view query)
{
    const auto parameters = ParseQuery(query);
    if (!parameters) {
        return std::nullopt;
    }
    ListRequest request;
    const bool read = TakeText(*parameters, "type", kLongestWord, request.type) &&
                      TakeNumber(*parameters, "offset", request.offset) &&
                      TakeNumber(*parameters, "limit", request.limit) &&
                      TakeText(*parameters, "query", kLongestQuery, request.query) &&
                      TakeText(*parameters, "domain", kLongestDomain, request.domain) &&
                      TakeText(*parameters, "filter", kLongestWord, request.filter);
    const bool inside = request.offset >= 0 && request.limit >= -1 && request.limit <= kLargestPage;
    const bool known =
        IsSettingType(request.type) && IsOneOf(request.filter, {"all", "enforced", "unenforced"});
    return read && inside && known ? std::optional(std::move(request)) : std::nullopt;
}

bool IsSettingType(std::string_view type)
{
    return IsOneOf(type,
                   {"local_user", "local_group", "domain_user", "domain_group", "ldap_user", "ldap_group"});
}

bool AreSettings(const Json::Value& settings)
{
    return settings.isArray() && std::all_of(settings.begin(), settings.end(), [](const Json::Value& row) {
               const auto id = row.isObject() ? TextMember(row, "id") : std::nullopt;
               return id && IsId(*id) && row["is_enforced"].isBool();
           });
}

} // namespace tavr::web
