// What the routes of enforcement are asked for: a page of a list, and picks to store.
#pragma once

#include <json/value.h>

#include <optional>
#include <string>
#include <string_view>

namespace tavr::web
{

inline constexpr int kLargestPage = 500;    // rows
inline constexpr int kLargestList = 10'000; // rows, of one that is asked for whole

struct ListRequest {
    std::string type;
    int offset = 0;
    int limit = 50; // -1: the whole list
    std::string query;
    std::string domain;
    std::string filter = "all";
};

// Out of an address's query, in which `type` alone has to stand. Empty when anything is not as it should be:
// an unknown type or filter, a number that is none or beyond its limits, a text that is too long, a name that
// comes twice. Names that it does not know are not looked at.
std::optional<ListRequest> ParseListRequest(std::string_view query);

bool IsSettingType(std::string_view type); // one of the six

// An array of objects, each with an `id` as lists give it (decimal, no leading zero, 32 bits) and a boolean
// `is_enforced`.
bool AreSettings(const Json::Value& settings);

} // namespace tavr::web
